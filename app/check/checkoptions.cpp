#include "app/check/checkoptions.h"

#include "app/common/commandline.h"

namespace tarvoqc::check {

std::optional<CheckOptions> parseCheckOptions(const std::vector<std::string>& args,
                                              std::string& error)
{
    CheckOptions o;
    // A loudness limit given makes the three a rule that grades loudness.
    const auto loudness = [&o](double& field, bool& given, double low, double high,
                               std::string_view name) {
        return [&o, &given, set = setDecimal(field, low, high, name)](std::string_view value,
                                                                      std::string& error) {
            o.loudnessRule = true;
            given = true;
            return set(value, error);
        };
    };
    const std::vector<CommandLineOption> table = {
        {"o", "output", true, setText(o.output, "--output", "a file name")},
        {"", "json", false, setFlag(o.json)},
        {"", "files-from", true,
         addText(o.filesFrom, "--files-from", "a file name ('-': standard input)")},
        {"0", "null", false, setFlag(o.nulSeparated)},
        {"l", "level", true, setWholeNumber(o.level, 1, 4, "--level")},
        {"", "loudness-target", true,
         loudness(o.loudnessTarget, o.targetGiven, -70.0, 0.0, "--loudness-target")},
        {"", "loudness-tolerance", true,
         loudness(o.loudnessTolerance, o.toleranceGiven, 0.0, 30.0, "--loudness-tolerance")},
        {"", "true-peak-limit", true,
         loudness(o.truePeakLimit, o.truePeakGiven, -70.0, 10.0, "--true-peak-limit")},
        {"p", "profile", true, setText(o.profile, "--profile", "a profile name or file")},
        {"", "list-profiles", false, setFlag(o.listProfiles)},
        {"j", "jobs", true, setWholeNumber(o.jobs, 0, 256, "--jobs")},
        {"", "threads", true, setWholeNumber(o.threads, 0, 256, "--threads")},
        {"t", "threshold", true, setWholeNumber(o.threshold, 0, 5, "--threshold")},
        {"", "max-memory", true, setWholeNumber(o.maxMemoryMiB, 0, 1024 * 1024, "--max-memory")},
        {"", "hang-timeout", true, setWholeNumber(o.hangTimeout, 0, 24 * 3600, "--hang-timeout")},
        {"q", "quiet", false, setFlag(o.quiet)},
        {"", "version", false, setFlag(o.version)},
        {"h", "help", false, setFlag(o.help)},
    };
    if (!parseCommandLine(args, table, o.paths, error)) {
        return std::nullopt;
    }
    for (const std::string& path : o.paths) {
        if (path == "-") {
            error = "'-' is no clip: give a list of clips on standard input with --files-from -";
            return std::nullopt;
        }
    }
    if (!o.help && !o.version && !o.listProfiles && o.paths.empty() && o.filesFrom.empty()) {
        error = "no clip, folder or job file given (see --help)";
        return std::nullopt;
    }
    return o;
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
           "      --files-from LIST\n"
           "                       also check the paths listed in the file LIST, one a line\n"
           "                       ('-': standard input; may be given more than once)\n"
           "  -0, --null           the lists of --files-from end each path with a zero byte\n"
           "                       (find -print0), so that any name passes\n"
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
           "  -p, --profile NAME|FILE  grade every clip by a delivery profile: its format\n"
           "                       rules (container, codecs, picture size, frame rate, scan,\n"
           "                       sound channels and rate, duration, ...), its loudness rule\n"
           "                       and its severity overrides; loudness options given hold\n"
           "                       over the profile's\n"
           "      --list-profiles  list the profiles found by name, and where they are\n"
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
           "SIGINT (Ctrl-C) or SIGTERM stops the checks: the finished clips are printed with the\n"
           "summary, the result document is written without results for the clips not\n"
           "finished, and the exit status is 2.\n"
           "\n"
           "Exit status: 0 all clips at or above the threshold, 1 at least one below (a missing\n"
           "or unreadable clip scores \"0/5 ERROR\"), 2 usage error, a list, job file, folder,\n"
           "result document or standard output that could not be read or written, or a stop\n"
           "by a signal.\n";
}

} // namespace tarvoqc::check
