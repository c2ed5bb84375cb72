#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testsupport.h"

#include <nlohmann/json.hpp>

namespace tarvoqc {
namespace {

namespace fs = std::filesystem;

test::CommandResult tool(const char* exe, std::vector<std::string> args)
{
    args.insert(args.begin(), exe);
    return test::runCommand(args);
}

test::CommandResult report(std::vector<std::string> args)
{
    return tool(TARVOQC_REPORT_EXE, std::move(args));
}

// The clips of one run: every score from 0 to 5, a clip that does not exist, and a copy
// under a name that needs CSV quoting and HTML escaping.
std::vector<std::string> runClips(const test::TempDir& dir)
{
    const fs::path odd = dir / "odd, \"quoted\" <!--<b>&amp; name.mxf";
    fs::copy_file(test::testClip("mpeg2_pcm.mxf"), odd);
    return {test::testClip("mpeg2_pcm.mxf").string(),
            test::testClip("jump_video_high.ts").string(),
            test::testClip("text.mov").string(),
            (dir / "nothere.mov").string(),
            test::testClip("pcm.wav").string(),
            test::testClip("jump_video_low.ts").string(),
            test::testClip("jump_video_warning.ts").string(),
            odd.string()};
}

std::vector<nlohmann::json> jsonLines(const std::string& text)
{
    std::vector<nlohmann::json> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(nlohmann::json::parse(line));
    }
    return lines;
}

// The rows of a CSV file as Python's csv module reads them.
std::vector<std::vector<std::string>> readCsv(const fs::path& file)
{
    const test::CommandResult r = test::runCommand(
        {"python3", "-c",
         "import csv, json, sys\n"
         "print(json.dumps(list(csv.reader(open(sys.argv[1], newline='', encoding='utf-8-sig')))))",
         file.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    return r.status == 0 ? nlohmann::json::parse(r.out).get<std::vector<std::vector<std::string>>>()
                         : std::vector<std::vector<std::string>>{};
}

class ReportTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        clips = runClips(dir);
        std::vector<std::string> args = {"--json", "-o", (dir / "run.qcout").string()};
        args.insert(args.end(), clips.begin(), clips.end());
        const test::CommandResult r = tool(TARVOQC_CHECK_EXE, args);
        ASSERT_EQ(r.status, 1) << r.err;
        lines = jsonLines(r.out);
        ASSERT_EQ(lines.size(), clips.size());
        test::writeFile(dir / "run.jsonl", r.out);
    }

    std::string at(const std::string& name) const { return (dir / name).string(); }
    void expectMarksAndPictures(const std::string& dom, const std::set<int>& scores) const;

    test::TempDir dir;
    std::vector<std::string> clips;
    std::vector<nlohmann::json> lines;
};

TEST_F(ReportTest, CsvAgreesRowForRowWithTheJsonLinesAndTheResultDocument)
{
    // Score, result, worst severity, issue counts by category and duration of each clip of
    // the run; the path, size and keys are those of its JSON line.
    const std::vector<std::string> cells[] = {
        {"5", "5/5 OK", "", "0", "0", "0", "0", "0", "0", "2.000"},
        {"2", "2/5 BAD", "High", "0", "0", "0", "1", "0", "0", "6.000"},
        {"0", "0/5 ERROR", "Critical", "1", "0", "0", "0", "0", "0", ""},
        {"0", "0/5 ERROR", "Critical", "1", "0", "0", "0", "0", "0", ""},
        {"1", "1/5 Very BAD", "Highest", "0", "4", "0", "0", "0", "0", "2.000"},
        {"3", "3/5 Playable", "Low", "0", "0", "0", "1", "0", "0", "4.250"},
        {"4", "4/5 Good", "Warning", "0", "0", "0", "1", "0", "0", "4.010"},
        {"5", "5/5 OK", "", "0", "0", "0", "0", "0", "0", "2.000"}};
    for (const char* input : {"run.jsonl", "run.qcout"}) {
        SCOPED_TRACE(input);
        const fs::path csv = dir / "report.csv";
        const test::CommandResult r = report({at(input), "--csv", csv.string()});
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_TRUE(r.err.empty()) << r.err;
        EXPECT_NE(r.out.find("  0/5 ERROR             2\n"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("Frames:[High] Stream 0 (Video) Gap in TC of 2.00 at 4.00"),
                  std::string::npos)
            << "a worst clip is listed with its worst issue:\n"
            << r.out;
        const auto rows = readCsv(csv);
        ASSERT_EQ(rows.size(), lines.size() + 1);
        EXPECT_EQ(rows[0][0], "Path");
        EXPECT_EQ(rows[0][13], "FKey");
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const std::vector<std::string>& row = rows[i + 1];
            const nlohmann::json& line = lines[i];
            SCOPED_TRACE(line["path"].get<std::string>());
            ASSERT_EQ(row.size(), 14U);
            EXPECT_EQ(row[0], line["path"]);
            EXPECT_EQ(std::vector<std::string>(row.begin() + 1, row.begin() + 11), cells[i]);
            EXPECT_EQ(row[11], std::to_string(line["size"].get<std::int64_t>()));
            EXPECT_EQ(row[12], line["hash256"]);
            EXPECT_EQ(row[13], line["fkey"].is_null() ? "" : line["fkey"]);
        }
    }
}

TEST_F(ReportTest, BrokenInputLinesAreNamedAndSkipped)
{
    const std::string good = lines[0].dump() + "\n";
    const char* const broken[] = {
        "{\"path\": \"/a.mxf\", \"sco",
        "not json at all",
        "{\"path\": 5, \"score\": 1}",
        "{\"path\": \"/a.mxf\", \"score\": 9}",
        "{\"path\": \"/a.mxf\", \"score\": 1, \"x\": [[[[[[[[[[[[1]]]]]]]]]]]]}",
        "{\"path\": \"/a.mxf\", \"score\": 1, \"issues\": [{\"category\": \"Nope\"}]}",
        "[]"};
    for (const char* line : broken) {
        SCOPED_TRACE(line);
        const fs::path input = dir / "in.jsonl";
        std::string text = good;
        text.append(line).append("\n").append(good).append(line); // the last one unterminated
        test::writeFile(input, text);
        const test::CommandResult r = report({"-qt0", input.string(), "--csv", "-"});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.err.find("in.jsonl:2: skipped"), std::string::npos) << r.err;
        EXPECT_NE(r.err.find("in.jsonl:4: skipped"), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2) << r.out; // header + one clip
    }
    // A result document cut off in the middle: its complete clips still count.
    const std::string document = test::readFile(dir / "run.qcout");
    test::writeFile(dir / "cut.qcout", document.substr(0, document.size() * 2 / 3));
    const test::CommandResult cut = report({"-t0", "-q", at("cut.qcout"), "--csv", "-"});
    EXPECT_EQ(cut.status, 0) << cut.err;
    EXPECT_NE(cut.err.find("cut.qcout: skipped: the document is not complete"), std::string::npos)
        << cut.err;
    const auto rows = std::count(cut.out.begin(), cut.out.end(), '\n') - 1;
    EXPECT_GT(rows, 2);
    EXPECT_LT(rows, static_cast<std::ptrdiff_t>(lines.size()));

