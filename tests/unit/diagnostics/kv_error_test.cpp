#include <csignal>
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <kv/diagnostics.h>

#include "diagnostics/kv_error_text.h"

namespace {

struct ErrorDeleter {
    void operator()(KvError* error) const { kvError_delete(error); }
};

class KvErrorTest : public testing::Test {
 protected:
    std::unique_ptr<KvError, ErrorDeleter> error_{kvError_new()};
};
using KvErrorDeathTest = KvErrorTest;

std::string repeated(std::size_t count) {
    return std::string(count, 'x');
}

TEST_F(KvErrorTest, JoinsPreambleAndMessageAsOftenAsAsked) {
    EXPECT_STREQ(kvError_getMsg(error_.get()), "");

    kvError_setMsg(error_.get(), "no board at slot %d", 4);
    EXPECT_STREQ(kvError_getMsg(error_.get()), "no board at slot 4") << "without a preamble";

    kvError_setPreamble(error_.get(), "Setup", "model/Setup", 3);
    for (int repetition = 0; repetition < 2; ++repetition) {
        EXPECT_STREQ(kvError_getMsg(error_.get()), "In Setup, model/Setup block, ID 3: no board at slot 4");
    }

    kvError_setMsg(error_.get(), "gone");
    EXPECT_STREQ(kvError_getMsg(error_.get()), "In Setup, model/Setup block, ID 3: gone");
}

TEST_F(KvErrorTest, ExtractsWhatFollowsTheFirstColonAndItsBlanks) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"PCI:   device missing", "device missing"},
        {"AI1 ID2: Not found: gone", "Not found: gone"},
        {"no prefix", "no prefix"},
        {"ends here:", ""},
        {"ends here:   ", ""},
        {":\tx", "\tx"},
        {"", ""},
    };
    for (const auto& each : cases) {
        kvError_extractMsg(error_.get(), each.text);
        EXPECT_STREQ(kvError_getMsg(error_.get()), each.message) << "from '" << each.text << "'";
    }
}

TEST_F(KvErrorTest, IgnoresTheDeletionOfNothing) {
    kvError_delete(nullptr);
}

TEST_F(KvErrorDeathTest, EndsTheProcessWhereATextDoesNotFitAndNoSooner) {
    const std::string longest = repeated(199);
    const std::string tooLong = repeated(200);

    kvError_setMsg(error_.get(), "%s", longest.c_str());
    EXPECT_EQ(kvError_getMsg(error_.get()), longest);
    kvError_extractMsg(error_.get(), (":" + longest).c_str());
    EXPECT_EQ(kvError_getMsg(error_.get()), longest);
    const std::string name = repeated(199 - std::strlen("In , B block, ID 1: "));
    kvError_setMsg(error_.get(), "%s", "");
    kvError_setPreamble(error_.get(), name.c_str(), "B", 1);
    EXPECT_EQ(kvError_getMsg(error_.get()), "In " + name + ", B block, ID 1: ");

    const wchar_t unencodable[] = {static_cast<wchar_t>(0x110000), 0};
    kvError_setMsg(error_.get(), "%ls", unencodable);
    EXPECT_STREQ(error_->errorMsg, "") << "a text that cannot be encoded is empty, not too long";

    const auto aborted = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(kvError_setMsg(error_.get(), "%s", tooLong.c_str()), aborted, "");
    EXPECT_EXIT(kvError_extractMsg(error_.get(), (":" + tooLong).c_str()), aborted, "");
    EXPECT_EXIT(kvError_setPreamble(error_.get(), (name + "x").c_str(), "B", 1), aborted, "");
}

TEST(ErrorText, IsCutToItsBufferAlwaysTerminatedAndKeepsErrno) {
    errno = EACCES;
    kv::setErrorText("%s", repeated(600).c_str());
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(std::string(pKvErrorStr), repeated(KV_ERROR_STR_SIZE - 1));

    kv::setErrorText("Module not found");
    EXPECT_STREQ(pKvErrorStr, "Module not found");
}

TEST(FormatString, FormatsTextsOfAnyLength) {
    EXPECT_EQ(kv::utils::formatString("%d", 7), "7");
    EXPECT_EQ(kv::utils::formatString("%s", ""), "");
    EXPECT_EQ(kv::utils::formatString("%02x:%s", 10, repeated(10000).c_str()), "0a:" + repeated(10000));
}

}  // namespace
