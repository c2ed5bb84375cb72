#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "results/resultfile.h"
#include "tests/support/testsupport.h"
#include "tests/support/xmldump.h"

namespace tarvoqc {
namespace {

using test::xmlDump;
constexpr ClipTicks kSec = kTicksPerSecond;

// A stream of the type whose header and decoded times agree: from 0 for duration.
StreamFacts plainStream(StreamType type, ClipTicks duration)
{
    return StreamFacts{type, "", 0, duration, 0, 0, duration};
}

// A 60 s clip of 50 Mbit/s video decoded from 0.04 s and 2304 kbit/s audio (the fields in
// the order of their structures).
QcResult sampleResult()
{
    const StreamFacts video{StreamType::Video,
                            "mpeg2video",
                            0,
                            60 * kSec,
                            375'000'000,
                            400'000,
                            60 * kSec,
                            1920,
                            1080,
                            1,
                            1,
                            25,
                            1};
    const StreamFacts audio{StreamType::Audio,
                            "pcm_s24le",
                            0,
                            60 * kSec,
                            17'280'000,
                            0,
                            60 * kSec,
                            0,
                            0,
                            0,
                            0,
                            0,
                            0,
                            2,
                            48000,
                            std::array<char, 4>{'e', 'n', 'g', '\0'}};
    return QcResult{"/in/clip.mxf", 3, true,
                    MediaFacts{0x20, 0, 411'783'797, 0x01D9F00DCAFEBABEull, 0x01D9F00DCAFEBABFull,
                               0, 60 * kSec, 60 * kSec, std::string(64, 'A'), 0x0123456789ABCDEFull,
                               std::vector<StreamFacts>{video, audio}, "mxf"},
                    QcIssueList()};
}

TEST(ResultFile, WritesFileAndMediaWithEveryAttribute)
{
    XmlNode clip;
    ASSERT_EQ(writeClipResult(clip, sampleResult()), 1);
    EXPECT_EQ(xmlDump(clip), "(File[Size=411783797,CRE=01D9F00DCAFEBABE,MOD=01D9F00DCAFEBABF,"
                             "ATR=00000020,Hash256=" +
                                 std::string(64, 'A') +
                                 ",FKey=0123456789ABCDEF],Media[Dur=600000000,Streams=2]("
                                 "Video[Stt=0.0000000,Dur=60.0000000,QCStt=0.0400000,"
                                 "QCDur=59.9600000,Format=1920,1080,1,1,25,1,Codec=mpeg2video,"
                                 "KbRate=50000.0000],Audio[Stt=0.0000000,Dur=60.0000000,"
                                 "Format=2,48000,eng,Codec=pcm_s24le,KbRate=2304.0000]))");
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
    // Video: same unknown start, so no QCStt; decoded length unknown against a header 0, so
    // QCDur "NA"; no codec; duration 0, so no KbRate. Audio: unknown header duration, so
    // QCDur differs and there is no KbRate; no language, so no third Format value.
    EXPECT_EQ(xmlDump(clip),
              "(File[Size=411783797,CRE=01D9F00DCAFEBABE,MOD=01D9F00DCAFEBABF,ATR=00000020],"
              "Media[Dur=600000000,QCDur=590000000,Streams=2]("
              "Video[Stt=NA,Dur=0.0000000,QCDur=NA,Format=1920,1080,1,1,25,1],"
              "Audio[Stt=0.0000000,Dur=NA,QCDur=60.0000000,Format=2,48000,Codec=pcm_s24le]))");
}

TEST(ResultFile, StreamElementsFollowTheStreamType)
{
    QcResult r = sampleResult();
    r.facts.streams.clear();
    for (StreamType t : {StreamType::Data, StreamType::Subtitle, StreamType::Unknown,
                         StreamType::Attach, static_cast<StreamType>(7)}) {
        StreamFacts s = plainStream(t, 2 * kSec);
        s.byteCount = 1000;
        s.language = {'d', 'e', 'u', 'x'};
        r.facts.streams.push_back(s);
    }
    XmlNode clip;
    writeClipResult(clip, r);
    // Every stream is counted; unknown types have no element; no Format but for sound and
    // pictures.
    const std::string attributes = "[Stt=0.0000000,Dur=2.0000000,KbRate=4.0000]";
    EXPECT_EQ(xmlDump(*clip.child(1)), "Media[Dur=600000000,Streams=5](Data" + attributes +
                                           ",Subt" + attributes + ",Atach" + attributes + ")");

    StreamFacts audio = sampleResult().facts.streams[1];
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
    EXPECT_EQ(xmlDump(qcheck),
              "[Score=1,Result=1/5 Very BAD,Issues=3](Issue[Cat=File,Sev=Highest]{Header & "
              "<trailer> differ},Issue[Cat=Frames,Sev=Low,Strm=0,Kind=Video]{Gap in TC of 0.30 "
              "at 4.00},Issue[Cat=Audio,Sev=Low,Strm=1,Kind=Audio]{Silence})");
    XmlNode clean;
    writeQcCheck(clean, QcResult{});
    EXPECT_EQ(xmlDump(clean), "[Score=5,Result=5/5 OK,Issues=0]");
}

TEST(ResultFile, DocumentHoldsClipAndQCheckPairsInOrder)
{
    QcResult r;
    r.facts.clipDuration = 10;
    r.facts.qcDuration = 10;
    r.facts.streams = {plainStream(StreamType::Audio, kSec)};
    r.facts.streams[0].channels = 1;
    r.facts.streams[0].sampleRate = 8000;
    r.issues.add(QcIssueCategory::Codec, QcSeverity::Warning, QcStreamKind::None, -1, "x");
    XmlNode document;
    document.AddChild("Stale");
    // An unchecked clip is listed without a QCheck.
    buildResultDocument(document, {{"/a.wav", &r}, {"/b & c.ts", nullptr}});
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
              "  <Clip File=\"/b &amp; c.ts\"/>\r\n"
              "</Tarvo_QC>\r\n");
    buildResultDocument(document, {});
    EXPECT_EQ(document.saveText(), "<Tarvo_QC/>\r\n");
}

// A long run's document is written clip by clip; its bytes are those of the whole tree.
TEST(ResultFile, DocumentWrittenClipByClipHasTheBytesOfTheWholeTree)
{
    QcResult checked;
    checked.facts.streams = {plainStream(StreamType::Video, kSec)};
    checked.issues.add(QcIssueCategory::File, QcSeverity::High, QcStreamKind::None, -1, "y");
    const test::TempDir dir;
    const std::string path = (dir / "run.qcout").string();
    for (const std::size_t count : {0, 1, 2, 255, 256, 257, 600}) {
        SCOPED_TRACE(count);
        std::vector<ResultDocumentEntry> entries;
        for (std::size_t i = 0; i < count; ++i) {
            entries.push_back({"/clip" + std::to_string(i), i % 3 == 1 ? nullptr : &checked});
        }
        XmlNode whole;
        buildResultDocument(whole, entries);
        ASSERT_TRUE(writeResultDocument(path, count, [&](std::size_t i) { return entries[i]; }));
        EXPECT_EQ(test::readFile(path), whole.saveBytes());
    }
}

} // namespace
} // namespace tarvoqc
