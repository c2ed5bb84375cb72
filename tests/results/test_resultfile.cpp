#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "results/resultfile.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

constexpr ClipTicks kSec = kTicksPerSecond;

// The attributes of an element as "name=value" in order, for exact comparisons.
std::string attributesOf(const XmlNode& node)
{
    std::string text;
    for (std::size_t i = 0; i < node.attributeCount(); ++i) {
        text += (i ? " " : "") + node.attributeName(i) + "=" + node.attributeValue(i);
    }
    return text;
}

StreamFacts videoStream()
{
    StreamFacts s;
    s.type = StreamType::Video;
    s.codecName = "mpeg2video";
    s.headerStart = 0;
    s.headerDuration = 60 * kSec;
    s.byteCount = 375'000'000; // 50 Mbit/s over 60 s
    s.decodedStart = 400'000;  // 0.04 s
    s.decodedEnd = 60 * kSec;
    s.width = 1920;
    s.height = 1080;
    s.sampleAspectNum = 1;
    s.sampleAspectDen = 1;
    s.frameRateNum = 25;
    s.frameRateDen = 1;
    return s;
}

StreamFacts audioStream()
{
    StreamFacts s;
    s.type = StreamType::Audio;
    s.codecName = "pcm_s24le";
    s.headerStart = 0;
    s.headerDuration = 60 * kSec;
    s.byteCount = 17'280'000; // 2304 kbit/s
    s.decodedStart = 0;
    s.decodedEnd = 60 * kSec;
    s.channels = 2;
    s.sampleRate = 48000;
    s.language = {'e', 'n', 'g', '\0'};
    return s;
}

QcResult sampleResult()
{
    QcResult r;
    r.path = "/in/clip.mxf";
    r.checkLevel = 3;
    r.opened = true;
    MediaFacts& f = r.facts;
    f.attributes = 0x20;
    f.fileSize = 411'783'797;
    f.creationTime = 0x01D9F00DCAFEBABEull;
    f.lastWriteTime = 0x01D9F00DCAFEBABFull;
    f.clipStart = 0;
    f.clipDuration = 60 * kSec;
    f.qcDuration = 60 * kSec;
    f.hash256 = std::string(64, 'A');
    f.fkey = 0x0123456789ABCDEFull;
    f.streams = {videoStream(), audioStream()};
    return r;
}

TEST(ResultFile, WritesFileAndMediaWithEveryAttribute)
{
    XmlNode clip;
    ASSERT_EQ(writeClipResult(clip, sampleResult()), 1);
    ASSERT_EQ(clip.childCount(), 2u);
    const XmlNode& file = *clip.child(0);
    const XmlNode& media = *clip.child(1);
    EXPECT_EQ(file.name(), "File");
    EXPECT_EQ(attributesOf(file), "Size=411783797 CRE=01D9F00DCAFEBABE MOD=01D9F00DCAFEBABF "
                                  "ATR=00000020 Hash256=" +
                                      std::string(64, 'A') + " FKey=0123456789ABCDEF");
    EXPECT_EQ(media.name(), "Media");
    EXPECT_EQ(attributesOf(media), "Dur=600000000 Streams=2");
    ASSERT_EQ(media.childCount(), 2u);
    EXPECT_EQ(media.child(0)->name(), "Video");
    EXPECT_EQ(attributesOf(*media.child(0)),
              "Stt=0.0000000 Dur=60.0000000 QCStt=0.0400000 QCDur=59.9600000 "
              "Format=1920,1080,1,1,25,1 Codec=mpeg2video KbRate=50000.0000");
    EXPECT_EQ(media.child(1)->name(), "Audio");
    EXPECT_EQ(attributesOf(*media.child(1)),
              "Stt=0.0000000 Dur=60.0000000 Format=2,48000,eng Codec=pcm_s24le KbRate=2304.0000");
}

