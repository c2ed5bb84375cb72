#include "results/xmlnode.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <limits>
#include <utility>

#include "files/fileio.h"
#include "results/qcissue.h"
#include "results/textcase.h"
#include "results/textcodec.h"

// Reading rules (a forgiving reader, not a validating one):
// - A tag starts at the next "<". Spaces may follow; a "/" there or inside the name makes
//   it a closing tag and is dropped from the name, except a "/" right before ">", which
//   ends an empty-element tag ("<a/>" is element a, so a child may share its parent's
//   name). The name ends at a space, tab, ">", CR or LF and is cut to kMaxXmlNameChars.
// - An attribute name runs from its first non-space character to "=" (spaces before the
//   "=" stay in it); after the "=", the first quote of either kind opens the value, which
//   runs to the same quote. A ">" met first ends the list; a name without "=" is ignored.
//   Values decode &quot; &apos; &lt; &amp; and character references ("&#10;", "&#x1F3AC;"
//   for any character but the zero character); other "&" sequences stay as written.
// - An element whose last non-space character before ">" is "/" is empty and closed.
//   "img", "hr" and "!--" elements have no content and are never closed.
// - Text is what precedes the first child: leading spaces, tabs and line breaks are
//   skipped; a CDATA section is kept as it stands (delimiters included); other text is
//   decoded for &quot; &amp; &lt; &gt; &nbsp; (a space) &apos; and character references.
//   Text after a child is skipped.
// - A closing tag of the element's own name (case-sensitive) ends it, closed when ">"
//   follows (after optional spaces); a closing tag of another name adds an empty, closed
//   child; a refused name skips its tag.

