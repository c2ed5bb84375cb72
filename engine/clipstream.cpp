#include "engine/clipstream.h"

#include <algorithm>
#include <cinttypes>
#include <limits>

#include "engine/clipchecker.h"
#include "engine/clipsession.h"
#include "engine/contentchecks.h"
#include "engine/enginetrace.h"
#include "engine/timechecks.h"

namespace tarvoqc {

namespace {

using Cat = QcIssueCategory;
using Sev = QcSeverity;

StreamType streamTypeOf(AVMediaType type)
{
    switch (type) {
    case AVMEDIA_TYPE_VIDEO:
        return StreamType::Video;
    case AVMEDIA_TYPE_AUDIO:
        return StreamType::Audio;
    case AVMEDIA_TYPE_DATA:
        return StreamType::Data;
    case AVMEDIA_TYPE_SUBTITLE:
        return StreamType::Subtitle;
    case AVMEDIA_TYPE_ATTACHMENT:
        return StreamType::Attach;
    default:
        return StreamType::Unknown;
    }
}

// The frame duration in stream time-base ticks, (tb.den * rate.den) / (tb.num * rate.num),
// taken in 32-bit arithmetic with truncating division as the check has always done it.
// The products wrap as 32-bit values; a zero or overflowing division gives 0, which the
// caller refuses as "Cannot obtain frame rate".
std::int64_t frameDurationOf(AVRational timeBase, AVRational rate)
{
    const auto wrap = [](std::int64_t a, std::int64_t b) {
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(a * b));
    };
    const std::int32_t dividend = wrap(timeBase.den, rate.den);
    const std::int32_t divisor = wrap(timeBase.num, rate.num);
    if (divisor == 0 || (dividend == std::numeric_limits<std::int32_t>::min() && divisor == -1)) {
        return 0;
    }
    return dividend / divisor;
}

} // namespace

ClipStream::ClipStream(ClipChecker& owner, int index) : m_owner(owner), m_index(index) {}

ClipStream::~ClipStream() = default;

void ClipStream::describeFormat(const AVCodecParameters& params)
{
    const auto name = [](const char* text) { return std::string(text != nullptr ? text : ""); };
    if (params.codec_type == AVMEDIA_TYPE_VIDEO) {
        const auto format = static_cast<AVPixelFormat>(params.format);
        m_facts.pixelFormat = name(av_get_pix_fmt_name(format));
        m_facts.fieldOrder = static_cast<std::int32_t>(params.field_order);
        m_facts.bitDepth = params.bits_per_raw_sample;
        if (const AVPixFmtDescriptor* pixel = av_pix_fmt_desc_get(format);
            m_facts.bitDepth <= 0 && pixel != nullptr && pixel->nb_components > 0) {
            m_facts.bitDepth = pixel->comp[0].depth;
        }
        m_facts.colourPrimaries = name(av_color_primaries_name(params.color_primaries));
        m_facts.colourTransfer = name(av_color_transfer_name(params.color_trc));
        m_facts.colourMatrix = name(av_color_space_name(params.color_space));
    } else if (params.codec_type == AVMEDIA_TYPE_AUDIO) {
        // As stored: 24-bit PCM is decoded into 32-bit samples, and its raw depth says 24.
        m_facts.bitDepth = params.bits_per_raw_sample > 0     ? params.bits_per_raw_sample
                           : params.bits_per_coded_sample > 0 ? params.bits_per_coded_sample
                                                              : 0;
    }
}

