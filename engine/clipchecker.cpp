#include "engine/clipchecker.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/clipsession.h"
#include "engine/enginetrace.h"
#include "engine/fileinfo.h"
#include "engine/timechecks.h"

namespace tarvoqc {

namespace {

using Cat = QcIssueCategory;
using Sev = QcSeverity;

constexpr int kIoBufferSize = 64 * 1024;
constexpr TimeBase kMicroseconds{1, AV_TIME_BASE};

// A library time in clip ticks; the library's "no value" stays no value.
ClipTicks toClipTicks(std::int64_t value, TimeBase base)
{
    return value == AV_NOPTS_VALUE ? kNoTime : rescaleTime(value, base, kClipTimeBase);
}

} // namespace

bool findStreamInfo(AVFormatContext* format)
{
    std::vector<AVDictionary*> options(format->nb_streams, nullptr);
    for (AVDictionary*& streamOptions : options) {
        av_dict_set_int(&streamOptions, "max_pixels", kMaxPicturePixels, 0);
    }
    const int rc = avformat_find_stream_info(format, options.empty() ? nullptr : options.data());
    for (AVDictionary*& streamOptions : options) {
        av_dict_free(&streamOptions);
    }
    return rc >= 0;
}

ClipSession::~ClipSession()
{
    format.reset();
    io.reset();
    if (fd >= 0) {
        ::close(fd);
    }
}

int ClipSession::readPacket(void* opaque, std::uint8_t* buffer, int size)
{
    auto* session = static_cast<ClipSession*>(opaque);
    while (true) {
        if (session->owner.interrupted()) {
            return AVERROR_EXIT;
        }
        const ssize_t n = ::read(session->fd, buffer, static_cast<std::size_t>(size));
        session->owner.m_activity.fetch_add(1, std::memory_order_relaxed);
        if (n > 0) {
            return static_cast<int>(n);
        }
        if (n == 0) {
            return AVERROR_EOF;
        }
        if (errno != EINTR) {
            return AVERROR(errno);
        }
    }
}

std::int64_t ClipSession::seek(void* opaque, std::int64_t offset, int whence)
{
    auto* session = static_cast<ClipSession*>(opaque);
    if ((whence & AVSEEK_SIZE) != 0) {
        struct stat st = {};
        return ::fstat(session->fd, &st) == 0 && S_ISREG(st.st_mode) ? st.st_size : AVERROR(ENOSYS);
    }
    const off_t position = ::lseek(session->fd, offset, whence & ~AVSEEK_FORCE);
    return position < 0 ? AVERROR(errno) : position;
}

int ClipSession::interruptCallback(void* opaque)
{
    return static_cast<ClipSession*>(opaque)->owner.interrupted() ? 1 : 0;
}

ClipChecker::ClipChecker()
{
    installMediaLibraryLog();
}

ClipChecker::~ClipChecker()
{
    Close();
}

bool ClipChecker::interrupted() const
{
    return (m_interruptFlag != nullptr && m_interruptFlag->load(std::memory_order_relaxed) != 0) ||
           (m_cancelFlag != nullptr && m_cancelFlag->load(std::memory_order_relaxed) != 0);
}

void ClipChecker::report(QcIssueCategory category, QcSeverity severity, int streamIndex,
                         const char* format, ...)
{
    va_list args;
    va_start(args, format);
    reportIssue({category, severity, QcStreamKind::None, streamIndex, {}}, format, args);
    va_end(args);
}

void ClipChecker::reportAt(QcIssueCategory category, QcSeverity severity, int streamIndex,
                           ClipTicks at, ClipTicks length, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    reportIssue({category,
                 severity,
                 QcStreamKind::None,
                 streamIndex,
                 {},
                 at,
                 at == kNoTime ? kNoTime : length},
                format, args);
    va_end(args);
}

void ClipChecker::reportIssue(QcIssue issue, const char* format, va_list args)
{
    const QcSeverity severity = issue.severity;
    const int streamIndex = issue.streamIndex;
    char buffer[4 * kMaxIssueTextChars + 4];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    const std::string text = cutUtf8(buffer, kMaxIssueTextChars);
    QcStreamKind kind = QcStreamKind::None;
    StreamType type = StreamType::Unknown;
    if (streamIndex >= 0 && m_session &&
        static_cast<std::size_t>(streamIndex) < m_session->streams.size()) {
        type = m_session->streams[static_cast<std::size_t>(streamIndex)]->facts().type;
        kind = type == StreamType::Video   ? QcStreamKind::Video
               : type == StreamType::Audio ? QcStreamKind::Audio
                                           : QcStreamKind::None;
    }
    if (engineTraceEnabled()) {
        std::string line("***QCIn:[");
        line.append(severityText(severity)).append("] ");
        if (streamIndex >= 0) {
            line.append("Stream ").append(std::to_string(streamIndex)).append(" (");
            line.append(type == StreamType::Unknown ? "" : streamTypeText(type)).append(") ");
        }
        line.append(text).append("\n");
        EngineTraceRaw(kTraceNormal, line.c_str());
    }
    issue.streamKind = kind;
    issue.text = text;
    const std::lock_guard lock(m_issuesLock);
    m_issues.add(issue);
}

QcIssueList ClipChecker::issues() const
{
    const std::lock_guard lock(m_issuesLock);
    return m_issues;
}

MediaFacts ClipChecker::mediaFacts() const
{
    const std::lock_guard lock(m_factsLock);
    return m_facts;
}

QcResult ClipChecker::result() const
{
    QcResult result;
    result.path = m_path;
    result.checkLevel = m_level;
    result.opened = m_opened;
    result.issues = issues();
    result.facts = mediaFacts();
    return result;
}

void ClipChecker::publishFacts()
{
    MediaFacts facts = m_work;
    facts.streams.clear();
    if (m_session) {
        for (const auto& stream : m_session->streams) {
            facts.streams.push_back(stream->facts());
        }
    }
    const std::lock_guard lock(m_factsLock);
    m_facts = std::move(facts);
}

std::optional<ClipTicks> ClipChecker::EstimatedDuration() const
{
    if (!m_session || !m_session->format) {
        return std::nullopt;
    }
    return toClipTicks(m_session->format->duration, kMicroseconds);
}

bool ClipChecker::Open(const std::string& path, CheckLevel level, int decoderThreadOption)
{
    EngineTrace(kTraceNormal, ".Open %s\n", path.c_str());
    Close();
    m_path = path;
    m_level = std::clamp(level, kLowestCheckLevel, kHighestCheckLevel);
    m_decoderThreadOption = decoderThreadOption;
    m_opened = false;
    m_work = MediaFacts{};
    m_progress.store(0, std::memory_order_relaxed);
    {
        const std::lock_guard lock(m_issuesLock);
        m_issues = QcIssueList{};
    }

    FileInfo info;
    if (!queryFileInfo(m_path, info)) {
        report(Cat::File, Sev::Critical, -1, "Couldn't get file attributes");
        publishFacts();
        return false;
    }
    m_work.attributes = info.attributes;
    m_work.reserved = 0;
    m_work.fileSize = info.size;
    m_work.creationTime = info.creationTime;
    m_work.lastWriteTime = info.lastWriteTime;

    m_session = std::make_unique<ClipSession>(*this);
    ClipSession& session = *m_session;
    // A FIFO, a device or a folder under a clip's name is refused here, before any read
    // could wait for ever; a file on a hung mount may still block (the check's process is
    // then ended from outside).
    session.fd = openRegularFile(m_path);
    if (session.fd >= 0) {
        ::posix_fadvise(session.fd, 0, 0, POSIX_FADV_SEQUENTIAL);
        auto* buffer = static_cast<std::uint8_t*>(av_malloc(kIoBufferSize));
        session.io.reset(buffer == nullptr ? nullptr
                                           : avio_alloc_context(buffer, kIoBufferSize, 0, &session,
                                                                &ClipSession::readPacket, nullptr,
                                                                &ClipSession::seek));
        if (!session.io) {
            av_free(buffer);
        }
    }
    AVFormatContext* format = session.io ? avformat_alloc_context() : nullptr;
    if (format != nullptr && m_level >= 4) {
        session.log = std::make_unique<MediaLog>();
        session.log->watchDemuxer(*format);
    }
    if (format != nullptr) {
        format->pb = session.io.get();
        format->interrupt_callback = {&ClipSession::interruptCallback, &session};
        // A clip may name other files (playlists, references); never let it reach the network.
        format->protocol_whitelist = av_strdup("file");
        if (avformat_open_input(&format, m_path.c_str(), nullptr, nullptr) < 0) {
            format = nullptr; // freed by the failed open
        }
    }
    if (format == nullptr) {
        report(Cat::File, Sev::Critical, -1, "Couldn't open file");
        reportLogged();
        publishFacts();
        return false;
    }
    session.format.reset(format);
    EngineTrace(kTraceNormal, ".File openned\n");

    if (!findStreamInfo(format)) {
        EngineTrace(kTraceStreamInfo, "Couldn't find stream information\n");
        reportLogged();
        publishFacts();
        return false;
    }

    m_work.clipStart = toClipTicks(format->start_time, kMicroseconds);
    m_work.clipDuration = toClipTicks(format->duration, kMicroseconds);
    m_work.qcDuration = m_work.clipDuration;
    if (format->start_time == AV_NOPTS_VALUE) {
        report(Cat::MediaTime, Sev::Highest, -1, "Couldn't estimate clip start timecode");
    }
    if (format->duration == AV_NOPTS_VALUE) {
        report(Cat::MediaTime, Sev::Highest, -1, "Couldn't estimate clip duration");
    }
    const char* formatName = format->iformat != nullptr ? format->iformat->name : "";
    m_work.container = formatName;
    session.wavOrMp3 = ::strcasecmp(formatName, "wav") == 0 || ::strcasecmp(formatName, "mp3") == 0;
    m_work.container = formatName;

    session.packet.reset(av_packet_alloc());
    if (m_level >= 4) {
        session.detectors = DetectorThread::start();
    }
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        AVStream* avStream = format->streams[i];
        session.streams.push_back(std::make_unique<ClipStream>(*this, static_cast<int>(i)));
        ClipStream& stream = *session.streams.back();
        const AVMediaType type =
            avStream->codecpar != nullptr ? avStream->codecpar->codec_type : AVMEDIA_TYPE_UNKNOWN;
        if (type == AVMEDIA_TYPE_VIDEO && !session.wavOrMp3) {
            stream.setUp(avStream, m_level, m_decoderThreadOption);
            session.videoStreams.push_back(&stream);
        } else if (type == AVMEDIA_TYPE_AUDIO) {
            stream.setUp(avStream, m_level, m_decoderThreadOption);
            session.audioStreams.push_back(&stream);
        } else {
            stream.setUp(avStream, 0, m_decoderThreadOption);
        }
        const TimeBase timeBase{avStream->time_base.num, avStream->time_base.den};
        StreamFacts& facts = stream.facts();
        facts.headerStart = toClipTicks(avStream->start_time, timeBase);
        facts.headerDuration = toClipTicks(avStream->duration, timeBase);
        if (stream.checkLevel() > 0) {
            checkHeader(stream);
        }
    }
    m_opened = true;
    publishFacts();
    return true;
}