    const test::CommandResult missing = report({"-q", at("run.jsonl"), at("no.jsonl")});
    EXPECT_EQ(missing.status, 2);
    EXPECT_NE(missing.err.find("no.jsonl"), std::string::npos) << missing.err;
}

TEST_F(ReportTest, BaselineMarksWorseNewAndMissingClips)
{
    // The baseline lacks clip 0 (new now) and has one clip the current run lacks.
    nlohmann::json better = lines[1];
    nlohmann::json gone = lines[2];
    better["score"] = 5;
    gone["path"] = "/gone.mxf";
    test::writeFile(dir / "old.jsonl", better.dump() + "\n" + gone.dump() + "\n");
    test::writeFile(dir / "new.jsonl", lines[0].dump() + "\n" + lines[1].dump() + "\n");

    const test::CommandResult r =
        report({"-t0", at("new.jsonl"), "--baseline", at("old.jsonl"), "--csv", at("c.csv")});
    EXPECT_EQ(r.status, 1) << "a clip got worse:\n" << r.out << r.err;
    EXPECT_NE(r.out.find("1 worse, 0 better, 1 new, 1 missing"), std::string::npos) << r.out;
    const auto rows = readCsv(dir / "c.csv");
    ASSERT_EQ(rows.size(), 4U);
    const std::vector<std::vector<std::string>> marks = {
        {"Baseline", "Change"}, {"", "new"}, {"5", "worse"}, {lines[2]["score"].dump(), "missing"}};
    for (std::size_t i = 0; i < rows.size(); ++i) {
        ASSERT_EQ(rows[i].size(), 16U);
        EXPECT_EQ(std::vector<std::string>(rows[i].end() - 2, rows[i].end()), marks[i]);
    }
    EXPECT_EQ(rows[3][0], "/gone.mxf");

    // The same run as its own baseline: nothing is worse, and the threshold decides.
    EXPECT_EQ(report({"-q", "-t0", at("new.jsonl"), "-b", at("new.jsonl")}).status, 0);
}

