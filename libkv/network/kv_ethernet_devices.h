#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <kv/pci.h>

/** The machine's Ethernet controllers behind PCI. */
struct EthernetDevices {
    kv::OwnedTopology topology;       /**< what the nodes' pointers lead into */
    std::vector<_kv_topo_node> nodes; /**< in ascending (bus, slot, function) order */
};

/** Scans the bus. @return null, with a log record, where the machine offers no access to PCI */
std::unique_ptr<const EthernetDevices> getEthernetDevices();

/** Appends the Ethernet controllers of a branch of the topology, in the order in which they are met. */
void filterEthernetDevices(int level, _kv_topo_node* branch, uint32_t nElements,
                           std::vector<_kv_topo_node>& deviceListOut);

/** @return the network interface of a PCI function; empty where it has none */
std::string pciInterfaceName(const _kv_topo_node& node);

/**
 * Appends the chip's own Ethernet interfaces to a translation text, with index -1 and labelled "Onboard".
 *
 * @return 0; -1, with a log record, where a device could not be read
 */
int appendAxiEthInterfaces(std::string& ethStr);
