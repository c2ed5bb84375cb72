#include <algorithm>

#include <fcntl.h>
#include <unistd.h>

#include "engine/clipchecker.h"
#include "engine/clipkeys.h"
#include "engine/clipsession.h"
#include "engine/enginetrace.h"
#include "engine/fileinfo.h"

namespace tarvoqc {

namespace {

using Cat = QcIssueCategory;
using Sev = QcSeverity;

} // namespace

int ClipChecker::Run(const std::atomic<std::int32_t>* cancelFlag)
{
    if (m_level < 2 || !m_session || !m_session->format) {
        m_progress.store(kProgressMax, std::memory_order_relaxed);
        return 1;
    }
    m_progress.store(0, std::memory_order_relaxed);
    m_cancelFlag = cancelFlag;

    int hashFd = openRegularFile(m_path);
    if (hashFd >= 0 && isWriteLocked(hashFd)) {
        ::close(hashFd);
        hashFd = -1;
    }
    if (hashFd < 0) {
        report(Cat::File, Sev::Critical, -1, "Couldn't open, file is write locked");
        m_cancelFlag = nullptr;
        publishFacts();
        return -9;
    }
    ::posix_fadvise(hashFd, 0, 0, POSIX_FADV_SEQUENTIAL);
    startHash(hashFd);

    try {
        if (readPackets()) {
            flushDecoders();
        }
    } catch (...) {
        report(Cat::File, Sev::Critical, -1, "Error exception while query the stream");
    }

    finishHash();
    checkUnchanged();

    if (m_level >= 3) {
        for (const auto& stream : m_session->streams) {
            stream->computeDecodedValues();
            if (stream->checkLevel() > 0 && stream->isVideoOrAudio()) {
                checkDecoded(*stream);
            }
        }
        correctDuration();
    }
    if (m_level >= 4) {
        for (const auto& stream : m_session->streams) {
            stream->finishContentChecks();
        }
        reportLogged();
    }
    m_cancelFlag = nullptr;
    m_progress.store(kProgressMax, std::memory_order_relaxed);
    publishFacts();
    return 1;
}

bool ClipChecker::readPackets()
{
    AVFormatContext* format = m_session->format.get();
    AVPacket* packet = m_session->packet.get();
    const std::int64_t fileSize = static_cast<std::int64_t>(m_work.fileSize);
    const auto streamCount = static_cast<int>(m_session->streams.size());
    while (true) {
        if (m_cancelFlag != nullptr && m_cancelFlag->load(std::memory_order_relaxed) != 0) {
            return false;
        }
        av_packet_unref(packet);
        m_activity.fetch_add(1, std::memory_order_relaxed);
        const int rc = av_read_frame(format, packet);
        if (rc < 0) {
            if (rc == AVERROR_EOF) {
                EngineTrace(kTraceNormal, "End of file.\n");
                return true;
            }
            return false; // a demuxer error ends the pass without flushing, and without an issue
        }
        if (packet->pos >= 0 && packet->pos <= fileSize) {
            std::int64_t progress =
                fileSize > 0 ? av_rescale(packet->pos, kProgressMax, fileSize) : 0;
            progress = std::clamp<std::int64_t>(progress, 0, kProgressMax);
            advanceHash(packet->pos);
            m_progress.store(static_cast<std::int32_t>(progress), std::memory_order_relaxed);
        }
        if (packet->stream_index < 0 || packet->stream_index >= streamCount) {
            EngineTrace(kTraceInvalidPacket, "Invalid packet index\n");
            report(Cat::Frames, Sev::Low, -1, "Invalid packet stream index %d",
                   packet->stream_index);
            continue;
        }
        ClipStream& stream = *m_session->streams[static_cast<std::size_t>(packet->stream_index)];
        if (stream.isVideoOrAudio()) {
            stream.handlePacket(packet);
        }
    }
}

void ClipChecker::startHash(int fd)
{
    m_work.hash256.clear();
    m_work.fkey = 0;
    // The hash runs on a thread of its own beside the decoder, on the same file pages.
    m_session->hash =
        std::make_unique<HashReader>(fd, m_work.fileSize, HashReader::Mode::Background);
}

void ClipChecker::advanceHash(std::int64_t position)
{
    m_session->hash->advanceTo(position);
}

void ClipChecker::finishHash()
{
    const FileDigest digest = m_session->hash->finish();
    m_work.hash256 = makeHash256(digest);
    m_work.fkey = makeFKey(digest);
    m_session->hash.reset();
}

void ClipChecker::checkUnchanged()
{
    // The keys and the facts hold only for the file as it was at open: a clip cut or
    // rewritten in place meanwhile (seen on the handle), or replaced under its name (seen
    // on the path), is described by neither version.
    FileInfo handle;
    FileInfo named;
    const auto same = [this](const FileInfo& now) {
        return now.size == m_work.fileSize && now.lastWriteTime == m_work.lastWriteTime;
    };
    if (!queryFileInfo(m_session->fd, handle) || !same(handle) || !queryFileInfo(m_path, named) ||
        !same(named)) {
        report(Cat::File, Sev::High, -1, "File changed while being checked");
    }
}

void ClipChecker::flushDecoders()
{
    av_packet_unref(m_session->packet.get());
    for (const auto& stream : m_session->streams) {
        stream->handlePacket(nullptr);
    }
}

} // namespace tarvoqc
