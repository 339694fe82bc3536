#include <csignal>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include "network_machine.h"
#include "os/unique_fd.h"

using kv::test::debug;
using kv::test::error;
using kv::test::kTranslationFile;
using kvsim::Machine;
using testing::Contains;
using testing::ElementsAre;

namespace {

const std::string kPlatformDevice = "/sys/devices/platform/axi/ff0e0000.ethernet";
constexpr const char* kUnlabelled = "kv_translateEthernetInterfaces: ethStr before labeling: ";

class Translation : public kv::test::NetworkMachine {
 protected:
    static void expectFile(const std::string& text) {
        EXPECT_EQ(kv_translateEthernetInterfaces(), 0);
        EXPECT_EQ(Machine::read(kTranslationFile), text);
    }

    template <typename... Line>
    void expectFailure(const Line&... lines) {
        (void)log_.take();
        EXPECT_EQ(kv_translateEthernetInterfaces(), -1);
        EXPECT_THAT(log_.take(), ElementsAre(error(lines)...));
    }
};

TEST_F(Translation, ListsTheChipsOwnInterfacesAndThenPciControllersByAddress) {
    addPlatformInterface("axi/ff0e0000.ethernet", "end0");
    addPlatformInterface("axi/ff0f0000.modem", "wwan0");  // no Ethernet
    addBridge(0, 1, 4);
    addBridge(4, 2, 6);
    addBridge(4, 1, 5);
    addController(6, 0x1533).networkInterface("eth7");
    addController(5, 0x1533).networkInterface("eth9");
    addBridge(0, 2, 8);
    addBridge(8, 1, 9);
    addBridge(8, 2, 10);
    addController(9, 0x1533).networkInterface("nma.ethernet0");
    addController(10, 0x1533);  // no driver has made an interface of it
    addBridge(0, 3, 11);
    addController(11, 0x1229, 0, 0).networkInterface("nmj0");
    addController(11, 0x1229, 0, 1).networkInterface("nmj1");
    addController(11, 0x107C, 0, 2).networkInterface("nmh0");
    addController(0, 0x1533, 9).networkInterface("eth1");
    addController(11, 0x1533, 3).networkInterface("wlan0");
    kvsim::PciFunction noEthernet{.bus = 11, .slot = 4, .vendor = 0x8086, .device = 0x1533};
    noEthernet.classCode = 0x028000;
    machine_.addPciFunction(noEthernet).networkInterface("wlan1");
    ENTER_MACHINE(machine_);

    expectFile(
        "end0:-1:Hostlink;eth1:0:ETH1;eth9:1:ETH2;eth7:2:ETH3;nma.ethernet0:3:NMA_1A;:4:NMA_1B;"
        "nmh0:7:NMH_1;wlan0:8:Onboard;");
    EXPECT_THAT(log_.take(), ElementsAre(debug(std::string(kUnlabelled) +
                                               "end0:-1:Onboard;eth1:0:Onboard;eth9:1:Onboard;eth7:2:Onboard;"
                                               "nma.ethernet0:3:NMA;:4:NMA;nmh0:7:NMH;wlan0:8:Onboard;")));
}

TEST_F(Translation, WritesTheWholeFileAnewAndLeavesNothingOpen) {
    addPlatformInterface("axi/ff0e0000.ethernet", "end0");
    addController(0, 0x1533, 9).networkInterface("eth1");
    ENTER_MACHINE(machine_);
    Machine::remove("/usr/kelvaro/sysinfo");
    expectFile("end0:-1:Hostlink;eth1:0:ETH1;");

    const auto before = openFiles();
    Machine::remove("/sys/class/net/end0");
    expectFile("eth1:0:Hostlink;");
    Machine::remove("/sys/class/net");
    Machine::remove("/sys/bus/pci/devices/0000:00:09.0/net");
    expectFile(":0:Hostlink;");
    Machine::remove("/sys/bus/pci/devices/0000:00:09.0");
    expectFile("");
    EXPECT_EQ(openFiles(), before);
}

TEST_F(Translation, FailsWhereADeviceCannotBeRead) {
    addPlatformInterface("axi/ff0e0000.ethernet", "end0");
    addPlatformInterface("axi/ff0f0000.ethernet", "end1");
    ENTER_MACHINE(machine_);
    Machine::write(kTranslationFile, "as it was");
    const auto before = openFiles();
    Machine::remove(kPlatformDevice + "/subsystem");
    expectFailure("Error getting device parent subsystem: No such file or directory",
                  "Failed to find interface name");
    Machine::remove(kPlatformDevice + "/uevent");  // no device any more
    expectFailure("Error getting device parent: No such file or directory", "Failed to find interface name");
    EXPECT_EQ(openFiles(), before);
    EXPECT_EQ(Machine::read(kTranslationFile), "as it was");
}

TEST_F(Translation, FailsWithoutAccessToPci) {
    addPlatformInterface("axi/ff0e0000.ethernet", "end0");
    ENTER_MACHINE(machine_);
    Machine::remove("/sys/bus/pci/devices");
    expectFailure("PCI topology detection failure!");
    EXPECT_FALSE(std::filesystem::exists(kTranslationFile));
}

TEST_F(Translation, FailsWhereTheFileCannotBeMade) {
    ENTER_MACHINE(machine_);
    EXPECT_EQ(kv_translateEthernetInterfaces(), 0);
    const auto before = openFiles();
    (void)log_.take();
    Machine::replaceByFolder(kTranslationFile);
    EXPECT_EQ(kv_translateEthernetInterfaces(), -1);
    EXPECT_THAT(log_.take(), Contains(error("Failed to create file: " + kTranslationFile)));
    Machine::remove("/usr/kelvaro/sysinfo");
    Machine::write("/usr/kelvaro/sysinfo", "no folder");
    EXPECT_EQ(kv_translateEthernetInterfaces(), -1);
    EXPECT_THAT(log_.take(), Contains(error("Failed to create directory: /usr/kelvaro/sysinfo")));
    EXPECT_EQ(openFiles(), before);
}

TEST_F(Translation, LeavesTheFileAsItWasWhereTheDiskIsFull) {
    addPlatformInterface("axi/ff0e0000.ethernet", "end0");
    ENTER_MACHINE(machine_);
    const std::string folder = "/usr/kelvaro/sysinfo";
    const std::string page(4096, 'x');
    const auto full = error("Failed to write file: " + kTranslationFile + ": No space left on device");
    ASSERT_EQ(::mount("full", folder.c_str(), "tmpfs", 0, "size=8k"), 0);
    Machine::write(folder + "/other", page);
    const auto before = openFiles();

    Machine::write(folder + "/more", page);
    EXPECT_EQ(kv_translateEthernetInterfaces(), -1);
    EXPECT_EQ(log_.take().back(), full);
    EXPECT_FALSE(std::filesystem::exists(kTranslationFile));
    Machine::write(kTranslationFile, "");
    std::filesystem::permissions(folder, std::filesystem::perms(0700));
    (void)::setresuid(65534, -1, -1);  // its real user cannot look into the folder
    EXPECT_EQ(kv_translateEthernetInterfaces(), -1);
    EXPECT_EQ(log_.take().back(), full);
    EXPECT_EQ(Machine::read(kTranslationFile), "");

    Machine::remove(folder + "/more");
    for (const std::string& old : {std::string("old"), std::string(1000, 'o')}) {
        Machine::write(kTranslationFile, old);
        const std::filesystem::path hardLink = folder + "/same";
        std::filesystem::create_hard_link(kTranslationFile, hardLink);
        expectFile("end0:-1:Hostlink;");
        EXPECT_EQ(Machine::read(hardLink), "end0:-1:Hostlink;") << "the file keeps its place";
        Machine::remove(hardLink);
    }
    Machine::write(kTranslationFile, std::string(1000, 'o'));
    (void)::signal(SIGXFSZ, SIG_IGN);
    constexpr rlimit kFewBytes{5, RLIM_INFINITY};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &kFewBytes), 0);
    EXPECT_EQ(kv_translateEthernetInterfaces(), -1);
    EXPECT_EQ(Machine::read(kTranslationFile), std::string(1000, 'o')) << "writing failed midway";
    EXPECT_EQ(openFiles(), before);
    Machine::remove(folder + "/other");
    ASSERT_EQ(::umount(folder.c_str()), 0);
}