void ClipStream::setUp(AVStream* stream, int checkLevel, int decoderThreadOption)
{
    m_stream = stream;
    if (stream == nullptr) {
        return;
    }
    const AVCodecParameters* params = stream->codecpar;
    if (params == nullptr) {
        return;
    }
    m_checkLevel = checkLevel;
    m_timeBase = {stream->time_base.num, stream->time_base.den};
    m_streamStart = stream->start_time == AV_NOPTS_VALUE ? kNoTime : stream->start_time;
    m_facts.type = streamTypeOf(params->codec_type);
    m_facts.codecName = avcodec_get_name(params->codec_id);
    m_facts.width = params->width;
    m_facts.height = params->height;
    m_facts.sampleAspectNum = params->sample_aspect_ratio.num;
    m_facts.sampleAspectDen = params->sample_aspect_ratio.den;
    m_facts.frameRateNum = stream->r_frame_rate.num;
    m_facts.frameRateDen = stream->r_frame_rate.den;
    m_facts.channels = params->ch_layout.nb_channels;
    m_facts.sampleRate = params->sample_rate;
    describeFormat(*params);
    if (const AVDictionaryEntry* language = av_dict_get(stream->metadata, "language", nullptr, 0);
        language != nullptr && language->value != nullptr) {
        // Up to four bytes, until the value ends; not terminated when all four are used.
        for (std::size_t i = 0; i < m_facts.language.size() && language->value[i] != '\0'; ++i) {
            m_facts.language[i] = language->value[i];
        }
    }

    if (m_facts.type == StreamType::Video) {
        const AVRational rate = stream->r_frame_rate;
        if (rate.num == 0 || rate.den == 0) {
            m_frameDuration = kNoTime;
            m_owner.report(Cat::MediaTime, Sev::Low, m_index,
                           "Cannot calc frame rate, skip checking");
        } else {
            m_frameDuration = frameDurationOf(stream->time_base, rate);
            if (m_frameDuration <= 0) {
                m_owner.report(Cat::MediaTime, Sev::Critical, m_index, "Cannot obtain frame rate");
                return;
            }
        }
    }

    const std::int64_t start = stream->start_time;
    EngineTrace(kTraceNormal,
                "..Stream %d Tbase:%d/%d start_time:%" PRId64 " = %.4f sec. rate:%d/%d\n", m_index,
                stream->time_base.num, stream->time_base.den, start,
                stream->time_base.den != 0
                    ? static_cast<double>(start) * stream->time_base.num / stream->time_base.den
                    : 0.0,
                stream->r_frame_rate.num, stream->r_frame_rate.den);

    m_decoder = avcodec_find_decoder(params->codec_id);
    if (m_decoder == nullptr) {
        if (isVideoOrAudio()) {
            m_owner.report(Cat::Codec, Sev::Critical, m_index, "Cannot decode");
            return;
        }
        return;
    }
    if (checkLevel <= 2) {
        return;
    }

    m_context.reset(avcodec_alloc_context3(m_decoder));
    if (!m_context || avcodec_parameters_to_context(m_context.get(), params) < 0) {
        m_context.reset();
        m_owner.report(Cat::Codec, Sev::Critical, m_index, "Cannot setup decoder");
        return;
    }
    EngineTrace(kTraceNormal, "..Stream %d [%s]- %s\n", m_index, m_decoder->name,
                m_decoder->long_name != nullptr ? m_decoder->long_name : "");
    m_context->pkt_timebase = stream->time_base;
    // A thread count of the options is used as it stands (frame and slice threads, as the
    // decoder supports them); otherwise the context keeps the library's own setting.
    const int threads = std::max(m_owner.m_options.decoderThreads, 1);
    if (m_owner.m_options.decoderThreads > 0) {
        m_context->thread_count = threads;
        m_context->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
    } else if (decoderThreadOption < 0) {
        m_context->thread_count = 1;
    }
    m_context->max_pixels = kMaxPicturePixels;
    if (checkLevel >= 4 && isVideoOrAudio() && m_owner.m_session && m_owner.m_session->log) {
        // Level 4 hears what the decoder logs, and has it check the checksums its format
        // carries (FLAC's frame CRCs, for one, are only checked when asked).
        m_log = m_owner.m_session->log.get();
        m_log->watchDecoder(*m_context, m_index);
        m_context->err_recognition |= AV_EF_CRCCHECK;
    }
    if (avcodec_open2(m_context.get(), m_decoder, nullptr) < 0) {
        m_owner.report(Cat::Codec, Sev::Critical, m_index, "...Could not open codec %s\n",
                       m_decoder->name);
        m_context.reset();
        m_decoder = nullptr;
        return;
    }
    m_frame.reset(av_frame_alloc());
    if (!m_frame) {
        m_context.reset();
        return;
    }
    if (checkLevel >= 4 && isVideoOrAudio()) {
        m_content = std::make_unique<ContentChecks>(m_owner, m_index, *m_context, stream->time_base,
                                                    m_streamStart, m_owner.m_options, threads,
                                                    m_owner.m_session->detectors.get());
    }
}

ClipTicks ClipStream::ticksBetween(std::int64_t a, std::int64_t b) const
{
    std::int64_t difference = saturatingSub(a, b);
    if (difference == kNoTime) {
        difference = kNoTime + 1; // saturated below, but a known (very large) difference
    }
    return clampDifference(rescaleTime(difference, m_timeBase, kClipTimeBase));
}

std::string ClipStream::positionText(std::int64_t time) const
{
    return formatMediaTime(saturatingSub(time, m_streamStart), m_timeBase);
}

ClipTicks ClipStream::positionTicks(std::int64_t time) const
{
    if (time == kNoTime) {
        return kNoTime;
    }
    const std::int64_t offset = saturatingSub(time, m_streamStart);
    return offset == kNoTime ? kNoTime : rescaleTime(offset, m_timeBase, kClipTimeBase);
}

