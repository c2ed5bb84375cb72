#include "engine/timechecks.h"

#include <array>
#include <limits>

namespace tarvoqc {

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

// One row per severity, Warning first.
constexpr std::array<ClipTicks, kSeverityCount> kSeverityThresholds = {
    100'000, 2'500'000, 20'000'000, 100'000'000, kMax};

} // namespace

std::optional<QcSeverity> severityOfDifference(ClipTicks d)
{
    static_assert(kSeverityThresholds[0] == kReportableDifference);
    const ClipTicks magnitude = saturatingAbs(d);
    for (int row = kSeverityCount - 1; row >= 0; --row) {
        if (kSeverityThresholds[static_cast<std::size_t>(row)] <= magnitude) {
            return static_cast<QcSeverity>(row);
        }
    }
    return std::nullopt;
}

ClipTicks clampDifference(std::int64_t d)
{
    if (d > kMax - 1) {
        return kMax - 1;
    }
    if (d < -(kMax - 1)) {
        return -(kMax - 1);
    }
    return d;
}

ClipTicks tickDifference(ClipTicks a, ClipTicks b)
{
    return clampDifference(saturatingSub(a, b));
}

} // namespace tarvoqc
