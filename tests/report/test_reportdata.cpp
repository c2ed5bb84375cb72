#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "report/reportdata.h"
#include "results/resultfile.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

// A program that holds check results (the window) makes the same report records that
// tarvoqc-report reads back from the result document of those results.
TEST(ReportData, RecordOfAResultIsWhatItsResultDocumentGivesBack)
{
    QcResult missing;
    missing.path = "/in/missing \"a\" & <b>.mxf";
    missing.issues.add(QcIssueCategory::File, QcSeverity::Critical, QcStreamKind::None, -1,
                       "Couldn't open file");
    QcResult checked;
    checked.path = "/in/clip.mxf";
    checked.facts.fileSize = 411783797;
    checked.facts.hash256 = std::string(64, 'A');
    checked.facts.fkey = 0x0123456789ABCDEF;
    checked.facts.clipDuration = 600'000'000;
    // The streams' facts and the issues' places come back too; a clip's start is its
    // earliest stream's.
    checked.facts.clipStart = 9'999'999;
    checked.facts.streams = {
        {StreamType::Video,
         "h264",
         10'000'000,
         600'000'000,
         0,
         kNoTime,
         kNoTime,
         1920,
         1080,
         1,
         1,
         30000,
         1001,
         0,
         0,
         {}},
        {StreamType::Audio,
         "pcm_s24le",
         9'999'999,
         kNoTime,
         0,
         kNoTime,
         kNoTime,
         0,
         0,
         0,
         0,
         0,
         0,
         6,
         48000,
         {'e', 'n', 'g', 0}},
        {StreamType::Data, "", kNoTime, 0, 0, kNoTime, kNoTime, 0, 0, 0, 0, 0, 0, 0, 0, {}}};
    checked.issues.add({QcIssueCategory::Frames, QcSeverity::Low, QcStreamKind::Video, 0,
                        "Gap in TC of 0.30 at 4.00", 40'000'001, kNoTime});
    checked.issues.add({QcIssueCategory::Audio, QcSeverity::Highest, QcStreamKind::Audio, 1,
                        "Silence for 12.00 sec from 1.00", 10'000'000, 120'000'000});
    checked.issues.add(QcIssueCategory::MediaTime, QcSeverity::Warning, QcStreamKind::None, -1,
                       " leading space & <text>\r\n");
    const QcResult clean = [] {
        QcResult r;
        r.path = "/in/clean.ts";
        r.facts.clipDuration = 1;
        return r;
    }();
    const std::vector<ResultDocumentEntry> entries = {
        {missing.path, &missing}, {checked.path, &checked}, {clean.path, &clean}};

    const test::TempDir dir;
    const std::string path = (dir / "run.qcout").string();
    ASSERT_TRUE(
        writeResultDocument(path, entries.size(), [&](std::size_t i) { return entries[i]; }));
    std::vector<report::ClipRecord> readBack;
    std::string why;
    ASSERT_TRUE(report::parseResultDocument(
        test::readFile(path), path, [&](report::ClipRecord&& r) { readBack.push_back(r); },
        [](const std::string& where, const std::string& problem) {
            ADD_FAILURE() << where << ": " << problem;
        },
        why));
    ASSERT_EQ(readBack.size(), entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        SCOPED_TRACE(entries[i].path);
        EXPECT_EQ(report::recordOf(*entries[i].result), readBack[i]);
    }
}

} // namespace
} // namespace tarvoqc
