#include <charconv>
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

#include "app/report/reportdata.h"
#include "app/report/reportoutput.h"
#include "files/fileio.h"
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
    "  -q, --quiet          no summary\n"
    "      --version, -h, --help\n"
    "A path seen twice counts with its later result. Broken input lines are named on\n"
    "standard error and skipped.\n"
    "exit status: 0 all clips at or above the threshold (and none worse than the\n"
    "baseline), 1 otherwise, 2 usage or I/O error\n";

struct OptionRow
{
    std::string_view shortName;
    std::string_view longName;
    bool takesValue;
    std::function<bool(ReportOptions&, std::string_view)> apply; // false: bad value
};

bool parseInt(std::string_view text, int low, int high, int& out)
{
    int value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc{} || end != text.data() + text.size() || value < low || value > high) {
        return false;
    }
    out = value;
    return true;
}

const std::vector<OptionRow>& optionTable()
{
    const auto text = [](std::string ReportOptions::*field) {
        return [field](ReportOptions& o, std::string_view v) {
            o.*field = v;
            return !v.empty();
        };
    };
    const auto flag = [](bool ReportOptions::*field) {
        return [field](ReportOptions& o, std::string_view) { return o.*field = true; };
    };
    static const std::vector<OptionRow> table = {
        {"", "csv", true, text(&ReportOptions::csv)},
        {"", "html", true, text(&ReportOptions::html)},
        {"b", "baseline", true,
         [](ReportOptions& o, std::string_view v) {
             o.baselines.emplace_back(v);
             return !v.empty();
         }},
        {"t", "threshold", true,
         [](ReportOptions& o, std::string_view v) { return parseInt(v, 0, 5, o.threshold); }},
        {"w", "worst", true,
         [](ReportOptions& o, std::string_view v) { return parseInt(v, 0, 1000000, o.worst); }},
        {"", "title", true, text(&ReportOptions::title)},
        {"q", "quiet", false, flag(&ReportOptions::quiet)},
        {"", "version", false, flag(&ReportOptions::version)},
        {"h", "help", false, flag(&ReportOptions::help)},
    };
    return table;
}

std::optional<ReportOptions> parseOptions(const std::vector<std::string>& args, std::string& error)
{
    ReportOptions options;
    bool onlyPaths = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        if (onlyPaths || arg == "-" || !arg.starts_with("-")) {
            if (!arg.empty()) {
                options.inputs.emplace_back(arg);
            }
            continue;
        }
        if (arg == "--") {
            onlyPaths = true;
            continue;
        }
        const bool isLong = arg.starts_with("--");
        std::string_view name = arg.substr(isLong ? 2 : 1);
        std::optional<std::string_view> value;
        if (const auto eq = name.find('='); isLong && eq != std::string_view::npos) {
            value = name.substr(eq + 1);
            name = name.substr(0, eq);
        } else if (!isLong && name.size() > 1) {
            value = name.substr(1);
            name = name.substr(0, 1);
        }
        const OptionRow* row = nullptr;
        for (const OptionRow& candidate : optionTable()) {
            if (name == (isLong ? candidate.longName : candidate.shortName) && !name.empty()) {
                row = &candidate;
            }
        }
        if (row == nullptr) {
            error = "unknown option '" + std::string(arg) + "' (see --help)";
            return std::nullopt;
        }
        if (!row->takesValue && value) {
            error = "--" + std::string(row->longName) + " takes no value";
            return std::nullopt;
        }
        if (row->takesValue && !value) {
            if (i + 1 == args.size()) {
                error = "--" + std::string(row->longName) + " needs a value";
                return std::nullopt;
            }
            value = args[++i];
        }
        if (!row->apply(options, value.value_or(""))) {
            error = "bad value '" + std::string(*value) + "' for --" + std::string(row->longName);
            return std::nullopt;
        }
    }
    return options;
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
        comparison = compareRuns(clips, baseline);
    }
    if (clips.clips().empty()) {
        std::fprintf(stderr, "tarvoqc-report: no clips in the input\n");
        return kExitUsage;
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
