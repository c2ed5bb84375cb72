#pragma once

#include <optional>

#include "results/checkdefaults.h"

namespace tarvoqc {

// How a ClipChecker checks, beyond the check level: the limits of the picture and sound
// checks of level 4 and the decoder threads of every level. A plain value; the defaults
// are those of the settings file.
struct ClipCheckOptions
{
    // Level 4's loudness limits: the usual broadcast values unless a rule names others.
    double loudnessTarget = kDefaultLoudnessTarget;       // integrated loudness, LUFS
    double loudnessTolerance = kDefaultLoudnessTolerance; // LU either side of the target
    double truePeakLimit = kDefaultTruePeakLimit;         // dBTP
    // Threads per decoder (frame and slice threads) and per detector graph. 0 leaves them
    // to the decoder thread option of Open (below 0 one thread, otherwise the library's
    // choice); a positive number is used as it stands.
    int decoderThreads = 0;
    // Whether the loudness limits above are a delivery rule the user chose (a delivery
    // profile, or loudness options given on a command line). Loudness is a delivery matter,
    // not damage: without a rule a programme off the limits is told as information, a
    // Warning with the measured value; with one, each finding is graded by how far off it is.
    bool loudnessRule = false;
    // The short-form part of a broadcast rule, for programmes under 30 s: the highest
    // short-term and momentary loudness allowed, LUFS; none where the rule has no such
    // limit. Applied only with loudnessRule.
    std::optional<double> shortFormMaxShortTerm{};
    std::optional<double> shortFormMaxMomentary{};
    // Level 4's picture and sound runs: the shortest black, frozen and silent runs told, in
    // seconds, and whether a run that touches the stream's first or last frame (a lead-in
    // or lead-out) is allowed, and so only a Warning, or graded as any other run. A
    // delivery profile may ask for others.
    double minBlackSeconds = 1.0;
    double minFrozenSeconds = 2.0;
    double minSilenceSeconds = 2.0;
    bool leadRunsAllowed = true;

    bool operator==(const ClipCheckOptions&) const = default;
};

} // namespace tarvoqc
