#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "results/qcissue.h"
#include "results/qcresult.h"

namespace tarvoqc::report {

// One issue of a clip as a report shows it.
struct ReportIssue
{
    QcIssueCategory category = QcIssueCategory::File;
    QcSeverity severity = QcSeverity::Warning;
    std::int32_t stream = -1; // negative: the whole clip
    QcStreamKind kind = QcStreamKind::None;
    std::string text;
    // Where in its stream the issue is: seconds from the stream's start, and the length of
    // a run; nullopt where the issue has no place (or the input, an older run, had none).
    std::optional<double> at;
    std::optional<double> length;

    // "Frames:[Low] Stream 0 (Video) Gap in TC of 0.30 at 4.00", as the checker prints it.
    std::string longLine() const;

    bool operator==(const ReportIssue&) const = default;
};

// The facts of one stream that a report shows. Zero or nullopt where unknown.
struct ReportStream
{
    std::string type; // streamTypeText: "Video", "Audio", ...
    std::string codec;
    std::optional<double> start; // seconds, as the stream header states it
    std::optional<double> duration;
    std::int32_t width = 0;
    std::int32_t height = 0;
    std::optional<double> rate; // frames per second
    std::int32_t channels = 0;
    std::int32_t sampleRate = 0;

    bool operator==(const ReportStream&) const = default;
};

// What a report keeps of one checked clip: enough for the summary, the CSV row and the
// HTML row (with its facts and timeline). A plain value.
struct ClipRecord
{
    std::string path;
    QcScore score = 0;
    int level = 0;               // check level; 0 where the input does not say
    std::string container;       // the demuxer's name; empty where the input does not say
    std::optional<double> start; // seconds, the clip's start as its container states it
    std::vector<ReportStream> streams;
    std::optional<std::uint64_t> size;
    std::string hash256;             // empty: no key made
    std::string fkey;                // 16 hex digits, empty: no key made
    std::optional<double> duration;  // seconds, as the container header states it
    std::vector<ReportIssue> issues; // worst first
    std::string profile{};           // the delivery profile graded by; empty: none

    // Worst severity present, or nullopt for a clip without issues.
    std::optional<QcSeverity> worstSeverity() const;
    // Issues per category, indexed by QcIssueCategory.
    std::array<int, kCategoryCount> categoryCounts() const;

    bool operator==(const ClipRecord&) const = default;
};

// What a report keeps of a check's result: the record that its result document gives back,
// so that a program holding the results (the window) writes the same reports.
ClipRecord recordOf(const QcResult& result);

// Told of every input line or element that was skipped: where ("file:line") and why.
using ProblemSink = std::function<void(const std::string& where, const std::string& why)>;

// Longest JSON line read; a longer line is skipped as broken. A real line stays far below:
// the issue caps keep one clip's line to a few megabytes.
inline constexpr std::size_t kMaxJsonLineBytes = 16u << 20;

// Parses one line of `tarvoqc-check --json` into record. False (and why) for a line that
// is not such an object: bad JSON, nesting deeper than a clip line has, a missing or
// ill-typed "path" or "score", an issue with unknown category or severity texts.
bool parseJsonLine(std::string_view line, ClipRecord& record, std::string& why);

// The clips of a result document (the "Tarvo_QC" root with "Clip"/"QCheck" pairs) in its
// file bytes (UTF-16 with mark, UTF-8 or Windows-1252, as XmlNode reads them). A "Clip"
// without a valid "QCheck" after it is named to problems and skipped. False (and why)
// when the bytes are not a result document at all.
bool parseResultDocument(std::string_view bytes, const std::string& name,
                         const std::function<void(ClipRecord&&)>& clips,
                         const ProblemSink& problems, std::string& why);

// Reads one input: "-" is standard input. A file whose first bytes are those of an XML
// document is read as a result document, anything else as JSON lines, streamed line by
// line so that memory grows with the clips kept, not with the input. Broken lines go to
// problems and are skipped. False (and why) when the input could not be read at all.
bool readReportInput(const std::string& path, const std::function<void(ClipRecord&&)>& clips,
                     const ProblemSink& problems, std::string& why);

// The delivery profiles the clips were graded by, each once in the order first met, with
// the number of clips; empty when no clip was graded by one.
std::vector<std::pair<std::string, std::size_t>> profilesOf(const std::vector<ClipRecord>& clips);

// The clips of one run, in input order, each path once: a path seen again replaces the
// earlier record in its place (a clip checked twice counts with its latest check).
// Thread-safety: none.
class ClipSet
{
public:
    // Adds record; returns false when it replaced an earlier record of the same path.
    bool add(ClipRecord&& record);
    const std::vector<ClipRecord>& clips() const { return m_clips; }
    // Index of the record of path, or nullopt.
    std::optional<std::size_t> find(const std::string& path) const;

private:
    std::vector<ClipRecord> m_clips;
    std::unordered_map<std::string, std::size_t> m_index;
};

// How a clip's score compares with the baseline run.
enum class ClipChange { Same, Better, Worse, New, Missing };
std::string_view changeText(ClipChange change); // "", "better", "worse", "new", "missing"

// The current run against a baseline run, by path.
struct Comparison
{
    std::vector<ClipChange> changes;               // per current clip
    std::vector<std::optional<QcScore>> oldScores; // per current clip; nullopt when new
    std::vector<std::size_t> missing;              // baseline clips not in the current run
    std::size_t worse = 0;
    std::size_t better = 0;
    std::size_t added = 0;
};
Comparison compareRuns(const ClipSet& current, const ClipSet& baseline);

} // namespace tarvoqc::report
