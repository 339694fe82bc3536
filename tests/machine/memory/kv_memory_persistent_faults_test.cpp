#include <filesystem>
#include <map>
#include <random>
#include <sys/mman.h>

#include "persistent_machine.h"

using kv::test::debug;
using kv::test::error;
using kv::test::inChild;
using kv::test::info;
using kv::test::kEntryAddress;
using kv::test::kFragmentBytes;
using kv::test::kListEntries;
using kv::test::kListObject;
using kv::test::Record;
using testing::ElementsAreArray;
using testing::MatchesRegex;

namespace {

/** A machine on which a process has left the blocks "log" (two fragments, 64 and 128 KiB) and "pid". */
class DamagedPersistentMemory : public kv::test::PersistentMachine {
 protected:
    void SetUp() override {
        PersistentMachine::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_EQ(inChild([] {
                      (void)kv_allocPersistentMemory("log", 100);
                      (void)kv_allocPersistentMemory("log", kFragmentBytes);
                      (void)kv_allocPersistentMemory("pid", 100);
                  }),
                  0);
        for (const std::string object : {"kv_persMem_main", "log", "pid"}) {
            sound_[object] = kvsim::Machine::read(objectPath(object));
        }
    }

    /** In a process of its own: none of the blocks is available, and all of them can be freed. */
    void expectRefusal(const std::string& name, const std::vector<std::string>& reasons) {
        const int reader = inChild([&] {
            EXPECT_EQ(kv_getPersistentMemory("pid"), nullptr);
            std::vector<Record> expected = {debug("Loaded descriptor list. 2 entries"),
                                            debug("Open shMem /" + name)};
            for (const std::string& reason : reasons) {
                expected.push_back(debug(reason));
            }
            expected.push_back(info("Open shared memory " + name + " failed"));
            expected.push_back(debug("PersMem list initialization failed"));
            expected.push_back(debug("Persistent memory not available pid"));
            EXPECT_THAT(log_.take(), ElementsAreArray(expected));

            kv_freePersistentMemory();
            EXPECT_EQ(kv_getPersistentMemory("pid"), nullptr);
            EXPECT_NE(kv_allocPersistentMemory("pid", 8), nullptr);
        });
        EXPECT_EQ(reader, 0);
    }

    /** All objects with their bytes. */
    static std::map<std::string, std::string> objects() {
        std::map<std::string, std::string> all;
        for (const auto& object : std::filesystem::directory_iterator("/dev/shm")) {
            all[object.path()] = kvsim::Machine::read(object.path());
        }
        return all;
    }

    void repair() const {
        for (const auto& [object, bytes] : sound_) {
            kvsim::Machine::write(objectPath(object), bytes);
        }
    }

    std::map<std::string, std::string> sound_;
    const std::string grownBlock_ = objectPath("log");
};

TEST_F(DamagedPersistentMemory, IsRefusedWhereAnObjectIsCutOff) {
    const struct {
        uint32_t bytes;
        const char* reason;
        const char* place;
    } cases[] = {{0, "mmap 1 failed: Input/output error", "main fragment"},
                 {47, "mmap 1 failed: Input/output error", "main fragment"},
                 {32768, "mmap 2 failed: Invalid argument", "main fragment"},
                 {65536, "mmap 1 failed: Input/output error", "fragment at offset 0x10000"},
                 {131072, "mmap 2 failed: Invalid argument", "fragment at offset 0x10000"}};
    for (const auto& each : cases) {
        std::filesystem::resize_file(grownBlock_, each.bytes);
        expectRefusal("log", {each.reason, std::string("Open ") + each.place + " failed"});
        repair();
    }
    kvsim::Machine::remove(grownBlock_);
    expectRefusal("log", {cases[0].reason, "Open main fragment failed"});
}

TEST_F(DamagedPersistentMemory, IsRefusedWhereAValueCannotBeRight) {
    constexpr std::size_t kSecond = kFragmentBytes;
    constexpr std::size_t kAddressInList = kListEntries + kEntryAddress;
    const uint64_t ownAddress = valueAt<uint64_t>(grownBlock_, 24);
    const struct {
        std::string object;
        std::size_t offset;
        uint64_t value;
        const char* place;
    } cases[] = {{grownBlock_, 16, 0, "main fragment"},
                 {grownBlock_, 16, 65000, "main fragment"},
                 {grownBlock_, 16, 1ULL << 40, "main fragment"},
                 {grownBlock_, kSecond + 16, ~0xFFFULL, "fragment at offset 0x10000"},
                 {grownBlock_, 8, 0x7800000000, "fragment at offset 0x10000"},
                 {grownBlock_, 8, ownAddress, "fragment at offset 0x10000"},
                 {grownBlock_, 24, 0x7800000000, "main fragment"},
                 {grownBlock_, 32, 4096, "main fragment"},
                 {grownBlock_, 40, 4096, "main fragment"},
                 {kListObject, kAddressInList, 0, "main fragment"},
                 {kListObject, kAddressInList, 0x7700000001, "main fragment"}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.object + " at " + std::to_string(each.offset) + ": " + std::to_string(each.value));
        setValueAt(each.object, each.offset, each.value);
        expectRefusal("log",
                      {"mmap 2 failed: Invalid argument", std::string("Open ") + each.place + " failed"});
        repair();
    }
}