namespace tarvoqc {

namespace {

constexpr std::string_view kRefusedNameChars = " !\"#$%&'()*+,/;<=>?@[\\]^`{|}~";

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool startsWithIgnoreCase(std::string_view text, std::string_view prefix)
{
    return text.size() >= prefix.size() && equalsIgnoreCase(text.substr(0, prefix.size()), prefix);
}

// Texts end at their first zero character, as in the file format.
std::string_view untilZero(std::string_view text)
{
    const std::size_t zero = text.find('\0');
    return zero == std::string_view::npos ? text : text.substr(0, zero);
}

// ---- entities ------------------------------------------------------------------------

struct Entity
{
    std::string_view code;
    char value;
};
constexpr std::array<Entity, 4> kAttributeEntities = {
    {{"&quot;", '"'}, {"&apos;", '\''}, {"&lt;", '<'}, {"&amp;", '&'}}};
constexpr std::array<Entity, 6> kTextEntities = {{{"&quot;", '"'},
                                                  {"&amp;", '&'},
                                                  {"&lt;", '<'},
                                                  {"&gt;", '>'},
                                                  {"&nbsp;", ' '},
                                                  {"&apos;", '\''}}};

// A character reference ("&#65;", "&#x41;") at the start of text: its length and its
// character, or 0 when text does not start with one that names a character other than the
// zero character.
std::size_t characterReference(std::string_view text, char32_t& character)
{
    const bool hexadecimal = text.starts_with("&#x") || text.starts_with("&#X");
    if (!hexadecimal && !text.starts_with("&#")) {
        return 0;
    }
    const std::size_t start = hexadecimal ? 3 : 2;
    const std::size_t end = text.find(';', start);
    if (end == std::string_view::npos || end == start || end - start > 8) {
        return 0;
    }
    std::uint32_t value = 0;
    const auto [ptr, ec] =
        std::from_chars(text.data() + start, text.data() + end, value, hexadecimal ? 16 : 10);
    if (ec != std::errc{} || ptr != text.data() + end || value == 0 || value > 0x10FFFF ||
        (value >= 0xD800 && value <= 0xDFFF)) {
        return 0;
    }
    character = value;
    return end + 1;
}

template <std::size_t N>
std::string decodeEntities(std::string_view text, const std::array<Entity, N>& entities)
{
    if (text.find('&') == std::string_view::npos) {
        return std::string(text);
    }
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        if (text[i] == '&') {
            const std::string_view rest = text.substr(i);
            const auto hit = std::find_if(entities.begin(), entities.end(), [&](const Entity& e) {
                return rest.substr(0, e.code.size()) == e.code;
            });
            if (hit != entities.end()) {
                out += hit->value;
                i += hit->code.size();
                continue;
            }
            char32_t character = 0;
            if (const std::size_t length = characterReference(rest, character); length > 0) {
                appendUtf8(out, character);
                i += length;
                continue;
            }
        }
        out += text[i++];
    }
    return out;
}

// Characters that XML cannot carry at all, even as references: the C0 controls other than
// tab, CR and LF, and U+FFFE and U+FFFF. A control is written as its picture from the
// Unicode block Control Pictures (U+2400 + its code: ESC as U+241B), the two others as
// U+FFFD, so every XML reader reads the same, well-formed name. Gives the length of such a
// character at the start of text (0 for any other) and appends its replacement.
std::size_t appendUnwritable(std::string& out, std::string_view text)
{
    const auto byte = static_cast<unsigned char>(text[0]);
    if (byte < 0x20 && byte != '\t' && byte != '\r' && byte != '\n') {
        appendUtf8(out, 0x2400 + byte);
        return 1;
    }
    if (text.starts_with("\xEF\xBF\xBE") || text.starts_with("\xEF\xBF\xBF")) {
        out += "\xEF\xBF\xBD";
        return 3;
    }
    return 0;
}

// How the writer spells a character in an attribute value and in a text (nullptr: as it
// is), so that every XML reader reads them as they are. Tab, CR and LF are references in
// values, which XML readers would turn into spaces; in texts a CR, which they would make a
// line feed, and ">" (so that "]]>" never appears).
struct Spelling
{
    char character;
    const char* inValue;
    const char* inText;
};
constexpr std::array<Spelling, 8> kSpellings = {{{'"', "&quot;", "&quot;"},
                                                 {'&', "&amp;", "&amp;"},
                                                 {'\'', "&apos;", "&apos;"},
                                                 {'<', "&lt;", "&lt;"},
                                                 {'>', nullptr, "&gt;"},
                                                 {'\t', "&#9;", nullptr},
                                                 {'\n', "&#10;", nullptr},
                                                 {'\r', "&#13;", "&#13;"}}};

// A text's leading space, which the reader skips, is "&#32;"; a text that is a CDATA
// section is written as it stands.
void appendEscaped(std::string& out, std::string_view text, bool inText)
{
    if (inText && text.starts_with("<![CDATA[")) {
        out += text;
        return;
    }
    for (std::size_t i = 0; i < text.size();) {
        if (const std::size_t used = appendUnwritable(out, text.substr(i)); used > 0) {
            i += used;
            continue;
        }
        const char c = text[i];
        const auto hit = std::find_if(kSpellings.begin(), kSpellings.end(),
                                      [c](const Spelling& s) { return s.character == c; });
        const char* spelled = hit == kSpellings.end() ? nullptr
                              : inText                ? hit->inText
                                                      : hit->inValue;
        if (inText && i == 0 && c == ' ') {
            out += "&#32;";
        } else if (spelled != nullptr) {
            out += spelled;
        } else {
            out += c;
        }
        ++i;
    }
}

template <typename T> std::string decimal(T value)
{
    std::array<char, 24> buffer{};
    const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
    return std::string(buffer.data(), result.ptr);
}

std::string hex(std::uint64_t value, bool plain, int width)
{
    std::array<char, 20> buffer{};
    const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, 16);
    std::string digits(buffer.data(), result.ptr);
    if (plain) {
        return digits;
    }
    std::transform(digits.begin(), digits.end(), digits.begin(),
                   [](char c) { return (c >= 'a' && c <= 'f') ? static_cast<char>(c - 32) : c; });
    if (digits.size() < static_cast<std::size_t>(width)) {
        digits.insert(0, static_cast<std::size_t>(width) - digits.size(), '0');
    }
    return digits;
}

} // namespace

// ---- reader --------------------------------------------------------------------------

namespace detail {

class XmlReader
{
public:
    explicit XmlReader(std::string_view text) : m_s(text) {}

