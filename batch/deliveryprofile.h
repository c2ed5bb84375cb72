#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/checkoptions.h"
#include "results/qcresult.h"

namespace tarvoqc {

// A delivery profile: what a clip must be to be accepted, beyond being intact. A small INI
// file in the form of TarvoQC.ini:
//
//   [Profile]      Name, Description
//   [Format]       rules on the container and the streams' facts, each optional, each a
//                  list of allowed values ("h264, hevc"), numbers or ranges ("2-8"); a
//                  rule's severity is its key with ".Severity" ("Video.Size.Severity = Low")
//   [Loudness]     Target (LUFS), Tolerance (LU), TruePeak (dBTP), ShortTerm and Momentary
//                  (highest LUFS of a short-form programme): any of them makes loudness a
//                  delivery rule, graded by how far the clip is off
//   [Content]      Black, Frozen, Silence: the shortest run told, in seconds; LeadInOut:
//                  "allowed" (a run at the start or end is a Warning) or "graded" (as any
//                  other run)
//   [Severity]     issue text pattern ('*' for any text) = Warning .. Critical, or
//                  "at least High", "at most Low": the site's verdict on an issue
//
// A file is taken whole or not at all: any line that does not parse, an unknown section,
// key or value, or a key given twice refuses it, with the file, the line and the reason.

// One format rule: which fact, what is allowed, and the severity of a clip that breaks it.
struct ProfileRule
{
    std::string key;                                // the key as known ("Video.FrameRate")
    std::string wanted;                             // the value as written, for the issue text
    std::vector<std::string> words;                 // allowed words, lower case
    std::vector<std::pair<double, double>> numbers; // allowed values or ranges (inclusive)
    QcSeverity severity = QcSeverity::High;
    int line = 0;
};

// A severity override: issues whose text matches the pattern take the severity, or are
// raised to at least it, or lowered to at most it.
struct SeverityOverride
{
    enum class Mode { Set, AtLeast, AtMost };
    std::string pattern;
    Mode mode = Mode::Set;
    QcSeverity severity = QcSeverity::Warning;
};

struct DeliveryProfile
{
    std::string name;
    std::string description;
    std::string file; // where it was read from; empty for one made in the program
    std::vector<ProfileRule> rules;
    // The loudness rule, when the profile has one.
    std::optional<double> loudnessTarget;
    std::optional<double> loudnessTolerance;
    std::optional<double> truePeakLimit;
    std::optional<double> shortTermMax;
    std::optional<double> momentaryMax;
    // Level 4's picture and sound runs, when the profile says.
    std::optional<double> blackMin;
    std::optional<double> frozenMin;
    std::optional<double> silenceMin;
    std::optional<bool> leadRunsAllowed;
    std::vector<SeverityOverride> overrides;

    // No rule, no loudness rule, no override: checks exactly as without a profile.
    bool technical() const;
};

// Parses the text of a profile file. fileName names it in the error ("file:line: reason")
// and gives the profile's name when it has no Name key.
std::optional<DeliveryProfile>
parseDeliveryProfile(std::string_view text, const std::string& fileName, std::string& error);
// Reads and parses a profile file (at most 1 MiB).
std::optional<DeliveryProfile> loadDeliveryProfile(const std::string& path, std::string& error);

// The folders profiles are looked up in by name, first found first: $TARVOQC_PROFILES,
// "profiles/" beside the settings file (a site's own), "profiles/" beside the program (a
// build tree) and "../share/tarvoqc/profiles/" from it (installed).
std::vector<std::string> profileFolders();
// A name ("ebu-r128-hd") is looked up as NAME.ini in those folders; anything with a "/" or
// ending in ".ini" is a file. "technical" is known without a file. Errors as loading.
std::optional<DeliveryProfile> findDeliveryProfile(const std::string& nameOrFile,
                                                   std::string& error);
// Every profile in those folders by name (a name found twice: the first), with the
// profiles that do not load, each as "file:line: reason" in errors.
std::vector<DeliveryProfile> listDeliveryProfiles(std::vector<std::string>* errors = nullptr);

// Level 4's check options under the profile's loudness rule (unchanged without one) and
// its content rules.
void applyProfileOptions(const DeliveryProfile& profile, ClipCheckOptions& options);

// Grades a checked clip by the profile: one issue for each format rule it breaks ("Frame
// rate 29.97, profile wants 25"; Codec, or MediaTime for duration and start), then the
// severity overrides over every issue; records the profile's name in the result. A clip
// that did not open gets no format issues.
void applyDeliveryProfile(const DeliveryProfile& profile, QcResult& result);

} // namespace tarvoqc
