#include "report/reportoutput.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <numeric>

#include "report/reportassets.h"
#include "results/textcodec.h"

#include <nlohmann/json.hpp>

namespace tarvoqc::report {

namespace {

std::string seconds(const std::optional<double>& value)
{
    if (!value) {
        return {};
    }
    char text[48];
    std::snprintf(text, sizeof text, "%.3f", *value);
    return text;
}

std::string worstText(const ClipRecord& clip)
{
    const auto worst = clip.worstSeverity();
    return worst ? std::string(severityText(*worst)) : std::string();
}

constexpr std::array<PageColours, kBestScore + 1> kPageScoreColours = {{
    {"#F2CBC6", "#5A0F0A", "#B03A2E"}, // 0/5 ERROR
    {"#F6D8CB", "#62220E", "#CF5C36"}, // 1/5 Very BAD
    {"#FAE4CB", "#5C3300", "#E08E3C"}, // 2/5 BAD
    {"#FAF0CB", "#4F4100", "#D4AE35"}, // 3/5 Playable
    {"#E6F0D3", "#2F4A10", "#8DB360"}, // 4/5 Good
    {"#D8ECD8", "#174A1C", "#4E9A55"}, // 5/5 OK
}};
constexpr std::array<const char*, kSeverityCount> kPageSeverityColours = {
    "#A9BF62", "#D4AE35", "#E08E3C", "#CF5C36", "#B03A2E"};

std::size_t countBelow(const ReportView& view)
{
    return static_cast<std::size_t>(
        std::count_if(view.clips->clips().begin(), view.clips->clips().end(),
                      [&](const ClipRecord& c) { return c.score < view.threshold; }));
}

void csvField(std::string& row, std::string_view field)
{
    if (!row.empty()) {
        row += ',';
    }
    if (field.find_first_of(",\"\r\n") == std::string_view::npos) {
        row += field;
        return;
    }
    row += '"';
    for (const char c : field) {
        if (c == '"') {
            row += '"';
        }
        row += c;
    }
    row += '"';
}

void csvRow(std::ostream& out, const ClipRecord& clip, const ReportView& view,
            std::optional<QcScore> oldScore, ClipChange change, bool withProfile)
{
    std::string row;
    csvField(row, clip.path);
    csvField(row, std::to_string(clip.score));
    csvField(row, scoreText(clip.score));
    csvField(row, worstText(clip));
    for (const int count : clip.categoryCounts()) {
        csvField(row, std::to_string(count));
    }
    csvField(row, seconds(clip.duration));
    csvField(row, clip.size ? std::to_string(*clip.size) : std::string());
    csvField(row, clip.hash256);
    csvField(row, clip.fkey);
    if (withProfile) {
        csvField(row, clip.profile);
    }
    if (view.comparison != nullptr) {
        csvField(row, oldScore ? std::to_string(*oldScore) : std::string());
        csvField(row, changeText(change));
    }
    row += "\r\n";
    out << row;
}

std::string escapeHtml(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

// JSON text placed inside a <script> element: "<" only occurs inside strings there, and
// written as \u003c it can neither end the element nor open a comment.
std::string scriptSafeJson(const nlohmann::json& value)
{
    const std::string text = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        if (c == '<') {
            out += "\\u003c";
        } else {
            out += c;
        }
    }
    return out;
}

nlohmann::json optionalNumber(const std::optional<double>& value)
{
    return value ? nlohmann::json(*value) : nlohmann::json(nullptr);
}

// One clip as the page's script reads it: [path, score, worst severity (-1 none),
// [issues per category], duration, size, hash, fkey, [issue lines], change, old score,
// facts, [[stream, severity, at, length] per issue line], pictures]. Facts: [level, start,
// [[type, codec, start, duration, width, height, rate, channels, sample rate]...],
// container].
// Pictures: null (none asked for), a note text, or [[seconds, label, data URI]...].
nlohmann::json htmlRow(const ClipRecord& clip, ClipChange change, std::optional<QcScore> oldScore,
                       const ClipPictures* pictures)
{
    const auto worst = clip.worstSeverity();
    nlohmann::json lines = nlohmann::json::array();
    nlohmann::json places = nlohmann::json::array();
    for (const ReportIssue& issue : clip.issues) {
        lines.push_back(issue.longLine());
        places.push_back({issue.stream, static_cast<int>(issue.severity), optionalNumber(issue.at),
                          optionalNumber(issue.length)});
    }
    nlohmann::json streams = nlohmann::json::array();
    for (const ReportStream& s : clip.streams) {
        streams.push_back({s.type, s.codec, optionalNumber(s.start), optionalNumber(s.duration),
                           s.width, s.height, optionalNumber(s.rate), s.channels, s.sampleRate});
    }
    nlohmann::json shots = nullptr;
    if (pictures != nullptr && !pictures->note.empty()) {
        shots = pictures->note;
    } else if (pictures != nullptr && !pictures->pictures.empty()) {
        shots = nlohmann::json::array();
        for (const ClipPicture& p : pictures->pictures) {
            shots.push_back({p.seconds, p.label, "data:image/jpeg;base64," + base64(p.jpeg)});
        }
    }
    return nlohmann::json::array(
        {clip.path, clip.score, worst ? static_cast<int>(*worst) : -1, clip.categoryCounts(),
         optionalNumber(clip.duration),
         clip.size ? nlohmann::json(*clip.size) : nlohmann::json(nullptr), clip.hash256, clip.fkey,
         lines, changeText(change), oldScore ? nlohmann::json(*oldScore) : nlohmann::json(nullptr),
         nlohmann::json::array({clip.level, optionalNumber(clip.start), streams, clip.container}),
         places, shots});
}

// The summary chart: clips per score and issues per category (stacked by severity), as one
// inline SVG that needs no script and prints as it shows.
std::string summaryChart(const std::vector<ClipRecord>& clips)
{
    std::array<std::size_t, kBestScore + 1> perScore{};
    std::array<std::array<std::size_t, kSeverityCount>, kCategoryCount> perCategory{};
    for (const ClipRecord& clip : clips) {
        ++perScore[static_cast<std::size_t>(clip.score)];
        for (const ReportIssue& issue : clip.issues) {
            ++perCategory[static_cast<std::size_t>(issue.category)]
                         [static_cast<std::size_t>(issue.severity)];
        }
    }
    const std::size_t mostClips =
        std::max<std::size_t>(1, *std::max_element(perScore.begin(), perScore.end()));
    std::size_t mostIssues = 1;
    for (const auto& row : perCategory) {
        mostIssues = std::max(mostIssues, std::accumulate(row.begin(), row.end(), std::size_t{0}));
    }
    constexpr double kBarWidth = 190; // of the 300 units each half has
    constexpr int kRow = 20;
    std::string svg = "<svg class=\"chart\" role=\"img\" viewBox=\"0 0 640 " +
                      std::to_string(30 + kRow * (kBestScore + 1)) +
                      "\" aria-label=\"Clips by score and issues by category\">"
                      "<text x=\"0\" y=\"14\" class=\"h\">Clips by score</text>"
                      "<text x=\"330\" y=\"14\" class=\"h\">Issues by category</text>";
    char item[512];
    for (QcScore s = kBestScore; s >= 0; --s) {
        const int y = 24 + kRow * (kBestScore - s);
        const std::size_t n = perScore[static_cast<std::size_t>(s)];
        const double w = kBarWidth * static_cast<double>(n) / static_cast<double>(mostClips);
        std::snprintf(item, sizeof item,
                      "<g data-score=\"%d\"><title>%s: %zu</title>"
                      "<text x=\"0\" y=\"%d\">%s</text>"
                      "<rect x=\"80\" y=\"%d\" width=\"%.1f\" height=\"14\" fill=\"%s\"/>"
                      "<text x=\"%.1f\" y=\"%d\">%zu</text></g>",
                      s, scoreText(s).data(), n, y + 11, scoreText(s).data(), y, w,
                      kPageScoreColours[static_cast<std::size_t>(s)].bar, 84 + w, y + 11, n);
        svg += item;
    }
    for (int c = 0; c < kCategoryCount; ++c) {
        const int y = 24 + kRow * c;
        const auto& row = perCategory[static_cast<std::size_t>(c)];
        const std::size_t total = std::accumulate(row.begin(), row.end(), std::size_t{0});
        const char* name = categoryText(static_cast<QcIssueCategory>(c)).data();
        std::snprintf(item, sizeof item,
                      "<g data-category=\"%d\"><text x=\"330\" y=\"%d\">%s</text>", c, y + 11,
                      name);
        svg += item;
        double x = 400;
        for (int sev = kSeverityCount - 1; sev >= 0; --sev) {
            const std::size_t n = row[static_cast<std::size_t>(sev)];
            if (n == 0) {
                continue;
            }
            const double w = kBarWidth * static_cast<double>(n) / static_cast<double>(mostIssues);
            std::snprintf(item, sizeof item,
                          "<rect x=\"%.1f\" y=\"%d\" width=\"%.1f\" height=\"14\" "
                          "fill=\"%s\" class=\"sev%d\"><title>%s, %s: %zu</title></rect>",
                          x, y, w, kPageSeverityColours[static_cast<std::size_t>(sev)], sev, name,
                          severityText(static_cast<QcSeverity>(sev)).data(), n);
            svg += item;
            x += w;
        }
        std::snprintf(item, sizeof item, "<text x=\"%.1f\" y=\"%d\">%zu</text></g>", x + 4, y + 11,
                      total);
        svg += item;
    }
    return svg + "</svg>";
}

} // namespace

PageColours pageScoreColours(QcScore score)
{
    return kPageScoreColours[static_cast<std::size_t>(std::clamp(score, 0, kBestScore))];
}

const char* pageSeverityColour(QcSeverity severity)
{
    return kPageSeverityColours[std::min<std::size_t>(static_cast<std::size_t>(severity),
                                                      kSeverityCount - 1)];
}

std::vector<std::size_t> worstFirst(const std::vector<ClipRecord>& clips)
{
    std::vector<std::size_t> order(clips.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return clips[a].score < clips[b].score; });
    return order;
}