    bool parseDocument(XmlNode& document)
    {
        m_baseDepth = document.m_depth;
        document.Clear();
        Tag tag;
        for (;;) {
            tag = readTag();
            if (!tag.found) {
                return false;
            }
            if (startsWithIgnoreCase(tag.name, "?xml") || tag.name.starts_with("!--")) {
                readAttributes(&document);
                if (m_failed) {
                    return false;
                }
                continue;
            }
            break;
        }
        // The declarations' attributes do not belong to the document.
        document.Clear();
        XmlNode* root = addChild(document, tag.name);
        if (root == nullptr) {
            return false;
        }
        parseElement(*root);
        if (m_failed) {
            return false;
        }
        if (m_s.find('>', m_pos) != std::string_view::npos) {
            document.m_flags |= kXmlClosed;
        }
        return allClosed(document);
    }

    // The "encoding" attribute of the leading declarations.
    std::string detectEncoding()
    {
        XmlNode declarations;
        for (;;) {
            const Tag tag = readTag();
            if (!tag.found || m_failed) {
                break;
            }
            if (startsWithIgnoreCase(tag.name, "?xml")) {
                readAttributes(&declarations);
            } else if (tag.name.starts_with("!--")) {
                readAttributes(nullptr);
            } else {
                break;
            }
        }
        return declarations.GetString("encoding", "");
    }

private:
    struct Tag
    {
        std::string name;
        bool closing = false;
        bool found = false;
    };

    bool atEnd() const { return m_pos >= m_s.size(); }

    void skipSpaces()
    {
        while (!atEnd() && isSpace(m_s[m_pos])) {
            ++m_pos;
        }
    }

    Tag readTag()
    {
        Tag tag;
        const std::size_t lt = m_s.find('<', m_pos);
        if (lt == std::string_view::npos) {
            m_pos = m_s.size();
            return tag;
        }
        tag.found = true;
        m_pos = lt + 1;
        skipSpaces();
        const std::size_t start = m_pos;
        bool hasSlash = false;
        while (!atEnd()) {
            const char c = m_s[m_pos];
            if (isSpace(c) || c == '>') {
                break;
            }
            if (c == '/') {
                if (m_pos + 1 < m_s.size() && m_s[m_pos + 1] == '>') {
                    break;
                }
                tag.closing = true;
                hasSlash = true;
            }
            ++m_pos;
        }
        const std::string_view raw = m_s.substr(start, m_pos - start);
        if (!hasSlash) {
            tag.name = cutUtf8(raw, kMaxXmlNameChars);
        } else {
            std::string name;
            name.reserve(raw.size());
            for (const char c : raw) {
                if (c != '/') {
                    name += c;
                }
            }
            tag.name = cutUtf8(name, kMaxXmlNameChars);
        }
        return tag;
    }

    // Reads the attributes up to the ">" that ends the tag, into node unless it is
    // nullptr. True when that ">" was found; the position is then on it and m_selfClosed
    // tells whether the last non-space character before it was "/".
    bool readAttributes(XmlNode* node)
    {
        char last = m_pos > 0 ? m_s[m_pos - 1] : '\0';
        m_selfClosed = false;
        for (;;) {
            skipSpaces();
            if (atEnd()) {
                return false;
            }
            if (m_s[m_pos] == '>') {
                m_selfClosed = last == '/';
                return true;
            }
            const std::size_t nameStart = m_pos;
            while (!atEnd() && m_s[m_pos] != '=' && m_s[m_pos] != '>') {
                if (!isSpace(m_s[m_pos])) {
                    last = m_s[m_pos];
                }
                ++m_pos;
            }
            if (atEnd()) {
                return false;
            }
            if (m_s[m_pos] == '>') {
                continue; // a name without "=" is ignored
            }
            const std::string_view name = m_s.substr(nameStart, m_pos - nameStart);
            last = '=';
            ++m_pos;
            while (!atEnd() && m_s[m_pos] != '"' && m_s[m_pos] != '\'' && m_s[m_pos] != '>') {
                if (!isSpace(m_s[m_pos])) {
                    last = m_s[m_pos];
                }
                ++m_pos;
            }
            if (atEnd()) {
                return false;
            }
            if (m_s[m_pos] == '>') {
                m_selfClosed = last == '/';
                return true;
            }
            const char quote = m_s[m_pos];
            const std::size_t valueStart = m_pos + 1;
            const std::size_t valueEnd = m_s.find(quote, valueStart);
            const std::string_view value =
                m_s.substr(valueStart, valueEnd == std::string_view::npos ? std::string_view::npos
                                                                          : valueEnd - valueStart);
            if (node != nullptr && !addAttribute(*node, name, value)) {
                return false;
            }
            if (valueEnd == std::string_view::npos) {
                m_pos = m_s.size();
                return false;
            }
            m_pos = valueEnd + 1;
            last = quote;
        }
    }

