#pragma once

#include <cstdint>
#include <optional>

#include "results/mediatime.h"
#include "results/qcissue.h"

namespace tarvoqc {

// Smallest time difference that is reported: 0.01 s.
inline constexpr ClipTicks kReportableDifference = 100'000;

// Severity of a time difference d (ClipTicks, either sign): the highest row of the
// thresholds 0.01 s Warning, 0.25 s Low, 2 s High, 10 s Highest that |d| reaches; none
// below 0.01 s, which is too small to report. The Critical row lies at the largest 64-bit
// value, which no difference reaches: differences are clamped below it (see
// clampDifference).
std::optional<QcSeverity> severityOfDifference(ClipTicks d);

// Keeps a difference of time values away from the 64-bit limits, so that it stays a
// known, very large value: |d| at most INT64_MAX - 1.
ClipTicks clampDifference(std::int64_t d);

// a - b of ClipTicks values, saturating and clamped: a difference against an unknown
// value is very large, never undefined.
ClipTicks tickDifference(ClipTicks a, ClipTicks b);

} // namespace tarvoqc
