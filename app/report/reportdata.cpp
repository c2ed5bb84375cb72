#include "app/report/reportdata.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>

#include "results/mediatime.h"
#include "results/textcase.h"
#include "results/xmlnode.h"

#include <nlohmann/json.hpp>

namespace tarvoqc::report {

namespace {

// A clip line nests three levels (line, issue list, issue); anything much deeper is not
// a clip line, and is refused before the parser builds it.
constexpr int kMaxJsonDepth = 8;
constexpr std::size_t kReadChunk = 1u << 20;

template <typename Enum, std::size_t N>
std::optional<Enum> enumFromText(std::string_view text, std::string_view (*toText)(Enum))
{
    for (std::size_t i = 0; i < N; ++i) {
        const auto value = static_cast<Enum>(i);
        if (toText(value) == text) {
            return value;
        }
    }
    return std::nullopt;
}

std::optional<QcIssueCategory> categoryFromText(std::string_view text)
{
    return enumFromText<QcIssueCategory, kCategoryCount>(text, categoryText);
}

std::optional<QcSeverity> severityFromText(std::string_view text)
{
    return enumFromText<QcSeverity, kSeverityCount>(text, severityText);
}

QcStreamKind kindFromText(std::string_view text)
{
    if (text == streamKindText(QcStreamKind::Video)) {
        return QcStreamKind::Video;
    }
    return text == streamKindText(QcStreamKind::Audio) ? QcStreamKind::Audio : QcStreamKind::None;
}

int jsonDepth(std::string_view text)
{
    int depth = 0;
    int deepest = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return deepest;
}

// Member readers: an absent or null member leaves the default; a member of another type
// makes the line broken.
bool readString(const nlohmann::json& object, const char* key, std::string& out, std::string& why)
{
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) {
        return true;
    }
    if (!it->is_string()) {
        why = std::string("\"") + key + "\" is not a text";
        return false;
    }
    out = it->get<std::string>();
    return true;
}

bool readIssues(const nlohmann::json& line, std::vector<ReportIssue>& issues, std::string& why)
{
    const auto list = line.find("issues");
    if (list == line.end() || list->is_null()) {
        return true;
    }
    if (!list->is_array()) {
        why = "\"issues\" is not a list";
        return false;
    }
    issues.reserve(list->size());
    for (const nlohmann::json& item : *list) {
        if (!item.is_object()) {
            why = "an issue is not an object";
            return false;
        }
        std::string category;
        std::string severity;
        std::string kind;
        ReportIssue issue;
        if (!readString(item, "category", category, why) ||
            !readString(item, "severity", severity, why) || !readString(item, "kind", kind, why) ||
            !readString(item, "text", issue.text, why)) {
            return false;
        }
        const auto cat = categoryFromText(category);
        const auto sev = severityFromText(severity);
        if (!cat || !sev) {
            why = "an issue has an unknown category or severity";
            return false;
        }
        issue.category = *cat;
        issue.severity = *sev;
        issue.kind = kindFromText(kind);
        const auto stream = item.find("stream");
        if (stream != item.end() && stream->is_number_integer() &&
            stream->get<std::int64_t>() >= 0 && stream->get<std::int64_t>() <= INT32_MAX) {
            issue.stream = static_cast<std::int32_t>(stream->get<std::int64_t>());
        }
        issues.push_back(std::move(issue));
    }
    return true;
}

bool parseInt64(std::string_view text, std::int64_t& out)
{
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc{} && end == text.data() + text.size() && !text.empty();
}

bool isXmlStart(std::string_view head)
{
    if (head.starts_with("\xFF\xFE")) {
        return true;
    }
    if (head.starts_with("\xEF\xBB\xBF")) {
        head.remove_prefix(3);
    }
    const std::size_t first = head.find_first_not_of(" \t\r\n");
    return first != std::string_view::npos && head[first] == '<';
}

// Fills record from a "Clip" element and its "QCheck"; false (and why) when the pair does
// not describe a checked clip.
bool recordFromElements(const XmlNode& clip, const XmlNode& qcheck, ClipRecord& record,
                        std::string& why)
{
    record.path = clip.GetString("File", "");
    if (record.path.empty()) {
        why = "a Clip without a File attribute";
        return false;
    }
    std::int64_t score = -1;
    if (!qcheck.isClosed() || !parseInt64(qcheck.GetString("Score", ""), score) || score < 0 ||
        score > kBestScore) {
        why = "no complete check result for " + record.path;
        return false;
    }
    record.score = static_cast<QcScore>(score);
    for (const auto& child : qcheck.children()) {
        if (!equalsIgnoreCase(child->name(), "Issue")) {
            continue;
        }
        const auto cat = categoryFromText(child->GetString("Cat", ""));
        const auto sev = severityFromText(child->GetString("Sev", ""));
        if (!cat || !sev) {
            why = "an issue of " + record.path + " has an unknown category or severity";
            return false;
        }
        ReportIssue issue;
        issue.category = *cat;
        issue.severity = *sev;
        issue.stream = std::max(-1, child->GetInt("Strm", -1));
        issue.kind = kindFromText(child->GetString("Kind", ""));
        issue.text = child->text();
        record.issues.push_back(std::move(issue));
    }
    if (const XmlNode* file = clip.FindChild("File")) {
        std::int64_t size = 0;
        if (parseInt64(file->GetString("Size", ""), size) && size >= 0) {
            record.size = static_cast<std::uint64_t>(size);
        }
        record.hash256 = file->GetString("Hash256", "");
        record.fkey = file->GetString("FKey", "");
    }
    if (const XmlNode* media = clip.FindChild("Media")) {
        std::int64_t ticks = 0;
        if (parseInt64(media->GetString("Dur", ""), ticks) && ticks != kNoTime) {
            record.duration = hundredNsToSeconds(ticks);
        }
    }
    return true;
}

struct FileCloser
{
    void operator()(std::FILE* file) const { std::fclose(file); }
};

} // namespace