    bool countItem()
    {
        if (++m_items > kMaxXmlItems) {
            m_failed = true;
        }
        return !m_failed;
    }

    bool addAttribute(XmlNode& node, std::string_view name, std::string_view value)
    {
        if (node.m_attributes.size() >= kMaxXmlAttributes) {
            m_failed = true;
        }
        if (!countItem()) {
            return false;
        }
        // Read attributes are appended without a test for duplicates.
        node.m_attributes.push_back({std::string(name), decodeEntities(value, kAttributeEntities)});
        return true;
    }

    XmlNode* addChild(XmlNode& parent, std::string_view name)
    {
        if (!isValidXmlName(name)) {
            return nullptr;
        }
        if (parent.m_depth - m_baseDepth >= kMaxXmlDepth) {
            m_failed = true;
        }
        if (!countItem()) {
            return nullptr;
        }
        return parent.AddChild(name);
    }

    void parseElement(XmlNode& element)
    {
        if (!readAttributes(&element) || m_failed) {
            return;
        }
        if (m_selfClosed) {
            element.m_flags |= kXmlClosed;
            return;
        }
        const std::string& name = element.m_name;
        if (equalsIgnoreCase(name, "img") || equalsIgnoreCase(name, "hr") ||
            equalsIgnoreCase(name, "!--")) {
            return;
        }
        ++m_pos; // past ">"
        readText(element);
        for (;;) {
            if (m_failed) {
                return;
            }
            const Tag tag = readTag();
            if (!tag.found) {
                return;
            }
            if (tag.closing) {
                if (tag.name == element.m_name) {
                    skipSpaces();
                    if (!atEnd() && m_s[m_pos] == '>') {
                        element.m_flags |= kXmlClosed;
                    }
                    return;
                }
                if (XmlNode* empty = addChild(element, tag.name)) {
                    empty->m_flags |= kXmlClosed;
                }
                continue;
            }
            XmlNode* child = addChild(element, tag.name);
            if (child == nullptr) {
                if (!m_failed) {
                    readAttributes(nullptr);
                }
                continue;
            }
            parseElement(*child);
        }
    }

    void readText(XmlNode& element)
    {
        skipSpaces();
        const std::string_view rest = m_s.substr(m_pos);
        if (rest.starts_with("<![CDATA[")) {
            const std::size_t end = rest.find("]]>", 9);
            const std::size_t length = end == std::string_view::npos ? rest.size() : end + 3;
            element.SetText(rest.substr(0, length));
            m_pos += length;
            return;
        }
        const std::size_t lt = rest.find('<');
        const std::size_t length = lt == std::string_view::npos ? rest.size() : lt;
        element.SetText(decodeEntities(rest.substr(0, length), kTextEntities));
        m_pos += length;
    }

    static bool allClosed(const XmlNode& top)
    {
        std::vector<const XmlNode*> pending{&top};
        while (!pending.empty()) {
            const XmlNode* node = pending.back();
            pending.pop_back();
            if (!node->isClosed()) {
                return false;
            }
            for (const auto& c : node->children()) {
                pending.push_back(c.get());
            }
        }
        return true;
    }

    std::string_view m_s;
    std::size_t m_pos = 0;
    std::size_t m_items = 0;
    std::int32_t m_baseDepth = 0;
    bool m_selfClosed = false;
    bool m_failed = false;
};

} // namespace detail

// ---- XmlNode -------------------------------------------------------------------------