std::string base64(std::string_view bytes)
{
    static constexpr char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t left = bytes.size() - i;
        std::uint32_t group = static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i]))
                              << 16;
        if (left > 1) {
            group |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8;
        }
        if (left > 2) {
            group |= static_cast<unsigned char>(bytes[i + 2]);
        }
        out += kDigits[(group >> 18) & 63];
        out += kDigits[(group >> 12) & 63];
        out += left > 1 ? kDigits[(group >> 6) & 63] : '=';
        out += left > 2 ? kDigits[group & 63] : '=';
    }
    return out;
}

std::string cssColour(std::uint32_t bgr)
{
    char text[8];
    std::snprintf(text, sizeof text, "#%02X%02X%02X", bgr & 0xFF, (bgr >> 8) & 0xFF,
                  (bgr >> 16) & 0xFF);
    return text;
}

namespace {

// "Profile: NAME" (or "Profiles: A (3 clips), B (1 clip)") and a line end; empty when no
// clip was graded by a delivery profile.
std::string profileLine(const std::vector<ClipRecord>& clips)
{
    const auto profiles = profilesOf(clips);
    if (profiles.empty()) {
        return {};
    }
    if (profiles.size() == 1) {
        return "Profile: " + escapeControl(profiles.front().first) + "\n";
    }
    std::string line = "Profiles:";
    for (const auto& [name, count] : profiles) {
        line += (line.back() == ':' ? " " : ", ") + escapeControl(name) + " (" +
                std::to_string(count) + (count == 1 ? " clip)" : " clips)");
    }
    return line + "\n";
}

} // namespace