void ClipChecker::Close()
{
    if (!m_session) {
        return;
    }
    const bool hadContainer = static_cast<bool>(m_session->format);
    m_session.reset();
    if (hadContainer) {
        EngineTrace(kTraceNormal, ".Closed %s\n", m_path.c_str());
    }
}

void ClipChecker::reportLogged()
{
    if (!m_session || !m_session->log) {
        return;
    }
    for (const MediaLog::Entry& entry : m_session->log->takeEntries()) {
        const auto index = static_cast<std::size_t>(entry.stream);
        if (entry.stream >= 0 && index < m_session->streams.size()) {
            m_session->streams[index]->reportLogged(entry);
            continue;
        }
        char where[96] = "";
        if (entry.firstPosition >= 0) {
            std::snprintf(where, sizeof where, "%s byte %" PRId64,
                          entry.count > 1 ? ", first at" : ", at", entry.firstPosition);
        }
        report(Cat::File, severityOfLogged(entry, false, false), -1, "%s demuxer: %s (%s%s)",
               entry.source.c_str(), entry.text.c_str(), timesText(entry.count).c_str(), where);
    }
}

void ClipChecker::checkHeader(ClipStream& stream)
{
    const StreamFacts& facts = stream.facts();
    const ClipTicks c0 = m_work.clipStart;
    const ClipTicks cd = m_work.clipDuration;
    const int index = stream.index();
    if (facts.headerStart == kNoTime) {
        report(Cat::MediaTime, Sev::High, index, "Header: Start unknown");
        return;
    }
    const ClipTicks s = tickDifference(facts.headerStart, c0);
    if (const auto severity = severityOfDifference(s)) {
        report(Cat::MediaTime, *severity, index, "Header: Start time is off from clip by %s sec",
               formatMediaTime100ns(s).c_str());
    }
    if (facts.headerDuration == kNoTime || facts.headerDuration <= 0) {
        report(Cat::MediaTime, facts.type == StreamType::Audio ? Sev::Warning : Sev::High, index,
               "Header: Stream duration unknown");
        return;
    }
    const ClipTicks e = clampDifference(saturatingSub(saturatingAdd(s, facts.headerDuration), cd));
    if (const auto severity = severityOfDifference(e)) {
        if (e < 0) {
            report(Cat::MediaTime, *severity, index,
                   "Header: Stream is shorter than clip duration by %s sec",
                   formatMediaTime100ns(-e).c_str());
        } else {
            report(Cat::MediaTime, *severity, index,
                   "Header: Stream is longer than clip duration by %s sec",
                   formatMediaTime100ns(e).c_str());
        }
    }
}