bool isValidXmlName(std::string_view name)
{
    const std::string cut = cutUtf8(untilZero(name), kMaxXmlNameChars);
    if (cut.empty() || cut[0] == '-' || cut[0] == '.' || (cut[0] >= '0' && cut[0] <= '9')) {
        return false;
    }
    // Control characters cannot be written in a name (and white space ends one when read).
    return std::none_of(cut.begin(), cut.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 ||
               kRefusedNameChars.find(c) != std::string_view::npos;
    });
}

XmlNode::XmlNode() = default;

XmlNode::~XmlNode()
{
    // Unlink the subtree level by level so that a deep tree never recurses in the
    // destructors of its children.
    std::vector<std::unique_ptr<XmlNode>> pending = std::move(m_children);
    while (!pending.empty()) {
        std::unique_ptr<XmlNode> node = std::move(pending.back());
        pending.pop_back();
        for (auto& c : node->m_children) {
            pending.push_back(std::move(c));
        }
        node->m_children.clear();
    }
}

void XmlNode::Clear()
{
    m_attributes.clear();
    std::vector<std::unique_ptr<XmlNode>> old = std::move(m_children);
    m_children.clear();
    m_text.clear();
    m_flags = 0;
    // A holder node takes the old children so that their subtrees die without recursion.
    XmlNode holder;
    holder.m_children = std::move(old);
}

XmlNode* XmlNode::AddChild(std::string_view name)
{
    if (!isValidXmlName(name)) {
        return nullptr;
    }
    auto node = std::make_unique<XmlNode>();
    node->m_name = cutUtf8(untilZero(name), kMaxXmlNameChars);
    node->m_parent = this;
    node->m_depth = m_depth + 1;
    m_children.push_back(std::move(node));
    return m_children.back().get();
}

const XmlNode* XmlNode::FindChild(std::string_view name) const
{
    for (const auto& c : m_children) {
        if (equalsIgnoreCase(c->m_name, name)) {
            return c.get();
        }
    }
    return nullptr;
}

XmlNode* XmlNode::FindChild(std::string_view name)
{
    return const_cast<XmlNode*>(std::as_const(*this).FindChild(name));
}

const XmlNode* XmlNode::FindDeep(std::string_view name) const
{
    std::vector<const XmlNode*> pending{this};
    while (!pending.empty()) {
        const XmlNode* node = pending.back();
        pending.pop_back();
        if (equalsIgnoreCase(node->m_name, name)) {
            return node;
        }
        // Pushed last to first, so that the first child is looked at next.
        for (std::size_t i = node->m_children.size(); i-- > 0;) {
            pending.push_back(node->m_children[i].get());
        }
    }
    return nullptr;
}

XmlNode* XmlNode::FindDeep(std::string_view name)
{
    return const_cast<XmlNode*>(std::as_const(*this).FindDeep(name));
}

void XmlNode::RemoveChild(std::ptrdiff_t index)
{
    if (index < 0 || static_cast<std::size_t>(index) >= m_children.size()) {
        return;
    }
    std::unique_ptr<XmlNode> removed = std::move(m_children[static_cast<std::size_t>(index)]);
    m_children.erase(m_children.begin() + index);
}

void XmlNode::SetAttribute(std::string_view name, std::string_view value)
{
    name = untilZero(name);
    value = untilZero(value);
    for (auto& a : m_attributes) {
        if (a.name == name) {
            a.value = value;
            return;
        }
    }
    m_attributes.push_back({std::string(name), std::string(value)});
}

void XmlNode::setInt(std::string_view name, std::int32_t value)
{
    SetAttribute(name, decimal(value));
}

void XmlNode::setUInt(std::string_view name, std::uint32_t value)
{
    SetAttribute(name, decimal(value));
}

void XmlNode::setInt64(std::string_view name, std::int64_t value)
{
    SetAttribute(name, decimal(value));
}

void XmlNode::setUInt64(std::string_view name, std::uint64_t value)
{
    SetAttribute(name, decimal(value));
}

void XmlNode::setHex32(std::string_view name, std::uint32_t value, bool plain)
{
    SetAttribute(name, hex(value, plain, 8));
}

