#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "results/xmlnode.h"
#include "tests/fuzz/xmlfuzzchecks.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

using test::readFile;
using test::TempDir;
using test::writeFile;

// UTF-16LE bytes of an ASCII text.
std::string utf16(std::string_view ascii)
{
    std::string out;
    for (const char c : ascii) {
        out += c;
        out += '\0';
    }
    return out;
}

std::string fileBytes(std::string_view asciiBody)
{
    return "\xFF\xFE" + utf16(asciiBody) + std::string(2, '\0');
}

TEST(XmlNode, AddChildRefusesTheDescribedNames)
{
    const std::string refusedChars = " !\"#$%&'()*+,/;<=>?@[\\]^`{|}~\t\r\n";
    XmlNode document;
    for (const char c : refusedChars) {
        SCOPED_TRACE(std::string("character ") + c);
        EXPECT_EQ(document.AddChild(std::string("a") + c + "b"), nullptr);
    }
    for (const char* name : {"", "-a", ".a", "1st", "9", "a b"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(document.AddChild(name), nullptr);
    }
    for (const char* name : {"Tarvo_QC", "a-1", "a.b", "_x", "x:y", "\xC3\xA9t\xC3\xA9", "a\x01"}) {
        SCOPED_TRACE(name);
        XmlNode* node = document.AddChild(name);
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(node->name(), name);
        EXPECT_EQ(node->parent(), &document);
        EXPECT_EQ(node->depth(), 1);
    }
    EXPECT_EQ(document.childCount(), 7u);
    EXPECT_EQ(document.child(0)->AddChild("deeper")->depth(), 2);
}

TEST(XmlNode, LongNamesAreCutToTheLimitWithoutSplittingACharacter)
{
    XmlNode document;
    // 253 ASCII characters, then a two-byte character, then more.
    const std::string name = std::string(253, 'a') + "\xC3\xA9" + "bcd";
    XmlNode* node = document.AddChild(name);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->name(), std::string(253, 'a') + "\xC3\xA9");

    // The reader cuts the same way, and the end tag, cut too, still matches.
    const std::string longName = std::string(300, 'x');
    ASSERT_TRUE(document.Parse("<" + longName + " a=\"1\">t</" + longName + ">"));
    EXPECT_EQ(document.child(0)->name(), std::string(kMaxXmlNameChars, 'x'));
    EXPECT_EQ(document.child(0)->GetString("a", ""), "1");
}

TEST(XmlNode, FindChildFindDeepAndRemoveChild)
{
    XmlNode document;
    XmlNode* root = document.AddChild("Root");
    XmlNode* first = root->AddChild("Item");
    first->AddChild("Leaf")->SetAttribute("n", "1");
    root->AddChild("item")->AddChild("Leaf")->SetAttribute("n", "2");

    EXPECT_EQ(document.FindChild("ROOT"), root);
    EXPECT_EQ(document.FindChild("Item"), nullptr) << "direct children only";
    EXPECT_EQ(root->FindChild("ITEM"), first);
    EXPECT_EQ(root->FindDeep("root"), root) << "the node itself first";
    EXPECT_EQ(document.FindDeep("leaf")->GetString("n", ""), "1") << "depth-first, in order";
    EXPECT_EQ(document.FindDeep("none"), nullptr);

    root->RemoveChild(5);
    root->RemoveChild(-1);
    EXPECT_EQ(root->childCount(), 2u);
    root->RemoveChild(0);
    ASSERT_EQ(root->childCount(), 1u);
    EXPECT_EQ(document.FindDeep("leaf")->GetString("n", ""), "2");
}

