#include "app/check/checkoptions.h"

#include <charconv>
#include <cstdio>
#include <functional>
#include <string_view>

namespace tarvoqc::check {

namespace {

struct IntRange
{
    int low;
    int high;
};

// One row per option: its names, whether it takes a value, and what it sets.
struct OptionRow
{
    std::string_view shortName; // without "-", empty when none
    std::string_view longName;  // without "--"
    bool takesValue;
    std::function<bool(CheckOptions&, std::string_view, std::string&)> apply;
};

bool parseInt(std::string_view text, IntRange range, int& out)
{
    int value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc{} || end != text.data() + text.size() || value < range.low ||
        value > range.high) {
        return false;
    }
    out = value;
    return true;
}

auto intSetter(int CheckOptions::*field, IntRange range, std::string_view name)
{
    return [field, range, name](CheckOptions& o, std::string_view value, std::string& error) {
        if (!parseInt(value, range, o.*field)) {
            error = std::string(name) + " needs a whole number from " + std::to_string(range.low) +
                    " to " + std::to_string(range.high) + ", not '" + std::string(value) + "'";
            return false;
        }
        return true;
    };
}

struct DecimalRange
{
    double low;
    double high;
};

// A loudness limit: a number in its range, and with it the loudness becomes a rule.
auto loudnessSetter(double CheckOptions::*field, DecimalRange range, std::string_view name)
{
    return [field, range, name](CheckOptions& o, std::string_view value, std::string& error) {
        double number = 0.0;
        const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), number);
        if (ec != std::errc{} || end != value.data() + value.size() || !(number >= range.low) ||
            !(number <= range.high)) {
            char text[160];
            std::snprintf(text, sizeof text, "%s needs a number from %g to %g, not '",
                          std::string(name).c_str(), range.low, range.high);
            error = text + std::string(value) + "'";
            return false;
        }
        o.*field = number;
        o.loudnessRule = true;
        return true;
    };
}

auto flagSetter(bool CheckOptions::*field)
{
    return [field](CheckOptions& o, std::string_view, std::string&) {
        o.*field = true;
        return true;
    };
}

const std::vector<OptionRow>& optionTable()
{
    static const std::vector<OptionRow> table = {
        {"o", "output", true,
         [](CheckOptions& o, std::string_view value, std::string& error) {
             if (value.empty()) {
                 error = "--output needs a file name";
                 return false;
             }
             o.output = value;
             return true;
         }},
        {"", "json", false, flagSetter(&CheckOptions::json)},
        {"l", "level", true, intSetter(&CheckOptions::level, {1, 4}, "--level")},
        {"", "loudness-target", true,
         loudnessSetter(&CheckOptions::loudnessTarget, {-70.0, 0.0}, "--loudness-target")},
        {"", "loudness-tolerance", true,
         loudnessSetter(&CheckOptions::loudnessTolerance, {0.0, 30.0}, "--loudness-tolerance")},
        {"", "true-peak-limit", true,
         loudnessSetter(&CheckOptions::truePeakLimit, {-70.0, 10.0}, "--true-peak-limit")},
        {"j", "jobs", true, intSetter(&CheckOptions::jobs, {0, 256}, "--jobs")},
        {"", "threads", true, intSetter(&CheckOptions::threads, {0, 256}, "--threads")},
        {"t", "threshold", true, intSetter(&CheckOptions::threshold, {0, 5}, "--threshold")},
        {"", "max-memory", true,
         intSetter(&CheckOptions::maxMemoryMiB, {0, 1024 * 1024}, "--max-memory")},
        {"", "hang-timeout", true,
         intSetter(&CheckOptions::hangTimeout, {0, 24 * 3600}, "--hang-timeout")},
        {"q", "quiet", false, flagSetter(&CheckOptions::quiet)},
        {"", "version", false, flagSetter(&CheckOptions::version)},
        {"h", "help", false, flagSetter(&CheckOptions::help)},
    };
    return table;
}

const OptionRow* findRow(std::string_view name, bool isLong)
{
    for (const OptionRow& row : optionTable()) {
        if (isLong ? row.longName == name : (!row.shortName.empty() && row.shortName == name)) {
            return &row;
        }
    }
    return nullptr;
}

} // namespace

