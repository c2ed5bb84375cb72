#include "app/check/checkoutput.h"

#include <cinttypes>
#include <cstdio>

#include "tarvoqc/version.h"

namespace tarvoqc::check {

namespace {

nlohmann::json seconds(ClipTicks value)
{
    return value == kNoTime ? nlohmann::json(nullptr) : nlohmann::json(hundredNsToSeconds(value));
}

} // namespace

std::string humanReport(const QcResult& result, bool brief)
{
    char head[32];
    std::snprintf(head, sizeof head, "%-13s", scoreText(result.score()).data());
    std::string text = head;
    text += escapeControl(result.path);
    text += '\n';
    if (!brief) {
        for (const QcIssue* issue : result.issues.ordered()) {
            text += "    ";
            text += QcIssueList::longLine(*issue);
            if (!text.empty() && text.back() != '\n') {
                text += '\n';
            }
        }
    }
    return text;
}

nlohmann::json jsonReport(const QcResult& result)
{
    const MediaFacts& facts = result.facts;
    nlohmann::json streams = nlohmann::json::array();
    for (std::size_t i = 0; i < facts.streams.size(); ++i) {
        const StreamFacts& s = facts.streams[i];
        streams.push_back(
            {{"index", i},
             {"type", streamTypeText(s.type)},
             {"codec", s.codecName},
             {"start", seconds(s.headerStart)},
             {"duration", seconds(s.headerDuration)},
             {"decodedStart", seconds(s.decodedStart)},
             {"decodedEnd", seconds(s.decodedEnd)},
             {"bytes", s.byteCount},
             {"width", s.width},
             {"height", s.height},
             {"rate", s.frameRateDen > 0
                          ? nlohmann::json(static_cast<double>(s.frameRateNum) / s.frameRateDen)
                          : nlohmann::json(nullptr)},
             {"channels", s.channels},
             {"sampleRate", s.sampleRate}});
    }
    nlohmann::json issues = nlohmann::json::array();
    for (const QcIssue* issue : result.issues.ordered()) {
        nlohmann::json item = {{"category", categoryText(issue->category)},
                               {"severity", severityText(issue->severity)},
                               {"stream", issue->streamIndex < 0 ? -1 : issue->streamIndex},
                               {"kind", streamKindText(issue->streamKind)},
                               {"text", issue->text}};
        if (issue->hasPosition()) {
            item["at"] = hundredNsToSeconds(issue->at);
            if (issue->length != kNoTime) {
                item["length"] = hundredNsToSeconds(issue->length);
            }
        }
        issues.push_back(std::move(item));
    }
    nlohmann::json fkey = nullptr;
    if (facts.fkey != 0) {
        char hex[17];
        std::snprintf(hex, sizeof hex, "%016" PRIX64, facts.fkey);
        fkey = hex;
    }
    nlohmann::json line = {{"format", kJsonFormatVersion},
                           {"tool", std::string("tarvoqc-check ") + kVersionText},
                           {"path", result.path},
                           {"container", facts.container},
                           {"score", result.score()},
                           {"result", scoreText(result.score())},
                           {"level", result.checkLevel},
                           {"size", facts.fileSize},
                           {"hash256", facts.hash256},
                           {"fkey", fkey},
                           {"start", seconds(facts.clipStart)},
                           {"duration", seconds(facts.clipDuration)},
                           {"qcDuration", seconds(facts.qcDuration)},
                           {"streams", streams},
                           {"issues", issues}};
    if (!result.profile.empty()) {
        line["profile"] = result.profile;
    }
    return line;
}

std::string jsonLine(const QcResult& result)
{
    return jsonReport(result).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace tarvoqc::check