TEST(ResultFile, OptionalAttributesAppearOnlyWhenTheyApply)
{
    QcResult r = sampleResult();
    r.facts.hash256.clear();
    r.facts.fkey = 0;
    r.facts.qcDuration = 59 * kSec;
    StreamFacts& video = r.facts.streams[0];
    video.headerStart = kNoTime;
    video.headerDuration = 0;
    video.decodedStart = kNoTime;
    video.decodedEnd = 10 * kSec;
    video.codecName.clear();
    StreamFacts& audio = r.facts.streams[1];
    audio.headerDuration = kNoTime;
    audio.language = {};
    XmlNode clip;
    ASSERT_EQ(writeClipResult(clip, r), 1);
    EXPECT_EQ(attributesOf(*clip.child(0)),
              "Size=411783797 CRE=01D9F00DCAFEBABE MOD=01D9F00DCAFEBABF ATR=00000020");
    EXPECT_EQ(attributesOf(*clip.child(1)), "Dur=600000000 QCDur=590000000 Streams=2");
    // Same unknown start: no QCStt; decoded length unknown, header 0: QCDur "NA"; no
    // codec; duration 0: no KbRate.
    EXPECT_EQ(attributesOf(*clip.child(1)->child(0)),
              "Stt=NA Dur=0.0000000 QCDur=NA Format=1920,1080,1,1,25,1");
    // Unknown header duration: QCDur differs and no KbRate; no language: no third value.
    EXPECT_EQ(attributesOf(*clip.child(1)->child(1)),
              "Stt=0.0000000 Dur=NA QCDur=60.0000000 Format=2,48000 Codec=pcm_s24le");
}

TEST(ResultFile, StreamElementsFollowTheStreamType)
{
    QcResult r = sampleResult();
    const StreamType types[] = {StreamType::Data, StreamType::Subtitle, StreamType::Unknown,
                                StreamType::Attach, static_cast<StreamType>(7)};
    r.facts.streams.clear();
    for (StreamType t : types) {
        StreamFacts s;
        s.type = t;
        s.headerStart = 0;
        s.headerDuration = 2 * kSec;
        s.decodedStart = 0;
        s.decodedEnd = 2 * kSec;
        s.byteCount = 1000;
        s.language = {'d', 'e', 'u', 'x'};
        r.facts.streams.push_back(s);
    }
    XmlNode clip;
    writeClipResult(clip, r);
    const XmlNode& media = *clip.child(1);
    EXPECT_EQ(media.GetString("Streams", ""), "5") << "every stream is counted";
    ASSERT_EQ(media.childCount(), 3u) << "unknown types have no element";
    EXPECT_EQ(media.child(0)->name(), "Data");
    EXPECT_EQ(media.child(1)->name(), "Subt");
    EXPECT_EQ(media.child(2)->name(), "Atach");
    for (const auto& element : media.children()) {
        SCOPED_TRACE(element->name());
        EXPECT_EQ(attributesOf(*element), "Stt=0.0000000 Dur=2.0000000 KbRate=4.0000");
    }

    StreamFacts audio = audioStream();
    audio.language = {'d', 'e', 'u', 'x'};
    EXPECT_EQ(streamFormatText(audio), "2,48000,deux") << "all four bytes when full";
    audio.language = {'\0', 'x', '\0', '\0'};
    EXPECT_EQ(streamFormatText(audio), "2,48000");
}

TEST(ResultFile, QCheckListsIssuesWorstFirst)
{
    QcResult r = sampleResult();
    r.issues.add(QcIssueCategory::Frames, QcSeverity::Low, QcStreamKind::Video, 0,
                 "Gap in TC of 0.30 at 4.00");
    r.issues.add(QcIssueCategory::File, QcSeverity::Highest, QcStreamKind::None, -1,
                 "Header & <trailer> differ");
    r.issues.add(QcIssueCategory::Audio, QcSeverity::Low, QcStreamKind::Audio, 1, "Silence");
    XmlNode qcheck;
    writeQcCheck(qcheck, r);
    EXPECT_EQ(attributesOf(qcheck), "Score=1 Result=1/5 Very BAD Issues=3");
    ASSERT_EQ(qcheck.childCount(), 3u);
    struct Expected
    {
        const char* attributes;
        const char* text;
    };
    const Expected expected[] = {
        {"Cat=File Sev=Highest", "Header & <trailer> differ"},
        {"Cat=Frames Sev=Low Strm=0 Kind=Video", "Gap in TC of 0.30 at 4.00"},
        {"Cat=Audio Sev=Low Strm=1 Kind=Audio", "Silence"},
    };
    for (std::size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(qcheck.child(i)->name(), "Issue");
        EXPECT_EQ(attributesOf(*qcheck.child(i)), expected[i].attributes);
        EXPECT_EQ(qcheck.child(i)->text(), expected[i].text);
    }

    XmlNode clean;
    writeQcCheck(clean, QcResult{});
    EXPECT_EQ(attributesOf(clean), "Score=5 Result=5/5 OK Issues=0");
    EXPECT_EQ(clean.childCount(), 0u);
}

