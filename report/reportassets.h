#pragma once

#include <string_view>

namespace tarvoqc::report {

// The HTML page's style sheet and script, kept in files of their own beside this header
// (report.css, report.js) and embedded at build time. The texts live as long as the program.
std::string_view reportStyleSheet();
std::string_view reportScript();

} // namespace tarvoqc::report
