#pragma once

// The one place the engine includes the media libraries, with owners for their objects.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/dict.h>
#include <libavutil/mathematics.h>
#include <libavutil/pixdesc.h>

#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
}

#include <memory>

namespace tarvoqc::av {

struct FormatContextCloser
{
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct CodecContextFreer
{
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FrameFreer
{
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketFreer
{
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct IoContextFreer
{
    void operator()(AVIOContext* io) const
    {
        if (io != nullptr) {
            av_freep(&io->buffer);
        }
        avio_context_free(&io);
    }
};

struct FilterGraphFreer
{
    void operator()(AVFilterGraph* graph) const { avfilter_graph_free(&graph); }
};

using FormatContextPtr = std::unique_ptr<AVFormatContext, FormatContextCloser>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextFreer>;
using FramePtr = std::unique_ptr<AVFrame, FrameFreer>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFreer>;
using IoContextPtr = std::unique_ptr<AVIOContext, IoContextFreer>;
using FilterGraphPtr = std::unique_ptr<AVFilterGraph, FilterGraphFreer>;

} // namespace tarvoqc::av
