#pragma once

#include <set>
#include <string>
#include <vector>

namespace kvsim {

/** What the simulator keeps for itself on the machine; nothing below it is a program's. */
inline constexpr const char* kSimulatorFolder = "/run/kvsim";

/**
 * The simulator's account of the files that it has made on a machine, so that what programs made can be told
 * from them. It is a file of the machine, which every process of the simulator adds to.
 */
inline constexpr const char* kMadeFiles = "/run/kvsim/made";

/**
 * Adds paths to the account. A path that ends in a slash stands for all that is below it, too. An account
 * that can't be written is passed over: more files look like a program's then.
 */
void noteMadeFiles(const std::vector<std::string>& paths);

/** The account, read. */
class MadeFiles {
 public:
    /** Reads from an open folder of the machine and a path below it. Empty where there is no account. */
    MadeFiles(int folder, const std::string& path);

    /** The simulator made the file, or something below it. */
    [[nodiscard]] bool holds(const std::string& path) const;
    /** Nothing below the path is a program's. */
    [[nodiscard]] bool holdsAllBelow(const std::string& path) const { return paths_.contains(path + "/"); }

 private:
    std::set<std::string> paths_;
};

}  // namespace kvsim
