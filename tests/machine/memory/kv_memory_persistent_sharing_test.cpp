// Persistent memory that several processes use at once, or that another one has written to.

#include <array>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "os/unique_fd.h"
#include "persistent_machine.h"

using kv::test::debug;
using kv::test::error;
using kv::test::inChild;
using kv::test::info;
using kv::test::kFragmentBytes;
using kv::test::kHeadBytes;
using kv::test::kListObject;
using kv::test::kUsableBytes;
using kv::test::Record;
using kv::test::sharedWithChildren;
using kv::test::startChild;
using kv::test::waitFor;

namespace {

char* allocate(const std::string& name, uint32_t size) {
    return static_cast<char*>(kv_allocPersistentMemory(name.c_str(), size));
}

class SharedPersistentMemory : public kv::test::PersistentMachine {};

/** What two processes have taken, for a third one to find. */
struct Race {
    static constexpr int kSteps = 12;
    static constexpr uint32_t kSize = kFragmentBytes / 2;  // one fits into a fragment
    std::array<std::atomic<int>, 2> places;                /**< as far as each has come */
    std::array<std::array<char*, 2 * kSteps>, 2> memory;

    static std::string ownName(int process, int step) {
        return (process == 0 ? "left " : "right ") + std::to_string(step);
    }
    static std::string commonName(int step) { return "common " + std::to_string(step / 3); }
    static char mark(int process, int place) { return static_cast<char>(process * 100 + place + 1); }

    void take(int process) {
        ::alarm(60);  // where the other one has failed
        for (int place = 0; place < 2 * kSteps; ++place) {
            places[process] = place + 1;
            while (places[1 - process] <= place) {
                std::this_thread::yield();
            }
            const int step = place / 2;
            char* taken = allocate(place % 2 == 0 ? ownName(process, step) : commonName(step), kSize);
            ASSERT_NE(taken, nullptr);
            std::memset(taken, mark(process, place), kSize);
            memory[process][place] = taken;
        }
    }

    void find() const {
        for (const int process : {0, 1}) {
            for (int place = 0; place < 2 * kSteps; ++place) {
                const int step = place / 2;
                const std::string name = place % 2 == 0 ? ownName(process, step) : commonName(step);
                ASSERT_NE(kv_getPersistentMemory(name.c_str()), nullptr) << name;
                const char* taken = memory[process][place];
                EXPECT_EQ(taken[0], mark(process, place)) << name;
                EXPECT_EQ(std::memcmp(taken, taken + 1, kSize - 1), 0) << name;
            }
        }
    }
};

TEST_F(SharedPersistentMemory, IsWholeAfterTwoProcessesHaveTakenMemoryAtOnce) {
    for (int round = 0; round < 20; ++round) {
        auto& race = sharedWithChildren<Race>();
        const pid_t left = startChild([&] { race.take(0); });
        const pid_t right = startChild([&] { race.take(1); });
        const bool good = waitFor(left) == 0 && waitFor(right) == 0 && inChild([&] { race.find(); }) == 0;
        ASSERT_TRUE(good) << "round " << round;
        ASSERT_EQ(inChild([] { kv_freePersistentMemory(); }), 0);
    }
}

int flockFailure = 0;

}  // namespace

/** In place of the C library's, which does not fail on shared memory. */
extern "C" [[gnu::visibility("default")]] int flock(int fd, int operation) noexcept {
    if (flockFailure == 0) {
        return static_cast<int>(::syscall(SYS_flock, fd, operation));
    }
    errno = flockFailure;
    return -1;
}

