#include "results/textcodec.h"

#include <array>
#include <cstdio>

namespace tarvoqc {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Decodes the character at text[i]; returns the bytes it takes (at least 1). Anything
// that is not a shortest-form encoding of a scalar value is one byte of U+FFFD.
std::size_t nextUtf8(std::string_view text, std::size_t i, char32_t& cp)
{
    const auto b0 = static_cast<unsigned char>(text[i]);
    if (b0 < 0x80) {
        cp = b0;
        return 1;
    }
    std::size_t len = 0;
    char32_t value = 0;
    char32_t minimum = 0;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        len = 2;
        value = b0 & 0x1F;
        minimum = 0x80;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        len = 3;
        value = b0 & 0x0F;
        minimum = 0x800;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        len = 4;
        value = b0 & 0x07;
        minimum = 0x10000;
    } else {
        cp = kReplacement;
        return 1;
    }
    if (text.size() - i < len) {
        cp = kReplacement;
        return 1;
    }
    for (std::size_t k = 1; k < len; ++k) {
        const auto b = static_cast<unsigned char>(text[i + k]);
        if ((b & 0xC0) != 0x80) {
            cp = kReplacement;
            return 1;
        }
        value = (value << 6) | (b & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
        cp = kReplacement;
        return 1;
    }
    cp = value;
    return len;
}

// Windows-1252, the "ANSI" code page of western systems. Its five unassigned bytes map to
// the C1 controls of the same value, as Windows itself maps them.
constexpr std::array<char16_t, 32> kCp1252High = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

void appendUtf16le(std::string& out, char16_t unit)
{
    out += static_cast<char>(unit & 0xFF);
    out += static_cast<char>(unit >> 8);
}

} // namespace

void appendUtf8(std::string& out, char32_t cp)
{
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

bool isValidUtf8(std::string_view text)
{
    char32_t cp = 0;
    for (std::size_t i = 0; i < text.size();) {
        const auto b = static_cast<unsigned char>(text[i]);
        if (b < 0x80) {
            ++i;
            continue;
        }
        const std::size_t len = nextUtf8(text, i, cp);
        if (cp == kReplacement && len == 1) {
            return false;
        }
        i += len;
    }
    return true;
}

std::string sanitizeUtf8(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    char32_t cp = 0;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t len = nextUtf8(text, i, cp);
        if (cp == kReplacement && len == 1) {
            appendUtf8(out, kReplacement);
        } else {
            out.append(text.substr(i, len));
        }
        i += len;
    }
    return out;
}

std::string utf16leToUtf8(std::string_view bytes)
{
    std::string out;
    out.reserve(bytes.size());
    const std::size_t units = bytes.size() / 2;
    auto unitAt = [&](std::size_t u) {
        return static_cast<char16_t>(static_cast<unsigned char>(bytes[2 * u]) |
                                     (static_cast<unsigned char>(bytes[2 * u + 1]) << 8));
    };
    for (std::size_t u = 0; u < units; ++u) {
        const char16_t unit = unitAt(u);
        if (unit >= 0xD800 && unit <= 0xDBFF && u + 1 < units) {
            const char16_t low = unitAt(u + 1);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                appendUtf8(out, 0x10000 + ((static_cast<char32_t>(unit) - 0xD800) << 10) +
                                    (static_cast<char32_t>(low) - 0xDC00));
                ++u;
                continue;
            }
        }
        appendUtf8(out, (unit >= 0xD800 && unit <= 0xDFFF) ? kReplacement : char32_t{unit});
    }
    if (bytes.size() % 2 != 0) {
        appendUtf8(out, kReplacement);
    }
    return out;
}

std::string cp1252ToUtf8(std::string_view bytes)
{
    std::string out;
    out.reserve(bytes.size() + bytes.size() / 2);
    for (const char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        if (b >= 0x80 && b < 0xA0) {
            appendUtf8(out, kCp1252High[b - 0x80]);
        } else {
            appendUtf8(out, b);
        }
    }
    return out;
}

std::string utf8ToUtf16le(std::string_view text)
{
    std::string out;
    out.reserve(text.size() * 2 + 4);
    char32_t cp = 0;
    for (std::size_t i = 0; i < text.size();) {
        i += nextUtf8(text, i, cp);
        if (cp >= 0x10000) {
            const char32_t v = cp - 0x10000;
            appendUtf16le(out, static_cast<char16_t>(0xD800 + (v >> 10)));
            appendUtf16le(out, static_cast<char16_t>(0xDC00 + (v & 0x3FF)));
        } else {
            appendUtf16le(out, static_cast<char16_t>(cp));
        }
    }
    return out;
}

std::string escapeControl(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (byte < 0x20 || byte == 0x7F) {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02X", byte);
            out += hex;
        } else {
            out += c;
        }
    }
    return out;
}

} // namespace tarvoqc