void ClipStream::handlePacket(const AVPacket* packet)
{
    if (packet != nullptr && packet->size > 0) {
        m_facts.byteCount += packet->size;
    }
    if (packet != nullptr && m_checkLevel == 2 && packet->data != nullptr && packet->size >= 1 &&
        packet->dts != AV_NOPTS_VALUE) {
        checkPacketTime(*packet);
    }
    if (!m_context) {
        return;
    }
    if (m_context->codec_type == AVMEDIA_TYPE_AUDIO) {
        decodeAudio(packet);
    } else if (m_context->codec_type == AVMEDIA_TYPE_VIDEO) {
        decodeVideo(packet);
    }
}

void ClipStream::checkPacketTime(const AVPacket& packet)
{
    if (m_firstPacketTime == kNoTime) {
        m_firstPacketTime = packet.dts;
    }
    if (m_nextPacketTime != kNoTime) {
        const ClipTicks d = ticksBetween(packet.dts, m_nextPacketTime);
        const std::optional<QcSeverity> severity = severityOfDifference(d);
        // A step back counts from beyond 0.01 s, a gap from 0.01 s on.
        if (severity && d < -kReportableDifference) {
            m_owner.reportAt(Cat::Frames, *severity, m_index, positionTicks(packet.dts), kNoTime,
                             "Wrong packet TC of %s at %s", formatMediaTime100ns(d).c_str(),
                             positionText(packet.dts).c_str());
        } else if (severity && d > 0) {
            m_owner.reportAt(Cat::Frames, *severity, m_index, positionTicks(packet.dts), kNoTime,
                             "Gap in stream TC of %s at %s", formatMediaTime100ns(d).c_str(),
                             positionText(packet.dts).c_str());
        }
    }
    m_nextPacketTime = saturatingAdd(packet.dts, packet.duration);
}

template <typename OnFrame> bool ClipStream::decode(const AVPacket* packet, OnFrame&& onFrame)
{
    const bool hasData = packet != nullptr && packet->data != nullptr && packet->size > 0;
    if (m_log != nullptr && hasData) {
        // Where the decoder's messages about this packet were logged (frame threads copy it).
        m_context->reordered_opaque = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    }
    int sent = avcodec_send_packet(m_context.get(), packet);
    bool resent = false;
    bool failed = false;
    while (true) {
        const int received = avcodec_receive_frame(m_context.get(), m_frame.get());
        if (received == AVERROR(EAGAIN) || received == AVERROR_EOF) {
            if (sent == AVERROR(EAGAIN) && !resent) {
                // The decoder was full; now that its frames are out it takes the packet.
                resent = true;
                sent = avcodec_send_packet(m_context.get(), packet);
                continue;
            }
            break;
        }
        if (received < 0) {
            failed = true;
            break;
        }
        if (m_frames++ == 0 && m_log != nullptr) {
            m_log->frameDecoded(m_index);
        }
        onFrame(*m_frame);
        av_frame_unref(m_frame.get());
    }
    const bool decoded = !failed && (sent >= 0 || sent == AVERROR(EAGAIN) || sent == AVERROR_EOF);
    if (hasData) {
        ++m_packets;
        m_failedPackets += decoded ? 0 : 1;
    }
    return decoded;
}

void ClipStream::decodeVideo(const AVPacket* packet)
{
    // Below level 4 pictures need not be exact: only their presence and time stamps are
    // checked. Level 4 looks at the pictures themselves.
    if (!m_content) {
        m_context->skip_loop_filter = AVDISCARD_ALL;
        m_context->skip_idct = AVDISCARD_ALL;
    }

    const bool hasData = packet != nullptr && packet->data != nullptr && packet->size > 0;
    const bool decoded = decode(packet, [&](const AVFrame& frame) {
        const std::int64_t time = frame.best_effort_timestamp;
        if (time == AV_NOPTS_VALUE) {
            if (hasData) {
                m_owner.report(Cat::Frames, Sev::Low, m_index,
                               "Error in decoded frame, no timecode.");
            }
        } else if (m_frameDuration != kNoTime && m_frameDuration > 0) {
            checkFrame(time, m_frameDuration);
        }
        if (m_content) {
            m_content->addFrame(frame, time, m_frameDuration);
        }
    });
    if (!decoded) {
        const std::int64_t dts = packet != nullptr ? packet->dts : kNoTime;
        m_owner.reportAt(Cat::Frames, Sev::Low, m_index, positionTicks(dts), kNoTime,
                         "Error decoding packet at %s", positionText(dts).c_str());
    }
}