// Every positioned issue of the shown clips is a mark on its clip's timeline, at the place
// its JSON line gives (stream start - clip start + at, over the clip's duration), and every
// picture of the page has decoded to its 160 pixels.
void ReportTest::expectMarksAndPictures(const std::string& dom, const std::set<int>& scores) const
{
    std::map<std::string, std::vector<double>> marks; // clip path -> mark places in %
    const std::regex pathCell("<td class=\"path\">([^<]*)</td>");
    const std::regex mark("<rect class=\"mark\" data-i=\"[0-9]+\" data-at=\"[^\"]*\" "
                          "x=\"([0-9.]+)%\"");
    std::size_t from = dom.find("<tr class=\"clip");
    while (from != std::string::npos) {
        const std::size_t next = dom.find("<tr class=\"clip", from + 1);
        const std::string row = dom.substr(from, next - from);
        std::smatch path;
        if (std::regex_search(row, path, pathCell)) {
            auto& places = marks[path[1]];
            for (std::sregex_iterator it(row.begin(), row.end(), mark), end; it != end; ++it) {
                places.push_back(std::stod((*it)[1]));
            }
        }
        from = next;
    }
    std::size_t placed = 0;
    for (const nlohmann::json& line : lines) {
        if (scores.count(line["score"].get<int>()) == 0 || !line["duration"].is_number()) {
            continue;
        }
        const std::string path = line["path"];
        if (path.find_first_of("<&>") != std::string::npos) {
            continue; // the DOM writes it escaped; its twin has the same marks
        }
        std::vector<double> expected;
        for (const nlohmann::json& issue : line["issues"]) {
            if (issue.contains("at")) {
                const nlohmann::json& stream = line["streams"][issue["stream"].get<int>()];
                const double offset = stream["start"].get<double>() - line["start"].get<double>();
                expected.push_back(std::clamp((offset + issue["at"].get<double>()) /
                                                  line["duration"].get<double>() * 100,
                                              0.0, 100.0));
            }
        }
        std::vector<double> shown = marks[path];
        std::sort(expected.begin(), expected.end());
        std::sort(shown.begin(), shown.end());
        ASSERT_EQ(shown.size(), expected.size()) << path;
        for (std::size_t i = 0; i < shown.size(); ++i) {
            EXPECT_NEAR(shown[i], expected[i], 0.001) << path;
        }
        placed += shown.size();
    }
    if (scores.count(2) != 0) {
        EXPECT_GT(placed, 0U) << "the gap of jump_video_high.ts is a mark";
    }
    // Tags found by hand: std::regex recurses once per character, and a picture's tag holds
    // thousands.
    std::size_t pictures = 0;
    for (std::size_t at = dom.find("<img "); at != std::string::npos;
         at = dom.find("<img ", at + 1)) {
        const std::string tag = dom.substr(at, dom.find('>', at) - at);
        if (tag.find("data:image/jpeg;base64,") != std::string::npos) {
            ++pictures;
            EXPECT_NE(tag.find("data-w=\"160\""), std::string::npos) << tag.substr(0, 120);
        }
    }
    EXPECT_GT(pictures, 0U) << "the readable clips have pictures";
}

