/**
 * @file
 * What lives and starts with a model.
 */
#pragma once

#include <memory>
#include <string>

#include <brevane/export.h>

namespace brevane {

/**
 * Something that lives and starts with a model.
 *
 * Libraries register a factory while they are loaded. For each model the kernel creates every registered
 * service, in order of registration, and calls initialize() before the model's own initialisation, start()
 * before the first step and, in reverse order, stop() after the last, all from the thread that runs
 * Kernel::run(). Only services that were started are stopped. A std::exception from any of them fails the
 * run.
 */
class BREVANE_EXPORT Service {
 public:
    /** Makes one service. Null is no service and fails the run. */
    using Factory = std::unique_ptr<Service> (*)();

    virtual ~Service();
    /** Before the model's own initialisation. */
    virtual void initialize() = 0;
    /** After it, before the start callbacks and the first step. */
    virtual void start() = 0;
    /** After the last step, before the model terminates. */
    virtual void stop() = 0;

    /**
     * Registers the factory of a service under a name. May be called from any thread, and from static
     * initialisers whatever the order in which libraries are loaded. The next run is the first to see the
     * service.
     *
     * @return false when the name is taken (the first registration then stays) or the factory is null
     */
    static bool doRegister(const std::string& name, Factory factory);
};

}  // namespace brevane
