#pragma once

// Invariants of the XML reader and writer on arbitrary input, shared by the fuzz targets
// and by the unit test that replays the seed corpora and the kept regression inputs.
// Each check returns an empty string when every invariant holds, else what failed.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "results/jobfile.h"
#include "results/xmlnode.h"

namespace tarvoqc::fuzz {

// Parsed and decoded text is always valid UTF-8 (shortest forms, no surrogates, nothing
// past U+10FFFF) without zero characters.
inline bool isValidUtf8Text(std::string_view text)
{
    for (std::size_t i = 0; i < text.size();) {
        const auto b = static_cast<unsigned char>(text[i]);
        if (b == 0) {
            return false;
        }
        if (b < 0x80) {
            ++i;
            continue;
        }
        const std::size_t len = b >= 0xC2 && b <= 0xDF   ? 2
                                : b >= 0xE0 && b <= 0xEF ? 3
                                : b >= 0xF0 && b <= 0xF4 ? 4
                                                         : 0;
        if (len == 0 || text.size() - i < len) {
            return false;
        }
        char32_t cp = b & (0xFF >> (len + 1));
        for (std::size_t k = 1; k < len; ++k) {
            const auto c = static_cast<unsigned char>(text[i + k]);
            if ((c & 0xC0) != 0x80) {
                return false;
            }
            cp = (cp << 6) | (c & 0x3F);
        }
        const char32_t minimum = len == 2 ? 0x80 : len == 3 ? 0x800 : 0x10000;
        if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false;
        }
        i += len;
    }
    return true;
}

inline std::size_t utf8Chars(std::string_view text)
{
    std::size_t n = 0;
    for (const char c : text) {
        n += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }
    return n;
}

// Structure every tree the reader builds must have.
inline std::string checkTreeShape(const XmlNode& top)
{
    std::vector<const XmlNode*> pending{&top};
    while (!pending.empty()) {
        const XmlNode* node = pending.back();
        pending.pop_back();
        if (node->depth() - top.depth() > kMaxXmlDepth) {
            return "tree deeper than the limit";
        }
        if (node->attributeCount() > kMaxXmlAttributes) {
            return "more attributes than the limit";
        }
        for (std::size_t i = 0; i < node->attributeCount(); ++i) {
            if (!isValidUtf8Text(node->attributeName(i)) ||
                !isValidUtf8Text(node->attributeValue(i))) {
                return "attribute is not clean UTF-8";
            }
        }
        if (!isValidUtf8Text(node->text())) {
            return "text is not clean UTF-8";
        }
        for (const auto& child : node->children()) {
            if (child->parent() != node || child->depth() != node->depth() + 1) {
                return "broken parent link or depth";
            }
            if (!isValidXmlName(child->name()) || utf8Chars(child->name()) > kMaxXmlNameChars ||
                !isValidUtf8Text(child->name())) {
                return "element name that AddChild would refuse";
            }
            pending.push_back(child.get());
        }
    }
    return {};
}

// Characters no XML document can hold: the writer puts stand-ins in their place.
inline bool holdsUnwritable(std::string_view text)
{
    return text.find("\xEF\xBF\xBE") != std::string_view::npos ||
           text.find("\xEF\xBF\xBF") != std::string_view::npos ||
           std::any_of(text.begin(), text.end(), [](char c) {
               return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\r' && c != '\n';
           });
}

