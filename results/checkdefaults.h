#pragma once

#include "results/qcissue.h"
#include "results/qcresult.h"

namespace tarvoqc {

// The defaults of a check, in one place: the settings file's table of keys, the command
// lines, the window and the watch job all start from these, so that a clip checked by any
// of them without settings is checked alike.

// Level 3: decoding with the frame checks, the deepest check that stays as fast as a decode.
inline constexpr CheckLevel kDefaultCheckLevel = 3;
// A clip is good from "3/5 Playable" on: issues up to High severity leave it usable.
inline constexpr QcScore kDefaultGoodThreshold = 3;

// Level 4's loudness limits: EBU R 128 (2020), a programme's integrated loudness -23 LUFS
// within +/- 1 LU where a live programme is concerned, and a maximum true peak of -1 dBTP.
inline constexpr double kDefaultLoudnessTarget = -23.0;  // LUFS
inline constexpr double kDefaultLoudnessTolerance = 1.0; // LU either side of the target
inline constexpr double kDefaultTruePeakLimit = -1.0;    // dBTP

// Each check's process: 4 GiB of memory, far above what decoding any real clip takes (an
// 8K picture is 200 MB), and 120 s without activity for a hang.
inline constexpr int kDefaultWorkerMemoryMiB = 4096;
inline constexpr int kDefaultHangTimeoutSeconds = 120;

// The seconds a clip must stand unchanged in a watched folder before it is checked.
inline constexpr int kDefaultSettleSeconds = 5;

} // namespace tarvoqc
