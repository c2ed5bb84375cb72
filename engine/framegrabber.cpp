#include "engine/framegrabber.h"

#include <algorithm>
#include <cmath>

#include <sys/stat.h>

#include "engine/clipchecker.h"
#include "engine/clipsession.h"
#include "engine/ffmpeg.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace tarvoqc {

namespace {

struct ScalerFreer
{
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};

constexpr int kJpegQuality = 5; // the encoder's quantiser scale: 2 best .. 31 worst

} // namespace

struct FrameGrabber::State
{
    av::FormatContextPtr format;
    av::CodecContextPtr decoder;
    av::PacketPtr packet{av_packet_alloc()};
    av::FramePtr frame{av_frame_alloc()};
    av::FramePtr kept{av_frame_alloc()};
    AVStream* stream = nullptr;

    // Decodes from the current place until a frame at or after target (stream ticks) is in
    // kept; at the end of the stream kept holds its last frame.
    // Gives the time of the first frame decoded (AV_NOPTS_VALUE: none or unknown).
    std::int64_t decodeUntil(std::int64_t target)
    {
        std::int64_t first = AV_NOPTS_VALUE;
        bool found = false;
        bool ended = false;
        int decoded = 0;
        while (!found && !ended && decoded < kMaxDecodedFrames) {
            if (av_read_frame(format.get(), packet.get()) < 0) {
                ended = true;
                avcodec_send_packet(decoder.get(), nullptr);
            } else if (packet->stream_index == stream->index) {
                avcodec_send_packet(decoder.get(), packet.get());
            }
            av_packet_unref(packet.get());
            while (!found && avcodec_receive_frame(decoder.get(), frame.get()) >= 0) {
                ++decoded;
                av_frame_unref(kept.get());
                av_frame_move_ref(kept.get(), frame.get());
                const std::int64_t time = kept->best_effort_timestamp;
                first = decoded == 1 ? time : first;
                found = time != AV_NOPTS_VALUE && time >= target;
            }
        }
        return first;
    }
};

FrameGrabber::FrameGrabber() : m_state(std::make_unique<State>()) {}

void FrameGrabber::silenceMediaLibraries()
{
    av_log_set_level(AV_LOG_QUIET);
}

FrameGrabber::~FrameGrabber() = default;

bool FrameGrabber::open(const std::string& path, std::string& why)
{
    m_state = std::make_unique<State>();
    State& s = *m_state;
    // Only a regular file, through the file protocol alone: a name is never taken for a
    // URL or another protocol ("concat:", "subfile:"), and a clip never reaches the network
    // or another file (playlists, references).
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        why = "the clip could not be opened";
        return false;
    }
    AVFormatContext* raw = avformat_alloc_context();
    if (raw == nullptr) {
        why = "out of memory";
        return false;
    }
    raw->protocol_whitelist = av_strdup("file");
    if (avformat_open_input(&raw, ("file:" + path).c_str(), nullptr, nullptr) < 0) {
        why = "the clip could not be opened";
        return false;
    }
    s.format.reset(raw);
    if (!findStreamInfo(s.format.get())) {
        why = "the clip's streams could not be read";
        return false;
    }
    const AVCodec* codec = nullptr;
    const int index = av_find_best_stream(s.format.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (index < 0 || codec == nullptr) {
        why = kNoVideo;
        return false;
    }
    s.stream = s.format->streams[index];
    const AVCodecParameters* params = s.stream->codecpar;
    if (static_cast<std::int64_t>(params->width) * params->height > kMaxPicturePixels) {
        why = "the clip's pictures are larger than any this tool decodes";
        return false;
    }
    s.decoder.reset(avcodec_alloc_context3(codec));
    if (!s.decoder || avcodec_parameters_to_context(s.decoder.get(), params) < 0) {
        why = "the clip's video decoder could not be set up";
        return false;
    }
    s.decoder->thread_count = 1;
    s.decoder->max_pixels = kMaxPicturePixels;
    if (avcodec_open2(s.decoder.get(), codec, nullptr) < 0) {
        why = "the clip's video decoder could not be opened";
        return false;
    }
    if (!s.packet || !s.frame || !s.kept) {
        why = "out of memory";
        return false;
    }
    return true;
}

