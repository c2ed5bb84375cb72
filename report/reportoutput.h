#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "report/reportdata.h"
#include "results/checkdefaults.h"
#include "results/scorecolours.h"

namespace tarvoqc::report {

// What every output of one report shows: the clips, and, when a baseline was given, the
// baseline and the comparison with it (both or neither). Observes; owns nothing.
struct ReportView
{
    const ClipSet* clips = nullptr;
    const ClipSet* baseline = nullptr;
    const Comparison* comparison = nullptr;
    QcScore threshold = kDefaultGoodThreshold;
};

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

// One self-contained HTML page: the clips as an embedded JSON array, shown by an inline
// script as a paged table, sortable by each column and filterable by score; the state is
// kept in the address's fragment ("#sort=-score&score=0,1&page=2").
void writeHtml(std::ostream& out, const ReportView& view, const std::string& title);

} // namespace tarvoqc::report
