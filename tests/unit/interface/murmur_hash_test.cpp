#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kv/hash.h>

namespace {

using Hash = void (*)(const void*, int, uint32_t, void*);

struct Function {
    const char* name;
    Hash hash;
    std::size_t size;
    uint32_t verification;  // as its author published it
};

constexpr Function kFunctions[] = {
    {"MurmurHash3_x86_32", MurmurHash3_x86_32, 4, 0xB0F57EE3},
    {"MurmurHash3_x86_128", MurmurHash3_x86_128, 16, 0xB3ECE62A},
    {"MurmurHash3_x64_128", MurmurHash3_x64_128, 16, 0x6384BA69},
};

/** Hashes {}, {0}, {0, 1}, ... up to 255 bytes, each with a seed of its own, and then all these hashes. */
uint32_t verificationValue(const Function& function) {
    std::array<unsigned char, 256> key;
    std::vector<unsigned char> hashes(key.size() * function.size);
    for (std::size_t length = 0; length < key.size(); ++length) {
        key[length] = static_cast<unsigned char>(length);
        function.hash(key.data(), static_cast<int>(length), static_cast<uint32_t>(256 - length),
                      &hashes[length * function.size]);
    }
    std::array<unsigned char, 16> all;
    function.hash(hashes.data(), static_cast<int>(hashes.size()), 0, all.data());
    uint32_t value = 0;
    std::memcpy(&value, all.data(), sizeof(value));
    return value;
}

TEST(MurmurHash, GivesThePublishedVerificationValues) {
    for (const Function& function : kFunctions) {
        EXPECT_EQ(verificationValue(function), function.verification) << function.name;
    }
}

TEST(MurmurHash, NeedsNoAlignmentAndWritesItsSizeOnly) {
    const std::string text = "xA key of more than two blocks of 16 bytes.";
    const std::string key = text.substr(1);
    for (const Function& function : kFunctions) {
        std::vector<unsigned char> aligned(function.size);
        function.hash(key.data(), static_cast<int>(key.size()), 7, aligned.data());
        std::vector<unsigned char> shifted(function.size + 2, 0x5A);
        function.hash(text.data() + 1, static_cast<int>(key.size()), 7, &shifted[1]);

        aligned.insert(aligned.begin(), 0x5A);
        aligned.push_back(0x5A);
        EXPECT_EQ(shifted, aligned) << function.name;
        function.hash(nullptr, 0, 7, &shifted[1]);
    }
}

}  // namespace
