#pragma once

#include <memory>

#include <brevane/Service.h>

namespace brevane {

/** Tells threads that wait for the base rate when the model starts, and also when it stops, so that none of
 * them outlives its model waiting. */
class KelvaroSyncService : public Service {
 public:
    static std::unique_ptr<Service> create();

    void initialize() override;
    void start() override;
    void stop() override;
};

}  // namespace brevane
