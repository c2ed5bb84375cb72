#pragma once

#include <cstdint>
#include <string>

namespace tarvoqc {

// A time base: one tick lasts num/den seconds (a stream's own base, or 1/10000000 for
// ClipTicks).
struct TimeBase
{
    std::int32_t num = 0;
    std::int32_t den = 1;
};

// The engine's time unit: 100 ns, 10,000,000 per second.
using ClipTicks = std::int64_t;
inline constexpr TimeBase kClipTimeBase{1, 10'000'000};
inline constexpr ClipTicks kTicksPerSecond = 10'000'000;
// "No value": the media library's no-time-stamp number, the smallest signed 64-bit value.
inline constexpr std::int64_t kNoTime = INT64_MIN;

// Overflow-free arithmetic on time values. The results saturate at the 64-bit limits;
// the lower limit is kNoTime itself, so a difference against an unknown value comes out
// as a very large number, as a check expects, and never as undefined behaviour.
std::int64_t saturatingAdd(std::int64_t a, std::int64_t b);
std::int64_t saturatingSub(std::int64_t a, std::int64_t b);
// |a| with |INT64_MIN| taken as INT64_MAX.
std::int64_t saturatingAbs(std::int64_t a);

// value * from / to, rounded to nearest (halves away from zero), saturating. kNoTime
// stays kNoTime, and so does any value when a time base has a zero part.
std::int64_t rescaleTime(std::int64_t value, TimeBase from, TimeBase to);

// A time stamp split into its text fields.
struct SplitTime
{
    std::int32_t negative = 0; // 1 when the value is below 0
    std::int64_t days = 0;     // 64 bits: a saturated value has more days than 32 bits hold
    std::int32_t hours = 0;    // whole hours modulo 60 (not 24: see formatMediaTime)
    std::int32_t minutes = 0;
    std::int32_t seconds = 0;
    std::int32_t hundredths = 0;

    bool operator==(const SplitTime&) const = default;
};

// Splits value ticks of timeBase: hundredths are cut, not rounded; hours are kept modulo
// 60 while days count 24-hour steps, so 30 whole hours read as 1 day and 30 hours. The
// products are taken in 128 bits and saturate, so no value is out of range.
SplitTime splitMediaTime(std::int64_t value, TimeBase timeBase);

// "1d 25:00:00.00", "01:01:01" (hours drop the hundredths), "1.50", "01:01.25"; a leading
// "-" for negatives.
std::string formatMediaTime(std::int64_t value, TimeBase timeBase);
std::string formatMediaTime100ns(ClipTicks value);
// Without hundredths: "1d 01:00:00", "00:00", "01:00:00".
std::string formatMediaTimeShort(std::int64_t value, TimeBase timeBase);

// value * num as a 64-bit number (saturating), then divided by den as a double.
double ticksToSeconds(std::int64_t value, TimeBase timeBase);
double hundredNsToSeconds(ClipTicks value);

} // namespace tarvoqc