void ClipStream::decodeAudio(const AVPacket* packet)
{
    if (packet != nullptr && packet->size <= 0) {
        return;
    }
    const bool decoded = decode(packet, [&](const AVFrame& frame) {
        if (frame.nb_samples <= 0) {
            return;
        }
        const std::int64_t time = frame.best_effort_timestamp;
        const int contextChannels = m_context->ch_layout.nb_channels;
        const int frameChannels = frame.ch_layout.nb_channels;
        if (contextChannels != frameChannels || m_context->sample_rate != frame.sample_rate) {
            m_owner.reportAt(Cat::Frames, Sev::Highest, m_index, positionTicks(time), kNoTime,
                             "Codec/data format mismatch at %s: %dx%d vs %dx%d",
                             positionText(time).c_str(), contextChannels, m_context->sample_rate,
                             frameChannels, frame.sample_rate);
        }
        const std::int64_t duration =
            frame.sample_rate > 0
                ? rescaleTime(frame.nb_samples, {1, frame.sample_rate}, m_timeBase)
                : kNoTime;
        if (time != AV_NOPTS_VALUE && frame.sample_rate > 0) {
            // Samples in the stream time base: samples * den / (num * rate), rounded.
            checkFrame(time, duration);
        }
        if (m_content) {
            m_content->addFrame(frame, time, duration);
        }
    });
    if (!decoded) {
        const std::int64_t dts = packet != nullptr ? packet->dts : kNoTime;
        m_owner.reportAt(Cat::Codec, Sev::Low, m_index, positionTicks(dts), kNoTime,
                         "Error decoding packet at %s", positionText(dts).c_str());
    }
}

void ClipStream::checkFrame(std::int64_t time, std::int64_t duration)
{
    if (time == kNoTime) {
        return;
    }
    if (m_firstFrameTime == kNoTime) {
        m_firstFrameTime = time;
    }
    if (m_nextFrameTime != kNoTime) {
        const ClipTicks d = ticksBetween(time, m_nextFrameTime);
        const std::optional<QcSeverity> severity = severityOfDifference(d);
        if (severity && d < -kReportableDifference) {
            m_owner.reportAt(Cat::Frames, *severity, m_index, positionTicks(time), kNoTime,
                             "Wrong TC of %s at %s", formatMediaTime100ns(d).c_str(),
                             positionText(time).c_str());
        } else if (severity && d > 0) {
            m_owner.reportAt(Cat::Frames, *severity, m_index, positionTicks(time), kNoTime,
                             "Gap in TC of %s at %s", formatMediaTime100ns(d).c_str(),
                             positionText(time).c_str());
        }
    }
    // The check follows the new time line after a jump: one discontinuity, one issue.
    m_nextFrameTime = saturatingAdd(time, duration == kNoTime ? 0 : duration);
}

void ClipStream::finishContentChecks()
{
    if (!m_content) {
        return;
    }
    m_content->finish();
    // A stream that (mostly) does not decode is not playable, whatever else it passes.
    if (m_packets > 0 && m_frames == 0) {
        m_owner.report(Cat::Codec, Sev::Highest, m_index,
                       "Stream not decodable: %" PRId64 " packets, no frame decoded", m_packets);
    } else if (m_failedPackets * 2 > m_packets) {
        m_owner.report(
            Cat::Codec, m_failedPackets * 10 >= m_packets * 9 ? Sev::Highest : Sev::High, m_index,
            "Stream mostly not decodable: %" PRId64 " of %" PRId64 " packets failed to decode",
            m_failedPackets, m_packets);
    }
}

void ClipStream::reportLogged(const MediaLog::Entry& entry)
{
    const AVCodecDescriptor* codec =
        m_context ? avcodec_descriptor_get(m_context->codec_id) : nullptr;
    const bool lossless = codec != nullptr && (codec->props & AV_CODEC_PROP_LOSSLESS) != 0 &&
                          (codec->props & AV_CODEC_PROP_LOSSY) == 0;
    std::string where;
    ClipTicks at = kNoTime;
    if (entry.firstPosition != AV_NOPTS_VALUE) {
        where = (entry.count > 1 ? ", first at " : ", at ") + positionText(entry.firstPosition);
        at = positionTicks(entry.firstPosition);
    }
    m_owner.reportAt(m_facts.type == StreamType::Video ? Cat::Video : Cat::Audio,
                     severityOfLogged(entry, lossless, m_frames > 0), m_index, at, kNoTime,
                     "%s decoder: %s (%s%s)", entry.source.c_str(), entry.text.c_str(),
                     timesText(entry.count).c_str(), where.c_str());
}

void ClipStream::computeDecodedValues()
{
    m_facts.decodedStart = rescaleTime(m_firstFrameTime, m_timeBase, kClipTimeBase);
    m_facts.decodedEnd = rescaleTime(m_nextFrameTime, m_timeBase, kClipTimeBase);
}

} // namespace tarvoqc