// Trees the writer can express exactly. The format itself loses the rest: text after
// children is skipped when read, leading tabs and line feeds of text are skipped,
// characters no XML document can hold are written as stand-ins, and "img"/"hr" elements
// have no content when read.
inline bool savesExactly(const XmlNode& top)
{
    std::vector<const XmlNode*> pending{&top};
    while (!pending.empty()) {
        const XmlNode* node = pending.back();
        pending.pop_back();
        for (std::size_t i = 0; i < node->attributeCount(); ++i) {
            if (holdsUnwritable(node->attributeValue(i))) {
                return false;
            }
        }
        const std::string& text = node->text();
        if (!text.empty()) {
            if (!node->children().empty() || holdsUnwritable(text) || text[0] == '\t' ||
                text[0] == '\n') {
                return false;
            }
            if (text.starts_with("<![CDATA[") && text.find("]]>", 9) != text.size() - 3) {
                return false;
            }
        }
        std::string lower = node->name();
        for (char& c : lower) {
            c = (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
        }
        const bool hasContent = !text.empty() || !node->children().empty();
        if (hasContent && (lower == "img" || lower == "hr")) {
            return false;
        }
        for (const auto& child : node->children()) {
            pending.push_back(child.get());
        }
    }
    return true;
}

// Names, attributes, texts and children; the closed marks are the parse results' business.
inline std::string compareTrees(const XmlNode& a, const XmlNode& b)
{
    std::vector<std::pair<const XmlNode*, const XmlNode*>> pending{{&a, &b}};
    while (!pending.empty()) {
        const auto [x, y] = pending.back();
        pending.pop_back();
        if (x->name() != y->name() || x->text() != y->text() ||
            x->attributeCount() != y->attributeCount() || x->childCount() != y->childCount()) {
            return "trees differ at element '" + x->name() + "'";
        }
        for (std::size_t i = 0; i < x->attributeCount(); ++i) {
            if (x->attributeName(i) != y->attributeName(i) ||
                x->attributeValue(i) != y->attributeValue(i)) {
                return "attributes differ at element '" + x->name() + "'";
            }
        }
        for (std::size_t i = 0; i < x->childCount(); ++i) {
            pending.emplace_back(x->child(i), y->child(i));
        }
    }
    return {};
}

// Parse of arbitrary text, then the writer and reader on the result.
inline std::string checkParse(std::string_view text)
{
    XmlNode document;
    const bool parsed = document.Parse(text);
    if (std::string shape = checkTreeShape(document); !shape.empty()) {
        return shape;
    }
    if (parsed && (document.childCount() != 1 || !document.isClosed())) {
        return "a successful parse must give one closed root";
    }
    const std::string bytes = document.saveBytes();
    if (bytes.size() < 4 || bytes.size() % 2 != 0 || !bytes.starts_with("\xFF\xFE") ||
        !bytes.ends_with(std::string_view("\0\0", 2))) {
        return "saved bytes lack the mark or the terminator";
    }
    XmlNode again;
    const bool reloaded = again.loadBytes(bytes);
    if (std::string shape = checkTreeShape(again); !shape.empty()) {
        return "after reload: " + shape;
    }
    if (parsed && savesExactly(document)) {
        if (!reloaded) {
            return "a saved document does not load";
        }
        if (std::string diff = compareTrees(document, again); !diff.empty()) {
            return "round trip: " + diff;
        }
        if (again.saveBytes() != bytes) {
            return "saved twice, the bytes differ";
        }
    }

    // The other readers of a parsed tree must cope with whatever it holds.
    (void)XmlNode::DetectEncoding(text);
    std::string value;
    (void)document.GetByPath(text.substr(0, 64), value);
    (void)document.FindDeep(text.substr(0, 16));
    Job job;
    (void)loadJob(document, job);
    for (const JobClip& clip : job.clips) {
        if (clip.clipPath.empty()) {
            return "job with an empty clip path";
        }
    }
    return {};
}

// The decoding of file bytes, then the same checks on the decoded text.
inline std::string checkLoad(std::string_view bytes)
{
    const std::string text = decodeXmlFileBytes(bytes);
    // Zero characters may come from the file; the text ends at the first one.
    const std::string_view untilZero = std::string_view(text).substr(0, text.find('\0'));
    if (!isValidUtf8Text(untilZero)) {
        return "decoded text is not valid UTF-8";
    }
    const bool marked = bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xEF\xBB\xBF");
    if (!marked && isValidUtf8Text(bytes) && text != bytes) {
        return "unmarked UTF-8 must be taken as it stands";
    }
    XmlNode direct;
    XmlNode viaText;
    const bool a = direct.loadBytes(bytes);
    const bool b = viaText.Parse(text);
    if (a != b || !compareTrees(direct, viaText).empty()) {
        return "loadBytes differs from Parse of the decoded text";
    }
    return checkParse(text);
}

} // namespace tarvoqc::fuzz
