#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <brevane/Kernel.h>

namespace brevane {

/**
 * Counts durations in buckets whose width grows with the duration: 32 to each doubling, so that any quantile
 * is known within 4 % whatever the range, in fixed memory and with a few instructions for each value.
 */
class LatencyHistogram {
 public:
    /** Negative durations count as zero. */
    void add(std::chrono::nanoseconds duration) noexcept {
        const auto value = static_cast<std::uint64_t>(std::max<std::int64_t>(duration.count(), 0));
        ++counts_[bucketOf(value)];
        ++total_;
        max_ = std::max(max_, value);
    }

    /** The duration that the given share of all values, between 0 and 1, does not exceed. Zero while empty.
     */
    [[nodiscard]] std::chrono::nanoseconds quantile(double share) const noexcept {
        const auto wanted = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(total_)));
        std::uint64_t seen = 0;
        for (std::size_t bucket = 0; bucket < counts_.size(); ++bucket) {
            seen += counts_[bucket];
            if (seen > 0 && seen >= wanted) {
                return std::chrono::nanoseconds(std::min(upperEndOf(bucket), max_));
            }
        }
        return std::chrono::nanoseconds(0);
    }

    [[nodiscard]] std::chrono::nanoseconds max() const noexcept { return std::chrono::nanoseconds(max_); }

    /** The buckets that aren't empty, in ascending order. */
    [[nodiscard]] std::vector<LatencyBucket> buckets() const {
        std::vector<LatencyBucket> filled;
        for (std::size_t bucket = 0; bucket < counts_.size(); ++bucket) {
            if (counts_[bucket] > 0) {
                const std::uint64_t lowerEnd = bucket == 0 ? 0 : upperEndOf(bucket - 1) + 1;
                filled.push_back({std::chrono::nanoseconds(lowerEnd),
                                  std::chrono::nanoseconds(upperEndOf(bucket)), counts_[bucket]});
            }
        }
        return filled;
    }

 private:
    static constexpr unsigned kBitsPerDoubling = 5;
    static constexpr std::uint64_t kPerDoubling = 1U << kBitsPerDoubling;

    /** Values below two doublings have a bucket each; above, a value keeps its leading bits. */
    static constexpr std::size_t bucketOf(std::uint64_t value) noexcept {
        const unsigned shift = shiftOf(value);
        return shift * kPerDoubling + (value >> shift);
    }

    static constexpr std::uint64_t upperEndOf(std::size_t bucket) noexcept {
        if (bucket < 2 * kPerDoubling) {
            return bucket;
        }
        const std::size_t shift = bucket / kPerDoubling - 1;
        return ((bucket - shift * kPerDoubling + 1) << shift) - 1;
    }

    static constexpr unsigned shiftOf(std::uint64_t value) noexcept {
        const auto bits = static_cast<unsigned>(std::bit_width(value));
        return bits > kBitsPerDoubling + 1 ? bits - (kBitsPerDoubling + 1) : 0;
    }

    /** As many as the 63 bits of the longest duration need. */
    static constexpr std::size_t kBuckets = (64 - kBitsPerDoubling) * kPerDoubling;

    std::array<std::uint64_t, kBuckets> counts_{};
    std::uint64_t total_ = 0;
    std::uint64_t max_ = 0;
};

}  // namespace brevane