std::optional<CheckOptions> parseCheckOptions(const std::vector<std::string>& args,
                                              std::string& error)
{
    CheckOptions options;
    bool onlyPaths = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        if (arg.empty()) {
            continue; // empty arguments are ignored, as in the window program
        }
        if (onlyPaths || arg == "-" || arg[0] != '-') {
            options.paths.emplace_back(arg);
            continue;
        }
        if (arg == "--") {
            onlyPaths = true;
            continue;
        }
        if (!arg.starts_with("--")) {
            // A cluster of short options ("-qj2"): flags one after another; the first that
            // takes a value takes the rest of the cluster, or else the next argument.
            for (std::size_t k = 1; k < arg.size(); ++k) {
                const OptionRow* row = findRow(arg.substr(k, 1), false);
                if (row == nullptr) {
                    error = "unknown option '-" + std::string(arg.substr(k, 1)) + "' (see --help)";
                    return std::nullopt;
                }
                std::string_view value;
                if (row->takesValue) {
                    if (k + 1 < arg.size()) {
                        value = arg.substr(k + 1);
                    } else if (i + 1 < args.size()) {
                        value = args[++i];
                    } else {
                        error = "option '-" + std::string(row->shortName) + "' needs a value";
                        return std::nullopt;
                    }
                    k = arg.size();
                }
                if (!row->apply(options, value, error)) {
                    return std::nullopt;
                }
            }
            continue;
        }
        std::string_view name = arg.substr(2);
        std::optional<std::string_view> inlineValue;
        if (const auto eq = name.find('='); eq != std::string_view::npos) {
            inlineValue = name.substr(eq + 1);
            name = name.substr(0, eq);
        }
        const OptionRow* row = findRow(name, true);
        if (row == nullptr) {
            error = "unknown option '" + std::string(arg) + "' (see --help)";
            return std::nullopt;
        }
        std::string_view value;
        if (row->takesValue) {
            if (inlineValue) {
                value = *inlineValue;
            } else if (i + 1 < args.size()) {
                value = args[++i];
            } else {
                error = "option '" + std::string(arg) + "' needs a value";
                return std::nullopt;
            }
        } else if (inlineValue) {
            error = "option '--" + std::string(name) + "' takes no value";
            return std::nullopt;
        }
        if (!row->apply(options, value, error)) {
            return std::nullopt;
        }
    }
    if (!options.help && !options.version && options.paths.empty()) {
        error = "no clip, folder or job file given (see --help)";
        return std::nullopt;
    }
    return options;
}

std::string checkUsage()
{
    return "Usage: tarvoqc-check [OPTIONS] PATH...\n"
           "Checks media clips: opens and probes each clip, reads every packet, decodes video\n"
           "and audio, checks time stamps and the container header, and scores each clip from\n"
           "\"0/5 ERROR\" to \"5/5 OK\".\n"
           "\n"
           "  PATH                 a clip, a folder (scanned recursively for clip extensions) or "
           "a\n"
           "                       .qcin job file\n"
           "  -o, --output FILE    write the result document (the job result document, UTF-16 "
           "XML)\n"
           "      --json           print one JSON object per clip on stdout (JSON Lines)\n"
           "  -l, --level N        check level 1..4 (default 3): 1 open and header checks,\n"
           "                       2 also every packet and the keys, 3 also decoding,\n"
           "                       4 also full decoding with picture and sound checks (black,\n"
           "                       frozen and damaged pictures, silence, loudness, true peak,\n"
           "                       clipping)\n"
           "      --loudness-target LUFS     level 4: integrated loudness target (default -23)\n"
           "      --loudness-tolerance LU    level 4: allowed deviation from it (default 1)\n"
           "      --true-peak-limit DBTP     level 4: highest true peak (default -1)\n"
           "                       Any of these makes the loudness limits a delivery rule that\n"
           "                       grades what is off them; without one, loudness and true\n"
           "                       peak are information (at most a Warning)\n"
           "  -j, --jobs N         clips checked at the same time (default 1; 0 = one per core)\n"
           "      --threads N      decoder threads per clip (default 0: the cores divided\n"
           "                       among the clips checked at the same time)\n"
           "  -t, --threshold N    lowest passing score 0..5 (default 3)\n"
           "      --max-memory MIB memory each clip's check may use (default 4096; 0 = no\n"
           "                       limit); a check that needs more gets \"0/5 ERROR\"\n"
           "      --hang-timeout S a check that reads and decodes nothing for S seconds is\n"
           "                       ended as hung (default 120; 0 = never)\n"
           "  -q, --quiet          only the summary\n"
           "      --version        print the version\n"
           "  -h, --help           print this help\n"
           "\n"
           "Exit status: 0 all clips at or above the threshold, 1 at least one below,\n"
           "2 usage or I/O error.\n";
}

} // namespace tarvoqc::check
