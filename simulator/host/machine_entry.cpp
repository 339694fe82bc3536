#include "host/machine_entry.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "active/active_machine.h"
#include "host/installation.h"
#include "host/machine_keeper.h"
#include "host/machine_server.h"
#include "host/state_folder.h"
#include "host/tree_writer.h"
#include "layout/format.h"
#include "layout/machine_layout.h"
#include "layout/soc_layout.h"

namespace kvsim {

namespace {

constexpr const char* kDefaultPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
constexpr std::size_t kMaxHostName = 63;

/** Puts folders in front of those that a variable of the environment lists. */
void prepend(std::string folders, const char* variable, const char* unlessSet) {
    const char* const value = std::getenv(variable);
    const std::string others = value == nullptr ? unlessSet : value;
    if (!others.empty()) {  // an empty entry would be the current folder
        folders += ":" + others;
    }
    ::setenv(variable, folders.c_str(), 1);
}

/** The machine's name, as far as a host may be called so. */
void takeHostName(std::string name) {
    std::ranges::replace_if(
        name, [](unsigned char letter) { return std::isalnum(letter) == 0; }, '-');
    name.resize(std::min(name.size(), kMaxHostName));
    if (::unshare(CLONE_NEWUTS) == 0) {
        (void)::sethostname(name.data(), name.size());  // for people to see; where it is forbidden it stays
    }
}

/** Keeps the name on one line. */
std::string recordOf(const std::string& name) {
    std::string line = name;
    std::ranges::replace(line, '\n', ' ');
    return format("%s\n%llu %d %d\n", line.c_str(),
                  static_cast<unsigned long long>(mountNamespaceOf(::getpid())), ::getpid(), ::getppid());
}

}  // namespace

ino_t mountNamespaceOf(pid_t process) {
    struct stat status {};
    return ::stat(format("/proc/%d/ns/mnt", process).c_str(), &status) == 0 ? status.st_ino : 0;
}

void setMachineEnvironment(const std::string& name) {
    prepend(kCommandFolder, "PATH", kDefaultPath);
    prepend(installationPrefix() / KVSIM_INSTALLED_LIBRARIES, "LD_LIBRARY_PATH", "");
    // sd-device believes that a /sys which is not the kernel's is none.
    ::setenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0", 1);
    ::setenv("KVSIM_MACHINE", name.c_str(), 1);
}

EnteredMachine enterMachine(const MachineDescription& description, const EntryOptions& options) {
    validate(description);
    FileTree tree = layOut(description);
    std::optional<MachineServer> server;
    if (isActive(description)) {
        tree.addFolder(kActiveFolder);
        server.emplace(description);
    }
    kv::os::UniqueFd stateLock;
    if (!options.stateFolder.empty()) {
        stateLock = lockStateFolder(options.stateFolder);
    }
    std::vector<MountPlace> places = claimMountPlaces();
    std::vector<MountPoint> mountPoints;
    for (MountPlace& place : places) {
        std::ranges::move(place.made, std::back_inserter(mountPoints));
    }
    MachineKeeper keeper(std::move(mountPoints), std::move(stateLock));

    EnteredMachine entered;
    entered.folders = enterPrivateMounts(places, options.stateFolder);
    std::vector<int> fileSystems;
    for (const CoveredFolder& covered : entered.folders) {
        fileSystems.push_back(covered.folder.get());
    }
    entered.keeper = std::move(keeper).watch(fileSystems);
    tree.addText(kMachineRecord, recordOf(options.name));
    writeTree(tree);
    if (server) {
        server->serve();
    }
    takeHostName(options.name);
    setMachineEnvironment(options.name);
    if (!options.stateFolder.empty()) {
        std::erase_if(entered.folders, [](const CoveredFolder& covered) { return isState(covered.path); });
    }
    return entered;
}

}  // namespace kvsim