void XmlNode::setHex64(std::string_view name, std::uint64_t value, bool plain)
{
    SetAttribute(name, hex(value, plain, 16));
}

void XmlNode::setReal(std::string_view name, double value, int fractionDigits)
{
    SetAttribute(name, formatReal(value, fractionDigits));
}

void XmlNode::setSeconds(std::string_view name, ClipTicks value)
{
    SetAttribute(name, formatSeconds(value));
}

const std::string* XmlNode::GetAttribute(std::string_view name) const
{
    for (const auto& a : m_attributes) {
        if (a.name == name) {
            return &a.value;
        }
    }
    return nullptr;
}

std::string XmlNode::GetString(std::string_view name, std::string_view fallback) const
{
    const std::string* value = GetAttribute(name);
    return value != nullptr ? *value : std::string(fallback);
}

std::int32_t XmlNode::GetInt(std::string_view name, std::int32_t fallback) const
{
    const std::string* value = GetAttribute(name);
    if (value == nullptr) {
        return fallback;
    }
    std::size_t i = 0;
    const std::string& v = *value;
    while (i < v.size() && (isSpace(v[i]) || v[i] == '\v' || v[i] == '\f')) {
        ++i;
    }
    bool negative = false;
    if (i < v.size() && (v[i] == '+' || v[i] == '-')) {
        negative = v[i] == '-';
        ++i;
    }
    std::int64_t magnitude = 0;
    for (; i < v.size() && v[i] >= '0' && v[i] <= '9'; ++i) {
        magnitude =
            std::min<std::int64_t>(magnitude * 10 + (v[i] - '0'), std::int64_t{INT32_MAX} + 1);
    }
    const std::int64_t result = negative ? -magnitude : magnitude;
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(result, INT32_MIN, INT32_MAX));
}

void XmlNode::SetText(std::string_view text)
{
    m_text = untilZero(text);
}

bool XmlNode::GetByPath(std::string_view path, std::string& value) const
{
    const XmlNode* node = this;
    std::size_t pos = 0;
    for (;;) {
        const std::size_t nameEnd = path.find_first_of("<>", pos);
        const std::string_view name = path.substr(pos, nameEnd - pos);
        pos = nameEnd;
        std::size_t index = 0;
        if (pos != std::string_view::npos && path[pos] == '<') {
            // The index's closing bracket is also the ">" that ends the segment.
            const std::size_t close = path.find('>', pos + 1);
            if (close == std::string_view::npos || close == pos + 1) {
                return false;
            }
            for (std::size_t i = pos + 1; i < close; ++i) {
                if (path[i] < '0' || path[i] > '9') {
                    return false;
                }
                index = std::min<std::size_t>(index * 10 + static_cast<std::size_t>(path[i] - '0'),
                                              std::numeric_limits<std::uint32_t>::max());
            }
            pos = close;
        }
        if (pos == std::string_view::npos) {
            const std::string* attribute = node->GetAttribute(name);
            if (attribute == nullptr) {
                return false;
            }
            value = *attribute;
            return true;
        }
        // path[pos] is ">": step to the index-th child of exactly that name.
        const XmlNode* next = nullptr;
        std::size_t seen = 0;
        for (const auto& c : node->m_children) {
            if (c->m_name == name && seen++ == index) {
                next = c.get();
                break;
            }
        }
        if (next == nullptr) {
            return false;
        }
        node = next;
        ++pos;
        if (pos == path.size()) {
            value = node->m_text;
            return true;
        }
    }
}

bool XmlNode::Parse(std::string_view text)
{
    text = untilZero(text);
    if (isValidUtf8(text)) {
        return detail::XmlReader(text).parseDocument(*this);
    }
    const std::string clean = sanitizeUtf8(text);
    return detail::XmlReader(clean).parseDocument(*this);
}

bool XmlNode::loadBytes(std::string_view fileBytes)
{
    return Parse(decodeXmlFileBytes(fileBytes));
}

bool XmlNode::Load(const std::string& path)
{
    Clear();
    const FileBytes file = readWholeFile(path, kMaxXmlFileBytes);
    if (file.status != FileBytes::Status::Ok) {
        return false;
    }
    return loadBytes(file.bytes);
}

