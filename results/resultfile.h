#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "results/qcresult.h"
#include "results/xmlnode.h"

namespace tarvoqc {

// Element name of a stream of this type: "Video", "Audio", "Data", "Subt", "Atach"; empty
// (no element) for any other type.
std::string_view streamElementName(StreamType type);

// The "Format" text of a video or audio stream: video "width,height,SAR num,SAR den,rate
// num,rate den"; audio "channels,sample rate", then "," and the language bytes (up to 4,
// to the first zero byte) when the language is set. Empty for other types.
std::string streamFormatText(const StreamFacts& stream);

// Writes the facts of result.facts under parent as the two siblings "File" and "Media",
// "Media" with one element per stream of a known type, in stream order. Stream times are
// ClipTicks written as seconds ("NA" for kNoTime); the "Media" durations are written as
// the raw numbers. "KbRate" uses the stream header duration. Returns 0 when "File" or
// "Media" could not be created (nothing more is written then), else 1.
int writeClipResult(XmlNode& parent, const QcResult& result);

// Writes the check result into an existing "QCheck" element: "Score", "Result" (the score
// text), "Issues" (the number of issues), then one "Issue" child per issue, worst severity
// first (QcIssueList::ordered), with "Cat", "Sev", "Strm" (stream issues only), "Kind"
// (when not empty), "At" and "Len" (seconds from the stream's start and the length of a
// run, only for issues with a place) and the message as its text.
void writeQcCheck(XmlNode& qcheck, const QcResult& result);

// One clip of a result document: its path, and its result when it was checked (not
// owned; must outlive the call).
struct ResultDocumentEntry
{
    std::string path;
    const QcResult* result = nullptr;
};

// The root element of job files and result documents.
inline constexpr std::string_view kResultRoot = "Tarvo_QC";

// Clears document and builds the result document of a run in it: the root "Tarvo_QC"
// holds, per entry in order, a "Clip" with "File" = path and, for a checked clip, its
// "File" and "Media" elements inside the "Clip" and a sibling "QCheck" right after it.
// Every program that writes results uses this one shape. Save the document with
// XmlNode::Save.
void buildResultDocument(XmlNode& document, const std::vector<ResultDocumentEntry>& entries);

// Writes the result document of count entries to path: the bytes XmlNode::Save writes for
// buildResultDocument, through the same file rules, but built and written a few hundred
// clips at a time, so that a run of many clips needs no memory for its document.
// entryAt(i), for i < count in order, gives each entry. False when the file could not be
// written; the earlier file then stays as it was.
bool writeResultDocument(const std::string& path, std::size_t count,
                         const std::function<ResultDocumentEntry(std::size_t)>& entryAt);

} // namespace tarvoqc
