#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "engine/clipchecker.h"
#include "tests/engine/engine_test_util.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

namespace fs = std::filesystem;

// Real media made by others: broadcast captures, MXF track files, odd WAVs, damaged
// Matroska. Whatever they hold, a check ends with a result: no crash, no hang, and with a
// sanitizer build no report.
std::vector<fs::path> sampleFiles()
{
    std::vector<fs::path> files;
    const fs::path dir = test::sharedSamplesDir();
    if (dir.empty()) {
        return files;
    }
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        if (entry.is_regular_file() && entry.path().extension() != ".md") {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

// The samples that the sources' table documents as opening and decoding without a single
// error line of ffmpeg ("ffprobe rc" 0, "ffmpeg err lines" 0): clean, as far as ffmpeg knows.
std::vector<fs::path> cleanSampleFiles()
{
    std::set<std::string> clean;
    std::ifstream in(test::sharedSamplesDir() / "SOURCES.md");
    std::string folder;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("## ")) {
            folder = line.substr(3);
            continue;
        }
        std::vector<std::string> cells; // "", file, path, bytes, ffprobe rc, err lines, ...
        std::istringstream row(line);
        for (std::string cell; std::getline(row, cell, '|');) {
            std::istringstream words(cell);
            cells.emplace_back();
            words >> cells.back();
        }
        if (cells.size() >= 6 && cells[4] == "0" && cells[5] == "0") {
            clean.insert(folder + "/" + cells[1]);
        }
    }
    std::vector<fs::path> files = sampleFiles();
    std::erase_if(files, [&](const fs::path& file) {
        return !clean.contains(fs::relative(file, test::sharedSamplesDir()).string());
    });
    return files;
}

class MediaSample : public testing::TestWithParam<fs::path>
{};

TEST_P(MediaSample, EveryLevelEndsWithAResult)
{
    const std::string path = GetParam().string();
    const std::string digest = test::sha256sumOf(GetParam());
    for (CheckLevel level : {1, 2, 3, 4}) {
        SCOPED_TRACE("level " + std::to_string(level));
        ClipChecker checker;
        const bool opened = checker.Open(path, level, -1);
        if (opened) {
            EXPECT_EQ(checker.Run(nullptr), 1);
            EXPECT_EQ(checker.ClipProgress(), kProgressMax);
        }
        checker.Close();
        const QcResult r = checker.result();
        EXPECT_EQ(r.opened, opened);
        EXPECT_GE(r.score(), 0);
        EXPECT_LE(r.score(), 5);
        if (!opened) {
            // A clip that does not open says why, unless only its stream information failed;
            // level 4 adds the demuxer's own words.
            const auto why =
                std::count_if(r.issues.all().begin(), r.issues.all().end(), [](const auto& issue) {
                    return issue->text.find(" demuxer: ") == std::string::npos;
                });
            EXPECT_LE(why, 1) << test::describe(r);
        } else if (level >= 2) {
            EXPECT_EQ(r.facts.hash256, digest);
        }
        for (const auto& issue : r.issues.all()) {
            EXPECT_FALSE(issue->text.empty());
            EXPECT_LE(issue->text.size(), 4 * kMaxIssueTextChars);
        }
    }
}

// Level 4 on clean real media finds nothing to worry about: without a delivery rule its
// picture and sound findings (loudness among them) are at most Warnings.
TEST(MediaSamples, SourcesTableNamesTheCleanOnes)
{
    if (!test::sharedSamplesDir().empty()) {
        EXPECT_GE(cleanSampleFiles().size(), 20U);
    }
}

class CleanSample : public testing::TestWithParam<fs::path>
{};

TEST_P(CleanSample, GetsNoLevel4IssueAboveWarning)
{
    QcResult results[2];
    for (int i = 0; i < 2; ++i) {
        ClipChecker checker;
        if (checker.Open(GetParam().string(), 3 + i, -1)) {
            checker.Run(nullptr);
        }
        checker.Close();
        results[i] = checker.result();
    }
    for (const auto& issue : results[1].issues.all()) {
        const bool fromLevel3 =
            std::any_of(results[0].issues.all().begin(), results[0].issues.all().end(),
                        [&](const auto& other) { return *other == *issue; });
        EXPECT_TRUE(fromLevel3 || issue->severity == QcSeverity::Warning)
            << QcIssueList::longLine(*issue);
    }
}

std::string sampleName(const testing::TestParamInfo<fs::path>& info)
{
    std::string name =
        info.param.parent_path().filename().string() + "_" + info.param.filename().string();
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Shared, MediaSample, testing::ValuesIn(sampleFiles()), sampleName);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(MediaSample);
INSTANTIATE_TEST_SUITE_P(Shared, CleanSample, testing::ValuesIn(cleanSampleFiles()), sampleName);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(CleanSample);

} // namespace
} // namespace tarvoqc
