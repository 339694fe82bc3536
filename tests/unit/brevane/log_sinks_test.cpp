#include "log_sinks.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <pthread.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/log/sources/record_ostream.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brevane/Logger.h>

#include "process.h"

using brevane::addFileSink;
using brevane::test::kNobody;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

namespace fs = std::filesystem;

void write(const std::string& text) {
    BOOST_LOG_CHANNEL_SEV(brevane::Logger::getLogger(), 0, boost::log::trivial::error) << text;
}

std::string contentOf(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

class LogFile : public testing::Test {
 protected:
    LogFile() {
        char pattern[] = "/tmp/brevane_log_XXXXXX";
        directory_ = mkdtemp(pattern);
    }
    ~LogFile() override { fs::remove_all(directory_); }

    void leave(const std::string& name, const std::string& text) { std::ofstream(directory_ / name) << text; }

    fs::path directory_;
};

TEST_F(LogFile, StaysWithinItsBoundsAndKeepsTheLastRecords) {
    fs::current_path("/proc");  // takes no file of ours
    leave("brevane.00007.log", "of an earlier run\n");
    leave("other.log", "not ours\n");
    addFileSink({directory_, 2000, 2});
    for (int i = 0; i < 200; ++i) {
        if (i == 100) {  // as who owns the folder above can
            const fs::path moved = directory_.string() + "_moved";
            fs::rename(directory_, moved);
            directory_ = moved;
        }
        write("KV: record " + std::to_string(i));
        EXPECT_THAT(contentOf(directory_ / "brevane.log"), HasSubstr("record " + std::to_string(i) + "\n"));
    }

    std::size_t ours = 0;
    for (const auto& file : fs::directory_iterator(directory_)) {
        EXPECT_LE(file.file_size(), 2000U) << file.path();
        ours += file.path().filename().string().starts_with("brevane.") ? 1 : 0;
    }
    EXPECT_EQ(ours, 3U) << "the file and two old ones";
    EXPECT_FALSE(fs::exists(directory_ / "brevane.00007.log"));
    EXPECT_TRUE(fs::exists(directory_ / "other.log"));
}

TEST_F(LogFile, GoesOnWhereAnEarlierRunEnded) {
    leave("brevane.log", "of an earlier run\n");
    addFileSink({directory_, 100'000, 2});
    write("KV: of this run");
    EXPECT_THAT(contentOf(directory_ / "brevane.log"),
                AllOf(StartsWith("of an earlier run\n"), HasSubstr(" error KV: of this run\n")));
}

TEST_F(LogFile, GoesOnWhenWritingThreadsAreCancelled) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "AddressSanitizer mistakes the stack of a cancelled thread for an overwritten one";
#endif
    addFileSink({directory_, 500, 2});
    const auto writeForever = [](void*) -> void* {
        for (;;) {
            write("KV: busy");
            pthread_testcancel();
        }
    };
    for (int i = 0; i < 20; ++i) {
        pthread_t thread{};
        ASSERT_EQ(pthread_create(&thread, nullptr, writeForever, nullptr), 0);
        usleep(1000);
        pthread_cancel(thread);
        void* result = nullptr;
        pthread_join(thread, &result);
        EXPECT_EQ(result, PTHREAD_CANCELED);
    }
    write("KV: still here");
    EXPECT_THAT(contentOf(directory_ / "brevane.log"), EndsWith("KV: still here\n"));
}

TEST_F(LogFile, IsNotKeptWhereAnotherUserMayHaveLedItElsewhere) {
    leave("victim", "untouched");
    const fs::path folder = directory_ / "logs";
    const fs::path log = folder / "brevane.log";
    const fs::path victim = directory_ / "victim";
    const std::function<bool()> setUps[] = {
        [&] { return fs::create_symlink(victim, log), true; },
        [&] { return fs::create_hard_link(victim, log), true; },
        [&] { return mkfifo(log.c_str(), 0666) == 0; },
        [&] { return chmod(folder.c_str(), 0777) == 0; },
        [&] { return chmod(folder.c_str(), 0770) == 0; },
        [&] { return chown(folder.c_str(), kNobody, kNobody) == 0; },
        [&] { return std::ofstream(log) && chown(log.c_str(), kNobody, kNobody) == 0; },
        [&] { return fs::remove(folder), fs::create_directory_symlink(directory_, folder), true; },
    };
    for (const auto& setUp : setUps) {
        fs::remove_all(folder);
        fs::create_directory(folder);
        if (setUp()) {  // only root gives files away
            EXPECT_THROW(addFileSink({folder, 1000, 2}), std::runtime_error) << &setUp - setUps;
        }
    }
    write("KV: nowhere");
    EXPECT_EQ(contentOf(victim), "untouched");
}

TEST_F(LogFile, IsDoneWithoutWhereTheDirectoryIsMissingOrGone) {
    const fs::path missing = directory_ / "missing";
    addFileSink({missing, 1000, 2});
    write("KV: no file");
    EXPECT_FALSE(fs::exists(missing));

    const fs::path gone = directory_ / "gone";
    fs::create_directory(gone);
    addFileSink({gone, 1000, 2});
    fs::remove(gone);
    leave("gone", "a file in its place");
    EXPECT_NO_THROW(write("KV: lost"));
}

}  // namespace
