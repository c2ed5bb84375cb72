#include "report/reportdata.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>

#include "results/mediatime.h"
#include "results/resultfile.h"
#include "results/textcase.h"
#include "results/xmlnode.h"

#include <nlohmann/json.hpp>

namespace tarvoqc::report {

namespace {

// A clip line nests three levels (line, issue or stream list, issue or stream); a line much
// deeper is not a clip line, and is refused as soon as the reader gets there.
constexpr int kMaxJsonDepth = 8;
constexpr std::size_t kReadChunk = 1u << 20;
// Streams a report keeps per clip; far above any real clip.
constexpr std::size_t kMaxStreams = 1024;

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

// Reads one clip line event by event, keeping only what a report shows: other members are
// passed over without being built, which keeps a large delivery fast.
// Depth 1 is the line's object, 2 the issue list, 3 one issue.
class ClipLineReader : public nlohmann::json_sax<nlohmann::json>
{
public:
    explicit ClipLineReader(ClipRecord& record) : m_record(record) {}

    std::string why;

    bool finish()
    {
        if (m_record.path.empty()) {
            return fail("no \"path\"");
        }
        return m_score ? true : fail("no \"score\" from 0 to 5");
    }

    bool null() override { return scalar(Value::Null, {}); }
    bool boolean(bool) override { return scalar(Value::Other, {}); }
    bool number_integer(number_integer_t value) override
    {
        return scalar(Value::Integer, {}, value);
    }
    bool number_unsigned(number_unsigned_t value) override
    {
        return value > static_cast<number_unsigned_t>(INT64_MAX)
                   ? scalar(Value::Other, {})
                   : scalar(Value::Integer, {}, static_cast<std::int64_t>(value));
    }
    bool number_float(number_float_t value, const string_t&) override
    {
        return scalar(Value::Real, {}, 0, value);
    }
    bool string(string_t& value) override { return scalar(Value::Text, value); }
    bool binary(binary_t&) override { return scalar(Value::Other, {}); }
    bool key(string_t& name) override
    {
        (m_depth == 1 ? m_key : m_issueKey) = name;
        return true;
    }
    bool start_object(std::size_t) override
    {
        if (m_depth == 0) {
            return enter();
        }
        if (m_depth == 2 && m_inIssues) {
            m_issue = Issue{};
            return enter();
        }
        if (m_depth == 2 && m_inStreams) {
            m_stream = ReportStream{};
            return enter();
        }
        return container() && enter();
    }
    bool end_object() override
    {
        if (m_depth == 3 && m_inIssues && !addIssue()) {
            return false;
        }
        if (m_depth == 3 && m_inStreams && m_record.streams.size() < kMaxStreams) {
            m_record.streams.push_back(std::move(m_stream));
        }
        --m_depth;
        return true;
    }
    bool start_array(std::size_t) override
    {
        if (m_depth == 0) {
            return fail("not a JSON object");
        }
        if (m_depth == 1 && m_key == "issues") {
            m_inIssues = true;
            return enter();
        }
        if (m_depth == 1 && m_key == "streams") {
            m_inStreams = true;
            return enter();
        }
        return container() && enter();
    }
    bool end_array() override
    {
        if (m_depth == 2) {
            m_inIssues = false;
            m_inStreams = false;
        }
        --m_depth;
        return true;
    }
    bool parse_error(std::size_t, const std::string&,
                     const nlohmann::detail::exception& error) override
    {
        why = error.what();
        if (const auto end = why.find("] "); why.starts_with("[json.") && end != why.npos) {
            why.erase(0, end + 2); // the library's error id helps no operator
        }
        return false;
    }

private:
    enum class Value { Null, Integer, Real, Text, Other };
    struct Issue
    {
        std::string category;
        std::string severity;
        std::string kind;
        std::string text;
        std::int32_t stream = -1;
        std::optional<double> at;
        std::optional<double> length;
    };