// Clips graded by a delivery profile: every output names it, read from the JSON lines or
// the result document alike, and --rule keeps the clips that break one rule.
TEST(ReportProfiles, ProfileNamedInEveryOutputAndRulesFilter)
{
    test::TempDir dir;
    const std::string jsonl = (dir / "run.jsonl").string(), qcout = (dir / "run.qcout").string();
    const test::CommandResult r =
        tool(TARVOQC_CHECK_EXE,
             {"--json", "--profile", "streaming", "-o", qcout,
              test::testClip("h264_aac.mp4").string(), test::testClip("mpeg2_pcm.mxf").string()});
    ASSERT_EQ(r.status, 1) << r.err;
    test::writeFile(jsonl, r.out);
    for (const std::string& input : {jsonl, qcout}) {
        SCOPED_TRACE(input);
        const std::string csv = (dir / "c.csv").string(), html = (dir / "r.html").string();
        const test::CommandResult all = report({input, "--csv", csv, "--html", html});
        EXPECT_EQ(all.status, 1) << all.err;
        EXPECT_TRUE(all.out.starts_with("Profile: Streaming delivery\n")) << all.out;
        const auto rows = readCsv(csv);
        ASSERT_EQ(rows.size(), 3U);
        EXPECT_EQ(rows[0].back(), "Profile");
        EXPECT_EQ(rows[2].back(), "Streaming delivery");
        EXPECT_NE(test::readFile(html).find("Profile: Streaming delivery;"), std::string::npos);

        const test::CommandResult rule = report({input, "--rule", "Audio codec"});
        EXPECT_NE(rule.out.find("1 clip: 0 at or above"), std::string::npos) << rule.out;
        EXPECT_NE(rule.out.find("mpeg2_pcm.mxf"), std::string::npos) << rule.out;
        const test::CommandResult none = report({input, "-r", "Frame rate"});
        EXPECT_EQ(none.status, 0) << none.err;
        EXPECT_NE(none.out.find("0 clips: 0 at or above"), std::string::npos) << none.out;
    }
}

TEST_F(ReportTest, HtmlPageSortsFiltersAndColoursScoresInChromium)
{
    // A clip gone since its check: the page has it without pictures, with a note.
    fs::remove(clips.back());
    const fs::path page = dir / "report.html";
    ASSERT_EQ(report({"-q", at("run.jsonl"), "--html", page.string()}).status, 1);
    const std::string html = test::readFile(page);
    // No address of another place (a ":" never occurs in the pictures' base64).
    for (const char* address : {"http:", "https:", "ftp:", "=\"//"}) {
        EXPECT_EQ(html.find(address), std::string::npos)
            << "the page loads nothing from " << address;
    }

    // The page's calm scale: light backgrounds from red (0) to green (5) under dark text.
    const std::vector<std::pair<std::string, std::string>> colours = {
        {"#F2CBC6", "#5A0F0A"}, {"#F6D8CB", "#62220E"}, {"#FAE4CB", "#5C3300"},
        {"#FAF0CB", "#4F4100"}, {"#E6F0D3", "#2F4A10"}, {"#D8ECD8", "#174A1C"}};
    // fragment, direction (1 ascending scores, -1 descending), scores; worst first unless
    // the address says otherwise.
    const std::tuple<std::string, int, std::vector<int>> cases[] = {
        {"", 1, {0, 1, 2, 3, 4, 5}},
        {"#sort=-score", -1, {0, 1, 2, 3, 4, 5}},
        {"#score=0,5", 1, {0, 5}}};
    // Rows are found by their markup, as the page's script writes it.
    const std::regex clipRow(
        "<tr class=\"clip[^>]*data-score=\"([0-9])\"[^>]*><td class=\"path\">"
        "([^<]*)</td><td[^>]*style=\"background:([^;]*);color:([^\"]*)\">([^<]*)<");
    for (const auto& [fragment, direction, scores] : cases) {
        SCOPED_TRACE(fragment);
        // The page as headless Chromium shows it after its script ran.
        const test::CommandResult r =
            test::runCommand({"chromium", "--headless", "--no-sandbox", "--disable-gpu",
                              "--disable-background-networking", "--no-first-run",
                              "--user-data-dir=" + (dir / "profile").string(), "--dump-dom",
                              "file://" + page.string() + fragment});
        ASSERT_EQ(r.status, 0) << r.err;
        // Each clip of the chosen scores once, its path as a serialised DOM writes a text.
        std::multiset<std::pair<std::string, int>> expected;
        std::multiset<std::pair<std::string, int>> shown;
        for (const nlohmann::json& line : lines) {
            if (std::count(scores.begin(), scores.end(), line["score"].get<int>()) != 0) {
                std::string path =
                    std::regex_replace(line["path"].get<std::string>(), std::regex("&"), "&amp;");
                path = std::regex_replace(std::regex_replace(path, std::regex("<"), "&lt;"),
                                          std::regex(">"), "&gt;");
                expected.emplace(path, line["score"].get<int>());
            }
        }
        std::vector<int> order;
        for (std::sregex_iterator it(r.out.begin(), r.out.end(), clipRow), end; it != end; ++it) {
            const int score = std::stoi((*it)[1]);
            shown.emplace((*it)[2], score);
            order.push_back(score);
            EXPECT_EQ((*it)[3], colours[score].first) << (*it)[2];
            EXPECT_EQ((*it)[4], colours[score].second) << (*it)[2];
            EXPECT_EQ((*it)[5].str().substr(0, 2), std::to_string(score) + "/");
        }
        EXPECT_EQ(shown, expected);
        for (std::size_t i = 1; i < order.size(); ++i) {
            EXPECT_LE(direction * order[i - 1], direction * order[i]);
        }
        EXPECT_NE(r.out.find("Frames:[High] Stream 0 (Video) Gap in TC of 2.00 at 4.00"),
                  std::string::npos)
            << "each clip's issues are shown under it";
        if (std::count(scores.begin(), scores.end(), 2) != 0) {
            EXPECT_NE(r.out.find("mpegts; Level 3; Video mpeg2video 160x120 25 fps"),
                      std::string::npos)
                << "and its facts";
        }
        expectMarksAndPictures(r.out, std::set<int>(scores.begin(), scores.end()));
        EXPECT_NE(r.out.find("<p class=\"note\">The clip could not be read any more (the clip "
                             "could not be opened): pictures left out</p>"),
                  std::string::npos);
    }
}

