#include "results/resultfile.h"

#include <cstdio>

#include "files/fileio.h"
#include "results/textcodec.h"

namespace tarvoqc {

namespace {

// The decoded length of a stream: last decoded time stamp minus the first, unknown when
// either is.
ClipTicks decodedDuration(const StreamFacts& stream)
{
    if (stream.decodedStart == kNoTime || stream.decodedEnd == kNoTime) {
        return kNoTime;
    }
    return saturatingSub(stream.decodedEnd, stream.decodedStart);
}

void writeStream(XmlNode& media, const StreamFacts& stream)
{
    XmlNode* element = media.AddChild(streamElementName(stream.type));
    if (element == nullptr) {
        return;
    }
    element->setSeconds("Stt", stream.headerStart);
    element->setSeconds("Dur", stream.headerDuration);
    if (stream.decodedStart != stream.headerStart) {
        element->setSeconds("QCStt", stream.decodedStart);
    }
    const ClipTicks qcDuration = decodedDuration(stream);
    if (qcDuration != stream.headerDuration) {
        element->setSeconds("QCDur", qcDuration);
    }
    if (stream.type == StreamType::Video || stream.type == StreamType::Audio) {
        element->SetAttribute("Format", streamFormatText(stream));
    }
    if (!stream.codecName.empty()) {
        element->SetAttribute("Codec", stream.codecName);
    }
    if (stream.headerDuration > 0) {
        const double seconds = static_cast<double>(stream.headerDuration) * 1e-7;
        element->setReal("KbRate", static_cast<double>(stream.byteCount) * 0.008 / seconds);
    }
}

} // namespace

std::string_view streamElementName(StreamType type)
{
    switch (type) {
    case StreamType::Video:
        return "Video";
    case StreamType::Audio:
        return "Audio";
    case StreamType::Data:
        return "Data";
    case StreamType::Subtitle:
        return "Subt";
    case StreamType::Attach:
        return "Atach";
    default:
        return {};
    }
}

std::string streamFormatText(const StreamFacts& stream)
{
    char buffer[96];
    if (stream.type == StreamType::Video) {
        std::snprintf(buffer, sizeof buffer, "%d,%d,%d,%d,%d,%d", stream.width, stream.height,
                      stream.sampleAspectNum, stream.sampleAspectDen, stream.frameRateNum,
                      stream.frameRateDen);
        return buffer;
    }
    if (stream.type == StreamType::Audio) {
        std::snprintf(buffer, sizeof buffer, "%d,%d", stream.channels, stream.sampleRate);
        std::string text = buffer;
        const std::string_view language(stream.language.data(), stream.language.size());
        const std::string_view set = language.substr(0, language.find('\0'));
        if (!set.empty()) {
            text += ',';
            text += set;
        }
        return text;
    }
    return {};
}

int writeClipResult(XmlNode& parent, const QcResult& result)
{
    const MediaFacts& facts = result.facts;
    XmlNode* file = parent.AddChild("File");
    if (file == nullptr) {
        return 0;
    }
    // The size is a signed 64-bit number in the file; no real file reaches its limit.
    file->setInt64("Size", static_cast<std::int64_t>(facts.fileSize));
    file->setHex64("CRE", facts.creationTime);
    file->setHex64("MOD", facts.lastWriteTime);
    file->setHex32("ATR", facts.attributes);
    if (!facts.hash256.empty()) {
        file->SetAttribute("Hash256", facts.hash256);
    }
    if (facts.fkey != 0) {
        file->setHex64("FKey", facts.fkey);
    }

    XmlNode* media = parent.AddChild("Media");
    if (media == nullptr) {
        return 0;
    }
    media->setInt64("Dur", facts.clipDuration);
    if (facts.qcDuration != facts.clipDuration) {
        media->setInt64("QCDur", facts.qcDuration);
    }
    media->setInt("Streams", static_cast<std::int32_t>(facts.streams.size()));
    for (const StreamFacts& stream : facts.streams) {
        writeStream(*media, stream);
    }
    return 1;
}

void writeQcCheck(XmlNode& qcheck, const QcResult& result)
{
    const QcScore score = result.score();
    qcheck.setInt("Score", score);
    qcheck.SetAttribute("Result", scoreText(score));
    qcheck.setInt("Issues", static_cast<std::int32_t>(result.issues.size()));
    if (!result.profile.empty()) {
        qcheck.SetAttribute("Profile", result.profile); // the delivery profile graded by
    }
    for (const QcIssue* issue : result.issues.ordered()) {
        XmlNode* element = qcheck.AddChild("Issue");
        element->SetAttribute("Cat", categoryText(issue->category));
        element->SetAttribute("Sev", severityText(issue->severity));
        if (issue->streamIndex >= 0) {
            element->setInt("Strm", issue->streamIndex);
        }
        const std::string_view kind = streamKindText(issue->streamKind);
        if (!kind.empty()) {
            element->SetAttribute("Kind", kind);
        }
        if (issue->hasPosition()) {
            element->setSeconds("At", issue->at);
            if (issue->length != kNoTime) {
                element->setSeconds("Len", issue->length);
            }
        }
        element->SetText(issue->text);
    }
}

namespace {

// One entry of a result document under its root: "Clip" and, for a checked clip, "QCheck".
void addEntry(XmlNode& root, const ResultDocumentEntry& entry)
{
    XmlNode* clip = root.AddChild("Clip");
    clip->SetAttribute("File", entry.path);
    if (entry.result == nullptr) {
        return;
    }
    writeClipResult(*clip, *entry.result);
    writeQcCheck(*root.AddChild("QCheck"), *entry.result);
}

} // namespace

void buildResultDocument(XmlNode& document, const std::vector<ResultDocumentEntry>& entries)
{
    document.Clear();
    XmlNode* root = document.AddChild(kResultRoot);
    for (const ResultDocumentEntry& entry : entries) {
        addEntry(*root, entry);
    }
}

bool writeResultDocument(const std::string& path, std::size_t count,
                         const std::function<ResultDocumentEntry(std::size_t)>& entryAt)
{
    // The tree of buildResultDocument, written a few hundred clips at a time: each batch is
    // the root's children at level 1, between the root's own tags.
    constexpr std::size_t kBatch = 256;
    FileReplacement file(path);
    file.write("\xFF\xFE");
    const std::string rootName(kResultRoot);
    if (count == 0) {
        file.write(utf8ToUtf16le("<" + rootName + "/>\r\n"));
    } else {
        file.write(utf8ToUtf16le("<" + rootName + ">\r\n"));
        XmlNode document;
        XmlNode& root = *document.AddChild(kResultRoot);
        for (std::size_t i = 0; i < count && file.ok(); ++i) {
            addEntry(root, entryAt(i));
            if (root.childCount() >= kBatch || i + 1 == count) {
                file.write(utf8ToUtf16le(root.saveText(1)));
                root.Clear();
            }
        }
        file.write(utf8ToUtf16le("</" + rootName + ">\r\n"));
    }
    file.write(std::string_view("\0\0", 2));
    return file.commit();
}

} // namespace tarvoqc
