#pragma once

#include <string>
#include <string_view>

namespace tarvoqc {

// Text conversions of the files the system reads and writes. Everything inside is UTF-8;
// whatever cannot be decoded becomes U+FFFD (one per offending byte or unit), so no input
// stops a read or a write.

bool isValidUtf8(std::string_view text);
// Appends the UTF-8 form of a code point (up to U+10FFFF; no check for surrogates).
void appendUtf8(std::string& out, char32_t cp);
// text with every byte that does not start a well-formed sequence replaced by U+FFFD.
std::string sanitizeUtf8(std::string_view text);
std::string utf16leToUtf8(std::string_view bytes);
std::string cp1252ToUtf8(std::string_view bytes);
std::string utf8ToUtf16le(std::string_view text);

// A path (or any text) for one line of terminal output, as every program prints paths:
// control characters become "\n", "\r", "\t" or "\xHH", and a backslash "\\", so a name
// can neither split a line nor pass for another name. Other bytes, UTF-8 or not, stay.
std::string escapeControl(std::string_view text);

} // namespace tarvoqc
