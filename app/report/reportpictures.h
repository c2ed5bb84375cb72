#pragma once

#include <cstddef>
#include <vector>

#include "report/reportdata.h"
#include "report/reportoutput.h"

namespace tarvoqc::report {

// Picture bounds of one page. Each picture is a 160 px JPEG of 3 to 8 KB; the defaults
// keep a page of 1000 clips with pictures near 40 MB, which a browser opens in a few
// seconds, since only the rows on screen decode their pictures.
struct PictureLimits
{
    int width = 160;          // pixels
    std::size_t perClip = 12; // start, middle, end and up to 9 issues
    std::size_t clips = 1000; // clips with pictures, worst first
    int secondsPerClip = 30;  // a clip that takes longer is given up (a note says so)
};

// The pictures of one clip for the HTML page: its start, middle and end and the place of
// each positioned issue of a video stream (worst first, up to the limit). The clip is read
// in a child process, restricted as a check's worker is, so a clip that crashes or hangs the
// media libraries costs its pictures, not the report; such a clip, and one that cannot be read any
// more, gets a note.
ClipPictures grabClipPictures(const ClipRecord& clip, const PictureLimits& limits);

// Which clips of a run get pictures: the first limits.clips of them, worst first, that have
// a video stream (or whose input does not tell their streams, an older run's lines, unless
// they scored 0: not opened).
std::vector<bool> clipsWithPictures(const std::vector<ClipRecord>& clips,
                                    const PictureLimits& limits);

} // namespace tarvoqc::report