    bool fail(std::string text)
    {
        why = std::move(text);
        return false;
    }
    bool enter()
    {
        return ++m_depth <= kMaxJsonDepth ? true : fail("nested deeper than a clip line");
    }
    // A list or object where the report expects a plain value is an error; anywhere else
    // (streams, members the report does not show) it is passed over.
    bool container()
    {
        if (m_depth == 0) {
            return fail("not a JSON object");
        }
        if (m_depth == 2 && m_inIssues) {
            return fail("an issue is not an object");
        }
        if ((m_depth == 1 && isRootMember(m_key)) ||
            (m_depth == 3 && m_inIssues && isIssueMember(m_issueKey))) {
            return fail("\"" + (m_depth == 1 ? m_key : m_issueKey) + "\" has the wrong type");
        }
        return true;
    }
    static bool isRootMember(std::string_view key)
    {
        for (const std::string_view name :
             {"path", "score", "size", "duration", "hash256", "fkey", "issues", "profile"}) {
            if (key == name) {
                return true;
            }
        }
        return false;
    }
    static bool isIssueMember(std::string_view key)
    {
        for (const std::string_view name : {"category", "severity", "kind", "text", "stream"}) {
            if (key == name) {
                return true;
            }
        }
        return false;
    }
    bool scalar(Value type, std::string_view text, std::int64_t integer = 0, double real = 0)
    {
        if (m_depth == 0) {
            return fail("not a JSON object");
        }
        if (m_depth == 2 && m_inIssues) {
            return fail("an issue is not an object");
        }
        if (m_depth == 3 && m_inIssues) {
            return issueMember(type, text, integer, real);
        }
        if (m_depth == 3 && m_inStreams) {
            streamMember(type, text, integer, real);
            return true;
        }
        if (m_depth == 1 && m_key == "container") {
            if (type == Value::Text) {
                m_record.container = text;
            }
            return true;
        }
        if (m_depth == 1 && (m_key == "level" || m_key == "start")) {
            // Shown, not judged: a value of another type is passed over.
            if (m_key == "level" && type == Value::Integer && integer >= 1 && integer <= 4) {
                m_record.level = static_cast<int>(integer);
            } else if (m_key == "start" && number(type, integer, real)) {
                m_record.start = *number(type, integer, real);
            }
            return true;
        }
        if (m_depth != 1 || !isRootMember(m_key)) {
            return true;
        }
        const auto wrong = [&] { return fail("\"" + m_key + "\" has the wrong type"); };
        if (m_key == "path" || m_key == "hash256" || m_key == "fkey" || m_key == "profile") {
            if (type != Value::Text && type != Value::Null) {
                return wrong();
            }
            (m_key == "path"      ? m_record.path
             : m_key == "hash256" ? m_record.hash256
             : m_key == "fkey"    ? m_record.fkey
                                  : m_record.profile) = text;
        } else if (m_key == "score") {
            if (type != Value::Integer || integer < 0 || integer > kBestScore) {
                return fail("no \"score\" from 0 to 5");
            }
            m_record.score = static_cast<QcScore>(integer);
            m_score = true;
        } else if (m_key == "size") {
            if (type == Value::Integer && integer >= 0) {
                m_record.size = static_cast<std::uint64_t>(integer);
            } else if (type != Value::Null) {
                return wrong();
            }
        } else if (m_key == "duration") {
            if (type == Value::Integer || type == Value::Real) {
                m_record.duration = type == Value::Real ? real : static_cast<double>(integer);
            } else if (type != Value::Null) {
                return wrong();
            }
        } else if (type != Value::Null) { // "issues" given as a plain value
            return wrong();
        }
        return true;
    }
    // A finite number of either JSON type, or nullopt.
    static std::optional<double> number(Value type, std::int64_t integer, double real)
    {
        if (type == Value::Integer) {
            return static_cast<double>(integer);
        }
        if (type == Value::Real && std::isfinite(real)) {
            return real;
        }
        return std::nullopt;
    }
    void streamMember(Value type, std::string_view text, std::int64_t integer, double real)
    {
        const std::string& key = m_issueKey;
        const auto whole = [&](std::int32_t& field) {
            if (type == Value::Integer && integer >= 0 && integer <= INT32_MAX) {
                field = static_cast<std::int32_t>(integer);
            }
        };
        if (key == "type" || key == "codec") {
            if (type == Value::Text) {
                (key == "type" ? m_stream.type : m_stream.codec) = text;
            }
        } else if (key == "start" || key == "duration" || key == "rate") {
            (key == "start"      ? m_stream.start
             : key == "duration" ? m_stream.duration
                                 : m_stream.rate) = number(type, integer, real);
        } else if (key == "width") {
            whole(m_stream.width);
        } else if (key == "height") {
            whole(m_stream.height);
        } else if (key == "channels") {
            whole(m_stream.channels);
        } else if (key == "sampleRate") {
            whole(m_stream.sampleRate);
        }
    }
    bool issueMember(Value type, std::string_view text, std::int64_t integer, double real)
    {
        if (m_issueKey == "at" || m_issueKey == "length") {
            // A place is shown, not judged: a value that is no number is passed over.
            (m_issueKey == "at" ? m_issue.at : m_issue.length) = number(type, integer, real);
            return true;
        }
        if (m_issueKey == "stream") {
            if (type == Value::Integer && integer >= 0 && integer <= INT32_MAX) {
                m_issue.stream = static_cast<std::int32_t>(integer);
            }
            return true;
        }
        std::string* field = m_issueKey == "category"   ? &m_issue.category
                             : m_issueKey == "severity" ? &m_issue.severity
                             : m_issueKey == "kind"     ? &m_issue.kind
                             : m_issueKey == "text"     ? &m_issue.text
                                                        : nullptr;
        if (field == nullptr || type == Value::Null) {
            return true;
        }
        if (type != Value::Text) {
            return fail("\"" + m_issueKey + "\" of an issue is not a text");
        }
        *field = text;
        return true;
    }
    bool addIssue()
    {
        const auto category = categoryFromText(m_issue.category);
        const auto severity = severityFromText(m_issue.severity);
        if (!category || !severity) {
            return fail("an issue has an unknown category or severity");
        }
        m_record.issues.push_back({*category, *severity, m_issue.stream, kindFromText(m_issue.kind),
                                   std::move(m_issue.text), m_issue.at,
                                   m_issue.at ? m_issue.length : std::nullopt});
        return true;
    }

