#include <cerrno>
#include <csignal>
#include <filesystem>
#include <regex>
#include <sys/resource.h>
#include <vector>

#include "persistent_machine.h"

using kv::test::debug;
using kv::test::error;
using kv::test::inChild;
using kv::test::kEntryAddress;
using kv::test::kEntryBytes;
using kv::test::kFragmentBytes;
using kv::test::kHeadBytes;
using kv::test::kListEntries;
using kv::test::kListObject;
using kv::test::kUsableBytes;
using kv::test::Record;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

char* allocate(const char* name, uint32_t size) {
    return static_cast<char*>(kv_allocPersistentMemory(name, size));
}

/** The records of a full shared memory. */
std::vector<Record> fullMemory(const std::string& failure) {
    return {debug("ftruncate failed: No space left on device"), debug(failure)};
}

class PersistentMemory : public kv::test::PersistentMachine {};

TEST_F(PersistentMemory, PacksWhatIsTakenFromABlockByteByByte) {
    char* first = allocate("pid", 100);
    EXPECT_THAT(log_.take(), ElementsAre(debug("Loaded descriptor list. 0 entries")));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(allocate("pid", 7), first + 100);
    EXPECT_EQ(allocate("pid", 0), first + 107);
    EXPECT_EQ(allocate("pid", 1), first + 107);
    char* other = allocate("filter", 8);
    EXPECT_EQ(kv_getPersistentMemory("pid"), first) << "not what was taken last";
    EXPECT_EQ(kv_getPersistentMemory("filter"), other);
    EXPECT_THAT(log_.take(), IsEmpty());

    EXPECT_EQ(kv_getPersistentMemory("pi"), nullptr) << "the start of a name is another name";
    EXPECT_THAT(log_.take(), ElementsAre(debug("Persistent memory not available pi")));
}

TEST_F(PersistentMemory, GrowsABlockByFragmentsAndFillsTheFirstThatFits) {
    char* first = allocate("log", kUsableBytes - 10);
    char* second = allocate("log", 11);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(std::filesystem::file_size(objectPath("log")), 2 * kFragmentBytes);
    EXPECT_EQ(allocate("log", 10), first + kUsableBytes - 10)
        << "the rest of the first fragment, to its last byte";
    EXPECT_EQ(allocate("log", 1), second + 11);

    // A fragment is always a byte longer than what it is made for.
    EXPECT_NE(allocate("log", 2 * kFragmentBytes - kHeadBytes), nullptr);
    EXPECT_EQ(std::filesystem::file_size(objectPath("log")), 5 * kFragmentBytes);
    EXPECT_NE(allocate("log", 2 * kFragmentBytes - kHeadBytes - 1), nullptr);
    EXPECT_EQ(std::filesystem::file_size(objectPath("log")), 7 * kFragmentBytes);
    EXPECT_EQ(kv_getPersistentMemory("log"), first);
}

TEST_F(PersistentMemory, LiesInSharedMemoryInItsFixedFormat) {
    (void)allocate("first", 1);
    const uint64_t address = addressOf(allocate("pid", 100)) - kHeadBytes;
    const uint64_t grown = addressOf(allocate("pid", kFragmentBytes)) - kHeadBytes;

    EXPECT_EQ(std::filesystem::file_size(kListObject), 65536U);
    EXPECT_EQ(valueAt<uint32_t>(kListObject, 0), 2U);
    EXPECT_STREQ(&kvsim::Machine::read(kListObject)[kListEntries + kEntryBytes], "pid");
    EXPECT_EQ(valueAt<uint64_t>(kListObject, kListEntries + kEntryBytes + kEntryAddress), address);

    const std::string object = objectPath("pid");
    EXPECT_GT(valueAt<int32_t>(object, 0), 0) << "the descriptor";
    EXPECT_EQ(valueAt<uint32_t>(object, 4), 3 * kFragmentBytes) << "the size of the object";
    EXPECT_EQ(valueAt<uint64_t>(object, 8), grown) << "the next fragment";
    EXPECT_EQ(valueAt<uint64_t>(object, 16), kFragmentBytes);
    EXPECT_EQ(valueAt<uint64_t>(object, 24), address);
    EXPECT_EQ(valueAt<uint64_t>(object, 32), address + kHeadBytes);
    EXPECT_EQ(valueAt<uint64_t>(object, 40), address + kHeadBytes + 100);

    EXPECT_EQ(valueAt<uint64_t>(object, kFragmentBytes), 0U) << "descriptor and size stand in the first head";
    EXPECT_EQ(valueAt<uint64_t>(object, kFragmentBytes + 8), 0U) << "the last fragment";
    EXPECT_EQ(valueAt<uint64_t>(object, kFragmentBytes + 16), 2 * kFragmentBytes);
    EXPECT_EQ(valueAt<uint64_t>(object, kFragmentBytes + 24), grown);
    EXPECT_EQ(valueAt<uint64_t>(object, kFragmentBytes + 40), grown + kHeadBytes + kFragmentBytes);
}

