#pragma once

#include <string>
#include <string_view>

#include "results/qcresult.h"
#include "results/textcodec.h"

#include <nlohmann/json.hpp>

namespace tarvoqc::check {

// Paths are printed as every program prints them (results/textcodec.h).
using tarvoqc::escapeControl;

// Human output of one clip: a line with the score text and the path (escaped), then,
// unless brief, each issue as its long line, worst first.
std::string humanReport(const QcResult& result, bool brief);

// The layout of a JSON line: 1 had no "format" member; 2 adds "format" and "tool",
// "container" (the demuxer's name), the picture and sound facts of each stream and the place
// of positioned issues ("at" and, for runs, "length", in seconds from the stream's start;
// absent where the issue has none).
inline constexpr int kJsonFormatVersion = 2;

// The JSON object of one clip (one line of the --json output): times in seconds, null
// where unknown; issues worst first.
nlohmann::json jsonReport(const QcResult& result);

// jsonReport as one line of text. Paths are bytes and need not be UTF-8: each byte that is
// not part of a valid UTF-8 sequence is written as U+FFFD, so the line is always valid
// JSON.
std::string jsonLine(const QcResult& result);

} // namespace tarvoqc::check
