#pragma once

#include <optional>
#include <string>
#include <vector>

#include "results/checkdefaults.h"

namespace tarvoqc::check {

// What the command line of tarvoqc-check asks for.
struct CheckOptions
{
    std::vector<std::string> paths; // clips, folders and .qcin job files, in order
    std::string output;             // -o: result document path; empty = none
    // --files-from: lists of further paths, one a line ("-": standard input); with -0 each
    // ended by a zero byte instead. Their paths follow those of the command line.
    std::vector<std::string> filesFrom;
    bool nulSeparated = false;
    bool json = false;
    int level = kDefaultCheckLevel;
    int jobs = 1;    // 0 = one per core
    int threads = 0; // decoder threads per clip; 0 = the cores that the clips leave
    int threshold = kDefaultGoodThreshold;
    // Level 4's limits.
    double loudnessTarget = kDefaultLoudnessTarget;       // LUFS
    double loudnessTolerance = kDefaultLoudnessTolerance; // LU
    double truePeakLimit = kDefaultTruePeakLimit;         // dBTP
    // The limits of each check's process: memory in MiB (0 none) and the seconds without
    // activity after which a check counts as hung (0 never).
    int maxMemoryMiB = kDefaultWorkerMemoryMiB;
    int hangTimeout = kDefaultHangTimeoutSeconds;
    // Whether any of the three was given: they are then a delivery rule that grades
    // loudness, the others keeping their defaults; otherwise loudness is information.
    bool loudnessRule = false;
    // Which of the three were given, so that they hold over a profile's loudness rule.
    bool targetGiven = false;
    bool toleranceGiven = false;
    bool truePeakGiven = false;
    // --profile: a delivery profile by name or file; empty for none.
    std::string profile;
    bool listProfiles = false;
    bool quiet = false;
    bool version = false;
    bool help = false;
};

// Parses argv (without the program name). On a usage error returns nothing and sets
// error to a one-line message.
std::optional<CheckOptions> parseCheckOptions(const std::vector<std::string>& args,
                                              std::string& error);

// The --help text.
std::string checkUsage();

} // namespace tarvoqc::check
