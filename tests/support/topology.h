#pragma once

#include <cstdint>
#include <cstdlib>

#include <kv/pci.h>

namespace kv::test {

/** Frees a topology with everything below it. */
inline void releaseTopology(kv_topo_node* nodes, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        if (nodes[i].headerType == 1) {
            auto* bridge = reinterpret_cast<kv_topo_bridge*>(nodes[i].customData);
            releaseTopology(bridge->children, static_cast<int32_t>(bridge->nChildren));
            std::free(bridge);
        }
        std::free(nodes[i].interfaceType);
    }
    std::free(nodes);
}

/** A topology that is freed with this object. */
class OwnedTopology {
 public:
    explicit OwnedTopology(uint32_t bus = 0) : count_(kv_getPciTopologyAtBus(&nodes_, bus)) {}
    ~OwnedTopology() { releaseTopology(nodes_, count_); }
    OwnedTopology(const OwnedTopology&) = delete;
    OwnedTopology& operator=(const OwnedTopology&) = delete;

    [[nodiscard]] int32_t count() const { return count_; }
    [[nodiscard]] kv_topo_node* nodes() const { return nodes_; }

 private:
    kv_topo_node* nodes_ = nullptr;
    int32_t count_;
};

}  // namespace kv::test
