#include <cstdio>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include "app/common/commandline.h"
#include "files/fileio.h"
#include "report/reportdata.h"
#include "report/reportoutput.h"
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
    std::string title = "Tarvo Quality Check report";
    int threshold = 3;
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
    "      --html FILE      one self-contained page with a sortable, filterable table\n"
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
    return {};
}

// Writes one output file ("-": standard output) with write. A file is replaced only once it
// is complete; a file that cannot be written stays as it was. False (named on standard
// error) when it could not be written completely.
bool writeOutput(const std::string& path, const std::function<void(std::ostream&)>& write)
{
    if (path == "-") {
        write(std::cout);
        std::cout.flush();
        return static_cast<bool>(std::cout);
    }
    std::ostringstream out;
    write(out);
    if (!replaceFile(path, out.view())) {
        std::fprintf(stderr, "tarvoqc-report: cannot write '%s'\n", escapeControl(path).c_str());
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    std::ios::sync_with_stdio(false);
    std::string error;
    const auto options = parseOptions({argv + 1, argv + argc}, error);
    if (!options) {
        std::fprintf(stderr, "tarvoqc-report: %s\n", error.c_str());
        return kExitUsage;
    }
    if (options->help) {
        std::fputs(kUsage, stdout);
        return kExitPass;
    }
    if (options->version) {
        std::printf("tarvoqc-report (Tarvo Quality Check) %s build %d\n", kVersionText,
                    kVersionBuild);
        return kExitPass;
    }

    for (const std::string* output : {&options->csv, &options->html}) {
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

    const ReportView view{&clips, comparison ? &baseline : nullptr,
                          comparison ? &*comparison : nullptr, options->threshold};
    if (!options->csv.empty()) {
        ioError =
            !writeOutput(options->csv, [&](std::ostream& out) { writeCsv(out, view); }) || ioError;
    }
    if (!options->html.empty()) {
        ioError = !writeOutput(options->html, [&](std::ostream& out) {
            writeHtml(out, view, options->title);
        }) || ioError;
    }
    if (!options->quiet) {
        const std::string summary = summaryText(view, static_cast<std::size_t>(options->worst));
        std::fputs(summary.c_str(), options->csv == "-" || options->html == "-" ? stderr : stdout);
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