void ClipChecker::checkDecoded(ClipStream& stream)
{
    const StreamFacts& facts = stream.facts();
    const ClipTicks c0 = m_work.clipStart;
    const ClipTicks cd = m_work.clipDuration;
    const int index = stream.index();
    if (facts.decodedStart == kNoTime) {
        report(Cat::MediaTime, Sev::Highest, index, "Decoded data have no start timecode");
    } else {
        const ClipTicks s = tickDifference(facts.decodedStart, c0);
        if (const auto severity = severityOfDifference(s)) {
            report(Cat::MediaTime, *severity, index,
                   "Decoded start difference from clip start of %s",
                   formatMediaTime100ns(s).c_str());
        }
        const ClipTicks decodedLength = tickDifference(facts.decodedEnd, facts.decodedStart);
        if (facts.decodedEnd != kNoTime && facts.headerDuration != kNoTime) {
            const ClipTicks e = tickDifference(decodedLength, facts.headerDuration);
            if (const auto severity = severityOfDifference(e)) {
                if (e < 0) {
                    report(Cat::MediaTime, *severity, index,
                           "Decoded duration %s sec under the one reported from header. Last "
                           "position %s",
                           formatMediaTime100ns(-e).c_str(),
                           formatMediaTime100ns(tickDifference(facts.decodedEnd, facts.headerStart))
                               .c_str());
                } else {
                    report(Cat::MediaTime, *severity, index,
                           "Decoded duration %s sec over the one reported from header. %s vs %s",
                           formatMediaTime100ns(e).c_str(),
                           formatMediaTime100ns(decodedLength).c_str(),
                           formatMediaTime100ns(facts.headerDuration).c_str());
                }
            }
        }
        if (cd != kNoTime && facts.decodedEnd != kNoTime) {
            const ClipTicks g = tickDifference(decodedLength, cd);
            if (const auto severity = severityOfDifference(g)) {
                if (g < 0) {
                    report(Cat::MediaTime, *severity, index,
                           "Gap at end: last decoded is %s sec before clip end. Last position %s",
                           formatMediaTime100ns(-g).c_str(),
                           formatMediaTime100ns(tickDifference(facts.decodedEnd, c0)).c_str());
                } else {
                    // The pair shows the stream's header duration, not the clip duration g
                    // was measured against: operators read it as "decoded vs declared".
                    report(Cat::MediaTime, *severity, index,
                           "Later end: last decoded %s sec over the clip end. %s vs %s",
                           formatMediaTime100ns(g).c_str(),
                           formatMediaTime100ns(decodedLength).c_str(),
                           formatMediaTime100ns(facts.headerDuration).c_str());
                }
            }
        }
    }
    if (facts.decodedEnd == kNoTime) {
        report(Cat::MediaTime, Sev::Highest, index, "Decoded data have no end timecode");
    }
}

void ClipChecker::correctDuration()
{
    const ClipTicks c0 = m_work.clipStart;
    ClipTicks latest = 0;
    for (const auto& stream : m_session->streams) {
        const StreamFacts& facts = stream->facts();
        if (stream->checkLevel() > 0 && stream->isVideoOrAudio() && facts.decodedEnd != kNoTime &&
            saturatingAdd(c0, latest) < facts.decodedEnd) {
            latest = saturatingSub(facts.decodedEnd, c0);
        }
    }
    if (saturatingAbs(tickDifference(m_work.qcDuration, latest)) >= kReportableDifference) {
        report(Cat::MediaTime, Sev::Warning, -1, "QC: Clip duration must be fixed from %s to %s",
               formatMediaTime100ns(m_work.qcDuration).c_str(),
               formatMediaTime100ns(latest).c_str());
        m_work.qcDuration = latest;
    }
}

} // namespace tarvoqc