std::string XmlNode::saveText(std::size_t level) const
{
    std::string out;
    struct Frame
    {
        const XmlNode* node;
        std::size_t next; // index of the next child to write
    };
    std::vector<Frame> stack;
    auto indent = [&](std::size_t level) { out.append(2 * level, ' '); };
    auto open = [&](const XmlNode& node, std::size_t level) {
        indent(level);
        out += '<';
        out += node.m_name;
        for (const auto& a : node.m_attributes) {
            out += ' ';
            out += a.name;
            out += "=\"";
            appendEscaped(out, a.value, false);
            out += '"';
        }
        if (node.m_children.empty() && node.m_text.empty()) {
            out += "/>\r\n";
            return false;
        }
        out += '>';
        if (!node.m_children.empty()) {
            out += "\r\n";
        }
        return true;
    };
    stack.push_back({this, 0});
    while (!stack.empty()) {
        Frame& top = stack.back();
        if (top.next < top.node->m_children.size()) {
            const XmlNode& child = *top.node->m_children[top.next++];
            // Level of the child: the node saved writes nothing itself.
            if (open(child, level + stack.size() - 1)) {
                stack.push_back({&child, 0});
            }
            continue;
        }
        const XmlNode& node = *top.node;
        stack.pop_back();
        if (stack.empty()) {
            break; // the document node writes nothing of its own
        }
        appendEscaped(out, node.m_text, true);
        if (!node.m_children.empty()) {
            indent(level + stack.size() - 1);
        }
        out += "</";
        out += node.m_name;
        out += ">\r\n";
    }
    return out;
}

std::string XmlNode::saveBytes() const
{
    std::string bytes = "\xFF\xFE";
    bytes += utf8ToUtf16le(saveText());
    bytes.append(2, '\0');
    return bytes;
}

bool XmlNode::Save(const std::string& path) const
{
    return replaceFile(path, saveBytes());
}

std::string XmlNode::DetectEncoding(std::string_view text)
{
    text = untilZero(text);
    if (isValidUtf8(text)) {
        return detail::XmlReader(text).detectEncoding();
    }
    const std::string clean = sanitizeUtf8(text);
    return detail::XmlReader(clean).detectEncoding();
}

// ---- free functions ------------------------------------------------------------------

std::string decodeXmlFileBytes(std::string_view fileBytes)
{
    if (fileBytes.starts_with("\xFF\xFE")) {
        return utf16leToUtf8(fileBytes.substr(2));
    }
    if (fileBytes.starts_with("\xEF\xBB\xBF")) {
        return sanitizeUtf8(fileBytes.substr(3));
    }
    // Without a mark the text is in the "ANSI" code page. Text that is valid UTF-8 is
    // taken as such (the usual encoding of a hand-written file here); anything else is
    // taken as Windows-1252, which every byte sequence is.
    if (isValidUtf8(fileBytes)) {
        return std::string(fileBytes);
    }
    return cp1252ToUtf8(fileBytes);
}

std::string formatReal(double value, int fractionDigits)
{
    fractionDigits = std::clamp(fractionDigits, 0, 17);
    // Enough for the largest double in fixed notation.
    std::array<char, 400> buffer{};
    const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
                                      std::chars_format::fixed, fractionDigits);
    if (result.ec != std::errc{}) {
        return {};
    }
    return std::string(buffer.data(), result.ptr);
}

std::string formatSeconds(ClipTicks value)
{
    if (value == kNoTime) {
        return "NA";
    }
    // Work on the magnitude in unsigned arithmetic: -INT64_MIN is not representable, but
    // INT64_MIN is the marker and never gets here.
    const bool negative = value < 0;
    const std::uint64_t magnitude =
        negative ? static_cast<std::uint64_t>(-value) : static_cast<std::uint64_t>(value);
    const auto perSecond = static_cast<std::uint64_t>(kTicksPerSecond);
    std::string fraction = decimal(magnitude % perSecond);
    fraction.insert(0, 7 - fraction.size(), '0');
    std::string text = negative ? "-" : "";
    text += decimal(magnitude / perSecond);
    text += '.';
    text += fraction;
    return text;
}

} // namespace tarvoqc
