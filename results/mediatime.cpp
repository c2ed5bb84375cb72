#include "results/mediatime.h"

#include <cstdio>
#include <limits>

namespace tarvoqc {

namespace {

__extension__ using Int128 = __int128;

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

std::int64_t clamp128(Int128 value)
{
    if (value > kMax) {
        return kMax;
    }
    if (value < kMin) {
        return kMin;
    }
    return static_cast<std::int64_t>(value);
}

std::string printed(const char* format, auto... args)
{
    char buffer[96];
    const int n = std::snprintf(buffer, sizeof buffer, format, args...);
    return std::string(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
}

} // namespace

std::int64_t saturatingAdd(std::int64_t a, std::int64_t b)
{
    return clamp128(static_cast<Int128>(a) + b);
}

std::int64_t saturatingSub(std::int64_t a, std::int64_t b)
{
    return clamp128(static_cast<Int128>(a) - b);
}

std::int64_t saturatingAbs(std::int64_t a)
{
    return a == kMin ? kMax : (a < 0 ? -a : a);
}

std::int64_t rescaleTime(std::int64_t value, TimeBase from, TimeBase to)
{
    if (value == kNoTime || from.num == 0 || from.den == 0 || to.num == 0 || to.den == 0) {
        return kNoTime;
    }
    Int128 num = static_cast<Int128>(value) * from.num * to.den;
    Int128 den = static_cast<Int128>(from.den) * to.num;
    if (den < 0) {
        num = -num;
        den = -den;
    }
    const Int128 half = den / 2;
    const Int128 q = num >= 0 ? (num + half) / den : (num - half) / den;
    // Saturating at the bottom would land on kNoTime; a known time stays known.
    const std::int64_t result = clamp128(q);
    return result == kNoTime ? kNoTime + 1 : result;
}

SplitTime splitMediaTime(std::int64_t value, TimeBase timeBase)
{
    SplitTime split;
    if (timeBase.den == 0) {
        return split;
    }
    Int128 x = static_cast<Int128>(value) * timeBase.num * 100 / timeBase.den;
    // The value is taken as a 64-bit number of hundredths; the magnitude of its smallest
    // value, one more than the largest, is kept as it is instead of overflowing.
    x = clamp128(x);
    if (x < 0) {
        split.negative = 1;
        x = -x;
    }
    split.hundredths = static_cast<std::int32_t>(x % 100);
    x /= 100;
    split.seconds = static_cast<std::int32_t>(x % 60);
    x /= 60;
    split.minutes = static_cast<std::int32_t>(x % 60);
    x /= 60;
    split.hours = static_cast<std::int32_t>(x % 60);
    split.days = static_cast<std::int64_t>(x / 24);
    return split;
}

std::string formatMediaTime(std::int64_t value, TimeBase timeBase)
{
    const SplitTime t = splitMediaTime(value, timeBase);
    const char* sign = t.negative ? "-" : "";
    if (t.days != 0) {
        return printed("%s%lldd %02d:%02d:%02d.%02d", sign, static_cast<long long>(t.days), t.hours,
                       t.minutes, t.seconds, t.hundredths);
    }
    if (t.hours != 0) {
        return printed("%s%02d:%02d:%02d", sign, t.hours, t.minutes, t.seconds);
    }
    if (t.minutes == 0) {
        return printed("%s%d.%02d", sign, t.seconds, t.hundredths);
    }
    return printed("%s%02d:%02d.%02d", sign, t.minutes, t.seconds, t.hundredths);
}

std::string formatMediaTime100ns(ClipTicks value)
{
    return formatMediaTime(value, kClipTimeBase);
}

std::string formatMediaTimeShort(std::int64_t value, TimeBase timeBase)
{
    const SplitTime t = splitMediaTime(value, timeBase);
    const char* sign = t.negative ? "-" : "";
    if (t.days != 0) {
        return printed("%s%lldd %02d:%02d:%02d", sign, static_cast<long long>(t.days), t.hours,
                       t.minutes, t.seconds);
    }
    if (t.hours == 0) {
        return printed("%s%02d:%02d", sign, t.minutes, t.seconds);
    }
    return printed("%s%02d:%02d:%02d", sign, t.hours, t.minutes, t.seconds);
}

double ticksToSeconds(std::int64_t value, TimeBase timeBase)
{
    const std::int64_t product = clamp128(static_cast<Int128>(value) * timeBase.num);
    return static_cast<double>(product) / timeBase.den;
}

double hundredNsToSeconds(ClipTicks value)
{
    return static_cast<double>(value) * 1e-7;
}

} // namespace tarvoqc