TEST_F(PersistentMemory, HasRoomFor1023BlocksAndCountsFurtherAttempts) {
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    setrlimit(RLIMIT_NOFILE, &descriptors);
    if (descriptors.rlim_max < 1100) {
        GTEST_SKIP() << "a process here may have " << descriptors.rlim_max << " descriptors, 1100 are needed";
    }
    const std::size_t withoutSecondPage = 1018UL * kFragmentBytes;
    limitSharedMemory(withoutSecondPage);
    const int writer = inChild([&, this] {
        for (int i = 0; i < 1023; ++i) {
            char* memory = allocate(("block " + std::to_string(i)).c_str(), 1);
            ASSERT_NE(memory, nullptr) << i;
            *memory = static_cast<char>(i);
            if (i == 1015) {
                EXPECT_EQ(std::filesystem::file_size(kListObject), 65536U) << "the last entry that fits";
                log_.take();
                EXPECT_EQ(allocate("block 1016", 1), nullptr) << "the list has no memory to grow";
                auto expected = fullMemory("Could not add PersMem to list: block 1016");
                expected.push_back(error("Persistent memory not available: block 1016 - creating failed"));
                EXPECT_EQ(log_.take(), expected);
                EXPECT_FALSE(std::filesystem::exists(objectPath("block 1016")));
                limitSharedMemory(withoutSecondPage + 8UL * kFragmentBytes, MS_REMOUNT);
            }
        }
        log_.take();
        for (uint32_t attempt = 1; attempt <= 2; ++attempt) {
            EXPECT_EQ(allocate("one more", 8), nullptr);
            EXPECT_THAT(log_.take(),
                        ElementsAre(debug("PersMem list - running out of slots"),
                                    debug("Could not add PersMem to list: one more"),
                                    error("Persistent memory not available: one more - creating failed")));
            EXPECT_EQ(valueAt<uint32_t>(kListObject, 0), 1023 + attempt);
            EXPECT_FALSE(std::filesystem::exists(objectPath("one more")));
        }
        setValueAt<uint32_t>(kListObject, 0, 0xFFFFFFFF);
        EXPECT_EQ(allocate("one more", 8), nullptr);
        EXPECT_EQ(valueAt<uint32_t>(kListObject, 0), 0xFFFFFFFF) << "it must not begin at 0 again";
    });
    EXPECT_EQ(writer, 0);
    const int reader = inChild([] {
        for (int i = 0; i < 1023; ++i) {
            const auto* memory =
                static_cast<char*>(kv_getPersistentMemory(("block " + std::to_string(i)).c_str()));
            ASSERT_NE(memory, nullptr) << i;
            EXPECT_EQ(*memory, static_cast<char>(i));
        }
    });
    EXPECT_EQ(reader, 0);
}

TEST_F(PersistentMemory, IsRefusedWhereSharedMemoryIsFull) {
    constexpr std::size_t kPage = 4096;
    limitSharedMemory(kFragmentBytes - kPage);
    EXPECT_EQ(kv_getPersistentMemory("log"), nullptr);
    EXPECT_EQ(log_.take().front(), debug("ftruncate failed: No space left on device")) << "the list";

    limitSharedMemory(4 * kFragmentBytes - kPage, MS_REMOUNT);
    char* first = allocate("log", kUsableBytes - 10);
    char* second = allocate("log", 11);
    ASSERT_NE(second, nullptr);
    log_.take();
    EXPECT_EQ(allocate("pid", 8), nullptr);
    auto expected = fullMemory("PersMem file creation failed: pid");
    expected.push_back(error("Persistent memory not available: pid - creating failed"));
    EXPECT_EQ(log_.take(), expected);
    EXPECT_FALSE(std::filesystem::exists(objectPath("pid")));
    EXPECT_EQ(allocate("log", kUsableBytes), second + 11) << "where its free bytes begin";
    EXPECT_EQ(log_.take(), fullMemory("Could not enlarge persistent memory"));
    std::memset(first, 1, kUsableBytes);
    std::memset(second, 1, kUsableBytes);

    limitSharedMemory(6 * kFragmentBytes, MS_REMOUNT);
    EXPECT_NE(allocate("pid", 8), nullptr) << "none of it was kept back";
}

