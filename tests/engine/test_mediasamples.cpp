#include <algorithm>
#include <cctype>
#include <filesystem>
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

class MediaSample : public testing::TestWithParam<fs::path>
{};

TEST_P(MediaSample, EveryLevelEndsWithAResult)
{
    const std::string path = GetParam().string();
    const std::string digest = test::sha256sumOf(GetParam());
    for (CheckLevel level : {1, 2, 3}) {
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
            // A clip that does not open says why, unless only its stream information failed.
            EXPECT_LE(r.issues.size(), 1U) << test::describe(r);
        } else if (level >= 2) {
            EXPECT_EQ(r.facts.hash256, digest);
        }
        for (const auto& issue : r.issues.all()) {
            EXPECT_FALSE(issue->text.empty());
            EXPECT_LE(issue->text.size(), 4 * kMaxIssueTextChars);
        }
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

} // namespace
} // namespace tarvoqc
