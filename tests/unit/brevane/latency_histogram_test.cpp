#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "LatencyHistogram.h"

using brevane::LatencyHistogram;
using std::chrono::nanoseconds;

namespace {

TEST(LatencyHistogram, KnowsQuantilesWithinFourPercentAtEveryScale) {
    for (const std::int64_t scale : {1, 7, 1000, 123'457, 1'000'000'000}) {
        auto histogram = std::make_unique<LatencyHistogram>();
        for (std::int64_t i = 1000; i >= 1; --i) {
            histogram->add(nanoseconds(i * scale));
        }
        for (const double share : {0.001, 0.01, 0.05, 0.5, 0.99, 1.0}) {
            const double exact = std::round(share * 1000) * static_cast<double>(scale);
            const auto found = static_cast<double>(histogram->quantile(share).count());
            EXPECT_GE(found, exact) << "scale " << scale << ", share " << share;
            EXPECT_LE(found, exact * 1.04) << "scale " << scale << ", share " << share;
        }
        EXPECT_EQ(histogram->max(), nanoseconds(1000 * scale));
    }
}

TEST(LatencyHistogram, PutsEveryValueIntoTheBucketThatItsBoundsSay) {
    const std::vector<std::int64_t> values = {0, 1, 63, 64, 65, 66, 12'345, 12'345, 1'000'000'007};
    LatencyHistogram histogram;
    for (const std::int64_t value : values) {
        histogram.add(nanoseconds(value));
    }
    std::int64_t lower = -1;
    std::uint64_t total = 0;
    for (const auto& [from, upTo, steps] : histogram.buckets()) {
        EXPECT_GT(from.count(), lower);
        lower = from.count() - 1;
        const auto inside =
            std::count_if(values.begin(), values.end(),
                          [&, upper = upTo.count()](auto value) { return value > lower && value <= upper; });
        EXPECT_EQ(steps, static_cast<std::uint64_t>(inside)) << "up to " << upTo.count() << " ns";
        EXPECT_GT(steps, 0U);
        lower = upTo.count();
        total += steps;
    }
    EXPECT_EQ(total, values.size());
}

TEST(LatencyHistogram, TakesTheExtremes) {
    LatencyHistogram histogram;
    EXPECT_EQ(histogram.quantile(0.5), nanoseconds(0));
    EXPECT_EQ(histogram.max(), nanoseconds(0));

    histogram.add(nanoseconds(-5));
    EXPECT_EQ(histogram.quantile(1.0), nanoseconds(0));
    histogram.add(nanoseconds::max());
    EXPECT_EQ(histogram.quantile(0.5), nanoseconds(0));
    EXPECT_EQ(histogram.quantile(1.0), nanoseconds::max());
    EXPECT_EQ(histogram.buckets().back().upTo, nanoseconds::max());
    EXPECT_EQ(histogram.max(), nanoseconds::max());
}

}  // namespace