TEST_F(PersistentMemory, IsGoneOnceItIsFreed) {
    const char* pid = allocate("pid", 100);
    (void)allocate("filter", 100);
    const auto mapped = [] {
        const std::string maps = kvsim::Machine::read("/proc/self/maps");
        const std::regex object("/dev/shm/");
        return std::distance(std::sregex_iterator(maps.begin(), maps.end(), object), std::sregex_iterator());
    };
    const auto mappedBefore = mapped();
    kvsim::Machine::remove(objectPath("filter"));
    log_.take();

    kv_freePersistentMemory();
    EXPECT_THAT(log_.take(), ElementsAre(debug("Unlinked persistent memory: pid"),
                                         debug("shm_unlink filter failed: No such file or directory"),
                                         debug("Unlinked persistent memory: kv_persMem_main")));
    EXPECT_TRUE(std::filesystem::is_empty("/dev/shm"));
    EXPECT_EQ(mapped(), mappedBefore) << "the blocks and the list";
    EXPECT_EQ(*pid, 0);

    EXPECT_EQ(kv_getPersistentMemory("pid"), nullptr);
    EXPECT_THAT(log_.take(), ElementsAre(debug("Loaded descriptor list. 0 entries"),
                                         debug("Persistent memory not available pid")));
    char* memory = allocate("pid", 8);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(kv_getPersistentMemory("pid"), memory);
}

TEST_F(PersistentMemory, RefusesNamesThatCannotBeObjects) {
    for (const std::string name : {"", "a/b", "kv_persMem_main"}) {
        (void)kv_getPersistentMemory("load the list");
        log_.take();
        EXPECT_EQ(allocate(name.c_str(), 8), nullptr) << name;
        auto records = log_.take();
        ASSERT_GE(records.size(), 2U);
        EXPECT_EQ(records.back(), error("Persistent memory not available: " + name + " - creating failed"));
        EXPECT_EQ(records[records.size() - 2], debug("PersMem file creation failed: " + name));
    }
    EXPECT_EQ(valueAt<uint32_t>(kListObject, 0), 0U);

    EXPECT_NE(allocate(std::string(49, 'n').c_str(), 8), nullptr);
    const int status = inChild([] { (void)allocate(std::string(50, 'n').c_str(), 8); });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
    EXPECT_EQ(valueAt<uint32_t>(kListObject, 0), 1U) << "a name that was refused is not listed";
}

TEST_F(PersistentMemory, ReturnsTheFreeRestWhereABlockCannotGrow) {
    char* first = allocate("log", kUsableBytes - 10);
    log_.take();
    std::signal(SIGXFSZ, SIG_IGN);
    const rlim_t mappedBytes = std::stoul(kvsim::Machine::read("/proc/self/statm")) * 4096;
    const struct {
        __rlimit_resource resource;
        rlim_t limit;
        const char* reason;
    } cases[] = {
        {RLIMIT_AS, mappedBytes + (1UL << 22), "mmaping additional memory failed: Cannot allocate memory"},
        {RLIMIT_FSIZE, kFragmentBytes, "ftruncate failed: File too large"}};
    for (const auto& each : cases) {
        const rlimit noGrowth{each.limit, RLIM_INFINITY};
        setrlimit(each.resource, &noGrowth);
        EXPECT_EQ(allocate("log", 1U << 23), first + kUsableBytes - 10);
        EXPECT_THAT(log_.take(),
                    ElementsAre(debug(each.reason), debug("Could not enlarge persistent memory")));
        EXPECT_EQ(std::filesystem::file_size(objectPath("log")), kFragmentBytes) << each.reason;
    }
    EXPECT_EQ(allocate("log", 0x7FFFFFFF), first + kUsableBytes - 10);
    EXPECT_EQ(allocate("log", 10), first + kUsableBytes - 10) << "it has not been given away";
}

TEST_F(PersistentMemory, TellsWhichObjectCannotBeOpened) {
    const auto noList = [] {
        return ElementsAre(debug("shm_open failed: Invalid argument"),
                           debug("PersMem main file creation failed"),
                           debug("PersMem list initialization failed"));
    };
    kvsim::Machine::replaceByFolder(kListObject);
    kv_freePersistentMemory();
    EXPECT_THAT(log_.take(), noList());
    EXPECT_EQ(allocate("pid", 8), nullptr);
    auto records = log_.take();
    ASSERT_EQ(records.size(), 8U);
    EXPECT_EQ(records[6], debug("Could not add PersMem to list: pid"));
    EXPECT_EQ(records[7], error("Persistent memory not available: pid - creating failed"));
    records.resize(3);
    EXPECT_THAT(records, noList());
    EXPECT_FALSE(std::filesystem::exists(objectPath("pid")));
    EXPECT_EQ(allocate("a/b", 8), nullptr);
    EXPECT_EQ(log_.take().end()[-2], debug("PersMem file creation failed: a/b"));

    kvsim::Machine::remove(kListObject);
    kvsim::Machine::replaceByFolder(objectPath("pid"));
    EXPECT_EQ(allocate("pid", 8), nullptr);
    EXPECT_THAT(log_.take(), ElementsAre(debug("Loaded descriptor list. 0 entries"),
                                         debug("shm_open failed: Invalid argument"),
                                         debug("PersMem file creation failed: pid"),
                                         error("Persistent memory not available: pid - creating failed")));
    kvsim::Machine::remove(objectPath("pid"));
    EXPECT_NE(allocate("pid", 8), nullptr) << "once the obstacle is gone";
}

}  // namespace