    ClipRecord& m_record;
    int m_depth = 0;
    bool m_inIssues = false;
    bool m_inStreams = false;
    bool m_score = false;
    std::string m_key;
    std::string m_issueKey;
    Issue m_issue;
    ReportStream m_stream;
};

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

// A "seconds" attribute ("12.3400000"; "NA" or missing: nullopt).
std::optional<double> secondsAttribute(const XmlNode& element, const char* name)
{
    const std::string text = element.GetString(name, "");
    double value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc{} || end != text.data() + text.size() || text.empty() ||
        !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

// The facts of a stream element under "Media" ("Video", "Audio", "Data", "Subt", "Atach").
ReportStream streamOfElement(const XmlNode& element)
{
    ReportStream stream;
    const std::string& name = element.name();
    for (const StreamType type : {StreamType::Video, StreamType::Audio, StreamType::Data,
                                  StreamType::Subtitle, StreamType::Attach}) {
        if (streamElementName(type) == name) {
            stream.type = streamTypeText(type);
        }
    }
    stream.codec = element.GetString("Codec", "");
    stream.start = secondsAttribute(element, "Stt");
    stream.duration = secondsAttribute(element, "Dur");
    // "Format": video "width,height,SAR num,SAR den,rate num,rate den"; audio
    // "channels,sample rate[,language]".
    std::vector<std::int64_t> numbers;
    const std::string format = element.GetString("Format", "");
    for (std::size_t from = 0; from <= format.size() && numbers.size() < 6;) {
        const std::size_t comma = std::min(format.find(',', from), format.size());
        std::int64_t value = 0;
        if (!parseInt64(std::string_view(format).substr(from, comma - from), value) || value < 0 ||
            value > INT32_MAX) {
            break;
        }
        numbers.push_back(value);
        from = comma + 1;
    }
    const auto at = [&](std::size_t i) { return static_cast<std::int32_t>(numbers[i]); };
    if (stream.type == "Video" && numbers.size() == 6) {
        stream.width = at(0);
        stream.height = at(1);
        if (numbers[5] > 0) {
            stream.rate = static_cast<double>(numbers[4]) / static_cast<double>(numbers[5]);
        }
    } else if (stream.type == "Audio" && numbers.size() >= 2) {
        stream.channels = at(0);
        stream.sampleRate = at(1);
    }
    return stream;
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
    record.profile = qcheck.GetString("Profile", "");
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
        issue.at = secondsAttribute(*child, "At");
        issue.length = issue.at ? secondsAttribute(*child, "Len") : std::nullopt;
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
        for (const auto& element : media->children()) {
            if (record.streams.size() < kMaxStreams) {
                record.streams.push_back(streamOfElement(*element));
                // The document holds no clip start: the earliest stream's stands in for it.
                const auto& start = record.streams.back().start;
                if (start && (!record.start || *start < *record.start)) {
                    record.start = start;
                }
            }
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
    record = ClipRecord{};
    ClipLineReader reader(record);
    if (!nlohmann::json::sax_parse(line.begin(), line.end(), &reader) || !reader.finish()) {
        why = reader.why.empty() ? "not a clip line" : reader.why;
        return false;
    }
    return true;
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
            why = std::generic_category().message(errno);
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
                why = std::generic_category().message(errno);
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

std::vector<std::pair<std::string, std::size_t>> profilesOf(const std::vector<ClipRecord>& clips)
{
    std::vector<std::pair<std::string, std::size_t>> profiles;
    for (const ClipRecord& clip : clips) {
        if (clip.profile.empty()) {
            continue;
        }
        const auto it = std::find_if(profiles.begin(), profiles.end(),
                                     [&](const auto& p) { return p.first == clip.profile; });
        if (it == profiles.end()) {
            profiles.emplace_back(clip.profile, 1);
        } else {
            ++it->second;
        }
    }
    return profiles;
}

ClipRecord recordOf(const QcResult& result)
{
    ClipRecord record;
    record.path = result.path;
    record.score = result.score();
    record.size = result.facts.fileSize;
    record.hash256 = result.facts.hash256;
    record.profile = result.profile;
    if (result.facts.fkey != 0) {
        char key[17];
        std::snprintf(key, sizeof key, "%016" PRIX64, result.facts.fkey);
        record.fkey = key;
    }
    if (result.facts.clipDuration != kNoTime) {
        record.duration = hundredNsToSeconds(result.facts.clipDuration);
    }
    record.level = result.checkLevel;
    record.container = result.facts.container;
    // Divided, not multiplied by 1e-7: the nearest number, which is what a document's
    // seven-digit text of the same value reads back as.
    const auto seconds = [](ClipTicks value) {
        return value == kNoTime ? std::nullopt
                                : std::optional(static_cast<double>(value) / kTicksPerSecond);
    };
    record.start = seconds(result.facts.clipStart);
    for (const StreamFacts& facts : result.facts.streams) {
        ReportStream stream{std::string(streamTypeText(facts.type)),
                            facts.codecName,
                            seconds(facts.headerStart),
                            seconds(facts.headerDuration),
                            facts.width,
                            facts.height,
                            std::nullopt,
                            facts.channels,
                            facts.sampleRate};
        if (facts.frameRateDen > 0) {
            stream.rate = static_cast<double>(facts.frameRateNum) / facts.frameRateDen;
        }
        record.streams.push_back(std::move(stream));
    }
    for (const QcIssue* issue : result.issues.ordered()) {
        record.issues.push_back({issue->category, issue->severity, std::max(-1, issue->streamIndex),
                                 issue->streamKind, issue->text, seconds(issue->at),
                                 issue->hasPosition() ? seconds(issue->length) : std::nullopt});
    }
    return record;
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
