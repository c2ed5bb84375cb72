#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "results/mediatime.h"

namespace tarvoqc {

namespace detail {
class XmlReader;
}

// Flag bit of XmlNode::flags(): the element was properly closed when it was read.
inline constexpr std::uint32_t kXmlClosed = 4;

// Most characters an element name keeps; a longer name is cut there (never inside a UTF-8
// sequence).
inline constexpr std::size_t kMaxXmlNameChars = 254;

// Limits of the reader. A real job file or result document stays far below them; input
// beyond them is hostile or broken, and the read fails instead of exhausting memory or
// the stack.
inline constexpr std::size_t kMaxXmlFileBytes = 64u << 20; // Load refuses larger files
inline constexpr int kMaxXmlDepth = 256;               // element levels below the node read into
inline constexpr std::size_t kMaxXmlAttributes = 1024; // per element
inline constexpr std::size_t kMaxXmlItems = 1u << 21;  // elements + attributes per read

// One element of a small XML tree, or the document itself (empty name, depth 0): a name,
// attributes in the order of first setting, owned children in order and one text.
//
// Text is UTF-8 everywhere. A text, name or value ends at its first zero character, as
// in the file format, where the zero character ends the document. Saved files are
// UTF-16LE with the byte-order mark FF FE, CR LF line ends and a terminating zero
// character, without an XML declaration; invalid UTF-8 is written as U+FFFD. Attribute
// values are written so that every XML reader reads them as they are: tab, CR and LF as
// the references "&#9;", "&#13;" and "&#10;" (in texts only CR). What no XML document can
// hold is written as a visible stand-in, which every reader, this one included, then reads:
// a C0 control other than tab, CR and LF as its picture of the Unicode block Control
// Pictures, U+2400 + its code (ESC as U+241B), and U+FFFE and U+FFFF as U+FFFD.
//
// Ownership: a node owns its children and strings; destroying a node destroys its
// subtree (without recursion, so any depth is safe). Nodes are neither copied nor moved,
// so that the parent links stay valid.
// Thread-safety: none; one thread at a time per tree.
class XmlNode
{
public:
    XmlNode();
    virtual ~XmlNode();
    XmlNode(const XmlNode&) = delete;
    XmlNode& operator=(const XmlNode&) = delete;

    // Appends a new child and returns it (owned by this node), or nullptr when the name is
    // refused: empty, first character "-", "." or a digit, or holding any of
    // " !\"#$%&'()*+,/;<=>?@[\\]^`{|}~" or a control character (tab, CR and LF end a name
    // when read, and no other control character can be written in one). The name is cut to
    // kMaxXmlNameChars characters before the test.
    XmlNode* AddChild(std::string_view name);

    // First direct child whose name equals name, ignoring ASCII case; nullptr when none.
    XmlNode* FindChild(std::string_view name);
    const XmlNode* FindChild(std::string_view name) const;
    // This node when its name matches (ignoring ASCII case), else the first match of a
    // depth-first search through the children in order; nullptr when none.
    XmlNode* FindDeep(std::string_view name);
    const XmlNode* FindDeep(std::string_view name) const;
    // Destroys the child at index with its subtree; an index outside the list does nothing.
    void RemoveChild(std::ptrdiff_t index);

    // Replaces the value of the attribute of exactly this name (case-sensitive), or appends
    // the pair. Names are written as they stand: use names that are valid XML names.
    void SetAttribute(std::string_view name, std::string_view value);

    // Typed setters: each formats the value and calls SetAttribute.
    void setInt(std::string_view name, std::int32_t value);     // decimal
    void setUInt(std::string_view name, std::uint32_t value);   // decimal
    void setInt64(std::string_view name, std::int64_t value);   // decimal
    void setUInt64(std::string_view name, std::uint64_t value); // decimal
    // "%08X", or with plain set lower-case hexadecimal without leading zeros.
    void setHex32(std::string_view name, std::uint32_t value, bool plain = false);
    // "%016" PRIX64, or with plain set lower-case hexadecimal without leading zeros.
    void setHex64(std::string_view name, std::uint64_t value, bool plain = false);
    // formatReal(value, fractionDigits); 4 digits is the result file's "real4" form.
    void setReal(std::string_view name, double value, int fractionDigits = 4);
    // formatSeconds(value): a ClipTicks value as seconds, "NA" for kNoTime.
    void setSeconds(std::string_view name, ClipTicks value);

    // Value of the first attribute of exactly that name (case-sensitive), or nullptr. The
    // pointer stays valid until this node's attributes change.
    const std::string* GetAttribute(std::string_view name) const;
    // The value, or fallback when the attribute is missing.
    std::string GetString(std::string_view name, std::string_view fallback) const;
    // The value read like the C library's decimal conversion: leading spaces, an optional
    // sign, then the leading digits (0 when there are none), saturated to 32 bits;
    // fallback when the attribute is missing.
    std::int32_t GetInt(std::string_view name, std::int32_t fallback) const;