double FrameGrabber::duration() const
{
    const AVFormatContext* format = m_state->format.get();
    return format == nullptr || format->duration == AV_NOPTS_VALUE
               ? 0.0
               : static_cast<double>(format->duration) / AV_TIME_BASE;
}

std::string FrameGrabber::grab(double at, int width)
{
    State& s = *m_state;
    if (!s.decoder || width < 16 || !std::isfinite(at)) {
        return {};
    }
    // The wanted time in the stream's own ticks.
    const AVRational base = s.stream->time_base;
    const double start = s.format->start_time == AV_NOPTS_VALUE
                             ? 0.0
                             : static_cast<double>(s.format->start_time) / AV_TIME_BASE;
    const double wanted = std::max(0.0, at) + start;
    const auto target =
        static_cast<std::int64_t>(std::clamp(wanted / av_q2d(base), -9.0e15, 9.0e15));
    // Demuxers that seek by bytes (MPEG-TS) may land after the place asked for, or past the
    // last frame at the very end: then again from a little earlier, and at last from the
    // start.
    const double back[] = {0.0, 1.0, 5.0, -1.0};
    for (const double earlier : back) {
        const std::int64_t from =
            earlier < 0 ? (s.stream->start_time == AV_NOPTS_VALUE ? 0 : s.stream->start_time)
                        : target - static_cast<std::int64_t>(earlier / av_q2d(base));
        if (av_seek_frame(s.format.get(), s.stream->index, from, AVSEEK_FLAG_BACKWARD) < 0) {
            continue;
        }
        avcodec_flush_buffers(s.decoder.get());
        av_frame_unref(s.kept.get());
        const std::int64_t first = s.decodeUntil(target);
        const bool overshot = first != AV_NOPTS_VALUE && first > target;
        if (s.kept->width > 0 && (!overshot || earlier < 0)) {
            break;
        }
    }
    const AVFrame& picture = *s.kept;
    if (picture.width <= 0 || picture.height <= 0 || picture.format < 0) {
        return {};
    }

    // Scale to the width asked for, by the picture's display aspect ratio.
    AVRational aspect = picture.sample_aspect_ratio;
    if (aspect.num <= 0 || aspect.den <= 0) {
        aspect = {1, 1};
    }
    const double ratio =
        static_cast<double>(picture.height) / (static_cast<double>(picture.width) * av_q2d(aspect));
    const int height =
        std::clamp(2 * static_cast<int>(std::lround(width * ratio / 2)), 2, 4 * width);
    std::unique_ptr<SwsContext, ScalerFreer> scaler(
        sws_getContext(picture.width, picture.height, static_cast<AVPixelFormat>(picture.format),
                       width, height, AV_PIX_FMT_YUVJ420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
    av::FramePtr small(av_frame_alloc());
    if (!scaler || !small) {
        return {};
    }
    small->format = AV_PIX_FMT_YUVJ420P;
    small->width = width;
    small->height = height;
    if (av_frame_get_buffer(small.get(), 0) < 0 ||
        sws_scale(scaler.get(), picture.data, picture.linesize, 0, picture.height, small->data,
                  small->linesize) <= 0) {
        return {};
    }

    const AVCodec* jpeg = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    av::CodecContextPtr encoder(jpeg != nullptr ? avcodec_alloc_context3(jpeg) : nullptr);
    if (!encoder) {
        return {};
    }
    encoder->width = width;
    encoder->height = height;
    encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
    encoder->time_base = {1, 25};
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = FF_QP2LAMBDA * kJpegQuality;
    small->quality = encoder->global_quality;
    small->pts = 0;
    if (avcodec_open2(encoder.get(), jpeg, nullptr) < 0 ||
        avcodec_send_frame(encoder.get(), small.get()) < 0 ||
        avcodec_receive_packet(encoder.get(), s.packet.get()) < 0) {
        return {};
    }
    std::string bytes(reinterpret_cast<const char*>(s.packet->data),
                      static_cast<std::size_t>(s.packet->size));
    av_packet_unref(s.packet.get());
    return bytes;
}

} // namespace tarvoqc
