#include <cstdint>
#include <limits>
#include <tuple>

#include <gtest/gtest.h>

#include "results/mediatime.h"

namespace tarvoqc {
namespace {

constexpr std::int64_t kSec = kTicksPerSecond;

TEST(MediaTime, FormatsOfOneHundredNanosecondValues)
{
    // value, text with hundredths, short text
    const std::tuple<std::int64_t, const char*, const char*> cases[] = {
        {0, "0.00", "00:00"},
        {15'000'000, "1.50", "00:01"},
        {36'619'900'000, "01:01:01", "01:01:01"},
        {99'999, "0.00", "00:00"}, // just under a hundredth: cut, not rounded
        {100'000, "0.01", "00:00"},
        {-100'000, "-0.01", "-00:00"},
        {59 * kSec + 9'900'000, "59.99", "00:59"},
        {60 * kSec, "01:00.00", "01:00"},
        {-(3600 * kSec + 5), "-01:00:00", "-01:00:00"},
        {24 * 3600 * kSec, "1d 24:00:00.00", "1d 24:00:00"},
        {-(48 * 3600 * kSec + 150'000), "-2d 48:00:00.01", "-2d 48:00:00"}};
    for (const auto& [value, withHundredths, shortText] : cases) {
        SCOPED_TRACE(value);
        EXPECT_EQ(formatMediaTime100ns(value), withHundredths);
        EXPECT_EQ(formatMediaTime(value, kClipTimeBase), withHundredths);
        EXPECT_EQ(formatMediaTimeShort(value, kClipTimeBase), shortText);
    }
}

TEST(MediaTime, StreamTimeBasesAndSplitFields)
{
    const std::tuple<std::int64_t, TimeBase, const char*> cases[] = {
        {135'000, {1, 90'000}, "1.50"},
        {1'001, {1001, 30'000}, "33.40"}, // 1001 frames at 29.97 fps
        {3'000, {1, 25}, "02:00.00"},
        {-1, {1, 25}, "-0.04"},
        {1, {1, 1000}, "0.00"}};
    for (const auto& [value, base, text] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(formatMediaTime(value, base), text);
    }
    const SplitTime t = splitMediaTime(-(26 * 3600 * kSec + 61 * kSec + 1'234'567), kClipTimeBase);
    EXPECT_EQ(t, (SplitTime{1, 1, 26, 1, 1, 12}));
    // A zero denominator is refused instead of dividing by zero.
    EXPECT_EQ(splitMediaTime(5, {1, 0}), SplitTime{});
}

TEST(MediaTime, ExtremeValuesNeitherOverflowNorCrash)
{
    const std::int64_t extremes[] = {std::numeric_limits<std::int64_t>::max(), kNoTime,
                                     kNoTime + 1};
    for (std::int64_t v : extremes) {
        SCOPED_TRACE(v);
        for (TimeBase base : {kClipTimeBase, TimeBase{1, 1}, TimeBase{1001, 30000},
                              TimeBase{std::numeric_limits<std::int32_t>::max(), 1}}) {
            const std::string text = formatMediaTime(v, base);
            EXPECT_FALSE(text.empty());
            EXPECT_EQ(text[0] == '-', v < 0);
            EXPECT_FALSE(formatMediaTimeShort(v, base).empty());
        }
    }
    // The largest 100 ns value is about 10.7 million days.
    EXPECT_EQ(formatMediaTime100ns(std::numeric_limits<std::int64_t>::max()),
              "10675199d 38:48:05.47");
}

TEST(MediaTime, SaturatingArithmetic)
{
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    // a, b, a + b, a - b
    const std::tuple<std::int64_t, std::int64_t, std::int64_t, std::int64_t> cases[] = {
        {5, 3, 8, 2},
        {kMax, 1, kMax, kMax - 1},
        {0, kNoTime, kNoTime, kMax}, // a difference against unknown is very large
        {kNoTime, 1, kNoTime + 1, kNoTime},
        {-5, kMax, kMax - 5, kNoTime}};
    for (const auto& [a, b, sum, difference] : cases) {
        SCOPED_TRACE(testing::Message() << a << " " << b);
        EXPECT_EQ(saturatingAdd(a, b), sum);
        EXPECT_EQ(saturatingSub(a, b), difference);
    }
    EXPECT_EQ(saturatingAbs(kNoTime), kMax);
    EXPECT_EQ(saturatingAbs(-7), 7);
}

TEST(MediaTime, RescaleRoundsToNearestAndKeepsUnknownAndSecondsConvert)
{
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    // value, its time base, the value in 100 ns
    const std::tuple<std::int64_t, TimeBase, std::int64_t> cases[] = {
        {90'000, {1, 90'000}, kSec},
        {1, {1, 90'000}, 111},   // 111.1 rounds down
        {3, {1, 20'000'000}, 2}, // 1.5 rounds away from zero
        {-3, {1, 20'000'000}, -2},
        {kNoTime, {1, 90'000}, kNoTime},
        {5, {1, 0}, kNoTime},
        {5, {0, 1}, kNoTime},
        {kMax, {1, 1}, kMax},
        {kNoTime + 1, {1, 1}, kNoTime + 1}, // saturates but stays known
    };
    for (const auto& [value, from, expected] : cases) {
        SCOPED_TRACE(value);
        EXPECT_EQ(rescaleTime(value, from, kClipTimeBase), expected);
    }
    EXPECT_DOUBLE_EQ(ticksToSeconds(135'000, {1, 90'000}), 1.5);
    EXPECT_DOUBLE_EQ(ticksToSeconds(1001, {1001, 30'000}), 1001.0 * 1001 / 30'000);
    EXPECT_DOUBLE_EQ(hundredNsToSeconds(15'000'000), 1.5);
}

} // namespace
} // namespace tarvoqc
