#pragma once

#include <string>

#include "results/qcresult.h"

#include <nlohmann/json.hpp>

namespace tarvoqc::check {

// Human output of one clip: a line with the score text and the path, then, unless
// brief, each issue as its long line, worst first.
std::string humanReport(const QcResult& result, bool brief);

// The JSON object of one clip (one line of the --json output): times in seconds, null
// where unknown; issues worst first.
nlohmann::json jsonReport(const QcResult& result);

} // namespace tarvoqc::check