TEST(XmlNode, AttributesKeepOrderAndMatchNamesExactly)
{
    XmlNode node;
    node.SetAttribute("b", "1");
    node.SetAttribute("a", "2");
    node.SetAttribute("B", "3");
    node.SetAttribute("b", "4");
    ASSERT_EQ(node.attributeCount(), 3u);
    EXPECT_EQ(node.attributeName(0), "b");
    EXPECT_EQ(node.attributeValue(0), "4");
    EXPECT_EQ(node.attributeName(2), "B");
    EXPECT_EQ(*node.GetAttribute("B"), "3");
    EXPECT_EQ(node.GetAttribute("A"), nullptr);
    EXPECT_EQ(node.GetString("A", "dflt"), "dflt");
    EXPECT_EQ(node.GetString("a", "dflt"), "2");
}

TEST(XmlNode, TypedSettersFormatTheirValues)
{
    XmlNode n;
    struct Case
    {
        const char* name;
        const char* expected;
    };
    n.setInt("i1", -5);
    n.setInt("i2", INT32_MIN);
    n.setUInt("u", UINT32_MAX);
    n.setInt64("l1", INT64_MIN);
    n.setInt64("l2", 411783797);
    n.setUInt64("ul", UINT64_MAX);
    n.setHex32("h1", 0xAB);
    n.setHex32("h2", 0xAB, true);
    n.setHex32("h3", 0, true);
    n.setHex64("x1", 0x01D9F00DCAFEBABEull);
    n.setHex64("x2", 0xFF);
    n.setHex64("x3", 0xDEADBEEF12ull, true);
    n.setReal("r1", 1.5);
    n.setReal("r2", 0.25);
    n.setReal("r3", -3.14159);
    n.setReal("r4", 0.0);
    n.setReal("r5", 1234567.00005, 2);
    n.setSeconds("s1", 15'000'000);
    n.setSeconds("s2", 0);
    n.setSeconds("s3", 1);
    n.setSeconds("s4", -1);
    n.setSeconds("s5", -25'000'000);
    n.setSeconds("s6", kNoTime);
    n.setSeconds("s7", INT64_MAX);
    n.setSeconds("s8", INT64_MIN + 1);
    const Case cases[] = {
        {"i1", "-5"},
        {"i2", "-2147483648"},
        {"u", "4294967295"},
        {"l1", "-9223372036854775808"},
        {"l2", "411783797"},
        {"ul", "18446744073709551615"},
        {"h1", "000000AB"},
        {"h2", "ab"},
        {"h3", "0"},
        {"x1", "01D9F00DCAFEBABE"},
        {"x2", "00000000000000FF"},
        {"x3", "deadbeef12"},
        {"r1", "1.5000"},
        {"r2", "0.2500"},
        {"r3", "-3.1416"},
        {"r4", "0.0000"},
        {"r5", "1234567.00"},
        {"s1", "1.5000000"},
        {"s2", "0.0000000"},
        {"s3", "0.0000001"},
        {"s4", "-0.0000001"},
        {"s5", "-2.5000000"},
        {"s6", "NA"},
        {"s7", "922337203685.4775807"},
        {"s8", "-922337203685.4775807"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(n.GetString(c.name, "missing"), c.expected);
    }
}

TEST(XmlNode, GetIntReadsLeadingDigitsLikeTheCLibrary)
{
    XmlNode n;
    struct Case
    {
        const char* value;
        std::int32_t expected;
    };
    const Case cases[] = {{"1", 1},
                          {"12abc", 12},
                          {"abc", 0},
                          {"", 0},
                          {"  -7", -7},
                          {"+3", 3},
                          {"0x10", 0},
                          {"99999999999", INT32_MAX},
                          {"-99999999999", INT32_MIN},
                          {"1.9", 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        n.SetAttribute("v", c.value);
        EXPECT_EQ(n.GetInt("v", 42), c.expected);
    }
    EXPECT_EQ(n.GetInt("missing", 42), 42);
}

TEST(XmlNode, GetByPathFollowsNamesIndexesAttributesAndTexts)
{
    XmlNode document;
    ASSERT_TRUE(document.Parse("<Tarvo_QC Hide=\"1\"><Clip File=\"a\">ta</Clip><clip File=\"x\"/>"
                               "<Clip File=\"b\"><Media Dur=\"5\"/></Clip></Tarvo_QC>"));
    struct Case
    {
        const char* path;
        bool found;
        const char* value;
    };
    const Case cases[] = {
        {"Tarvo_QC>Hide", true, "1"},
        {"Tarvo_QC>Clip>File", true, "a"},
        {"Tarvo_QC>Clip<0>>File", true, "a"},
        {"Tarvo_QC>Clip<1>>File", true, "b"},
        {"Tarvo_QC>Clip<1>>Media>Dur", true, "5"},
        {"Tarvo_QC>Clip>", true, "ta"},
        {"Tarvo_QC>Clip<1>>", true, ""},
        {"Tarvo_QC>Clip<2>>File", false, ""}, // exact names: "clip" does not count
        {"tarvo_qc>Hide", false, ""},
        {"Tarvo_QC>Missing", false, ""},
        {"Tarvo_QC>Clip<x>>File", false, ""},
        {"Tarvo_QC>Clip<>>File", false, ""},
        {"Tarvo_QC>Clip<1", false, ""},
        {"Tarvo_QC>Clip<1>File", false, ""},
        {"", false, ""},
        {">", false, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        std::string value = "untouched";
        EXPECT_EQ(document.GetByPath(c.path, value), c.found);
        EXPECT_EQ(value, c.found ? c.value : "untouched");
    }
}

TEST(XmlNode, SaveWritesTheExactBytes)
{
    XmlNode document;
    XmlNode* root = document.AddChild("Tarvo_QC");
    root->SetAttribute("Hide", "1");
    root->AddChild("Clip");
    EXPECT_EQ(document.saveBytes(),
              fileBytes("<Tarvo_QC Hide=\"1\">\r\n  <Clip/>\r\n</Tarvo_QC>\r\n"));

    XmlNode* clip = root->child(0);
    clip->SetAttribute("File", "q\"a&b'c<d>e");
    clip->AddChild("Issue")->SetText(" a<b>\"c\"&'d'");
    clip->AddChild("Raw")->SetText("<![CDATA[x<y&z]]>");
    clip->SetText("after");
    EXPECT_EQ(document.saveText(),
              "<Tarvo_QC Hide=\"1\">\r\n"
              "  <Clip File=\"q&quot;a&amp;b&apos;c&lt;d>e\">\r\n"
              "    <Issue>&nbsp;a&lt;b&gt;&quot;c&quot;&&apos;d&apos;</Issue>\r\n"
              "    <Raw><![CDATA[x<y&z]]></Raw>\r\n"
              "after  </Clip>\r\n"
              "</Tarvo_QC>\r\n");
    XmlNode empty;
    EXPECT_EQ(empty.saveBytes(), std::string("\xFF\xFE\0\0", 4));
}

TEST(XmlNode, SaveWritesUtf16WithSurrogatePairsAndReplacesBrokenUtf8)
{
    XmlNode document;
    // U+00E9, U+20AC, U+1F600, then a lone continuation byte.
    document.AddChild("a")->SetText("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\x80");
    const std::string expected = "\xFF\xFE" + utf16("<a>") +
                                 std::string("\xE9\x00\xAC\x20\x3D\xD8\x00\xDE\xFD\xFF", 10) +
                                 utf16("</a>\r\n") + std::string(2, '\0');
    EXPECT_EQ(document.saveBytes(), expected);

    XmlNode again;
    ASSERT_TRUE(again.loadBytes(expected));
    EXPECT_EQ(again.child(0)->text(), "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xEF\xBF\xBD");
}

TEST(XmlNode, ReadsTheDescribedEdgeCases)
{
    XmlNode document;
    ASSERT_TRUE(document.Parse("<Tarvo_QC Hide=\"1\">\r\n  <Clip File=\"a &amp; b.mp4\"/>\r\n"
                               "</Tarvo_QC>\r\n"));
    EXPECT_TRUE(document.isClosed());
    const XmlNode* root = document.child(0);
    EXPECT_EQ(root->GetInt("Hide", 0), 1);
    ASSERT_EQ(root->childCount(), 1u);
    EXPECT_EQ(root->child(0)->GetString("File", ""), "a & b.mp4");

    ASSERT_TRUE(document.Parse("<a v='x&gt;y' w=\"&quot;&apos;&lt;&amp;&nbsp;\"/>"));
    EXPECT_EQ(document.child(0)->GetString("v", ""), "x&gt;y");
    EXPECT_EQ(document.child(0)->GetString("w", ""), "\"'<&&nbsp;");

    ASSERT_TRUE(document.Parse("<a>&nbsp;&quot;&amp;&lt;&gt;&apos;&copy;</a>"));
    EXPECT_EQ(document.child(0)->text(), " \"&<>'&copy;");
}

TEST(XmlNode, ForgivingReaderRules)
{
    struct Case
    {
        const char* text;
        bool ok;
        const char* dump; // the tree as name[attr=value,...]{text}(children)
    };
    const Case cases[] = {
        {"<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<!-- c --><a/>", true, "a"},
        {"<a x = \"1\" y='2'>t</a>", true, "a[x =1,y=2]{t}"},
        {"<a b c=\"1\" d>x</a>", true, "a[b c=1]{x}"},
        {"<a x=\"1>2\"/>", true, "a[x=1>2]"},
        {"<a>\r\n\t <![CDATA[ <b>&amp; ]]>tail<c/></a>", true, "a{<![CDATA[ <b>&amp; ]]>}(c)"},
        {"<a>one<b/>two<c/>three</a>", true, "a{one}(b,c)"},
        {"<a><b></b ></a>", true, "a(b)"},
        {"<a></b></a>", true, "a(b)"},      // a stray end tag adds an empty child
        {"<a><a/></a>", true, "a(a)"},      // a child may share its parent's name
        {"<a><1b/><c/></a>", true, "a(c)"}, // a refused name skips its tag
        {"<a><!-- x --><b/></a>", true, "a(b)"},
        {"< a\r\n>x</a>", true, "a{x}"},
        {"<a>\r\n  x  \r\n</a>", true, "a{x  \r\n}"},
        {"<a\tb=\"1\"></a\t>", true, "a[b=1]"},       // a tab ends a name like a space
        {"<a x=\"1\" x=\"2\"/>", true, "a[x=1,x=2]"}, // read without a duplicate test
        {"<A></a>", false, "A(a)"},                   // end tags match case-sensitively
        {"<a><img src=\"x\"></a>", false, "a(img[src=x])"},
        {"<a><hr/></a>", true, "a(hr)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        XmlNode document;
        EXPECT_EQ(document.Parse(c.text), c.ok);
        ASSERT_EQ(document.childCount(), 1u);
        std::string dump;
        // Small recursive dump through a lambda.
        auto write = [&](auto&& self, const XmlNode& n) -> void {
            dump += n.name();
            if (n.attributeCount() > 0) {
                dump += '[';
                for (std::size_t i = 0; i < n.attributeCount(); ++i) {
                    dump += (i ? "," : "") + n.attributeName(i) + "=" + n.attributeValue(i);
                }
                dump += ']';
            }
            if (!n.text().empty()) {
                dump += "{" + n.text() + "}";
            }
            if (n.childCount() > 0) {
                dump += '(';
                for (std::size_t i = 0; i < n.childCount(); ++i) {
                    dump += i ? "," : "";
                    self(self, *n.child(i));
                }
                dump += ')';
            }
        };
        write(write, *document.child(0));
        EXPECT_EQ(dump, c.dump);
    }
}

TEST(XmlNode, MustFail)
{
    const std::string deep300 = [] {
        std::string s;
        for (int i = 0; i < 300; ++i) {
            s += "<e>";
        }
        for (int i = 0; i < 300; ++i) {
            s += "</e>";
        }
        return s;
    }();
    const std::string manyAttributes = [] {
        std::string s = "<a";
        for (std::size_t i = 0; i <= kMaxXmlAttributes; ++i) {
            s += " n" + std::to_string(i) + "=\"v\"";
        }
        return s + "/>";
    }();
    const std::vector<std::string> inputs = {
        "",
        "no tags at all",
        "<a>",
        "<a>text",
        "<a></a",
        "<a x=\"1/>",
        "<a><b></a>",
        "<1st/>",
        "<a><b/>",
        "<-x/>",
        "<.x/>",
        "<?xml version=\"1.0\"?>",
        "<!DOCTYPE a><a/>",
        std::string("<a>\0</a>", 8),
        deep300,
        manyAttributes,
    };
    for (const std::string& input : inputs) {
        SCOPED_TRACE(input.substr(0, 40));
        XmlNode document;
        EXPECT_FALSE(document.Parse(input));
        EXPECT_EQ(fuzz::checkParse(input), "");
    }
}

TEST(XmlNode, ReaderLimitsSitAtTheirValues)
{
    auto nested = [](int levels) {
        std::string s;
        for (int i = 0; i < levels; ++i) {
            s += "<e>";
        }
        for (int i = 0; i < levels; ++i) {
            s += "</e>";
        }
        return s;
    };
    XmlNode document;
    EXPECT_TRUE(document.Parse(nested(kMaxXmlDepth)));
    EXPECT_FALSE(document.Parse(nested(kMaxXmlDepth + 1)));
    // The content past the limit is dropped; what was read stays.
    EXPECT_NE(document.FindDeep("e"), nullptr);
    EXPECT_EQ(fuzz::checkTreeShape(document), "");

    std::string attributes = "<a";
    for (std::size_t i = 0; i < kMaxXmlAttributes; ++i) {
        attributes += " n" + std::to_string(i) + "=''";
    }
    EXPECT_TRUE(document.Parse(attributes + "/>"));
    EXPECT_EQ(document.child(0)->attributeCount(), kMaxXmlAttributes);
}

// A tree with every kind of content the writer has to get right.
void buildSample(XmlNode& document)
{
    XmlNode* root = document.AddChild("Tarvo_QC");
    root->SetAttribute("Hide", "1");
    root->SetAttribute("Quote", "say \"hi\" & 'bye' <now> \r\n\tend");
    XmlNode* clip = root->AddChild("Clip");
    clip->SetAttribute("File", "/m\xC3\xA9"
                               "dia/\xE6\x97\xA5\xE6\x9C\xAC/\xF0\x9F\x8E\xAC clip.mxf");
    clip->AddChild("Empty");
    XmlNode* issue = clip->AddChild("Issue");
    issue->SetAttribute("Sev", "High");
    issue->SetText("  two leading spaces, <tags>, \"quotes\" and 'apostrophes'  ");
    clip->AddChild("Raw")->SetText("<![CDATA[<b>&x;</b>]]>");
    XmlNode* level = clip;
    for (int i = 0; i < 5; ++i) {
        level = level->AddChild("Level" + std::to_string(i));
    }
    level->SetText("deep");
    root->AddChild("QCheck")->setInt("Score", 5);
}

TEST(XmlNode, SaveLoadRoundTripGivesTheSameTreeAndBytes)
{
    XmlNode document;
    buildSample(document);
    const std::string bytes = document.saveBytes();

    TempDir dir;
    const std::string path = (dir / "doc.qcout").string();
    ASSERT_TRUE(document.Save(path));
    EXPECT_EQ(readFile(path), bytes);

    XmlNode loaded;
    ASSERT_TRUE(loaded.Load(path));
    EXPECT_EQ(fuzz::compareTrees(*document.child(0), *loaded.child(0)), "");
    EXPECT_EQ(loaded.saveBytes(), bytes);
    EXPECT_EQ(fuzz::checkParse(document.saveText()), "");

    // Saving over an existing file replaces it.
    loaded.child(0)->RemoveChild(0);
    ASSERT_TRUE(loaded.Save(path));
    EXPECT_EQ(readFile(path), loaded.saveBytes());
}

TEST(XmlNode, TheThreeEncodingsReadToTheSameTree)
{
    // "Café" with an accented e in each encoding.
    const std::string utf8Body = "<Tarvo_QC><Clip File=\"Caf\xC3\xA9.mxf\"/></Tarvo_QC>";
    const std::string ansiBody = "<Tarvo_QC><Clip File=\"Caf\xE9.mxf\"/></Tarvo_QC>";
    std::string utf16Body = "\xFF\xFE" + utf16("<Tarvo_QC><Clip File=\"Caf");
    utf16Body += std::string("\xE9\x00", 2) + utf16(".mxf\"/></Tarvo_QC>");
    const std::string inputs[] = {"\xEF\xBB\xBF" + utf8Body, ansiBody, utf8Body, utf16Body};
    TempDir dir;
    for (const std::string& bytes : inputs) {
        SCOPED_TRACE(bytes.substr(0, 4));
        writeFile(dir / "job.qcin", bytes);
        XmlNode document;
        ASSERT_TRUE(document.Load((dir / "job.qcin").string()));
        EXPECT_EQ(document.child(0)->child(0)->GetString("File", ""), "Caf\xC3\xA9.mxf");
    }
}

TEST(XmlNode, DecodingReplacesWhatIsBroken)
{
    struct Case
    {
        std::string bytes;
        std::string text;
    };
    const std::string fffd = "\xEF\xBF\xBD";
    const Case cases[] = {
        {std::string("\xFF\xFE\x3D\xD8\x00\xDE", 6), "\xF0\x9F\x98\x80"}, // pair joined
        {std::string("\xFF\xFE\x3D\xD8\x41\x00", 6), fffd + "A"},         // lone high
        {std::string("\xFF\xFE\x00\xDE\x41\x00", 6), fffd + "A"},         // lone low
        {std::string("\xFF\xFE\x41\x00\x42", 5), "A" + fffd},             // odd last byte
        {std::string("\xFF\xFE\x3D\xD8", 4), fffd},                       // high at the end
        {"\xEF\xBB\xBF"
         "a\xC3",
         "a" + fffd}, // cut sequence
        {"\xEF\xBB\xBF"
         "\xED\xA0\x80",
         fffd + fffd + fffd}, // UTF-8 surrogate
        {"\xEF\xBB\xBF"
         "\xC0\xAF",
         fffd + fffd}, // overlong
        {"\xEF\xBB\xBF"
         "\xF4\x90\x80\x80",
         fffd + fffd + fffd + fffd},                      // past U+10FFFF
        {"\x80\x81\xFF", "\xE2\x82\xAC\xC2\x81\xC3\xBF"}, // Windows-1252
        {"\xC3\xA9", "\xC3\xA9"},                         // valid UTF-8 stays
        {std::string("\xFE\xFF\x00<", 4), "\xC3\xBE\xC3\xBF" + std::string(1, '\0') + "<"},
        {"", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.bytes));
        EXPECT_EQ(decodeXmlFileBytes(c.bytes), c.text);
        EXPECT_EQ(fuzz::checkLoad(c.bytes), "");
    }
    XmlNode document;
    EXPECT_TRUE(document.Parse("<a v=\"\xFF\xC3\"/>"));
    EXPECT_EQ(document.child(0)->GetString("v", ""), fffd + fffd);
}

TEST(XmlNode, EveryTruncationOfADocumentFails)
{
    XmlNode document;
    buildSample(document);
    const std::string bytes = document.saveBytes();
    // Past the root's last ">" only the line end and the terminator remain.
    const std::size_t lastGt = bytes.size() - 2 - 4 - 2;
    ASSERT_EQ(bytes[lastGt], '>');
    for (std::size_t length = 0; length <= lastGt; ++length) {
        XmlNode cut;
        if (cut.loadBytes(std::string_view(bytes).substr(0, length))) {
            ADD_FAILURE() << "a document cut to " << length << " bytes read as complete";
            break;
        }
    }
    XmlNode whole;
    EXPECT_TRUE(whole.loadBytes(std::string_view(bytes).substr(0, lastGt + 2)));
}

TEST(XmlNode, LoadFailuresLeaveTheDocumentCleared)
{
    TempDir dir;
    const std::string big = (dir / "big.qcin").string();
    writeFile(big, "");
    ASSERT_EQ(::truncate(big.c_str(), static_cast<off_t>(kMaxXmlFileBytes) + 1), 0);
    const std::string fifo = (dir / "fifo.qcin").string();
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path :
         {(dir / "missing.qcin").string(), dir.path().string(), big, fifo}) {
        SCOPED_TRACE(path);
        XmlNode document;
        document.AddChild("old")->SetText("x");
        document.SetAttribute("a", "b");
        EXPECT_FALSE(document.Load(path));
        EXPECT_EQ(document.childCount(), 0u);
        EXPECT_EQ(document.attributeCount(), 0u);
    }
    XmlNode document;
    document.AddChild("a");
    EXPECT_FALSE(document.Save((dir / "no" / "such" / "folder.qcout").string()));
}

TEST(XmlNode, DetectEncodingReadsTheLeadingDeclarations)
{
    struct Case
    {
        const char* text;
        const char* encoding;
    };
    const Case cases[] = {
        {"<?xml version=\"1.0\" encoding=\"UTF-8\"?><a/>", "UTF-8"},
        {"<!-- x --><?XML encoding='windows-1252'?><a/>", "windows-1252"},
        {"<?xml version=\"1.0\"?><a/>", ""},
        {"<a encoding=\"x\"/>", ""},
        {"<a/><?xml encoding=\"late\"?>", ""},
        {"", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(XmlNode::DetectEncoding(c.text), c.encoding);
    }
}

TEST(XmlNode, VeryDeepBuiltTreesAreDestroyedWithoutRecursion)
{
    auto document = std::make_unique<XmlNode>();
    XmlNode* node = document.get();
    for (int i = 0; i < 200'000; ++i) {
        node = node->AddChild("d");
    }
    EXPECT_EQ(node->depth(), 200'000);
    EXPECT_EQ(document->FindDeep("D"), document->child(0));
    node->AddChild("needle");
    EXPECT_EQ(document->FindDeep("needle"), node->child(0));
    document.reset();
    SUCCEED() << "destroyed without exhausting the stack";
}

// Every kept fuzz regression input and every seed must satisfy the reader invariants.
TEST(XmlNode, FuzzRegressionsAndSeedsKeepTheInvariants)
{
    namespace fs = std::filesystem;
    const fs::path fuzzDir = TARVOQC_FUZZ_DIR;
    std::size_t files = 0;
    for (const char* target : {"fuzz_xml_parse", "fuzz_xml_load"}) {
        for (const char* kind : {"regressions", "corpus"}) {
            const fs::path folder = fuzzDir / kind / target;
            if (!fs::is_directory(folder)) {
                continue;
            }
            for (const auto& entry : fs::directory_iterator(folder)) {
                SCOPED_TRACE(entry.path().string());
                const std::string bytes = readFile(entry.path());
                const bool parse = std::string_view(target) == "fuzz_xml_parse";
                EXPECT_EQ(parse ? fuzz::checkParse(bytes) : fuzz::checkLoad(bytes), "");
                ++files;
            }
        }
    }
    EXPECT_GT(files, 0u) << "no seeds found under " << fuzzDir;
}

} // namespace
} // namespace tarvoqc
