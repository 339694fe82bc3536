#pragma once

#include <memory>

#include <brevane/Service.h>

namespace brevane {

/** Tells threads that wait for the base rate when the model starts, and also when it stops: nobody waits
 * forever. */
class KelvaroSyncService : public Service {
 public:
    static std::unique_ptr<Service> create();

    void initialize() override;
    void start() override;
    void stop() override;
};

}  // namespace brevane