// The PDF is the page printed: its first page, turned into pixels, shows the summary chart
// with the bars of its scores (the run has a clip of every score) in the page's colours.
TEST_F(ReportTest, PdfShowsTheSummaryOnItsFirstPage)
{
    if (test::runCommand({"sh", "-c", "command -v pdftoppm && command -v chromium"}).status != 0) {
        GTEST_SKIP() << "pdftoppm (poppler-utils) or chromium is not installed";
    }
    const fs::path pdf = dir / "report.pdf";
    ASSERT_EQ(report({"-q", "--no-pictures", at("run.jsonl"), "--pdf", pdf.string()}).status, 1);
    const test::CommandResult r = test::runCommand(
        {"pdftoppm", "-f", "1", "-l", "1", "-r", "50", pdf.string(), (dir / "page").string()});
    ASSERT_EQ(r.status, 0) << r.err;
    std::string ppm;
    for (const auto& entry : fs::directory_iterator(dir.path())) {
        if (entry.path().extension() == ".ppm") {
            ppm = test::readFile(entry.path());
        }
    }
    // Binary PPM: "P6", width, height, 255, then RGB bytes.
    std::istringstream head(ppm);
    std::string magic;
    int width = 0;
    int height = 0;
    int most = 0;
    head >> magic >> width >> height >> most;
    ASSERT_EQ(magic, "P6");
    const std::size_t pixels = static_cast<std::size_t>(head.tellg()) + 1;
    ASSERT_EQ(ppm.size(), pixels + 3U * static_cast<std::size_t>(width * height));
    // The bar colours of 5/5 OK and 0/5 ERROR, in the top third of the page.
    for (const auto& [name, rgb] : {std::pair{"5/5 OK", std::array{0x4E, 0x9A, 0x55}},
                                    std::pair{"0/5 ERROR", std::array{0xB0, 0x3A, 0x2E}}}) {
        int found = 0;
        for (int y = 0; y < height / 3; ++y) {
            for (int x = 0; x < width; ++x) {
                const char* p = ppm.data() + pixels + 3 * (static_cast<std::size_t>(y) * width + x);
                bool near = true;
                for (int c = 0; c < 3; ++c) {
                    near = near && std::abs(static_cast<unsigned char>(p[c]) - rgb[c]) <= 12;
                }
                found += near ? 1 : 0;
            }
        }
        EXPECT_GT(found, 20) << "no bar of " << name << " on the first page";
    }
}