std::string ReportIssue::longLine() const
{
    QcIssue issue;
    issue.category = category;
    issue.severity = severity;
    issue.streamKind = kind;
    issue.streamIndex = stream;
    issue.text = text;
    return QcIssueList::longLine(issue);
}

std::optional<QcSeverity> ClipRecord::worstSeverity() const
{
    std::optional<QcSeverity> worst;
    for (const ReportIssue& issue : issues) {
        if (!worst || issue.severity > *worst) {
            worst = issue.severity;
        }
    }
    return worst;
}

std::array<int, kCategoryCount> ClipRecord::categoryCounts() const
{
    std::array<int, kCategoryCount> counts{};
    for (const ReportIssue& issue : issues) {
        ++counts[static_cast<std::size_t>(issue.category)];
    }
    return counts;
}

bool parseJsonLine(std::string_view line, ClipRecord& record, std::string& why)
{
    if (jsonDepth(line) > kMaxJsonDepth) {
        why = "nested deeper than a clip line";
        return false;
    }
    nlohmann::json json;
    try {
        json = nlohmann::json::parse(line);
    } catch (const nlohmann::json::exception& e) {
        why = e.what();
        if (const auto end = why.find("] "); why.starts_with("[json.") && end != why.npos) {
            why.erase(0, end + 2); // the library's error id helps no operator
        }
        return false;
    }
    if (!json.is_object()) {
        why = "not a JSON object";
        return false;
    }
    record = ClipRecord{};
    const auto path = json.find("path");
    if (path == json.end() || !path->is_string() || path->get_ref<const std::string&>().empty()) {
        why = "no \"path\"";
        return false;
    }
    record.path = path->get<std::string>();
    const auto score = json.find("score");
    if (score == json.end() || !score->is_number_integer() || score->get<std::int64_t>() < 0 ||
        score->get<std::int64_t>() > kBestScore) {
        why = "no \"score\" from 0 to 5";
        return false;
    }
    record.score = static_cast<QcScore>(score->get<std::int64_t>());
    if (const auto size = json.find("size"); size != json.end() && !size->is_null()) {
        if (!size->is_number_integer() || size->get<std::int64_t>() < 0) {
            why = "\"size\" is not a byte count";
            return false;
        }
        record.size = size->get<std::uint64_t>();
    }
    if (const auto duration = json.find("duration");
        duration != json.end() && !duration->is_null()) {
        if (!duration->is_number()) {
            why = "\"duration\" is not a number";
            return false;
        }
        record.duration = duration->get<double>();
    }
    return readString(json, "hash256", record.hash256, why) &&
           readString(json, "fkey", record.fkey, why) && readIssues(json, record.issues, why);
}

bool parseResultDocument(std::string_view bytes, const std::string& name,
                         const std::function<void(ClipRecord&&)>& clips,
                         const ProblemSink& problems, std::string& why)
{
    XmlNode document;
    const bool complete = document.loadBytes(bytes);
    const XmlNode* root = document.FindChild("Tarvo_QC");
    if (root == nullptr) {
        why = "not a result document (no Tarvo_QC root)";
        return false;
    }
    if (!complete) {
        problems(name, "the document is not complete; its complete clips are read");
    }
    const XmlNode* clip = nullptr;
    std::size_t clipNumber = 0;
    const auto unchecked = [&] {
        if (clip != nullptr) {
            problems(name + ": clip " + std::to_string(clipNumber),
                     "no check result for " + clip->GetString("File", "(no File)"));
        }
    };
    for (const auto& child : root->children()) {
        if (equalsIgnoreCase(child->name(), "Clip")) {
            unchecked();
            clip = child.get();
            ++clipNumber;
        } else if (equalsIgnoreCase(child->name(), "QCheck") && clip != nullptr) {
            ClipRecord record;
            std::string problem;
            if (recordFromElements(*clip, *child, record, problem)) {
                clips(std::move(record));
            } else {
                problems(name + ": clip " + std::to_string(clipNumber), problem);
            }
            clip = nullptr;
        }
    }
    unchecked();
    return true;
}

