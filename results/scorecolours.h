#pragma once

#include <cstdint>

#include "results/qcissue.h"

namespace tarvoqc {

// The colours of a score cell, as the window's grid and the reports draw it: packed
// 0x00BBGGRR values.
struct ScoreColours
{
    std::uint32_t back;
    std::uint32_t text;
};

// The colours of score 0..5; a score outside that range takes the nearest one.
ScoreColours scoreColours(QcScore score);

} // namespace tarvoqc