TEST_F(ReportTest, ParallelRecipeInBatchesGivesTheReportOfOneRun)
{
    ASSERT_EQ(report({"-q", at("run.jsonl"), "--csv", at("one.csv")}).status, 1);
    std::string list;
    for (const std::string& clip : clips) {
        list += clip + "\n";
    }
    test::writeFile(dir / "list.txt", list);
    // A checker that fails once on one clip, after writing half a line, as a host that
    // breaks down does; the real checker otherwise.
    const fs::path flaky = dir / "flaky-check.sh";
    test::writeFile(flaky, "#!/bin/sh\n"
                           "echo \"$*\" >> \"" +
                               at("calls") +
                               "\"\n"
                               "case \"$*\" in *jump_video_high*)\n"
                               "  if mkdir \"" +
                               at("failed-once") +
                               "\" 2>/dev/null; then\n"
                               "    printf '{\"path\": \"half'; exit 2; fi;;\n"
                               "esac\n"
                               "exec " TARVOQC_CHECK_EXE " \"$@\"\n");
    fs::permissions(flaky, fs::perms::owner_all);
    for (const bool failOnce : {false, true}) {
        SCOPED_TRACE(failOnce ? "a slot fails once" : "no failure");
        const fs::path out = dir / (failOnce ? "flaky" : "plain");
        const test::CommandResult r = test::runCommand(
            {std::string(TARVOQC_SOURCE_DIR) + "/scripts/parallel-check.sh", "-S", ":", "--batch",
             "3", "-j", "2", at("list.txt"), out.string()},
            {"TARVOQC_CHECK=" + (failOnce ? flaky.string() : std::string(TARVOQC_CHECK_EXE)),
             "TARVOQC_REPORT=" TARVOQC_REPORT_EXE});
        EXPECT_EQ(r.status, 1) << r.out << r.err;
        EXPECT_EQ(readCsv(out / "report.csv"), readCsv(dir / "one.csv"));
        EXPECT_EQ(fs::exists(dir / "failed-once"), failOnce);
        EXPECT_EQ(r.err.find("skipped"), std::string::npos) << "no half line reached the report";
    }
    // Eight clips in batches of three, one batch tried twice; each call is one checker that
    // spreads its batch over two clips at a time.
    std::istringstream calls(test::readFile(dir / "calls"));
    std::size_t count = 0;
    for (std::string call; std::getline(calls, call); ++count) {
        EXPECT_NE(call.find("--jobs 2 --threads 0 -- "), std::string::npos) << call;
    }
    EXPECT_EQ(count, 4U);
}

// Runs the command as nobody when the tests run as root (root may write anywhere).
test::CommandResult runAsNobody(const std::vector<std::string>& argv)
{
    const std::optional<std::string> out = test::runUnprivileged([&] {
        const test::CommandResult r = test::runCommand(argv);
        return std::to_string(r.status) + '\n' + r.err;
    });
    test::CommandResult r;
    if (out) {
        r.status = std::stoi(*out);
        r.err = out->substr(out->find('\n') + 1);
    }
    return r;
}

