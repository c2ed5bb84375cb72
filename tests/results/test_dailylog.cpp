#include <algorithm>
#include <ctime>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "results/dailylog.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

namespace fs = std::filesystem;
using test::readFile;
using test::TempDir;

// Seconds since the epoch of a local date and time ("2017-01-28 09:05:07").
std::time_t localTime(const char* when)
{
    std::tm parts{};
    EXPECT_NE(::strptime(when, "%Y-%m-%d %H:%M:%S", &parts), nullptr) << when;
    parts.tm_isdst = -1;
    return std::mktime(&parts);
}

std::vector<std::string> filesIn(const fs::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

class DailyLogTest : public ::testing::Test
{
protected:
    DailyLogTest()
    {
        log.setFolder(dir.path().string(), "QC ");
        log.setEnabled(1);
    }

    TempDir dir;
    DailyLog log;
};

TEST_F(DailyLogTest, EachEntryGoesToTheFileOfItsDateAfterALineBreak)
{
    const std::time_t morning = localTime("2017-01-28 09:05:07");
    EXPECT_EQ(log.write("Start " + titleText(), morning, true), 1);
    EXPECT_EQ(log.write("Exit", morning + 3600, true), 1);
    EXPECT_EQ(log.path(), dir.path().string() + "/QC 2017-01-28.log");
    EXPECT_EQ(log.write("late", localTime("2016-12-31 23:59:59"), true), 1);
    EXPECT_EQ(log.write("early", localTime("2017-01-01 00:00:01"), true), 1);
    EXPECT_EQ(
        filesIn(dir.path()),
        (std::vector<std::string>{"QC 2016-12-31.log", "QC 2017-01-01.log", "QC 2017-01-28.log"}));
    EXPECT_EQ(readFile(dir / "QC 2017-01-28.log"),
              test::utf16("\r\n28-01-2017 09:05:07\tStart " + titleText() +
                          "\r\n28-01-2017 10:05:07\tExit"));
    EXPECT_EQ(readFile(dir / "QC 2016-12-31.log"), test::utf16("\r\n31-12-2016 23:59:59\tlate"));
    EXPECT_EQ(readFile(dir / "QC 2017-01-01.log"), test::utf16("\r\n01-01-2017 00:00:01\tearly"));
}

TEST_F(DailyLogTest, UnstampedTextAndRawAppends)
{
    const std::time_t when = localTime("2020-02-29 12:00:00");
    EXPECT_EQ(log.write("head", when, false), 1);
    EXPECT_EQ(log.appendRaw(" tail"), 1);
    // UTF-8 becomes UTF-16LE: é and € are one unit each, 😀 (U+1F600) a surrogate pair, and a
    // byte that is not UTF-8 becomes U+FFFD.
    EXPECT_EQ(log.appendRaw("é€😀\xFF"), 1);
    EXPECT_EQ(readFile(dir / "QC 2020-02-29.log"),
              test::utf16("head tail") +
                  std::string("\xE9\x00\xAC\x20\x3D\xD8\x00\xDE\xFD\xFF", 10));
}

TEST_F(DailyLogTest, NothingIsWrittenWhenThereIsNothingToWrite)
{
    const std::time_t when = localTime("2017-01-28 09:00:00");
    DailyLog fresh;
    fresh.setFolder(dir.path().string(), "QC ");
    fresh.setEnabled(1);
    EXPECT_EQ(fresh.appendRaw("no file named yet"), 0);
    EXPECT_EQ(log.write("", when, true), 0);
    EXPECT_EQ(log.write("", when, false), 0);
    log.setEnabled(0);
    EXPECT_EQ(log.write("disabled", when, true), 0);
    EXPECT_EQ(log.writeNow("disabled"), 0);
    EXPECT_EQ(log.appendRaw("disabled"), 0);
    EXPECT_TRUE(filesIn(dir.path()).empty());

    // A folder that does not exist: the entry is lost, and that still counts as written.
    log.setEnabled(1);
    log.setFolder((dir / "missing").string(), "QC ");
    EXPECT_EQ(log.write("lost", when, true), 1);
    EXPECT_TRUE(filesIn(dir.path()).empty());
}

TEST(DailyLog, FolderGetsOneTrailingSeparator)
{
    const std::pair<const char*, const char*> cases[] = {{"/var/log/LogsQC", "/var/log/LogsQC/"},
                                                         {"/var/log/LogsQC/", "/var/log/LogsQC/"},
                                                         {"C:\\Logs", "C:\\Logs/"},
                                                         {"C:\\Logs\\", "C:\\Logs\\"},
                                                         {"", ""}};
    DailyLog log;
    for (const auto& [given, stored] : cases) {
        SCOPED_TRACE(given);
        log.setFolder(given, "QC ");
        EXPECT_EQ(log.folder(), stored);
    }
}

TEST_F(DailyLogTest, WriteNowUsesTheCurrentDate)
{
    std::time_t before = std::time(nullptr);
    EXPECT_EQ(log.writeNow("now"), 1);
    std::time_t after = std::time(nullptr);
    char name[64];
    std::tm parts{};
    bool found = false;
    // The two dates differ only when the call ran across midnight.
    for (std::time_t t : {before, after}) {
        std::strftime(name, sizeof name, "QC %Y-%m-%d.log", ::localtime_r(&t, &parts));
        found = found || fs::exists(dir / name);
    }
    EXPECT_TRUE(found);
}

TEST_F(DailyLogTest, EntriesOfManyThreadsNeverInterleave)
{
    constexpr int kThreads = 4;
    constexpr int kEntries = 100;
    const std::time_t when = localTime("2017-01-28 09:00:00");
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEntries; ++i) {
                log.write("thread " + std::to_string(t) + " entry " + std::to_string(i), when,
                          true);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::string bytes = readFile(dir / "QC 2017-01-28.log");
    const std::string text = test::asciiOfUtf16(bytes);
    ASSERT_EQ(test::utf16(text), bytes);
    const std::regex entry("\r\n28-01-2017 09:00:00\tthread ([0-9]) entry ([0-9]+)");
    std::vector<int> next(kThreads, 0);
    for (auto it = std::sregex_iterator(text.begin(), text.end(), entry);
         it != std::sregex_iterator(); ++it) {
        EXPECT_EQ(std::stoi((*it)[2]), next[std::stoi((*it)[1])]++); // each thread in its order
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kEntries));
    EXPECT_EQ(std::regex_replace(text, entry, ""), "") << "nothing but whole entries";
}

} // namespace
} // namespace tarvoqc