std::string summaryText(const ReportView& view, std::size_t worstShown)
{
    const std::vector<ClipRecord>& clips = view.clips->clips();
    std::array<std::size_t, kBestScore + 1> perScore{};
    for (const ClipRecord& clip : clips) {
        ++perScore[static_cast<std::size_t>(clip.score)];
    }
    std::string text = profileLine(clips) + "Clips by score:\n";
    char line[64];
    for (QcScore score = kBestScore; score >= 0; --score) {
        std::snprintf(line, sizeof line, "  %-14s %8zu\n", scoreText(score).data(),
                      perScore[static_cast<std::size_t>(score)]);
        text += line;
    }

    std::size_t listed = 0;
    for (const std::size_t i : worstFirst(clips)) {
        const ClipRecord& clip = clips[i];
        if (listed == worstShown || clip.score == kBestScore) {
            break;
        }
        if (listed++ == 0) {
            text += "Worst clips:\n";
        }
        std::snprintf(line, sizeof line, "  %-14s ", scoreText(clip.score).data());
        text += line + escapeControl(clip.path) + '\n';
        if (!clip.issues.empty()) {
            std::string worst = clip.issues.front().longLine();
            while (!worst.empty() && (worst.back() == '\n' || worst.back() == '\r')) {
                worst.pop_back();
            }
            text += "                 " + worst + '\n';
        }
    }

    if (view.comparison != nullptr) {
        const Comparison& cmp = *view.comparison;
        text += "Against the baseline: " + std::to_string(cmp.worse) + " worse, " +
                std::to_string(cmp.better) + " better, " + std::to_string(cmp.added) + " new, " +
                std::to_string(cmp.missing.size()) + " missing\n";
        for (std::size_t i = 0; i < clips.size(); ++i) {
            if (cmp.changes[i] == ClipChange::Worse) {
                text += "  worse    " + std::string(scoreText(*cmp.oldScores[i])) + " -> " +
                        std::string(scoreText(clips[i].score)) + "  " +
                        escapeControl(clips[i].path) + '\n';
            }
        }
        for (const std::size_t i : cmp.missing) {
            text += "  missing  " + escapeControl(view.baseline->clips()[i].path) + '\n';
        }
    }

    const std::size_t below = countBelow(view);
    text += std::to_string(clips.size()) + (clips.size() == 1 ? " clip: " : " clips: ") +
            std::to_string(clips.size() - below) + " at or above \"" +
            std::string(scoreText(view.threshold)) + "\", " + std::to_string(below) + " below\n";
    return text;
}

