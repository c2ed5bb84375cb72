#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tarvoqc::check {

// What the command line of tarvoqc-check asks for.
struct CheckOptions
{
    std::vector<std::string> paths; // clips, folders and .qcin job files, in order
    std::string output;             // -o: result document path; empty = none
    bool json = false;
    int level = 3;
    int jobs = 1;    // 0 = one per core
    int threads = 0; // decoder threads per clip; 0 = the cores that the clips leave
    int threshold = 3;
    // Level 4's limits.
    double loudnessTarget = -23.0;  // LUFS
    double loudnessTolerance = 1.0; // LU
    double truePeakLimit = -1.0;    // dBTP
    // The limits of each check's process: memory in MiB (0 none) and the seconds without
    // activity after which a check counts as hung (0 never).
    int maxMemoryMiB = 4096;
    int hangTimeout = 120;
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