// What a careless user or an attacker may hand the report as its output. Each row ends with
// its exit status and a text of standard error (of standard output for status 1); none may
// change or remove a file that was there before, and a device stays a device.
TEST(ReportHostile, NeverWritesOntoAnInputNorRemovesWhatItCannotWrite)
{
    const test::TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
    const auto at = [&](const std::string& name) { return (dir / name).string(); };
    const std::string line = R"({"path": "/in/a\r\nb.ts", "score": 0, "issues": []})"
                             "\n";
    const std::map<std::string, std::string> kept = {
        {"in.jsonl", line},
        {"old.jsonl", line},
        {"doc.qcout", std::string("<Tarvo_QC><Clip File=\"/in/c.ts\"/>") +
                          "<QCheck Score=\"5\" Result=\"5/5 OK\" Issues=\"0\"/></Tarvo_QC>"},
        {"notes.csv", "my notes\n"},
        {"ro/earlier.csv", "earlier report\n"},
        {"earlier.csv", "earlier report\n"},
    };
    fs::create_directory(dir / "ro");
    for (const auto& [name, bytes] : kept) {
        test::writeFile(dir / name, bytes);
        ASSERT_EQ(::chmod(at(name).c_str(), 0666), 0);
    }
    ASSERT_EQ(::chmod(at("notes.csv").c_str(), 0444), 0);
    ASSERT_EQ(::chmod(at("ro").c_str(), 0555), 0);
    fs::create_hard_link(dir / "in.jsonl", dir / "hard.csv");
    fs::create_symlink(dir / "in.jsonl", dir / "link.csv");
    // A device node like /dev/full where root may make one, else a FIFO.
    const bool device = ::mknod(at("full").c_str(), S_IFCHR | 0666, ::makedev(1, 7)) == 0;
    ASSERT_TRUE(device || ::mkfifo(at("full").c_str(), 0666) == 0);

    const std::string exe = TARVOQC_REPORT_EXE, in = at("in.jsonl");
    // Name, arguments, exit status, a text of the output, run as nobody.
    using Row = std::tuple<const char*, std::vector<std::string>, int, std::string, bool>;
    const Row cases[] = {
        {"CSV onto its input", {exe, "--csv", in, in}, 2, "one of the inputs", false},
        {"HTML onto its input", {exe, "--html", in, in}, 2, "one of the inputs", false},
        {"onto the baseline",
         {exe, "-b", at("old.jsonl"), "--csv", at("old.jsonl"), in},
         2,
         "one of the inputs",
         false},
        {"onto a result document",
         {exe, "--csv", at("doc.qcout"), at("doc.qcout")},
         2,
         "one of the inputs",
         false},
        {"onto a hard link of the input",
         {exe, "--csv", at("hard.csv"), in},
         2,
         "one of the inputs",
         false},
        {"onto a link to the input",
         {exe, "--html", at("link.csv"), in},
         2,
         "one of the inputs",
         false},
        {"onto standard input",
         {"sh", "-c", exe + " --csv '" + in + "' < '" + in + "'"},
         2,
         "one of the inputs",
         false},
        {"both outputs one file",
         {exe, "--csv", at("new.out"), "--html", at("./new.out"), in},
         2,
         "one file",
         false},
        {"onto a device", {exe, "--csv", at("full"), in}, 2, "not a regular file", false},
        {"onto a read-only file", {exe, "--csv", at("notes.csv"), in}, 2, "read-only", true},
        {"into a read-only folder",
         {exe, "--csv", at("ro/earlier.csv"), in},
         2,
         "cannot write",
         true},
        {"onto a full disk", // the page is larger than the file size limit, the message is not
         {"sh", "-c",
          "trap '' XFSZ; ulimit -f 8; exec " + exe + " -q --html '" + at("earlier.csv") + "' '" +
              in + "'"},
         2,
         "cannot write",
         false},
        {"a line break in a path",
         {exe, "-t0", in},
         0,
         "  0/5 ERROR      /in/a\\r\\nb.ts\n",
         false},
    };
    for (const auto& [name, args, status, has, nobody] : cases) {
        SCOPED_TRACE(name);
        const test::CommandResult r = nobody ? runAsNobody(args) : test::runCommand(args);
        EXPECT_EQ(r.status, status) << r.out << r.err;
        EXPECT_NE((status == 2 ? r.err : r.out).find(has), std::string::npos) << r.out << r.err;
    }
    for (const auto& [name, bytes] : kept) {
        EXPECT_EQ(test::readFile(dir / name), bytes) << name;
    }
    struct stat st
    {};
    ASSERT_EQ(::lstat(at("full").c_str(), &st), 0);
    EXPECT_TRUE(device ? S_ISCHR(st.st_mode) : S_ISFIFO(st.st_mode));
    EXPECT_FALSE(fs::exists(dir / "new.out"));
    std::size_t entries = 0;
    for (const auto& entry : fs::recursive_directory_iterator(dir.path())) {
        entries += entry.path().filename().string().starts_with(".") ? 100 : 1;
    }
    EXPECT_EQ(entries, kept.size() + 4) << "no temp file is left behind";
}

} // namespace
} // namespace tarvoqc