void writeCsv(std::ostream& out, const ReportView& view)
{
    std::string header;
    for (const std::string_view name : {"Path", "Score", "Result", "Worst severity"}) {
        csvField(header, name);
    }
    for (int c = 0; c < kCategoryCount; ++c) {
        csvField(header, categoryText(static_cast<QcIssueCategory>(c)));
    }
    for (const std::string_view name : {"Duration", "Size", "Hash256", "FKey"}) {
        csvField(header, name);
    }
    // A column for the delivery profile only when the clips were graded by one.
    const bool withProfile = !profilesOf(view.clips->clips()).empty();
    if (withProfile) {
        csvField(header, "Profile");
    }
    if (view.comparison != nullptr) {
        csvField(header, "Baseline");
        csvField(header, "Change");
    }
    out << "\xEF\xBB\xBF" << header << "\r\n";
    const std::vector<ClipRecord>& clips = view.clips->clips();
    for (std::size_t i = 0; i < clips.size(); ++i) {
        csvRow(out, clips[i], view,
               view.comparison != nullptr ? view.comparison->oldScores[i] : std::nullopt,
               view.comparison != nullptr ? view.comparison->changes[i] : ClipChange::Same,
               withProfile);
    }
    if (view.comparison != nullptr) {
        for (const std::size_t i : view.comparison->missing) {
            const ClipRecord& old = view.baseline->clips()[i];
            csvRow(out, old, view, old.score, ClipChange::Missing, withProfile);
        }
    }
}

