#pragma once

#include <memory>
#include <string>
#include <vector>

#include <brevane/Service.h>

namespace brevane {

/** One instance of every registered service, for one run of a model. Destroyed in reverse order. */
class ServiceSet {
 public:
    ServiceSet() = default;
    ~ServiceSet();
    ServiceSet(const ServiceSet&) = delete;
    ServiceSet& operator=(const ServiceSet&) = delete;

    /** Each of these throws std::runtime_error that names the service that failed and why. */
    void create();
    void initialize();
    void start();

    /** Stops the service that was started last. */
    void stopLast();
    [[nodiscard]] bool anyStarted() const noexcept { return started_ > 0; }

 private:
    struct Entry {
        std::string name;
        std::unique_ptr<Service> service;
    };

    std::vector<Entry> entries_;
    std::size_t started_ = 0;
};

}  // namespace brevane
