#pragma once

namespace tarvoqc {

// How a ClipChecker checks, beyond the check level: the limits of the picture and sound
// checks of level 4 and the decoder threads of every level. A plain value; the defaults
// are those of the settings file.
struct ClipCheckOptions
{
    double loudnessTarget = -23.0;  // integrated loudness, LUFS
    double loudnessTolerance = 1.0; // LU either side of the target
    double truePeakLimit = -1.0;    // dBTP
    // Threads per decoder (frame and slice threads) and per detector graph. 0 leaves them
    // to the decoder thread option of Open (below 0 one thread, otherwise the library's
    // choice); a positive number is used as it stands.
    int decoderThreads = 0;

    bool operator==(const ClipCheckOptions&) const = default;
};

} // namespace tarvoqc