bool readReportInput(const std::string& path, const std::function<void(ClipRecord&&)>& clips,
                     const ProblemSink& problems, std::string& why)
{
    const bool isStdin = path == "-";
    const std::string name = isStdin ? "standard input" : path;
    std::unique_ptr<std::FILE, FileCloser> owned;
    if (!isStdin) {
        owned.reset(std::fopen(path.c_str(), "rb"));
        if (!owned) {
            why = std::strerror(errno);
            return false;
        }
    }
    std::FILE* file = isStdin ? stdin : owned.get();

    std::string chunk(kReadChunk, '\0');
    std::string line;
    std::size_t lineNumber = 0;
    bool first = true;
    bool xml = false;
    bool overlong = false;
    const auto finishLine = [&] {
        ++lineNumber;
        if (overlong) {
            problems(name + ":" + std::to_string(lineNumber),
                     "longer than " + std::to_string(kMaxJsonLineBytes >> 20) + " MB");
        } else if (line.find_first_not_of(" \t\r") != std::string::npos) {
            ClipRecord record;
            std::string problem;
            if (parseJsonLine(line, record, problem)) {
                clips(std::move(record));
            } else {
                problems(name + ":" + std::to_string(lineNumber), problem);
            }
        }
        line.clear();
        overlong = false;
    };
    while (true) {
        const std::size_t got = std::fread(chunk.data(), 1, chunk.size(), file);
        if (got == 0) {
            if (std::ferror(file) != 0) {
                why = std::strerror(errno);
                return false;
            }
            break;
        }
        std::string_view data(chunk.data(), got);
        if (first) {
            first = false;
            xml = isXmlStart(data);
        }
        if (xml) {
            line.append(data); // the whole document, read below
            if (line.size() > kMaxXmlFileBytes) {
                why = "a result document larger than " + std::to_string(kMaxXmlFileBytes >> 20) +
                      " MB";
                return false;
            }
            continue;
        }
        while (!data.empty()) {
            const std::size_t end = data.find('\n');
            const std::string_view piece = data.substr(0, end);
            if (!overlong && line.size() + piece.size() > kMaxJsonLineBytes) {
                overlong = true;
                line.clear();
                line.shrink_to_fit();
            }
            if (!overlong) {
                line.append(piece);
            }
            if (end == std::string_view::npos) {
                break;
            }
            finishLine();
            data.remove_prefix(end + 1);
        }
    }
    if (xml) {
        return parseResultDocument(line, name, clips, problems, why);
    }
    if (!line.empty() || overlong) {
        finishLine(); // a last line without its line end: often a cut-off write
    }
    return true;
}

bool ClipSet::add(ClipRecord&& record)
{
    const auto [it, inserted] = m_index.try_emplace(record.path, m_clips.size());
    if (!inserted) {
        m_clips[it->second] = std::move(record);
        return false;
    }
    m_clips.push_back(std::move(record));
    return true;
}

std::optional<std::size_t> ClipSet::find(const std::string& path) const
{
    const auto it = m_index.find(path);
    return it == m_index.end() ? std::nullopt : std::optional<std::size_t>(it->second);
}

std::string_view changeText(ClipChange change)
{
    switch (change) {
    case ClipChange::Better:
        return "better";
    case ClipChange::Worse:
        return "worse";
    case ClipChange::New:
        return "new";
    case ClipChange::Missing:
        return "missing";
    default:
        return "";
    }
}

Comparison compareRuns(const ClipSet& current, const ClipSet& baseline)
{
    Comparison result;
    result.changes.reserve(current.clips().size());
    result.oldScores.reserve(current.clips().size());
    for (const ClipRecord& clip : current.clips()) {
        const auto old = baseline.find(clip.path);
        if (!old) {
            result.changes.push_back(ClipChange::New);
            result.oldScores.emplace_back();
            ++result.added;
            continue;
        }
        const QcScore oldScore = baseline.clips()[*old].score;
        result.oldScores.emplace_back(oldScore);
        if (clip.score < oldScore) {
            result.changes.push_back(ClipChange::Worse);
            ++result.worse;
        } else if (clip.score > oldScore) {
            result.changes.push_back(ClipChange::Better);
            ++result.better;
        } else {
            result.changes.push_back(ClipChange::Same);
        }
    }
    for (std::size_t i = 0; i < baseline.clips().size(); ++i) {
        if (!current.find(baseline.clips()[i].path)) {
            result.missing.push_back(i);
        }
    }
    return result;
}

} // namespace tarvoqc::report
