#pragma once

#include <kvsim/description_reader.h>
#include <kvsim/machine.h>
#include <string>

#include <nlohmann/json.hpp>

#include "support/machine_test.h"
#include "support/shell.h"

namespace kv::test {

inline Outcome kvctl(const std::string& arguments) {
    return shell(KVCTL_PROGRAM " " + arguments);
}

/** What a command prints for programs, without what it tells on standard error. */
inline nlohmann::json kvctlJson(const std::string& arguments) {
    return nlohmann::json::parse(kvctl(arguments + " --json 2>/dev/null").output);
}

/** One of the machines that come with the simulator. */
inline kvsim::Machine machineNamed(const std::string& name) {
    return kvsim::Machine(kvsim::readDescription(kvsim::findMachine(name)));
}

}  // namespace kv::test
