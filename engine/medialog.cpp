#include "engine/medialog.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <mutex>
#include <unordered_set>

namespace tarvoqc {

struct MediaLog::Source
{
    MediaLog* log;
    int stream; // -1: the demuxer
    bool decoded = false;
};

namespace {

// The one lock of every log, and the sources alive: a context's tag is only followed once
// it is found here, so a message that comes after its log is gone (or from a context
// someone else tagged) is never taken for one of ours.
std::mutex& logLock()
{
    static std::mutex lock;
    return lock;
}

std::unordered_set<const void*>& liveSources()
{
    static std::unordered_set<const void*> sources;
    return sources;
}

// The unfinished message of this thread: pieces logged without a final newline.
struct Pending
{
    const void* source = nullptr;
    const char* format = nullptr; // of the first piece: the kind
    std::string name;             // of the context that logged it
    std::string text;
    std::int64_t position = -1;
};
thread_local Pending t_pending;

// The library's words as issue text: printable ASCII, the rest shown as '?'.
void appendPrintable(std::string& to, const char* text)
{
    for (const char* c = text; *c != '\0' && to.size() < MediaLog::kMaxTextChars; ++c) {
        const auto byte = static_cast<unsigned char>(*c);
        if (byte == '\n' && c[1] == '\0') {
            break;
        }
        to.push_back(byte >= 0x20 && byte < 0x7f ? static_cast<char>(byte) : '?');
    }
}

bool endsLine(const char* text)
{
    const std::size_t n = std::strlen(text);
    return n > 0 && text[n - 1] == '\n';
}

constexpr std::size_t kFormatBuffer = 1024;

} // namespace

MediaLog::MediaLog() = default;

MediaLog::~MediaLog()
{
    const std::lock_guard lock(logLock());
    for (const auto& source : m_sources) {
        liveSources().erase(source.get());
        // This thread (the checker's, which lives on to the next clip) may hold an unfinished
        // message of ours; a later log given the same address must not inherit it. The
        // decoders' threads ended with their decoders.
        if (t_pending.source == source.get()) {
            t_pending.source = nullptr;
        }
    }
}

void MediaLog::watchDemuxer(AVFormatContext& format)
{
    const std::lock_guard lock(logLock());
    m_sources.push_back(std::make_unique<Source>(Source{this, -1}));
    liveSources().insert(m_sources.back().get());
    format.opaque = m_sources.back().get();
}

void MediaLog::watchDecoder(AVCodecContext& decoder, int streamIndex)
{
    const std::lock_guard lock(logLock());
    m_sources.push_back(std::make_unique<Source>(Source{this, streamIndex}));
    liveSources().insert(m_sources.back().get());
    decoder.opaque = m_sources.back().get();
    decoder.reordered_opaque = AV_NOPTS_VALUE;
}

void MediaLog::frameDecoded(int streamIndex)
{
    const std::lock_guard lock(logLock());
    for (const auto& source : m_sources) {
        if (source->stream == streamIndex) {
            source->decoded = true;
        }
    }
}

std::vector<MediaLog::Entry> MediaLog::takeEntries()
{
    const std::lock_guard lock(logLock());
    std::vector<Entry> entries;
    entries.reserve(m_entries.size());
    for (auto& [format, entry] : m_entries) {
        entries.push_back(std::move(entry));
    }
    m_entries.clear();
    return entries;
}

// Under the lock.
void MediaLog::add(const Source& source, const char* format, const std::string& name,
                   const std::string& text, std::int64_t position)
{
    const auto same = [&](const auto& kept) {
        return kept.second.stream == source.stream && kept.first == format;
    };
    auto found = std::find_if(m_entries.begin(), m_entries.end(), same);
    if (found == m_entries.end()) {
        if (m_entries.size() >= kMaxKinds) {
            return;
        }
        Entry entry;
        entry.stream = source.stream;
        entry.source = name;
        entry.text = text;
        entry.firstPosition = position;
        m_entries.emplace_back(format, std::move(entry));
        found = std::prev(m_entries.end());
    }
    Entry& entry = found->second;
    // A decoder's frame threads log in whatever order they run: the kind keeps the words of
    // its earliest message in the stream, so that the issue is the same on every run.
    if (source.stream >= 0 && position != AV_NOPTS_VALUE &&
        (entry.firstPosition == AV_NOPTS_VALUE || position < entry.firstPosition)) {
        entry.text = text;
        entry.firstPosition = position;
    }
    ++entry.count;
    entry.beforeFirstFrame = entry.beforeFirstFrame && !source.decoded;
}

std::string timesText(std::int64_t count)
{
    return count == 1 ? std::string("once") : std::to_string(count) + " times";
}

QcSeverity severityOfLogged(const MediaLog::Entry& entry, bool losslessCodec, bool decodedLater)
{
    std::string lower(entry.text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower.find("crc") != std::string::npos || lower.find("checksum") != std::string::npos) {
        return losslessCodec ? QcSeverity::Highest : QcSeverity::High;
    }
    if (entry.stream >= 0 && entry.beforeFirstFrame && decodedLater) {
        return QcSeverity::Warning;
    }
    return entry.count < 10    ? QcSeverity::Low
           : entry.count < 100 ? QcSeverity::High
                               : QcSeverity::Highest;
}

void recordMediaLibraryMessage(void* context, int level, const char* format, va_list args)
{
    if (context == nullptr || format == nullptr || (level & 0xff) > AV_LOG_ERROR) {
        return;
    }
    // Every context of the libraries starts with its class; only these two carry our tag.
    const AVClass* type = *static_cast<const AVClass* const*>(context);
    const void* tag = nullptr;
    std::int64_t position = -1;
    if (type == avcodec_get_class()) {
        const auto* decoder = static_cast<const AVCodecContext*>(context);
        tag = decoder->opaque;
        position = decoder->reordered_opaque;
    } else if (type == avformat_get_class()) {
        const auto* demuxer = static_cast<const AVFormatContext*>(context);
        tag = demuxer->opaque;
        // The demuxer runs on the thread that logs, so its reading position is current.
        position = demuxer->pb != nullptr ? avio_tell(demuxer->pb) : -1;
    }
    if (tag == nullptr) {
        return;
    }
    char text[kFormatBuffer];
    std::vsnprintf(text, sizeof text, format, args);

    const auto record = [](const Pending& message) {
        const std::lock_guard lock(logLock());
        if (liveSources().contains(message.source)) {
            const auto* source = static_cast<const MediaLog::Source*>(message.source);
            source->log->add(*source, message.format, message.name, message.text, message.position);
        }
    };
    Pending& pending = t_pending;
    if (pending.source != nullptr && pending.source != tag) {
        record(pending); // an unfinished message of another source ends here
        pending.source = nullptr;
    }
    if (pending.source == nullptr) {
        pending.source = tag;
        pending.format = format;
        pending.name.clear();
        appendPrintable(pending.name, type->item_name != nullptr ? type->item_name(context) : "");
        pending.text.clear();
        pending.position = position;
    }
    appendPrintable(pending.text, text);
    // A piece ends its message with a newline of its own (a text cut to the buffer has lost
    // it, its format has not).
    if (endsLine(text) || endsLine(format)) {
        if (!pending.text.empty()) {
            record(pending);
        }
        pending.source = nullptr;
    }
}

} // namespace tarvoqc
