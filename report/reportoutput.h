#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "report/reportdata.h"
#include "results/checkdefaults.h"
#include "results/scorecolours.h"

namespace tarvoqc::report {

// One still picture of a clip for the HTML page.
struct ClipPicture
{
    double seconds = 0; // where in the clip, from its start
    std::string label;  // what it shows: "Start", "Middle", "End" or the line
    std::string jpeg;   // the JPEG file's bytes
};

// The pictures of one clip, or why it has none (empty: none were asked for).
struct ClipPictures
{
    std::vector<ClipPicture> pictures;
    std::string note; // e.g. "The clip could not be read: pictures left out"
};

// What every output of one report shows: the clips, and, when a baseline was given, the
// baseline and the comparison with it (both or neither). Observes; owns nothing.
struct ReportView
{
    const ClipSet* clips = nullptr;
    const ClipSet* baseline = nullptr;
    const Comparison* comparison = nullptr;
    QcScore threshold = kDefaultGoodThreshold;
    // The HTML page asks for the pictures of each clip (an index into clips) while it
    // writes that clip, so no more than one clip's pictures are held at a time. Empty: none.
    std::function<ClipPictures(std::size_t)> pictures;
};

// The page's colours, calm and ordered from green (best) to red (worst), so that neither a
// good score nor a warning shouts. The window keeps its own colours (results/scorecolours.h).
struct PageColours
{
    const char* back; // CSS colours
    const char* text;
    const char* bar; // the stronger tone of charts and timeline marks
};
PageColours pageScoreColours(QcScore score);
const char* pageSeverityColour(QcSeverity severity);

// The clip indices worst score first, input order within a score.
std::vector<std::size_t> worstFirst(const std::vector<ClipRecord>& clips);

// Standard base64 of bytes (RFC 4648, with padding).
std::string base64(std::string_view bytes);

// A packed 0x00BBGGRR colour as CSS "#RRGGBB".
std::string cssColour(std::uint32_t bgr);

// The terminal summary: clips per score text, the worst clips (at most worstShown, worst
// first, each with its worst issue), the baseline changes, and the threshold line.
std::string summaryText(const ReportView& view, std::size_t worstShown);

// One CSV row per clip (RFC 4180: CR LF line ends, fields with a comma, quote or line
// end quoted, quotes doubled), after a UTF-8 byte-order mark so that spreadsheets read
// the paths right. With a baseline, two more columns ("Baseline", "Change") and a row
// per missing clip.
void writeCsv(std::ostream& out, const ReportView& view);

// One self-contained HTML page: a summary chart (clips by score, issues by category and
// severity), then the clips as an embedded JSON array, shown by an inline script as a paged
// table, worst first unless sorted otherwise, sortable by each column and filterable by
// score; the state is kept in the address's fragment ("#sort=-score&score=0,1&page=2").
// Under each clip: its facts, a timeline strip (one row per stream, each positioned issue
// a mark or span whose colour and height tell its severity) and its pictures (data URIs,
// put into the page only when their clip's row is shown).
void writeHtml(std::ostream& out, const ReportView& view, const std::string& title);

} // namespace tarvoqc::report