TEST_F(DamagedPersistentMemory, IsRefusedWhereANameCannotBeRight) {
    for (const std::string& name : {std::string(), std::string(50, 'n')}) {
        std::string list = sound_["kv_persMem_main"];
        list.replace(kListEntries, 50, (name + std::string(50, '\0')).substr(0, 50));
        kvsim::Machine::write(kListObject, list);
        expectRefusal(name, {name.empty() ? "shm_open failed: Invalid argument"
                                          : "shm_open failed: File name too long"});
        repair();
    }
    setValueAt<uint32_t>(kListObject, 0, 0xFFFFFFFF);
    EXPECT_EQ(kv_getPersistentMemory("log"), nullptr);
    EXPECT_EQ(log_.take().front(), debug("Loaded descriptor list. 1023 entries"))
        << "no more than a list may hold";
}

TEST_F(DamagedPersistentMemory, StaysUntouchedByTheTrialOfANewBlock) {
    setValueAt<uint64_t>(grownBlock_, 16, 0);
    kvsim::Machine::write(objectPath("stale"), "old");
    const std::vector<Record> load = {
        debug("Loaded descriptor list. 2 entries"), debug("Open shMem /log"),
        debug("mmap 2 failed: Invalid argument"),   debug("Open main fragment failed"),
        info("Open shared memory log failed"),      debug("PersMem list initialization failed")};
    const auto objectsBefore = objects();
    for (const std::string name : {"new", "pid", "stale", "a/b"}) {
        std::vector<Record> expected = load;
        if (name == "a/b") {
            expected.push_back(debug("shm_open failed: Invalid argument"));
            expected.push_back(debug("PersMem file creation failed: a/b"));
        } else {
            expected.insert(expected.end(), load.begin(), load.end());
            expected.push_back(debug("Could not add PersMem to list: " + name));
        }
        expected.push_back(error("Persistent memory not available: " + name + " - creating failed"));
        EXPECT_EQ(kv_allocPersistentMemory(name.c_str(), 8), nullptr);
        EXPECT_EQ(log_.take(), expected);
        EXPECT_EQ(objects(), objectsBefore) << name;
    }
}

TEST_F(DamagedPersistentMemory, NeverCrashesItsReaderWhateverTheBytes) {
    std::minstd_rand random(7);
    for (int round = 0; round < 300; ++round) {
        for (const auto& [object, sound] : sound_) {
            std::string bytes = sound;
            // Damage tells in the heads of fragments and in the count and entries of the list.
            const std::size_t area = object == "log" && random() % 2 == 0 ? kFragmentBytes : 0;
            const std::size_t length = object == "kv_persMem_main" ? 700 : 48;
            for (auto damaged = random() % 4; damaged > 0 && area < bytes.size(); --damaged) {
                bytes[area + random() % length] = static_cast<char>(random());
            }
            if (random() % 8 == 0) {
                bytes.resize(random() % bytes.size());
            }
            kvsim::Machine::write(objectPath(object), bytes);
        }
        const int status = inChild([] {
            for (const char* name : {"log", "pid", "new"}) {
                if (auto* memory = static_cast<char*>(kv_allocPersistentMemory(name, 3000))) {
                    std::memset(memory, 1, 3000);
                }
            }
        });
        ASSERT_EQ(status, 0) << "round " << round;
        ASSERT_EQ(inChild([] { kv_freePersistentMemory(); }), 0) << "round " << round;
    }
}

TEST_F(DamagedPersistentMemory, LeavesWhatOccupiesAnOldAddressAlone) {
    auto* wanted = reinterpret_cast<char*>(valueAt<uint64_t>(grownBlock_, 8));
    void* occupied = ::mmap(wanted, 4096, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    ASSERT_EQ(occupied, wanted);
    *wanted = 42;
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(kv_getPersistentMemory("pid"), nullptr);
        const auto records = log_.take();
        ASSERT_EQ(records.size(), 7U);
        EXPECT_THAT(records[2].text, MatchesRegex("KV: mmap 2 failed: got 0x +0, expected 0x +[0-9A-F]+"));
        EXPECT_EQ(records[3], debug("Open fragment at offset 0x10000 failed"));
        EXPECT_EQ(*wanted, 42);
    }
    EXPECT_EQ(kv_allocPersistentMemory("pid", 8), nullptr) << "and does not replace what it cannot reach";
    limitSharedMemory(5UL * kFragmentBytes, MS_REMOUNT);  // full
    EXPECT_EQ(kv_allocPersistentMemory("new", 8), nullptr);
    EXPECT_EQ(log_.take().end()[-2], debug("PersMem file creation failed: new"));

    ::munmap(occupied, 4096);
    EXPECT_NE(kv_getPersistentMemory("pid"), nullptr) << "nothing of the failed attempts is in the way";
}

}  // namespace
