#include "results/scorecolours.h"

#include <algorithm>
#include <array>

namespace tarvoqc {

namespace {

constexpr std::array<ScoreColours, kBestScore + 1> kScoreColours = {{
    {0x000040, 0xC0C0C0}, // 0 ERROR
    {0x000080, 0xC0C0C0}, // 1 Very BAD
    {0x0000A0, 0xC0C0C0}, // 2 BAD
    {0x0000E0, 0x000000}, // 3 Playable
    {0x0000FF, 0x000000}, // 4 Good
    {0x00FF00, 0x000000}, // 5 OK
}};

} // namespace

ScoreColours scoreColours(QcScore score)
{
    return kScoreColours[static_cast<std::size_t>(std::clamp(score, 0, kBestScore))];
}

} // namespace tarvoqc
