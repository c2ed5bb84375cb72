#include "batch/deliveryprofile.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>

#include "files/fileio.h"
#include "results/mediatime.h"
#include "settings/profilestore.h"

namespace tarvoqc {
namespace {

using Cat = QcIssueCategory;
using Sev = QcSeverity;

constexpr std::size_t kMaxDeliveryProfileBytes = std::size_t{1} << 20;
constexpr std::string_view kTechnical = "technical";

// How a rule's values are written and compared.
enum class Kind {
    Words,    // names, compared without case ("h264, hevc")
    Counts,   // whole numbers or ranges ("2", "2-8")
    Rates,    // frame rates: "25", "29.97", "30000/1001"
    Sizes,    // "1920x1080"
    Aspects,  // "16:9" or a decimal
    Scans,    // progressive, interlaced, tff, bff
    Times,    // seconds or [HH:]MM:SS[.fff], single or a range
    Decimals, // numbers or ranges
};

// Where a rule looks: the clip, each video stream, each audio stream.
enum class Scope { Clip, Video, Audio };

struct RuleDef
{
    std::string_view key;
    Kind kind;
    Scope scope;
    Cat category;
    Sev severity; // when the profile does not say
    std::string_view label;
};

// Facts that make a clip undeliverable are High (the clip scores "2/5 BAD"); the colour
// description, a data track, the start and the bit rate are often only labelled wrong, so
// they are Low.
constexpr RuleDef kRules[] = {
    {"Container", Kind::Words, Scope::Clip, Cat::Codec, Sev::High, "Container"},
    {"Video.Streams", Kind::Counts, Scope::Clip, Cat::Codec, Sev::High, "Video streams"},
    {"Video.Codec", Kind::Words, Scope::Video, Cat::Codec, Sev::High, "Video codec"},
    {"Video.Size", Kind::Sizes, Scope::Video, Cat::Codec, Sev::High, "Picture size"},
    {"Video.FrameRate", Kind::Rates, Scope::Video, Cat::Codec, Sev::High, "Frame rate"},
    {"Video.Scan", Kind::Scans, Scope::Video, Cat::Codec, Sev::High, "Scan"},
    {"Video.PixelFormat", Kind::Words, Scope::Video, Cat::Codec, Sev::High, "Pixel format"},
    {"Video.BitDepth", Kind::Counts, Scope::Video, Cat::Codec, Sev::High, "Bit depth"},
    {"Video.AspectRatio", Kind::Aspects, Scope::Video, Cat::Codec, Sev::High,
     "Display aspect ratio"},
    {"Video.ColourPrimaries", Kind::Words, Scope::Video, Cat::Codec, Sev::Low, "Colour primaries"},
    {"Video.Transfer", Kind::Words, Scope::Video, Cat::Codec, Sev::Low, "Transfer characteristics"},
    {"Video.Matrix", Kind::Words, Scope::Video, Cat::Codec, Sev::Low, "Colour matrix"},
    {"Audio.Streams", Kind::Counts, Scope::Clip, Cat::Codec, Sev::High, "Audio streams"},
    {"Audio.Codec", Kind::Words, Scope::Audio, Cat::Codec, Sev::High, "Audio codec"},
    {"Audio.Channels", Kind::Counts, Scope::Audio, Cat::Codec, Sev::High, "Channels"},
    {"Audio.SampleRate", Kind::Counts, Scope::Audio, Cat::Codec, Sev::High, "Sample rate"},
    {"Audio.BitDepth", Kind::Counts, Scope::Audio, Cat::Codec, Sev::High, "Audio bit depth"},
    {"Subtitle.Streams", Kind::Counts, Scope::Clip, Cat::Codec, Sev::High, "Subtitle streams"},
    {"Data.Streams", Kind::Counts, Scope::Clip, Cat::Codec, Sev::Low, "Data streams"},
    {"Duration", Kind::Times, Scope::Clip, Cat::MediaTime, Sev::High, "Duration"},
    {"Start", Kind::Times, Scope::Clip, Cat::MediaTime, Sev::Low, "Start"},
    {"BitRate", Kind::Decimals, Scope::Clip, Cat::Codec, Sev::Low, "Bit rate"},
};

const RuleDef* findRule(std::string_view key)
{
    for (const RuleDef& rule : kRules) {
        if (rule.key == key) {
            return &rule;
        }
    }
    return nullptr;
}

std::string lower(std::string_view text)
{
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string_view trim(std::string_view text)
{
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
    while (!text.empty() && blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    while (true) {
        const std::size_t at = text.find(separator);
        parts.push_back(trim(text.substr(0, at)));
        if (at == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(at + 1);
    }
}

// A whole decimal number of the text, nothing else.
std::optional<double> decimal(std::string_view text)
{
    const std::string copy(trim(text));
    if (copy.empty()) {
        return std::nullopt;
    }
    char* end = nullptr;
    const double value = std::strtod(copy.c_str(), &end);
    if (end != copy.c_str() + copy.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

// "25", "29.97" or "30000/1001".
std::optional<double> rate(std::string_view text)
{
    const auto parts = split(text, '/');
    if (parts.size() == 2) {
        const auto num = decimal(parts[0]);
        const auto den = decimal(parts[1]);
        if (num && den && *den > 0) {
            return *num / *den;
        }
        return std::nullopt;
    }
    return parts.size() == 1 ? decimal(parts[0]) : std::nullopt;
}

// "16:9" or a decimal.
std::optional<double> aspect(std::string_view text)
{
    const auto parts = split(text, ':');
    if (parts.size() == 2) {
        const auto w = decimal(parts[0]);
        const auto h = decimal(parts[1]);
        if (w && h && *h > 0) {
            return *w / *h;
        }
        return std::nullopt;
    }
    return parts.size() == 1 ? decimal(parts[0]) : std::nullopt;
}

// Seconds, or [HH:]MM:SS[.fff].
std::optional<double> seconds(std::string_view text)
{
    const auto parts = split(text, ':');
    if (parts.size() > 3) {
        return std::nullopt;
    }
    double total = 0;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const auto value = decimal(parts[i]);
        const bool last = i + 1 == parts.size();
        if (!value || *value < 0 || (!last && *value != std::floor(*value)) ||
            (i > 0 && *value >= 60)) {
            return std::nullopt;
        }
        total = total * 60 + *value;
    }
    return total;
}

// One value or a range "low-high" of a number kind.
std::optional<std::pair<double, double>> range(std::string_view text, Kind kind)
{
    const auto one = [kind](std::string_view part) -> std::optional<double> {
        switch (kind) {
        case Kind::Rates:
            return rate(part);
        case Kind::Aspects:
            return aspect(part);
        case Kind::Times:
            return seconds(part);
        case Kind::Counts: {
            const auto value = decimal(part);
            if (!value || *value < 0 || *value != std::floor(*value)) {
                return std::nullopt;
            }
            return value;
        }
        default:
            return decimal(part);
        }
    };
    const auto parts = split(text, '-');
    if (parts.size() == 1) {
        const auto value = one(parts[0]);
        return value ? std::optional{std::pair{*value, *value}} : std::nullopt;
    }
    if (parts.size() == 2) {
        const auto low = one(parts[0]);
        const auto high = one(parts[1]);
        if (low && high && *low <= *high) {
            return std::pair{*low, *high};
        }
    }
    return std::nullopt;
}

std::optional<Sev> severityWord(std::string_view text)
{
    for (int s = 0; s < kSeverityCount; ++s) {
        if (lower(severityText(static_cast<Sev>(s))) == lower(trim(text))) {
            return static_cast<Sev>(s);
        }
    }
    return std::nullopt;
}

// Parses one rule's value into rule; the reason when it does not parse.
std::string parseRuleValue(const RuleDef& def, std::string_view value, ProfileRule& rule)
{
    rule.wanted = std::string(value);
    for (const std::string_view item : split(value, ',')) {
        if (item.empty()) {
            return "an empty entry in the list";
        }
        switch (def.kind) {
        case Kind::Words:
            rule.words.push_back(lower(item));
            break;
        case Kind::Scans: {
            const std::string word = lower(item);
            if (word != "progressive" && word != "interlaced" && word != "tff" && word != "bff") {
                return "'" + std::string(item) + "' is no scan (progressive, interlaced, tff, bff)";
            }
            rule.words.push_back(word);
            break;
        }
        case Kind::Sizes: {
            int w = 0;
            int h = 0;
            char end = 0;
            if (std::sscanf(lower(item).c_str(), "%dx%d%c", &w, &h, &end) != 2 || w <= 0 ||
                h <= 0) {
                return "'" + std::string(item) + "' is no picture size (WIDTHxHEIGHT)";
            }
            rule.numbers.emplace_back(w, h);
            break;
        }
        default: {
            const auto r = range(item, def.kind);
            if (!r) {
                return "'" + std::string(item) + "' is no value of " + std::string(def.key);
            }
            rule.numbers.push_back(*r);
        }
        }
    }
    return {};
}

struct LoudnessKey
{
    std::string_view key;
    std::optional<double> DeliveryProfile::*field;
    double low;
    double high;
};
constexpr LoudnessKey kLoudnessKeys[] = {
    {"Target", &DeliveryProfile::loudnessTarget, -70.0, 0.0},
    {"Tolerance", &DeliveryProfile::loudnessTolerance, 0.0, 30.0},
    {"TruePeak", &DeliveryProfile::truePeakLimit, -70.0, 10.0},
    {"ShortTerm", &DeliveryProfile::shortTermMax, -70.0, 10.0},
    {"Momentary", &DeliveryProfile::momentaryMax, -70.0, 10.0},
};

std::string numberText(double value)
{
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.3f", value);
    std::string text = buffer;
    while (text.back() == '0') {
        text.pop_back();
    }
    if (text.back() == '.') {
        text.pop_back();
    }
    return text;
}

} // namespace

bool DeliveryProfile::technical() const
{
    return rules.empty() && !loudnessTarget && !loudnessTolerance && !truePeakLimit &&
           !shortTermMax && !momentaryMax && !blackMin && !frozenMin && !silenceMin &&
           !leadRunsAllowed && overrides.empty();
}

std::optional<DeliveryProfile> parseDeliveryProfile(std::string_view text,
                                                    const std::string& fileName, std::string& error)
{
    DeliveryProfile profile;
    profile.file = fileName;
    std::string section;
    std::set<std::string> sections;
    std::map<std::string, int> seen; // "section/key" -> line
    std::map<std::string, std::pair<Sev, int>> ruleSeverities;
    int lineNumber = 0;
    const auto fail = [&](const std::string& reason) {
        error = fileName + ":" + std::to_string(lineNumber) + ": " + reason;
        return std::nullopt;
    };
    if (text.size() >= 3 && text.substr(0, 3) == "\xEF\xBB\xBF") {
        text.remove_prefix(3);
    }
    for (std::string_view rest = text; !rest.empty();) {
        const std::size_t end = rest.find('\n');
        const std::string_view line = trim(rest.substr(0, end));
        rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
        ++lineNumber;
        if (line.empty() || line.front() == ';' || line.front() == '#') {
            continue;
        }
        if (line.find('\0') != std::string_view::npos) {
            return fail("a zero byte");
        }
        if (line.front() == '[') {
            if (line.back() != ']') {
                return fail("a section without its closing ']'");
            }
            section = std::string(trim(line.substr(1, line.size() - 2)));
            if (section != "Profile" && section != "Format" && section != "Loudness" &&
                section != "Content" && section != "Severity") {
                return fail("unknown section [" + section +
                            "] (Profile, Format, Loudness, Content, Severity)");
            }
            if (!sections.insert(section).second) {
                return fail("section [" + section + "] given twice");
            }
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) {
            return fail("no '=' in the line");
        }
        if (section.empty()) {
            return fail("a key before the first section");
        }
        const std::string key(trim(line.substr(0, equals)));
        const std::string_view value = trim(line.substr(equals + 1));
        if (key.empty()) {
            return fail("a line without a key");
        }
        if (value.empty()) {
            return fail(key + " has no value");
        }
        std::string where = section;
        where.append("/").append(key);
        const auto [previous, fresh] = seen.emplace(std::move(where), lineNumber);
        if (!fresh) {
            return fail(key + " given twice (first on line " + std::to_string(previous->second) +
                        ")");
        }
        if (section == "Profile") {
            if (key == "Name") {
                profile.name = std::string(value);
            } else if (key == "Description") {
                profile.description = std::string(value);
            } else {
                return fail("unknown key " + key + " in [Profile] (Name, Description)");
            }
        } else if (section == "Format") {
            if (key.ends_with(".Severity")) {
                const std::string ruleKey = key.substr(0, key.size() - 9);
                const auto severity = severityWord(value);
                if (findRule(ruleKey) == nullptr) {
                    return fail("unknown rule " + ruleKey);
                }
                if (!severity) {
                    return fail("'" + std::string(value) +
                                "' is no severity (Warning, Low, High, Highest, Critical)");
                }
                ruleSeverities[ruleKey] = {*severity, lineNumber};
                continue;
            }
            const RuleDef* def = findRule(key);
            if (def == nullptr) {
                return fail("unknown rule " + key);
            }
            ProfileRule rule;
            rule.key = key;
            rule.severity = def->severity;
            rule.line = lineNumber;
            if (const std::string why = parseRuleValue(*def, value, rule); !why.empty()) {
                return fail(why);
            }
            profile.rules.push_back(std::move(rule));
        } else if (section == "Loudness") {
            const auto* entry = std::find_if(std::begin(kLoudnessKeys), std::end(kLoudnessKeys),
                                             [&](const LoudnessKey& k) { return k.key == key; });
            if (entry == std::end(kLoudnessKeys)) {
                return fail("unknown key " + key +
                            " in [Loudness] (Target, Tolerance, TruePeak, ShortTerm, Momentary)");
            }
            const auto number = decimal(value);
            if (!number || *number < entry->low || *number > entry->high) {
                return fail(key + " must be a number from " + numberText(entry->low) + " to " +
                            numberText(entry->high));
            }
            profile.*(entry->field) = *number;
        } else if (section == "Content") {
            if (key == "LeadInOut") {
                const std::string word = lower(value);
                if (word != "allowed" && word != "graded") {
                    return fail("LeadInOut must be allowed or graded");
                }
                profile.leadRunsAllowed = word == "allowed";
                continue;
            }
            std::optional<double> DeliveryProfile::*field =
                key == "Black"     ? &DeliveryProfile::blackMin
                : key == "Frozen"  ? &DeliveryProfile::frozenMin
                : key == "Silence" ? &DeliveryProfile::silenceMin
                                   : nullptr;
            if (field == nullptr) {
                return fail("unknown key " + key +
                            " in [Content] (Black, Frozen, Silence, LeadInOut)");
            }
            const auto number = seconds(value);
            if (!number || *number < 0.1 || *number > 3600) {
                return fail(key + " must be a time from 0.1 s to 1 hour");
            }
            profile.*field = *number;
        } else { // Severity
            SeverityOverride entry;
            entry.pattern = key;
            std::string_view word = value;
            const std::string lowered = lower(value);
            if (lowered.starts_with("at least ")) {
                entry.mode = SeverityOverride::Mode::AtLeast;
                word.remove_prefix(9);
            } else if (lowered.starts_with("at most ")) {
                entry.mode = SeverityOverride::Mode::AtMost;
                word.remove_prefix(8);
            }
            const auto severity = severityWord(word);
            if (!severity) {
                return fail("'" + std::string(value) +
                            "' is no severity (Warning .. Critical, 'at least X', 'at most X')");
            }
            entry.severity = *severity;
            profile.overrides.push_back(std::move(entry));
        }
    }
    for (const auto& entry : ruleSeverities) {
        const std::string& key = entry.first;
        const auto rule = std::find_if(profile.rules.begin(), profile.rules.end(),
                                       [&key](const ProfileRule& r) { return r.key == key; });
        if (rule == profile.rules.end()) {
            lineNumber = entry.second.second;
            std::string reason = key;
            reason.append(".Severity without the rule ").append(key);
            return fail(reason);
        }
        rule->severity = entry.second.first;
    }
    if (profile.name.empty()) {
        profile.name = std::filesystem::path(fileName).stem().string();
    }
    return profile;
}

std::optional<DeliveryProfile> loadDeliveryProfile(const std::string& path, std::string& error)
{
    const FileBytes file = readWholeFile(path, kMaxDeliveryProfileBytes);
    switch (file.status) {
    case FileBytes::Status::Ok:
        return parseDeliveryProfile(file.bytes, path, error);
    case FileBytes::Status::Missing:
        error = path + ": no such profile file";
        return std::nullopt;
    case FileBytes::Status::TooLong:
        error = path + ": larger than 1 MiB, no profile";
        return std::nullopt;
    default:
        error = path + ": cannot be read";
        return std::nullopt;
    }
}

std::vector<std::string> profileFolders()
{
    std::vector<std::string> folders;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the programs never change their environment
    if (const char* own = std::getenv("TARVOQC_PROFILES"); own != nullptr && *own != '\0') {
        folders.push_back(std::string(own) + "/");
    }
    folders.push_back(settingsFolder() + "profiles/");
    const std::string program = programFolder();
    if (!program.empty()) {
        folders.push_back(program + "profiles/");
        folders.push_back(program + "../share/tarvoqc/profiles/");
    }
    return folders;
}

std::optional<DeliveryProfile> findDeliveryProfile(const std::string& nameOrFile,
                                                   std::string& error)
{
    if (nameOrFile.find('/') != std::string::npos || nameOrFile.ends_with(".ini")) {
        return loadDeliveryProfile(nameOrFile, error);
    }
    for (const std::string& folder : profileFolders()) {
        const std::string path = folder + nameOrFile + ".ini";
        std::error_code ec;
        if (std::filesystem::exists(path, ec)) {
            return loadDeliveryProfile(path, error);
        }
    }
    if (nameOrFile == kTechnical) {
        DeliveryProfile technical;
        technical.name = std::string(kTechnical);
        return technical;
    }
    error = "no profile named '" + nameOrFile + "' (see --list-profiles)";
    return std::nullopt;
}

std::vector<DeliveryProfile> listDeliveryProfiles(std::vector<std::string>* errors)
{
    std::vector<DeliveryProfile> profiles;
    std::set<std::string> names;
    for (const std::string& folder : profileFolders()) {
        std::error_code ec;
        std::vector<std::string> files;
        for (const auto& entry : std::filesystem::directory_iterator(folder, ec)) {
            if (entry.path().extension() == ".ini") {
                files.push_back(entry.path().string());
            }
        }
        std::sort(files.begin(), files.end());
        for (const std::string& file : files) {
            const std::string name = std::filesystem::path(file).stem().string();
            if (!names.insert(name).second) {
                continue;
            }
            std::string error;
            if (auto profile = loadDeliveryProfile(file, error)) {
                profiles.push_back(std::move(*profile));
            } else if (errors != nullptr) {
                errors->push_back(error);
            }
        }
    }
    return profiles;
}

void applyProfileOptions(const DeliveryProfile& profile, ClipCheckOptions& options)
{
    options.minBlackSeconds = profile.blackMin.value_or(options.minBlackSeconds);
    options.minFrozenSeconds = profile.frozenMin.value_or(options.minFrozenSeconds);
    options.minSilenceSeconds = profile.silenceMin.value_or(options.minSilenceSeconds);
    options.leadRunsAllowed = profile.leadRunsAllowed.value_or(options.leadRunsAllowed);
    if (!profile.loudnessTarget && !profile.loudnessTolerance && !profile.truePeakLimit &&
        !profile.shortTermMax && !profile.momentaryMax) {
        return;
    }
    options.loudnessRule = true;
    options.loudnessTarget = profile.loudnessTarget.value_or(options.loudnessTarget);
    options.loudnessTolerance = profile.loudnessTolerance.value_or(options.loudnessTolerance);
    options.truePeakLimit = profile.truePeakLimit.value_or(options.truePeakLimit);
    options.shortFormMaxShortTerm = profile.shortTermMax;
    options.shortFormMaxMomentary = profile.momentaryMax;
}

namespace {

// The value a stream or the clip has for a rule, as text and as the words or numbers the
// rule compares. known false: the clip does not say.
struct Found
{
    std::string text;
    std::vector<std::string> words; // for word rules; any one allowed passes
    double number = 0;
    double second = 0; // a picture's height
    bool known = true;
};

Found wordFact(const std::string& value)
{
    Found f;
    f.text = value.empty() ? "unknown" : value;
    f.words = {lower(value)};
    f.known = !value.empty() && lower(value) != "unknown" && lower(value) != "unspecified";
    return f;
}

Found numberFact(double value, std::string text = {})
{
    Found f;
    f.number = value;
    f.text = text.empty() ? numberText(value) : std::move(text);
    f.known = value > 0;
    return f;
}

std::size_t countStreams(const MediaFacts& facts, StreamType type)
{
    return static_cast<std::size_t>(
        std::count_if(facts.streams.begin(), facts.streams.end(),
                      [type](const StreamFacts& s) { return s.type == type; }));
}

Found streamFact(const RuleDef& def, const StreamFacts& s)
{
    const std::string_view key = def.key.substr(def.key.find('.') + 1);
    if (key == "Codec") {
        return wordFact(s.codecName);
    }
    if (key == "Size") {
        Found f = numberFact(s.width, std::to_string(s.width) + "x" + std::to_string(s.height));
        f.second = s.height;
        f.known = s.width > 0 && s.height > 0;
        return f;
    }
    if (key == "FrameRate") {
        const double value = s.frameRateDen > 0 ? double(s.frameRateNum) / s.frameRateDen : 0.0;
        return numberFact(value);
    }
    if (key == "Scan") {
        // The media libraries' field orders: 1 progressive; 2 and 5 show the top field
        // first, 3 and 4 the bottom field (4 and 5 code the fields the other way round).
        Found f;
        switch (s.fieldOrder) {
        case 1:
            f.text = "progressive";
            f.words = {"progressive"};
            break;
        case 2:
        case 5:
            f.text = "interlaced tff";
            f.words = {"interlaced", "tff"};
            break;
        case 3:
        case 4:
            f.text = "interlaced bff";
            f.words = {"interlaced", "bff"};
            break;
        default:
            f.text = "unknown";
            f.known = false;
        }
        return f;
    }
    if (key == "PixelFormat") {
        return wordFact(s.pixelFormat);
    }
    if (key == "BitDepth") {
        return numberFact(s.bitDepth);
    }
    if (key == "AspectRatio") {
        const double sar = s.sampleAspectNum > 0 && s.sampleAspectDen > 0
                               ? double(s.sampleAspectNum) / s.sampleAspectDen
                               : 1.0;
        const double dar = s.height > 0 ? s.width * sar / s.height : 0.0;
        // Said as the usual ratio where it is one.
        for (const auto& [w, h] : {std::pair{16, 9}, std::pair{4, 3}, std::pair{1, 1}}) {
            if (std::fabs(dar - double(w) / h) < 0.01) {
                return numberFact(dar, std::to_string(w) + ":" + std::to_string(h));
            }
        }
        return numberFact(dar);
    }
    if (key == "ColourPrimaries") {
        return wordFact(s.colourPrimaries);
    }
    if (key == "Transfer") {
        return wordFact(s.colourTransfer);
    }
    if (key == "Matrix") {
        return wordFact(s.colourMatrix);
    }
    if (key == "Channels") {
        return numberFact(s.channels);
    }
    if (key == "SampleRate") {
        return numberFact(s.sampleRate);
    }
    return numberFact(s.bitDepth); // Audio.BitDepth
}

Found clipFact(const RuleDef& def, const MediaFacts& facts)
{
    if (def.key == "Container") {
        Found f = wordFact(facts.container);
        // A demuxer reads several kinds ("mov,mp4,m4a,3gp,3g2,mj2"): any of them is the clip's.
        f.words.clear();
        for (const std::string_view part : split(facts.container, ',')) {
            f.words.push_back(lower(part));
        }
        f.text = f.words.empty() ? "unknown" : f.words.front();
        return f;
    }
    const auto count = [](std::size_t n) {
        Found f = numberFact(double(n));
        f.known = true; // none is a count too
        return f;
    };
    if (def.key == "Video.Streams") {
        return count(countStreams(facts, StreamType::Video));
    }
    if (def.key == "Audio.Streams") {
        return count(countStreams(facts, StreamType::Audio));
    }
    if (def.key == "Subtitle.Streams") {
        return count(countStreams(facts, StreamType::Subtitle));
    }
    if (def.key == "Data.Streams") {
        return count(countStreams(facts, StreamType::Data));
    }
    const ClipTicks duration = facts.qcDuration != kNoTime ? facts.qcDuration : facts.clipDuration;
    if (def.key == "Duration") {
        Found f = numberFact(duration == kNoTime ? 0.0 : hundredNsToSeconds(duration),
                             formatMediaTime100ns(duration));
        f.known = duration != kNoTime;
        return f;
    }
    if (def.key == "Start") {
        Found f = numberFact(facts.clipStart == kNoTime ? 0.0 : hundredNsToSeconds(facts.clipStart),
                             formatMediaTime100ns(facts.clipStart));
        f.known = facts.clipStart != kNoTime;
        return f;
    }
    // BitRate: of the whole file over its duration, kbit/s.
    const double secs = duration == kNoTime ? 0.0 : hundredNsToSeconds(duration);
    return numberFact(secs > 0 ? double(facts.fileSize) * 8 / secs / 1000 : 0.0,
                      secs > 0 ? numberText(std::round(double(facts.fileSize) * 8 / secs / 1000))
                               : std::string());
}

bool allowed(const RuleDef& def, const ProfileRule& rule, const Found& found)
{
    switch (def.kind) {
    case Kind::Words:
    case Kind::Scans:
        return std::any_of(found.words.begin(), found.words.end(), [&](const std::string& w) {
            return std::find(rule.words.begin(), rule.words.end(), w) != rule.words.end();
        });
    case Kind::Sizes:
        return std::any_of(rule.numbers.begin(), rule.numbers.end(), [&](const auto& wh) {
            return wh.first == found.number && wh.second == found.second;
        });
    default: {
        // Rates and aspect ratios are fractions written as decimals ("29.97" for 30000/1001).
        const double slack = def.kind == Kind::Rates     ? 0.005
                             : def.kind == Kind::Aspects ? 0.01
                                                         : 1e-6;
        return std::any_of(rule.numbers.begin(), rule.numbers.end(), [&](const auto& r) {
            return found.number >= r.first - slack && found.number <= r.second + slack;
        });
    }
    }
}

// '*' matches any run of characters; everything else itself.
bool globMatch(std::string_view pattern, std::string_view text)
{
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t star = std::string_view::npos;
    std::size_t mark = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            mark = t;
        } else if (p < pattern.size() && pattern[p] == text[t]) {
            ++p;
            ++t;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            t = ++mark;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') {
        ++p;
    }
    return p == pattern.size();
}

QcStreamKind kindOf(StreamType type)
{
    return type == StreamType::Video   ? QcStreamKind::Video
           : type == StreamType::Audio ? QcStreamKind::Audio
                                       : QcStreamKind::None;
}

} // namespace

void applyDeliveryProfile(const DeliveryProfile& profile, QcResult& result)
{
    result.profile = profile.name;
    if (result.opened) {
        for (const ProfileRule& rule : profile.rules) {
            const RuleDef& def = *findRule(rule.key);
            const auto judge = [&](const Found& found, int index, QcStreamKind kind) {
                if (found.known && allowed(def, rule, found)) {
                    return;
                }
                // A fact the clip does not state cannot be confirmed: said, as a Warning.
                const Sev severity = found.known ? rule.severity : Sev::Warning;
                // Bit rates are said with their unit: the file's own is no common number.
                const std::string unit = def.key == "BitRate" && found.known ? " kbit/s" : "";
                std::string text(def.label);
                text.append(" ").append(found.text).append(unit);
                text.append(", profile wants ").append(rule.wanted).append(unit);
                result.issues.add(def.category, severity, kind, index, text);
            };
            if (def.scope == Scope::Clip) {
                judge(clipFact(def, result.facts), -1, QcStreamKind::None);
                continue;
            }
            const StreamType type =
                def.scope == Scope::Video ? StreamType::Video : StreamType::Audio;
            for (std::size_t i = 0; i < result.facts.streams.size(); ++i) {
                const StreamFacts& stream = result.facts.streams[i];
                if (stream.type == type) {
                    judge(streamFact(def, stream), static_cast<int>(i), kindOf(type));
                }
            }
        }
    }
    if (profile.overrides.empty()) {
        return;
    }
    QcIssueList graded;
    for (const auto& issue : result.issues.all()) {
        Sev severity = issue->severity;
        for (const SeverityOverride& entry : profile.overrides) {
            if (!globMatch(entry.pattern, issue->text)) {
                continue;
            }
            switch (entry.mode) {
            case SeverityOverride::Mode::Set:
                severity = entry.severity;
                break;
            case SeverityOverride::Mode::AtLeast:
                severity = std::max(severity, entry.severity);
                break;
            case SeverityOverride::Mode::AtMost:
                severity = std::min(severity, entry.severity);
                break;
            }
            break; // the first matching entry decides
        }
        graded.add(issue->category, severity, issue->streamKind, issue->streamIndex, issue->text);
    }
    result.issues = std::move(graded);
}

} // namespace tarvoqc