TEST(ResultFile, DocumentHoldsClipAndQCheckPairsInOrder)
{
    const QcResult checked = sampleResult();
    XmlNode document;
    document.AddChild("Stale");
    buildResultDocument(
        document, {{"/in/a.mxf", &checked}, {"/in/b.ts", nullptr}, {"/in/c & d.mp4", &checked}});
    ASSERT_EQ(document.childCount(), 1u) << "the document is built afresh";
    const XmlNode& root = *document.child(0);
    EXPECT_EQ(root.name(), "Tarvo_QC");
    std::vector<std::string> shape;
    for (const auto& c : root.children()) {
        shape.push_back(c->name() + ":" + c->GetString("File", "-") + ":" +
                        std::to_string(c->childCount()));
    }
    EXPECT_EQ(shape, (std::vector<std::string>{"Clip:/in/a.mxf:2", "QCheck:-:0", "Clip:/in/b.ts:0",
                                               "Clip:/in/c & d.mp4:2", "QCheck:-:0"}));
    EXPECT_EQ(root.child(0)->child(0)->name(), "File");
    EXPECT_EQ(root.child(0)->child(1)->name(), "Media");

    buildResultDocument(document, {});
    EXPECT_EQ(document.saveText(), "<Tarvo_QC/>\r\n");
}

TEST(ResultFile, SmallDocumentSavesToTheExpectedText)
{
    QcResult r;
    r.facts.clipDuration = 10;
    r.facts.qcDuration = 10;
    StreamFacts s;
    s.type = StreamType::Audio;
    s.headerStart = 0;
    s.headerDuration = kSec;
    s.decodedStart = 0;
    s.decodedEnd = kSec;
    s.channels = 1;
    s.sampleRate = 8000;
    r.facts.streams = {s};
    r.issues.add(QcIssueCategory::Codec, QcSeverity::Warning, QcStreamKind::None, -1, "x");
    XmlNode document;
    buildResultDocument(document, {{"/a.wav", &r}});
    EXPECT_EQ(document.saveText(),
              "<Tarvo_QC>\r\n"
              "  <Clip File=\"/a.wav\">\r\n"
              "    <File Size=\"0\" CRE=\"0000000000000000\" MOD=\"0000000000000000\" "
              "ATR=\"00000000\"/>\r\n"
              "    <Media Dur=\"10\" Streams=\"1\">\r\n"
              "      <Audio Stt=\"0.0000000\" Dur=\"1.0000000\" Format=\"1,8000\" "
              "KbRate=\"0.0000\"/>\r\n"
              "    </Media>\r\n"
              "  </Clip>\r\n"
              "  <QCheck Score=\"4\" Result=\"4/5 Good\" Issues=\"1\">\r\n"
              "    <Issue Cat=\"Codec\" Sev=\"Warning\">x</Issue>\r\n"
              "  </QCheck>\r\n"
              "</Tarvo_QC>\r\n");
}

TEST(ResultFile, SavedDocumentIsWellFormedForAnotherParser)
{
    QcResult r = sampleResult();
    r.issues.add(QcIssueCategory::Frames, QcSeverity::High, QcStreamKind::Video, 0,
                 "Step back of \"0.04\" at 'x' <y> \xE2\x82\xAC \xF0\x9F\x8E\xAC");
    XmlNode document;
    buildResultDocument(
        document, {{"/in/a&b <c> \"d\" 'e' \xC3\xA9.mxf", &r}, {"/in/unchecked.ts", nullptr}});
    test::TempDir dir;
    const std::string path = (dir / "job.qcout").string();
    ASSERT_TRUE(document.Save(path));
    const char* script =
        "import sys, xml.etree.ElementTree as ET\n"
        "data = open(sys.argv[1], 'rb').read()\n"
        "assert data[-2:] == b'\\0\\0'\n"
        "root = ET.fromstring(data[:-2])\n"
        "print(root.tag, len(root.findall('Clip')), root.find('Clip').get('File'),\n"
        "      root.find('QCheck/Issue').text, root.find('Clip/Media/Audio').get('Format'),\n"
        "      sep='|')\n";
    const test::CommandResult py =
        test::runCommand({"python3", "-c", script, path}, {"PYTHONIOENCODING=utf-8"});
    ASSERT_EQ(py.status, 0) << py.err;
    EXPECT_EQ(py.out, "Tarvo_QC|2|/in/a&b <c> \"d\" 'e' \xC3\xA9.mxf|Step back of \"0.04\" at "
                      "'x' <y> \xE2\x82\xAC \xF0\x9F\x8E\xAC|2,48000,eng\n");
}

} // namespace
} // namespace tarvoqc
