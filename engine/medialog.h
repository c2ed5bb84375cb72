#pragma once

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/ffmpeg.h"
#include "results/qcissue.h"

namespace tarvoqc {

// What the media libraries log at error level while one clip is checked. Their demuxers and
// decoders find damage that they only log and then carry on from (a slice whose CRC fails,
// an element that overruns its parent): such messages are kept here, told apart by source
// (the demuxer, or one stream's decoder on whichever thread it runs) and by kind (the place
// in the library that logged them, known by the message's format), with a count, the
// first message's own words and where it was logged.
//
// A context is watched through its user field (`opaque`), which a decoder's frame threads
// copy into their own contexts, so that the message of every thread finds its source. The
// engine's one log callback (installMediaLibraryLog) hands each message to
// recordMediaLibraryMessage. A decoder's position is the time stamp that the stream puts
// into its context's `reordered_opaque` before each packet; frame threads copy that too.
//
// Thread-safety: messages arrive on any thread. The state of every MediaLog is guarded by
// one process-wide lock, taken alone by the callback and by each member function.
class MediaLog
{
public:
    // One kind of message from one source.
    struct Entry
    {
        int stream = -1;    // the stream whose decoder logged it; -1: the demuxer
        std::string source; // the library's name of the demuxer or decoder ("matroska,webm")
        std::string text;   // the first message of the kind, in the library's words
        std::int64_t count = 0;
        // Where the first was logged: for a decoder the time stamp (stream time base) of the
        // packet being decoded, AV_NOPTS_VALUE when none (the first is then the earliest
        // such message in the stream, whichever thread logged it first); for the demuxer the
        // byte offset in the file it had read to, -1 when unknown.
        std::int64_t firstPosition = -1;
        // Every message of the kind came before the decoder gave its first frame.
        bool beforeFirstFrame = true;
    };

    // Kinds kept per log; later kinds are dropped (a hostile file cannot grow the list).
    static constexpr std::size_t kMaxKinds = 64;
    // Characters kept of a message.
    static constexpr std::size_t kMaxTextChars = 400;

    MediaLog();
    // Stops watching. The watched contexts must be freed before: their messages would find
    // no log any more, and a later log could be given this one's addresses.
    virtual ~MediaLog();
    MediaLog(const MediaLog&) = delete;
    MediaLog& operator=(const MediaLog&) = delete;

    // Watches the demuxer's context (before it opens, so that the header's messages count).
    void watchDemuxer(AVFormatContext& format);
    // Watches a stream's decoder context, and the frame threads it will make (before it
    // opens). The context's `opaque` must be free for this use.
    void watchDecoder(AVCodecContext& decoder, int streamIndex);
    // Tells that the stream's decoder gave its first frame.
    void frameDecoded(int streamIndex);

    // The kinds recorded since the last call, in the order each first appeared.
    std::vector<Entry> takeEntries();

private:
    struct Source;
    friend void recordMediaLibraryMessage(void*, int, const char*, va_list);
    void add(const Source& source, const char* format, const std::string& name,
             const std::string& text, std::int64_t position);

    std::vector<std::unique_ptr<Source>> m_sources;
    std::vector<std::pair<std::string, Entry>> m_entries; // by format of the first message
};

// How much a logged kind weighs. A failed integrity check (a CRC or checksum) proves damage:
// in a lossless codec, whose every bit is the master (an archive's FFV1 or FLAC), Highest,
// elsewhere High. Other messages weigh by their number: under 10 Low, under 100 High,
// else Highest; a decoder's messages that all came before its first frame, in a stream that
// then decoded, are a stream joined between key frames (a capture), a Warning.
QcSeverity severityOfLogged(const MediaLog::Entry& entry, bool losslessCodec, bool decodedLater);

// "once" or "N times": how often a kind was logged, for issue texts.
std::string timesText(std::int64_t count);

// Where the engine's log callback hands every message of the media libraries: an
// error-level message of a watched context is recorded by its MediaLog, anything else is
// left alone. A message may come in pieces (calls without a final newline); the pieces of
// one thread and context are joined into one message. Thread-safe.
void recordMediaLibraryMessage(void* context, int level, const char* format, va_list args);

} // namespace tarvoqc