    // Replaces the text; an empty text leaves none.
    void SetText(std::string_view text);

    // Follows a path of child names separated by ">", each optionally with an index in
    // angle brackets ("Clip<2>": the third child named exactly Clip) whose closing bracket
    // also ends the segment ("R>C<1>F" is attribute F of the second C, "R>C<1>" its text).
    // A last segment not followed by ">" names an attribute of the node reached; a path
    // ending in ">" names the text of the node reached (empty when none). Stores the text
    // in value and returns true, or returns false (value untouched) when a step is missing
    // or the path is malformed.
    bool GetByPath(std::string_view path, std::string& value) const;

    // Clears this node, then reads the file: FF FE starts UTF-16LE, EF BB BF starts UTF-8,
    // anything else is UTF-8 when it is valid UTF-8 and Windows-1252 otherwise. Only
    // regular files up to kMaxXmlFileBytes are read. True when the file was read and its
    // tree parsed with every element closed; after a parse failure the tree read so far
    // stays and may be read; after a read failure the node stays cleared.
    bool Load(const std::string& path);
    // Load on the bytes of a file already in memory (the decoding and parse of Load).
    bool loadBytes(std::string_view fileBytes);
    // Clears this node and parses UTF-8 text (invalid sequences read as U+FFFD; the text
    // ends at its first zero character) into a tree below it. The reader is forgiving:
    // see the algorithm notes in xmlnode.cpp. True when this node and every element below
    // it were closed; false also when a reader limit (kMaxXml...) was passed, in which case
    // the content beyond it is dropped.
    bool Parse(std::string_view text);

    // Writes the children of this node (the whole document when called on the document)
    // as the file bytes through replaceFile (files/fileio.h): the earlier file stays whole
    // until the new one and its folder are on disk; a link is followed (its target is
    // replaced); an existing file keeps its permission bits (and its owner when the process
    // may keep it); a path naming something other than a regular file is refused. False
    // when the file could not be created or written. The file is well-formed XML (after its
    // terminating zero character, which some XML readers refuse).
    bool Save(const std::string& path) const;
    // The exact bytes Save writes.
    std::string saveBytes() const;
    // The same tree as UTF-8 text with CR LF line ends, without mark or terminator. level:
    // the indentation level of this node's children (two spaces each), so that a part of a
    // document can be written on its own.
    std::string saveText(std::size_t level = 0) const;

    // The "encoding" attribute of the leading "<?xml" declarations of text, or empty.
    static std::string DetectEncoding(std::string_view text);

    // Forgets attributes, children and text, and clears the flags; name, parent and depth
    // stay.
    void Clear();

    const std::string& name() const { return m_name; }
    XmlNode* parent() const { return m_parent; }
    const std::vector<std::unique_ptr<XmlNode>>& children() const { return m_children; }
    std::size_t childCount() const { return m_children.size(); }
    XmlNode* child(std::size_t index) const
    {
        return index < m_children.size() ? m_children[index].get() : nullptr;
    }
    const std::string& text() const { return m_text; } // empty: no text
    std::size_t attributeCount() const { return m_attributes.size(); }
    const std::string& attributeName(std::size_t index) const
    {
        return m_attributes.at(index).name;
    }
    const std::string& attributeValue(std::size_t index) const
    {
        return m_attributes.at(index).value;
    }
    std::uint32_t flags() const { return m_flags; }
    bool isClosed() const { return (m_flags & kXmlClosed) != 0; }
    // 0 for a node made on its own (the document), parent's depth + 1 for a child.
    std::int32_t depth() const { return m_depth; }

private:
    friend class detail::XmlReader;

    struct Attribute
    {
        std::string name;
        std::string value;
    };

    std::string m_name;
    std::vector<Attribute> m_attributes;
    XmlNode* m_parent = nullptr;
    std::vector<std::unique_ptr<XmlNode>> m_children;
    std::string m_text;
    std::uint32_t m_flags = 0;
    std::int32_t m_depth = 0;
};

// Whether name passes the element name test of AddChild (after the cut to
// kMaxXmlNameChars characters).
bool isValidXmlName(std::string_view name);

// The text of a file's bytes as UTF-8 (the decoding step of XmlNode::Load). Invalid
// UTF-8, unpaired surrogates and an odd last byte of UTF-16 become U+FFFD; a surrogate
// pair becomes one character.
std::string decodeXmlFileBytes(std::string_view fileBytes);

// Fixed-point texts, independent of the locale: "-" for negatives, "0" before the point
// below 1, exactly fractionDigits digits after the point (0..17; no point for 0).
std::string formatReal(double value, int fractionDigits);
// value / 10^7 with exactly seven fraction digits, computed without rounding error
// ("1.5000000", "-0.0000001"); "NA" for kNoTime.
std::string formatSeconds(ClipTicks value);

} // namespace tarvoqc