TEST_F(Translation, IsWholeOrFailsWithHoweverFewDescriptors) {
    addPlatformInterface("axi/ff0e0000.ethernet", "end0");
    addPlatformInterface("axi/ff0f0000.ethernet", "end1");
    addController(0, 0x1533, 9).networkInterface("eth0");
    ENTER_MACHINE(machine_);
    Machine::write("/sys/class/net/bonding_masters", "");  // no interface
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    const int lowest = kv::os::openFile("/", O_RDONLY).get();
    int left = 0;
    for (int result = -1; result != 0 && left < 20; ++left) {
        Machine::write(kTranslationFile, "as it was");
        const rlimit few{static_cast<rlim_t>(lowest + left), former.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
        (void)log_.take();
        result = kv_translateEthernetInterfaces();
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
        const std::string text = Machine::read(kTranslationFile);
        if (result == 0) {
            EXPECT_THAT(text, testing::MatchesRegex("end0:-1:Hostlink;end1:-1:ETH1;(eth0)?:0:ETH2;")) << left;
        } else {
            EXPECT_EQ(text, "as it was") << left;
            EXPECT_THAT(log_.take(), testing::Not(testing::IsEmpty())) << left;
        }
    }
    EXPECT_GT(left, 3);
    EXPECT_LT(left, 20);
}

}  // namespace