void writeHtml(std::ostream& out, const ReportView& view, const std::string& title)
{
    const std::vector<ClipRecord>& clips = view.clips->clips();
    nlohmann::json meta = {{"baseline", view.comparison != nullptr}};
    for (QcScore s = 0; s <= kBestScore; ++s) {
        meta["scores"].push_back(scoreText(s));
        meta["background"].push_back(pageScoreColours(s).back);
        meta["text"].push_back(pageScoreColours(s).text);
    }
    for (int s = 0; s < kSeverityCount; ++s) {
        meta["severities"].push_back(severityText(static_cast<QcSeverity>(s)));
        meta["severityColours"].push_back(pageSeverityColour(static_cast<QcSeverity>(s)));
    }
    for (int c = 0; c < kCategoryCount; ++c) {
        meta["categories"].push_back(categoryText(static_cast<QcIssueCategory>(c)));
    }

    std::array<std::size_t, kBestScore + 1> perScore{};
    for (const ClipRecord& clip : clips) {
        ++perScore[static_cast<std::size_t>(clip.score)];
    }
    char when[64] = "";
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    if (localtime_r(&now, &local) != nullptr) {
        std::strftime(when, sizeof when, "%Y-%m-%d %H:%M", &local);
    }
    const std::size_t below = countBelow(view);
    std::string profileMeta = profileLine(clips);
    if (!profileMeta.empty()) {
        profileMeta.back() = ';';
        profileMeta += ' ';
    }

    out << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
        << "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
        << "<title>" << escapeHtml(title) << "</title>\n<style>" << reportStyleSheet()
        << "</style>\n"
        << "</head>\n<body>\n<h1>" << escapeHtml(title) << "</h1>\n<p class=\"meta\">"
        << escapeHtml(profileMeta) << clips.size() << (clips.size() == 1 ? " clip" : " clips")
        << ", made " << when << "; " << clips.size() - below << " at or above &quot;"
        << scoreText(view.threshold) << "&quot;, " << below << " below";
    if (view.comparison != nullptr) {
        const Comparison& cmp = *view.comparison;
        out << "; against the baseline: " << cmp.worse << " worse, " << cmp.better << " better, "
            << cmp.added << " new, " << cmp.missing.size() << " missing";
    }
    out << "</p>\n<div class=\"counts\">";
    for (QcScore s = kBestScore; s >= 0; --s) {
        out << "<span style=\"background:" << pageScoreColours(s).back
            << ";color:" << pageScoreColours(s).text << "\">" << scoreText(s) << ": "
            << perScore[static_cast<std::size_t>(s)] << "</span>";
    }
    out << "</div>\n" << summaryChart(clips) << "\n<div class=\"controls\"><span>Score:";
    for (QcScore s = kBestScore; s >= 0; --s) {
        out << " <label><input type=\"checkbox\" data-score=\"" << s << "\" checked> "
            << scoreText(s) << "</label>";
    }
    out << "</span>\n<label>Path contains <input type=\"search\" id=\"q\"></label>\n";
    if (view.comparison != nullptr) {
        out << "<label>Change <select id=\"change\"><option value=\"\">any</option>";
        for (const ClipChange c :
             {ClipChange::Worse, ClipChange::Better, ClipChange::New, ClipChange::Missing}) {
            out << "<option>" << changeText(c) << "</option>";
        }
        out << "</select></label>\n";
    }
    out << "<label>Rows per page <select id=\"size\"><option>25</option><option>100</option>"
        << "<option>500</option><option>1000</option></select></label></div>\n"
        << "<div class=\"pager\"><button type=\"button\" id=\"prev\">&lsaquo; Previous</button> "
        << "<span id=\"pageinfo\"></span> "
        << "<button type=\"button\" id=\"next\">Next &rsaquo;</button></div>\n"
        << "<noscript><p>The table of clips needs JavaScript.</p></noscript>\n"
        << "<table id=\"table\"><thead><tr></tr></thead><tbody></tbody></table>\n"
        << "<div id=\"zoom\" hidden><img alt=\"\"><p></p></div>\n"
        << "<script type=\"application/json\" id=\"meta\">" << scriptSafeJson(meta)
        << "</script>\n<script type=\"application/json\" id=\"clips\">[";
    // Row by row, so that a large report never holds its whole JSON text at once.
    for (std::size_t i = 0; i < clips.size(); ++i) {
        ClipChange change = ClipChange::Same;
        std::optional<QcScore> old;
        if (view.comparison != nullptr) {
            change = view.comparison->changes[i];
            old = view.comparison->oldScores[i];
        }
        const ClipPictures pictures = view.pictures ? view.pictures(i) : ClipPictures{};
        out << (i == 0 ? "" : ",\n")
            << scriptSafeJson(htmlRow(clips[i], change, old, view.pictures ? &pictures : nullptr));
    }
    if (view.comparison != nullptr) {
        bool first = clips.empty();
        for (const std::size_t i : view.comparison->missing) {
            const ClipRecord& old = view.baseline->clips()[i];
            out << (first ? "" : ",\n")
                << scriptSafeJson(htmlRow(old, ClipChange::Missing, old.score, nullptr));
            first = false;
        }
    }
    out << "]</script>\n<script>" << reportScript() << "</script>\n</body>\n</html>\n";
}

} // namespace tarvoqc::report