namespace {

/** The records of a list that another process holds. */
const std::vector<Record> kLocked = {info("PersMem list is locked by another process"),
                                     debug("PersMem list initialization failed")};

TEST_F(SharedPersistentMemory, IsOutOfReachOnlyWhileTheListIsLocked) {
    kvsim::Machine::write(kListObject, "");
    const kv::os::UniqueFd object = kv::os::openFile(kListObject, O_RDWR);
    auto expected = kLocked;
    expected.push_back(debug("Could not add PersMem to list: another"));
    expected.push_back(error("Persistent memory not available: another - creating failed"));
    char* mine = nullptr;
    for (const bool isLoaded : {false, true}) {
        mine = isLoaded ? allocate("mine", 8) : nullptr;
        log_.take();
        ASSERT_EQ(::flock(object.get(), LOCK_EX), 0);
        EXPECT_EQ(allocate("another", 8), nullptr);
        EXPECT_EQ(log_.take(), expected) << isLoaded;
        ::flock(object.get(), isLoaded ? LOCK_EX : LOCK_UN);
    }
    EXPECT_EQ(allocate("mine", 8), mine + 8) << "what is attached needs no lock";
    kv_freePersistentMemory();
    EXPECT_EQ(log_.take(), kLocked);
    EXPECT_EQ(kv_getPersistentMemory("mine"), mine) << "it was not freed";

    flockFailure = ENOLCK;
    kv_freePersistentMemory();
    EXPECT_EQ(log_.take(), (std::vector{info("PersMem list cannot be locked: No locks available"),
                                        debug("PersMem list initialization failed")}));
    flockFailure = 0;
    ::flock(object.get(), LOCK_UN);
    EXPECT_NE(allocate("another", 8), nullptr);
}

TEST_F(SharedPersistentMemory, ShowsWhatAnotherProcessHasAdded) {
    (void)allocate("mine", 8);
    auto& other = sharedWithChildren<std::array<char*, 2>>();
    ASSERT_EQ(inChild([&] {
                  other[0] = allocate("theirs", 8);
                  other[1] = allocate("mine", kFragmentBytes);
                  *other[1] = 42;
              }),
              0);
    EXPECT_EQ(kv_getPersistentMemory("theirs"), other[0]);
    EXPECT_EQ(allocate("mine", kUsableBytes - 4), other[1] + kFragmentBytes)
        << "the rest of the new fragment";
    EXPECT_EQ(*other[1], 42);
}

TEST_F(SharedPersistentMemory, ThatAnotherProcessHasFreedIsNotMixedWithItsNewBlocks) {
    char* mine = allocate("mine", 8);
    ASSERT_EQ(inChild([] {
                  kv_freePersistentMemory();
                  *allocate("theirs", 8) = 42;
              }),
              0);
    EXPECT_EQ(allocate("mine", 8), mine + 8) << "still mapped";
    auto& grown = sharedWithChildren<char*>();
    EXPECT_EQ(inChild([&] { grown = allocate("mine", kFragmentBytes); }), 0);
    EXPECT_EQ(inChild([&] { EXPECT_EQ(allocate("mine", kUsableBytes), grown + kFragmentBytes); }), 0)
        << "the rest of the fragment that the other process has added";
    EXPECT_NE(kv_getPersistentMemory("theirs"), nullptr);
    EXPECT_NE(allocate("new", 8), nullptr);
    EXPECT_EQ(inChild([] {
                  const auto* memory = static_cast<char*>(kv_getPersistentMemory("theirs"));
                  ASSERT_NE(memory, nullptr);
                  EXPECT_EQ(*memory, 42);
                  EXPECT_NE(kv_getPersistentMemory("new"), nullptr);
                  EXPECT_EQ(kv_getPersistentMemory("mine"), nullptr);
              }),
              0);
}

TEST_F(SharedPersistentMemory, IsAttachedOnlyWhereRootOrTheUserOwnsIt) {
    constexpr uid_t foreigner = 4242;
    ASSERT_EQ(inChild([] { (void)allocate("mine", 8); }), 0);
    if (::chown(kListObject, foreigner, foreigner) != 0) {
        GTEST_SKIP() << "this user cannot give objects to others";
    }
    ASSERT_EQ(::chown(kListObject, 0, 0), 0);
    const struct {
        const char* object;
        std::vector<Record> records;
    } cases[] = {
        {"/dev/shm/mine",
         {debug("Loaded descriptor list. 1 entries"), debug("Open shMem /mine"),
          debug("shm_open failed: Permission denied"), info("Open shared memory mine failed"),
          debug("PersMem list initialization failed"), debug("Persistent memory not available mine")}},
        {kListObject,
         {debug("shm_open failed: Permission denied"), debug("PersMem main file creation failed"),
          debug("PersMem list initialization failed"), debug("Persistent memory not available mine")}}};
    for (const auto& each : cases) {
        ASSERT_EQ(::chown(each.object, foreigner, foreigner), 0) << each.object;
        EXPECT_EQ(kv_getPersistentMemory("mine"), nullptr);
        EXPECT_EQ(log_.take(), each.records);
        ASSERT_EQ(::chown(each.object, 0, 0), 0);
    }
    kvsim::Machine::remove(kListObject);
    ASSERT_EQ(::mkfifo(kListObject, 0600), 0);
    EXPECT_EQ(kv_getPersistentMemory("mine"), nullptr) << "a pipe is not a list";
    EXPECT_EQ(log_.take(), cases[1].records);
}

/** Offsets in the head of a fragment. */
constexpr std::size_t kFileDesc = 0;
constexpr std::size_t kTotalSize = 4;
constexpr std::size_t kNext = 8;
constexpr std::size_t kSize = 16;
constexpr std::size_t kAddress = 24;
constexpr std::size_t kRoot = 32;
constexpr std::size_t kFirstFree = 40;

TEST_F(SharedPersistentMemory, IsUsedWithoutTrustInWhatOthersWriteThere) {
    const struct {
        std::size_t offset;
        uint64_t value;
        bool canGrow;
    } cases[] = {{kTotalSize, 0, true}, {kTotalSize, 0xFFFF0000, true},
                 {kSize, 0, true},      {kSize, ~uint64_t{0}, true},
                 {kAddress, 0, true},   {kRoot, 8, true},
                 {kFirstFree, 8, true}, {kFirstFree, ~uint64_t{0}, true},
                 {kNext, 8, false},     {kNext, 0x7700100000, false}};
    for (const auto& each : cases) {
        SCOPED_TRACE(std::to_string(each.offset) + ": " + std::to_string(each.value));
        const int status = inChild([&] {
            ::alarm(60);
            char* first = allocate("log", 8);
            char* head = first - kHeadBytes;
            std::memcpy(head + each.offset, &each.value, each.offset == kTotalSize ? 4 : 8);
            EXPECT_EQ(kv_getPersistentMemory("log"), first);
            char* second = allocate("log", kFragmentBytes);
            ASSERT_NE(second, nullptr);
            EXPECT_EQ(std::filesystem::file_size(objectPath("log")), (each.canGrow ? 3 : 1) * kFragmentBytes);
            EXPECT_NE(allocate("log", 8), nullptr);
        });
        EXPECT_EQ(status, 0);
        ASSERT_EQ(inChild([] { kv_freePersistentMemory(); }), 0);
    }

    // A descriptor there may be anything in this process.
    char* first = allocate("log", 8);
    const kv::os::UniqueFd other(::open("/tmp", O_TMPFILE | O_RDWR, 0600));
    std::memcpy(first - kHeadBytes + kFileDesc, std::array{other.get()}.data(), sizeof(int));
    EXPECT_NE(allocate("log", kFragmentBytes), nullptr);
    EXPECT_EQ(::lseek(other.get(), 0, SEEK_END), 0) << "an unrelated file";
    EXPECT_EQ(std::filesystem::file_size(objectPath("log")), 3 * kFragmentBytes);
}

}  // namespace
