#include <cstdint>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "results/xmlnode.h"
#include "tests/fuzz/xmlfuzzchecks.h"
#include "tests/support/testsupport.h"
#include "tests/support/xmldump.h"

namespace tarvoqc {
namespace {

using test::readFile;
using test::TempDir;
using test::utf16;
using test::writeFile;

std::string nested(int levels)
{
    std::string open;
    std::string close;
    for (int i = 0; i < levels; ++i) {
        open += "<e>";
        close += "</e>";
    }
    return open + close;
}

TEST(XmlNode, AddChildRefusesNamesThatCannotBeReadBackAndCutsLongOnes)
{
    std::vector<std::string> refused = {"", "-a", ".a", "1st", "9"};
    for (const char c : std::string(" !\"#$%&'()*+,/;<=>?@[\\]^`{|}~\t\r\n\x01\x1b\x1f")) {
        refused.push_back(std::string("a") + c + "b");
    }
    XmlNode document;
    for (const std::string& name : refused) {
        SCOPED_TRACE(name);
        EXPECT_EQ(document.AddChild(name), nullptr);
    }
    for (const char* name : {"Tarvo_QC", "a-1", "a.b", "_x", "x:y", "\xC3\xA9t\xC3\xA9", "a\x7F"}) {
        SCOPED_TRACE(name);
        XmlNode* node = document.AddChild(name);
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(node->name(), name);
    }

    // Long names are cut to the limit without splitting a character: here 253 ASCII
    // characters, then a two-byte character, then more.
    const std::string name = std::string(253, 'a') + "\xC3\xA9" + "bcd";
    XmlNode* cut = document.AddChild(name);
    ASSERT_NE(cut, nullptr);
    EXPECT_EQ(cut->name(), std::string(253, 'a') + "\xC3\xA9");

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

TEST(XmlNode, AttributesKeepOrderMatchNamesExactlyAndReadIntegersLikeTheCLibrary)
{
    XmlNode node;
    node.SetAttribute("b", "1");
    node.SetAttribute("a", "2");
    node.SetAttribute("B", "3");
    node.SetAttribute("b", "4");
    EXPECT_EQ(test::xmlDump(node), "[b=4,a=2,B=3]");
    EXPECT_EQ(*node.GetAttribute("B"), "3");
    EXPECT_EQ(node.GetAttribute("A"), nullptr);
    EXPECT_EQ(node.GetString("A", "dflt"), "dflt");
    EXPECT_EQ(node.GetString("a", "dflt"), "2");

    // GetInt reads the leading digits like the C library.
    const std::pair<const char*, std::int32_t> cases[] = {{"12abc", 12},
                                                          {"", 0},
                                                          {"  -7", -7},
                                                          {"0x10", 0},
                                                          {"1.9", 1},
                                                          {"99999999999", INT32_MAX},
                                                          {"-99999999999", INT32_MIN}};
    for (const auto& [value, expected] : cases) {
        SCOPED_TRACE(value);
        node.SetAttribute("v", value);
        EXPECT_EQ(node.GetInt("v", 42), expected);
    }
    EXPECT_EQ(node.GetInt("missing", 42), 42);
}

TEST(XmlNode, TypedSettersFormatTheirValues)
{
    XmlNode n;
    n.setInt("i", INT32_MIN);
    n.setUInt("u", UINT32_MAX);
    n.setInt64("l", INT64_MIN);
    n.setUInt64("ul", UINT64_MAX);
    n.setHex32("h2", 0xAB, true);
    n.setHex32("h3", 0, true);
    n.setHex64("x3", 0xDEADBEEF12ull, true);
    n.setReal("r3", -3.14159);
    n.setReal("r5", 1234567.00005, 2);
    n.setSeconds("s3", -1);
    n.setSeconds("s5", INT64_MAX);
    n.setSeconds("s6", INT64_MIN + 1);
    EXPECT_EQ(test::xmlDump(n),
              "[i=-2147483648,u=4294967295,l=-9223372036854775808,ul=18446744073709551615,"
              "h2=ab,h3=0,x3=deadbeef12,r3=-3.1416,r5=1234567.00,s3=-0.0000001,"
              "s5=922337203685.4775807,s6=-922337203685.4775807]");
}

TEST(XmlNode, GetByPathFollowsNamesIndexesAttributesAndTexts)
{
    XmlNode document;
    ASSERT_TRUE(document.Parse("<R Hide=\"1\"><C File=\"a\">ta<F/></C><c File=\"x\"/>"
                               "<C File=\"b\" F=\"cf\">tb<F Dur=\"5\">tf</F></C></R>"));
    // the value found, or nullptr when the path finds nothing
    const std::pair<const char*, const char*> cases[] = {
        {"R>Hide", "1"},
        {"R>C>File", "a"},
        {"R>C<0>File", "a"},
        {"R>C<1>File", "b"},
        {"R>C<1>F", "cf"}, // the bracket ends the segment: attribute F of the second C
        {"R>C<1>F>Dur", "5"},
        {"R>C<1>F<0>Dur", "5"},
        {"R>C<1>F>", "tf"},
        {"R>C<1>", "tb"},
        {"R>C>", "ta"},
        {"R>C<0>F>", ""},
        {"R>C<2>File", nullptr},  // exact names: "c" does not count
        {"R>C<1>>File", nullptr}, // an empty name after the bracket
        {"R>C<0>F", nullptr},
        {"r>Hide", nullptr},
        {"R>Missing", nullptr},
        {"R>C<x>File", nullptr},
        {"R>C<>File", nullptr},
        {"R>C<1", nullptr},
        {"", nullptr},
        {">", nullptr}};
    for (const auto& [path, expected] : cases) {
        SCOPED_TRACE(path);
        std::string value = "untouched";
        EXPECT_EQ(document.GetByPath(path, value), expected != nullptr);
        EXPECT_EQ(value, expected != nullptr ? expected : "untouched");
    }
}

TEST(XmlNode, SaveWritesTheExactBytesInUtf16WithEscapes)
{
    XmlNode document;
    XmlNode* root = document.AddChild("Tarvo_QC");
    root->SetAttribute("Hide", "1");
    root->AddChild("Clip");
    EXPECT_EQ(document.saveBytes(),
              "\xFF\xFE" + utf16("<Tarvo_QC Hide=\"1\">\r\n  <Clip/>\r\n</Tarvo_QC>\r\n") +
                  std::string(2, '\0'));

    XmlNode* clip = root->child(0);
    clip->SetAttribute("File", "q\"a&b'c<d>e");
    clip->AddChild("Issue")->SetText(" a<b>\"c\"&'d'");
    clip->AddChild("Raw")->SetText("<![CDATA[x<y&z]]>");
    clip->SetText("after");
    EXPECT_EQ(document.saveText(),
              "<Tarvo_QC Hide=\"1\">\r\n"
              "  <Clip File=\"q&quot;a&amp;b&apos;c&lt;d>e\">\r\n"
              "    <Issue>&#32;a&lt;b&gt;&quot;c&quot;&amp;&apos;d&apos;</Issue>\r\n"
              "    <Raw><![CDATA[x<y&z]]></Raw>\r\n"
              "after  </Clip>\r\n"
              "</Tarvo_QC>\r\n");
    XmlNode empty;
    EXPECT_EQ(empty.saveBytes(), std::string("\xFF\xFE\0\0", 4));
}

TEST(XmlNode, ForgivingReaderRules)
{
    // text, whether every element was closed, the tree read
    const std::tuple<const char*, bool, const char*> cases[] = {
        {"<Tarvo_QC Hide=\"1\">\r\n  <Clip File=\"a &amp; b.mp4\"/>\r\n</Tarvo_QC>\r\n", true,
         "Tarvo_QC[Hide=1](Clip[File=a & b.mp4])"},
        {"<a v='x&gt;y' w=\"&quot;&apos;&lt;&amp;&nbsp;\"/>", true, "a[v=x&gt;y,w=\"'<&&nbsp;]"},
        {"<a>&nbsp;&quot;&amp;&lt;&gt;&apos;&copy;</a>", true, "a{ \"&<>'&copy;}"},
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
        {"<a><img src=\"x\"></a>", false, "a(img[src=x])"}};
    for (const auto& [text, closed, tree] : cases) {
        SCOPED_TRACE(text);
        XmlNode document;
        EXPECT_EQ(document.Parse(text), closed);
        ASSERT_EQ(document.childCount(), 1u);
        EXPECT_EQ(test::xmlDump(*document.child(0)), tree);
    }
}

TEST(XmlNode, MustFail)
{
    const std::string inputs[] = {"",
                                  "no tags at all",
                                  "<a>",
                                  "<a>text",
                                  "<a></a",
                                  "<1st/>",
                                  "<a x=\"1/>",
                                  "<-x/>",
                                  "<a><b></a>",
                                  "<.x/>",
                                  "<a><b/>",
                                  "<?xml version=\"1.0\"?>",
                                  "<!DOCTYPE a><a/>",
                                  std::string("<a>\0</a>", 8)};
    for (const std::string& input : inputs) {
        SCOPED_TRACE(input);
        XmlNode document;
        EXPECT_FALSE(document.Parse(input));
        EXPECT_EQ(fuzz::checkParse(input), "");
    }
}

TEST(XmlNode, ReaderLimitsSitAtTheirValues)
{
    XmlNode document;
    EXPECT_TRUE(document.Parse(nested(kMaxXmlDepth)));
    EXPECT_FALSE(document.Parse(nested(kMaxXmlDepth + 1)));
    // The content past the limit is dropped; what was read stays.
    EXPECT_NE(document.FindDeep("e"), nullptr);
    EXPECT_EQ(fuzz::checkParse(nested(kMaxXmlDepth + 1)), "");

    std::string attributes = "<a";
    for (std::size_t i = 0; i < kMaxXmlAttributes; ++i) {
        attributes += " n" + std::to_string(i) + "=''";
    }
    EXPECT_TRUE(document.Parse(attributes + "/>"));
    EXPECT_EQ(document.child(0)->attributeCount(), kMaxXmlAttributes);
    EXPECT_FALSE(document.Parse(attributes + " x=''/>"));
    EXPECT_EQ(fuzz::checkParse(attributes + " x=''/>"), "");
}

TEST(XmlNode, SaveLoadRoundTripGivesTheSameTreeAndBytesAndEveryCutFails)
{
    // A tree with every kind of content the writer has to get right.
    XmlNode document;
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
    const std::string bytes = document.saveBytes();

    TempDir dir;
    const std::string path = (dir / "doc.qcout").string();
    ASSERT_TRUE(document.Save(path));
    EXPECT_EQ(readFile(path), bytes);

    XmlNode loaded;
    ASSERT_TRUE(loaded.Load(path));
    EXPECT_EQ(fuzz::compareTrees(*document.child(0), *loaded.child(0)), "");
    EXPECT_EQ(loaded.saveBytes(), bytes);

    // Every cut of the document fails; past the root's last ">" only the line end and the
    // terminator remain.
    const std::size_t lastGt = bytes.size() - 2 - 4 - 2;
    ASSERT_EQ(bytes[lastGt], '>');
    for (std::size_t length = 0; length <= lastGt; ++length) {
        XmlNode cut;
        if (cut.loadBytes(std::string_view(bytes).substr(0, length))) {
            ADD_FAILURE() << "a document cut to " << length << " bytes read as complete";
            break;
        }
    }
    EXPECT_TRUE(loaded.loadBytes(std::string_view(bytes).substr(0, lastGt + 2)));
}

// A clip name may hold any byte but zero; the saved document is well-formed XML and every
// reader (Python's expat and this one) reads the same name from it: the name itself where
// XML can carry it, else its documented stand-in.
TEST(XmlNode, EveryNameIsWrittenWellFormedAndReadTheSameByEveryReader)
{
    const std::pair<std::string, std::string> cases[] = {
        {"tab\there", "tab\there"},
        {"new\nline", "new\nline"},
        {"cr\r\nlf\r", "cr\r\nlf\r"},
        {" lead & <trail> ", " lead & <trail> "},
        {"a\x1b[31mred.ts", "a\xE2\x90\x9B[31mred.ts"}, // ESC as U+241B
        {"\x01\x1f", "\xE2\x90\x81\xE2\x90\x9F"},
        {"x\xEF\xBF\xBEy\xEF\xBF\xBF", "x\xEF\xBF\xBDy\xEF\xBF\xBD"}, // U+FFFE, U+FFFF
        {"\x7F\xC2\x85", "\x7F\xC2\x85"}, // DEL and NEL are XML characters
        {"&#27; typed", "&#27; typed"},   // a name, not a reference
    };
    XmlNode document;
    XmlNode* root = document.AddChild("Tarvo_QC");
    std::vector<std::string> expected;
    for (const auto& [name, read] : cases) {
        root->AddChild("Clip")->SetAttribute("File", name);
        root->AddChild("Issue")->SetText("text " + name);
        expected.push_back(read);
        expected.push_back("text " + read);
    }
    const std::string bytes = document.saveBytes();

    XmlNode again;
    ASSERT_TRUE(again.loadBytes(bytes));
    std::vector<std::string> ours;
    for (const auto& child : again.child(0)->children()) {
        ours.push_back(child->name() == "Clip" ? child->GetString("File", "") : child->text());
    }
    EXPECT_EQ(ours, expected);

    const TempDir dir;
    writeFile(dir / "doc.qcout", bytes);
    const test::CommandResult expat = test::runCommand(
        {"python3", "-c",
         "import sys, xml.etree.ElementTree as ET\n"
         "data = open(sys.argv[1], 'rb').read()[2:-2].decode('utf-16-le')\n"
         "for e in ET.fromstring(data):\n"
         "    v = e.get('File') if e.tag == 'Clip' else e.text\n"
         "    sys.stdout.buffer.write(v.encode('utf-8', 'surrogateescape') + b'\\0')\n",
         (dir / "doc.qcout").string()});
    ASSERT_EQ(expat.status, 0) << expat.err;
    std::vector<std::string> theirs;
    for (std::size_t start = 0, end = 0; (end = expat.out.find('\0', start)) != std::string::npos;
         start = end + 1) {
        theirs.push_back(expat.out.substr(start, end - start));
    }
    EXPECT_EQ(theirs, expected);
}

TEST(XmlNode, DecodingReplacesWhatIsBrokenAndDeclarationsNameTheEncoding)
{
    const std::string bad = "\xEF\xBF\xBD"; // U+FFFD
    const std::string bom = "\xEF\xBB\xBF";
    const std::pair<std::string, std::string> cases[] = {
        {std::string("\xFF\xFE\x3D\xD8\x00\xDE", 6), "\xF0\x9F\x98\x80"}, // pair joined
        {std::string("\xFF\xFE\x3D\xD8\x41\x00", 6), bad + "A"},          // lone high
        {std::string("\xFF\xFE\x00\xDE\x41\x00", 6), bad + "A"},          // lone low
        {std::string("\xFF\xFE\x41\x00\x42", 5), "A" + bad},              // odd last byte
        {std::string("\xFF\xFE\x3D\xD8", 4), bad},                        // high at the end
        {bom + "a\xC3", "a" + bad},                                       // cut sequence
        {bom + "\xED\xA0\x80", bad + bad + bad},                          // UTF-8 surrogate
        {bom + "\xC0\xAF", bad + bad},                                    // overlong
        {bom + "\xF4\x90\x80\x80", bad + bad + bad + bad},                // past U+10FFFF
        {"\x80\x81\xFF", "\xE2\x82\xAC\xC2\x81\xC3\xBF"},                 // Windows-1252
        {"\xC3\xA9", "\xC3\xA9"},                                         // valid UTF-8 stays
        {bom + "Caf\xC3\xA9", "Caf\xC3\xA9"},                             // marked UTF-8
        {"\xFF\xFE" + std::string("C\0a\0f\0\xE9\0", 8), "Caf\xC3\xA9"},  // UTF-16LE
        {std::string("\xFE\xFF\x00<", 4), "\xC3\xBE\xC3\xBF" + std::string(1, '\0') + "<"},
        {"", ""}};
    for (const auto& [bytes, text] : cases) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        EXPECT_EQ(decodeXmlFileBytes(bytes), text);
        EXPECT_EQ(fuzz::checkLoad(bytes), "");
    }
    XmlNode document;
    EXPECT_TRUE(document.Parse("<a v=\"\xFF\xC3\"/>"));
    EXPECT_EQ(document.child(0)->GetString("v", ""), bad + bad);

    // The encoding named by the leading declarations.
    const std::pair<const char*, const char*> declarations[] = {
        {"<?xml version=\"1.0\" encoding=\"UTF-8\"?><a/>", "UTF-8"},
        {"<!-- x --><?XML encoding='windows-1252'?><a/>", "windows-1252"},
        {"<?xml version=\"1.0\"?><a/>", ""},
        {"<a encoding=\"x\"/>", ""},
        {"<a/><?xml encoding=\"late\"?>", ""},
        {"", ""}};
    for (const auto& [text, encoding] : declarations) {
        SCOPED_TRACE(text);
        EXPECT_EQ(XmlNode::DetectEncoding(text), encoding);
    }
}

TEST(XmlNode, LoadFailuresLeaveTheDocumentCleared)
{
    TempDir dir;
    const std::string big = (dir / "big.qcin").string();
    writeFile(big, "");
    ASSERT_EQ(::truncate(big.c_str(), static_cast<off_t>(kMaxXmlFileBytes) + 1), 0);
    for (const std::string& path : {(dir / "missing.qcin").string(), big}) {
        SCOPED_TRACE(path);
        XmlNode document;
        document.AddChild("old")->SetText("x");
        document.SetAttribute("a", "b");
        EXPECT_FALSE(document.Load(path));
        EXPECT_EQ(document.childCount(), 0u);
        EXPECT_EQ(document.attributeCount(), 0u);
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
    document.reset(); // without exhausting the stack
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
