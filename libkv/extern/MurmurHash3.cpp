#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <kv/hash.h>

static_assert(std::endian::native == std::endian::little, "keys are read as little-endian words");

namespace {

/** The final mix: every bit of the input reaches every bit of the result. */
uint32_t finalMix(uint32_t h) {
    h ^= h >> 16;
    h *= 0x85EBCA6B;
    h ^= h >> 13;
    h *= 0xC2B2AE35;
    return h ^ (h >> 16);
}

uint64_t finalMix(uint64_t h) {
    h ^= h >> 33;
    h *= 0xFF51AFD7ED558CCD;
    h ^= h >> 33;
    h *= 0xC4CEB9FE1A85EC53;
    return h ^ (h >> 33);
}

/**
 * How one word of the state takes up one word of the key. The constants of a word of the key are its own and
 * the next word's.
 */
template <typename Word>
struct Lane {
    Word multiplier;
    Word nextMultiplier;
    int keyRotation;
    int stateRotation;
    Word addend;
};

constexpr std::array<Lane<uint32_t>, 1> kLanesX86_32 = {{{0xCC9E2D51, 0x1B873593, 15, 13, 0xE6546B64}}};

constexpr std::array<Lane<uint32_t>, 4> kLanesX86_128 = {{
    {0x239B961B, 0xAB0E9789, 15, 19, 0x561CCD1B},
    {0xAB0E9789, 0x38B34AE5, 16, 17, 0x0BCAA747},
    {0x38B34AE5, 0xA1E38B93, 17, 15, 0x96CD1C35},
    {0xA1E38B93, 0x239B961B, 18, 13, 0x32AC3B17},
}};

constexpr std::array<Lane<uint64_t>, 2> kLanesX64_128 = {{
    {0x87C37B91114253D5, 0x4CF5AD432745937F, 31, 27, 0x52DCE729},
    {0x4CF5AD432745937F, 0x87C37B91114253D5, 33, 31, 0x38495AB5},
}};

template <typename Word>
Word mixKey(Word k, const Lane<Word>& lane) {
    return std::rotl(static_cast<Word>(k * lane.multiplier), lane.keyRotation) * lane.nextMultiplier;
}

/** Adds up all words into the first, and that into each of the others. */
template <typename Word, std::size_t words>
void spread(std::array<Word, words>& h) {
    for (std::size_t i = 1; i < words; ++i) {
        h[0] += h[i];
    }
    for (std::size_t i = 1; i < words; ++i) {
        h[i] += h[0];
    }
}

template <typename Word, std::size_t words>
void hash(const std::array<Lane<Word>, words>& lanes, const void* key, int len, uint32_t seed, void* out) {
    const auto length = static_cast<std::size_t>(len);
    const auto* const bytes = static_cast<const unsigned char*>(key);
    std::array<Word, words> h;
    h.fill(seed);

    std::array<Word, words> k;
    std::size_t done = 0;
    for (; length - done >= sizeof(k); done += sizeof(k)) {
        std::memcpy(k.data(), bytes + done, sizeof(k));
#pragma GCC unroll 4  // at -O2 the loop would stay, and take twice as long
        for (std::size_t i = 0; i < words; ++i) {
            h[i] = std::rotl(h[i] ^ mixKey(k[i], lanes[i]), lanes[i].stateRotation);
            if constexpr (words > 1) {
                h[i] += h[(i + 1) % words];
            }
            h[i] = h[i] * 5 + lanes[i].addend;
        }
    }

    if (done < length) {
        k.fill(0);  // a word of zeros mixes to zero and so changes nothing
        std::memcpy(k.data(), bytes + done, length - done);
        for (std::size_t i = 0; i < words; ++i) {
            h[i] ^= mixKey(k[i], lanes[i]);
        }
    }

    for (Word& word : h) {
        word ^= static_cast<Word>(length);
    }
    spread(h);
    for (Word& word : h) {
        word = finalMix(word);
    }
    spread(h);
    std::memcpy(out, h.data(), sizeof(h));
}

}  // namespace

void MurmurHash3_x86_32(const void* key, int len, uint32_t seed, void* out) {
    hash(kLanesX86_32, key, len, seed, out);
}

void MurmurHash3_x86_128(const void* key, int len, uint32_t seed, void* out) {
    hash(kLanesX86_128, key, len, seed, out);
}

void MurmurHash3_x64_128(const void* key, int len, uint32_t seed, void* out) {
    hash(kLanesX64_128, key, len, seed, out);
}
