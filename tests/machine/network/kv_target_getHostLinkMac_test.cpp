#include <array>
#include <random>

#include "network_machine.h"

using kv::test::error;
using kv::test::kTranslationFile;
using kvsim::Machine;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Mac = std::array<unsigned char, KV_MAC_SIZE>;

constexpr unsigned char kUntouched = 0xAA;

class HostLinkMac : public kv::test::NetworkMachine {
 protected:
    void SetUp() override {
        ENTER_MACHINE(machine_);
        mac_.fill(kUntouched);
    }

    int readMacWith(const std::string& translation) {
        Machine::write(kTranslationFile, translation);
        return kv_target_getHostLinkMac(mac_.data());
    }

    Mac mac_{};
};

// The kernel's interfaces are not the machine's. The one that every kernel has is the loop-back.
TEST_F(HostLinkMac, IsThatOfTheNamedInterface) {
    const auto before = openFiles();
    for (const char* translation : {"lo:-1:Hostlink;", "eth0:0:ETH1;;Hostlink;lo:1:Hostlink"}) {
        mac_.fill(kUntouched);
        EXPECT_EQ(readMacWith(translation), 0);
        EXPECT_THAT(mac_, ElementsAre(0, 0, 0, 0, 0, 0, kUntouched, kUntouched)) << translation;
    }
    EXPECT_EQ(openFiles(), before);
    EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(HostLinkMac, IsMissedWithoutAWordWhereTheKernelHasNoSuchInterface) {
    for (const char* translation : {"nosuch0:-1:Hostlink;", "l:0:Hostlink;", "lo0:0:Hostlink;"}) {
        EXPECT_EQ(readMacWith(translation), -1);
    }
    EXPECT_THAT(mac_, Each(kUntouched));
    EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(HostLinkMac, IsMissedWhereTheFileNamesNoHostLink) {
    const auto notDetermined = ElementsAre(error("Failed to determine default host link interface"));
    EXPECT_EQ(kv_target_getHostLinkMac(mac_.data()), -1) << "no file";
    EXPECT_THAT(log_.take(), notDetermined);

    std::mt19937 random(7);
    std::string garbage(1 << 20, '\0');
    for (char& byte : garbage) {
        byte = static_cast<char>(random());
    }
    const std::string endless(1 << 20, 'x');
    for (const std::string& translation :
         {std::string(), std::string(";;"), std::string("lo Hostlink;"), std::string(":0:Hostlink;"),
          std::string("lo:0:Onboard;"), garbage, endless}) {
        EXPECT_EQ(readMacWith(translation), -1) << translation.substr(0, 40);
        EXPECT_THAT(log_.take(), notDetermined);
    }
    Machine::replaceByFolder(kTranslationFile);
    EXPECT_EQ(kv_target_getHostLinkMac(mac_.data()), -1) << "unreadable";
    EXPECT_THAT(log_.take(), notDetermined);
    EXPECT_THAT(mac_, Each(kUntouched));
}

}  // namespace
