#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "app/common/commandline.h"
#include "app/common/standardoutput.h"
#include "app/report/reportpictures.h"
#include "files/fileio.h"
#include "report/reportdata.h"
#include "report/reportoutput.h"
#include "results/checkdefaults.h"
#include "results/textcodec.h"
#include "tarvoqc/version.h"

using namespace tarvoqc;
using namespace tarvoqc::report;

namespace {

constexpr int kExitPass = 0;
constexpr int kExitBelowThreshold = 1;
constexpr int kExitUsage = 2;

struct ReportOptions
{
    std::vector<std::string> inputs; // empty: standard input
    std::vector<std::string> baselines;
    std::string csv;
    std::string html;
    std::string pdf;
    bool pictures = true;
    bool noPictures = false;
    int pictureClips = static_cast<int>(PictureLimits{}.clips);
    std::string title = "Tarvo Quality Check report";
    int threshold = kDefaultGoodThreshold;
    int worst = 10;
    std::vector<std::string> rules; // --rule: only clips with an issue starting so
    bool quiet = false;
    bool version = false;
    bool help = false;
};

constexpr const char* kUsage =
    "Usage: tarvoqc-report [OPTIONS] [INPUT...]\n"
    "Rolls up the results of tarvoqc-check runs into one report.\n"
    "  INPUT                JSON lines of 'tarvoqc-check --json' or a result document\n"
    "                       (.qcout); '-' or none: standard input\n"
    "      --csv FILE       one row per clip ('-': standard output)\n"
    "      --html FILE      one self-contained page: summary chart, then a sortable,\n"
    "                       filterable table of the clips, each with its facts, a\n"
    "                       timeline of its issues and pictures\n"
    "      --pictures       pictures in the page (the default): start, middle, end and\n"
    "                       each placed picture issue of every clip still readable\n"
    "      --no-pictures    no pictures\n"
    "      --picture-clips N  pictures for at most N clips, worst first (default 1000)\n"
    "      --pdf FILE       the page printed to PDF by headless Chromium\n"
    "  -b, --baseline OLD   an earlier run (repeatable): mark changed, new and missing\n"
    "                       clips; a clip that got worse makes the exit status 1\n"
    "  -t, --threshold N    lowest passing score 0..5 (default 3)\n"
    "  -w, --worst N        worst clips listed in the summary (default 10)\n"
    "      --title TEXT     title of the HTML page\n"
    "  -r, --rule TEXT      only the clips with an issue whose text starts with TEXT, such\n"
    "                       as a profile rule ('Frame rate', 'Loudness'); repeatable: any\n"
    "                       of them\n"
    "  -q, --quiet          no summary\n"
    "      --version, -h, --help\n"
    "A path seen twice counts with its later result. Broken input lines are named on\n"
    "standard error and skipped.\n"
    "exit status: 0 all clips at or above the threshold (and none worse than the\n"
    "baseline), 1 otherwise, 2 usage or I/O error\n";

std::optional<ReportOptions> parseOptions(const std::vector<std::string>& args, std::string& error)
{
    ReportOptions o;
    const std::vector<CommandLineOption> table = {
        {"", "csv", true, setText(o.csv, "--csv", "a file name ('-': standard output)")},
        {"", "html", true, setText(o.html, "--html", "a file name ('-': standard output)")},
        {"", "pdf", true, setText(o.pdf, "--pdf", "a file name")},
        {"", "pictures", false, setFlag(o.pictures)},
        {"", "no-pictures", false, setFlag(o.noPictures)},
        {"", "picture-clips", true,
         setWholeNumber(o.pictureClips, 0, 100000000, "--picture-clips")},
        {"b", "baseline", true, addText(o.baselines, "--baseline", "a file name")},
        {"t", "threshold", true, setWholeNumber(o.threshold, 0, 5, "--threshold")},
        {"w", "worst", true, setWholeNumber(o.worst, 0, 1000000, "--worst")},
        {"", "title", true, setText(o.title, "--title", "a text")},
        {"r", "rule", true, addText(o.rules, "--rule", "the start of an issue text")},
        {"q", "quiet", false, setFlag(o.quiet)},
        {"", "version", false, setFlag(o.version)},
        {"h", "help", false, setFlag(o.help)},
    };
    if (!parseCommandLine(args, table, o.inputs, error)) {
        return std::nullopt;
    }
    if (o.pdf == "-") {
        error = "--pdf needs a file name, not standard output";
        return std::nullopt;
    }
    o.pictures = !o.noPictures;
    return o;
}

// Reads every input into clips; names broken lines, replaced clips and unreadable inputs
// on standard error. False when an input could not be read.
bool readInputs(const std::vector<std::string>& inputs, ClipSet& clips)
{
    bool allRead = true;
    const ProblemSink problems = [](const std::string& where, const std::string& why) {
        std::fprintf(stderr, "tarvoqc-report: %s: skipped: %s\n", escapeControl(where).c_str(),
                     why.c_str());
    };
    for (const std::string& input : inputs) {
        std::string why;
        const auto add = [&](ClipRecord&& record) {
            const std::string path = record.path;
            if (!clips.add(std::move(record))) {
                std::fprintf(stderr,
                             "tarvoqc-report: %s: %s is listed again; the later result counts\n",
                             escapeControl(input).c_str(), escapeControl(path).c_str());
            }
        };
        if (!readReportInput(input, add, problems, why)) {
            std::fprintf(stderr, "tarvoqc-report: cannot read '%s': %s\n",
                         escapeControl(input).c_str(), why.c_str());
            allRead = false;
        }
    }
    return allRead;
}

// Why the report must not write an output to path, or empty when it may: never onto one of
// its inputs or baselines (standard input included), whatever the name, never onto a device,
// a FIFO or a folder, and never both outputs onto one file.
std::string outputRefusal(const std::string& path, const ReportOptions& options)
{
    std::vector<std::string> inputs = options.baselines;
    for (const std::string& input :
         options.inputs.empty() ? std::vector<std::string>{"-"} : options.inputs) {
        inputs.push_back(input == "-" ? "/dev/stdin" : input);
    }
    if (std::string why = tarvoqc::outputRefusal(path, inputs); !why.empty()) {
        return why;
    }
    const bool both =
        !options.csv.empty() && options.csv != "-" && !options.html.empty() && options.html != "-";
    const auto canonical = [](const std::string& name) {
        std::error_code ec;
        return std::filesystem::weakly_canonical(name, ec);
    };
    if (both && (canonical(options.csv) == canonical(options.html) ||
                 (fileIdOf(options.csv) && fileIdOf(options.csv) == fileIdOf(options.html)))) {
        return "the CSV and the HTML page would be one file";
    }
    for (const std::string* other : {&options.csv, &options.html}) {
        if (!options.pdf.empty() && !other->empty() && *other != "-" &&
            (canonical(options.pdf) == canonical(*other) ||
             (fileIdOf(options.pdf) && fileIdOf(options.pdf) == fileIdOf(*other)))) {
            return "the PDF and another output would be one file";
        }
    }
    return {};
}

// Writes one output file ("-": standard output) with write. A file is replaced only once it
// is complete; a file that cannot be written stays as it was. False (named on standard
// error) when it could not be written completely.
bool writeOutput(const std::string& path, const std::function<void(std::ostream&)>& write)
{
    std::ostringstream out;
    write(out);
    if (path == "-") {
        return writeStandardOutput(out.view()); // named at the close
    }
    if (!replaceFile(path, out.view())) {
        std::fprintf(stderr, "tarvoqc-report: cannot write '%s'\n", escapeControl(path).c_str());
        return false;
    }
    return true;
}

// The program that prints pages: TARVOQC_CHROMIUM, else chromium on the PATH. The report
// runs no thread of its own that could change the environment meanwhile.
std::string findChromium()
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    if (const char* named = std::getenv("TARVOQC_CHROMIUM"); named != nullptr && *named != 0) {
        return ::access(named, X_OK) == 0 ? named : std::string();
    }
    const char* path = std::getenv("PATH"); // NOLINT(concurrency-mt-unsafe)
    std::string_view folders = path != nullptr ? path : "/usr/bin:/bin";
    while (true) {
        const std::size_t colon = folders.find(':');
        const std::string folder(folders.substr(0, colon));
        for (const char* name : {"chromium", "chromium-browser"}) {
            std::string candidate = (folder.empty() ? "." : folder) + "/" + name;
            if (::access(candidate.c_str(), X_OK) == 0) {
                return candidate;
            }
        }
        if (colon == std::string_view::npos) {
            return {};
        }
        folders.remove_prefix(colon + 1);
    }
}

