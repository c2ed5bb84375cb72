#pragma once

#include <string_view>

namespace tarvoqc {

// Case rules for names, tags and extensions: ASCII letters compare without regard to case;
// every other byte, UTF-8 beyond ASCII included, must match exactly.

constexpr char lowerAscii(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool equalsIgnoreCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (lowerAscii(a[i]) != lowerAscii(b[i])) {
            return false;
        }
    }
    return true;
}

constexpr bool endsWithIgnoreCase(std::string_view text, std::string_view suffix)
{
    return text.size() >= suffix.size() &&
           equalsIgnoreCase(text.substr(text.size() - suffix.size()), suffix);
}

} // namespace tarvoqc