// How long headless Chromium may take to print a page.
constexpr std::chrono::seconds kPdfTimeout{300};

// Prints the page (HTML text) to pdf through headless Chromium. The page goes to a private
// folder first, and the PDF replaces pdf only once it is complete.
bool printPdf(std::string_view page, const std::string& pdf)
{
    const std::string chromium = findChromium();
    if (chromium.empty()) {
        std::fprintf(stderr,
                     "tarvoqc-report: cannot write '%s': Chromium is not installed (the "
                     "PDF is printed by headless Chromium: apt install chromium)\n",
                     escapeControl(pdf).c_str());
        return false;
    }
    std::string folder = (std::filesystem::temp_directory_path() / "tarvoqc-pdf-XXXXXX").string();
    if (::mkdtemp(folder.data()) == nullptr) {
        std::fprintf(stderr, "tarvoqc-report: cannot write '%s': no temporary folder\n",
                     escapeControl(pdf).c_str());
        return false;
    }
    const std::string html = folder + "/report.html";
    const std::string out = folder + "/report.pdf";
    bool ok = replaceFile(html, page);
    if (ok) {
        const std::vector<std::string> args = {chromium,
                                               "--headless",
                                               "--no-sandbox",
                                               "--disable-gpu",
                                               "--no-first-run",
                                               "--disable-background-networking",
                                               "--user-data-dir=" + folder + "/profile",
                                               "--no-pdf-header-footer",
                                               "--print-to-pdf-no-header",
                                               "--print-to-pdf=" + out,
                                               "file://" + html};
        std::vector<char*> argv;
        argv.reserve(args.size() + 1);
        for (const std::string& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        // Chromium's chatter is no business of the report's reader.
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        ::posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
        pid_t child = -1;
        if (::posix_spawn(&child, chromium.c_str(), &actions, nullptr, argv.data(), environ) != 0) {
            child = -1;
        }
        ::posix_spawn_file_actions_destroy(&actions);
        // A browser that never finishes must not hold the report for ever.
        int status = 0;
        const auto deadline = std::chrono::steady_clock::now() + kPdfTimeout;
        while (child > 0) {
            const pid_t reaped = ::waitpid(child, &status, WNOHANG);
            if (reaped == child || (reaped < 0 && errno != EINTR)) {
                break;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                ::kill(child, SIGKILL);
                ::waitpid(child, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        const FileBytes printed = readWholeFile(out, std::size_t{1} << 31);
        ok = child > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
             printed.status == FileBytes::Status::Ok && printed.bytes.starts_with("%PDF") &&
             replaceFile(pdf, printed.bytes);
        if (!ok) {
            std::fprintf(stderr,
                         "tarvoqc-report: cannot write '%s': Chromium did not print the "
                         "page\n",
                         escapeControl(pdf).c_str());
        }
    }
    std::error_code ec;
    std::filesystem::remove_all(folder, ec);
    return ok;
}

} // namespace

int main(int argc, char** argv)
{
    std::string error;
    const auto options = parseOptions({argv + 1, argv + argc}, error);
    if (!options) {
        std::fprintf(stderr, "tarvoqc-report: %s\n", error.c_str());
        return kExitUsage;
    }
    if (options->help || options->version) {
        writeStandardOutput(options->help ? std::string(kUsage)
                                          : "tarvoqc-report (Tarvo Quality Check) " +
                                                std::string(kVersionText) + " build " +
                                                std::to_string(kVersionBuild) + "\n");
        return closeStandardOutput("tarvoqc-report") ? kExitPass : kExitUsage;
    }

    for (const std::string* output : {&options->csv, &options->html, &options->pdf}) {
        if (output->empty() || *output == "-") {
            continue;
        }
        if (const std::string why = outputRefusal(*output, *options); !why.empty()) {
            std::fprintf(stderr, "tarvoqc-report: will not write '%s': %s\n",
                         escapeControl(*output).c_str(), why.c_str());
            return kExitUsage;
        }
    }
    if (options->inputs.empty() && ::isatty(STDIN_FILENO) != 0) {
        std::fprintf(stderr, "tarvoqc-report: no input: give result files or pipe JSON lines in "
                             "(see --help)\n");
        return kExitUsage;
    }
    ClipSet clips;
    bool ioError = !readInputs(
        options->inputs.empty() ? std::vector<std::string>{"-"} : options->inputs, clips);
    ClipSet baseline;
    std::optional<Comparison> comparison;
    if (!options->baselines.empty()) {
        ioError = !readInputs(options->baselines, baseline) || ioError;
    }
    if (clips.clips().empty()) {
        std::fprintf(stderr, "tarvoqc-report: no clips in the input\n");
        return kExitUsage;
    }
    if (!options->rules.empty()) {
        ClipSet kept;
        for (const ClipRecord& clip : clips.clips()) {
            const bool breaks =
                std::any_of(clip.issues.begin(), clip.issues.end(), [&](const ReportIssue& issue) {
                    return std::any_of(
                        options->rules.begin(), options->rules.end(),
                        [&](const std::string& rule) { return issue.text.starts_with(rule); });
                });
            if (breaks) {
                kept.add(ClipRecord(clip));
            }
        }
        clips = std::move(kept);
    }
    if (!options->baselines.empty()) {
        comparison = compareRuns(clips, baseline);
    }

    ReportView view{&clips,
                    comparison ? &baseline : nullptr,
                    comparison ? &*comparison : nullptr,
                    options->threshold,
                    {}};
    PictureLimits limits;
    limits.clips = static_cast<std::size_t>(options->pictureClips);
    const std::vector<bool> withPictures = clipsWithPictures(clips.clips(), limits);
    if (options->pictures && (!options->html.empty() || !options->pdf.empty())) {
        view.pictures = [&](std::size_t i) {
            return withPictures[i] ? grabClipPictures(clips.clips()[i], limits) : ClipPictures{};
        };
    }
    if (!options->csv.empty()) {
        ioError =
            !writeOutput(options->csv, [&](std::ostream& out) { writeCsv(out, view); }) || ioError;
    }
    if (!options->html.empty() || !options->pdf.empty()) {
        // One page for both, written once: its pictures are read once, and a page of many
        // clips is held in memory once.
        std::ostringstream page;
        writeHtml(page, view, options->title);
        if (options->html == "-") {
            writeStandardOutput(page.view()); // named at the close
        } else if (!options->html.empty() && !replaceFile(options->html, page.view())) {
            std::fprintf(stderr, "tarvoqc-report: cannot write '%s'\n",
                         escapeControl(options->html).c_str());
            ioError = true;
        }
        if (!options->pdf.empty()) {
            ioError = !printPdf(page.view(), options->pdf) || ioError;
        }
    }
    if (!options->quiet) {
        const std::string summary = summaryText(view, static_cast<std::size_t>(options->worst));
        if (options->csv == "-" || options->html == "-") {
            std::fputs(summary.c_str(), stderr);
        } else {
            writeStandardOutput(summary);
        }
    }
    if (!closeStandardOutput("tarvoqc-report")) {
        ioError = true;
    }

    if (ioError) {
        return kExitUsage;
    }
    const bool below =
        std::any_of(clips.clips().begin(), clips.clips().end(),
                    [&](const ClipRecord& c) { return c.score < options->threshold; });
    const bool worse = comparison && comparison->worse > 0;
    return below || worse ? kExitBelowThreshold : kExitPass;
}
