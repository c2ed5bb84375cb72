#pragma once

#include <cstdint>
#include <memory>

#include "engine/ffmpeg.h"
#include "engine/medialog.h"
#include "results/mediatime.h"
#include "results/qcresult.h"

namespace tarvoqc {

class ClipChecker;
class ContentChecks;

// One container stream of an open clip: its facts, its decoder and the time-stamp state
// of the read pass. Owned by the clip's session; used only on the checker's thread.
class ClipStream
{
public:
    ClipStream(ClipChecker& owner, int index);
    virtual ~ClipStream();
    ClipStream(const ClipStream&) = delete;
    ClipStream& operator=(const ClipStream&) = delete;

    // Keeps the container stream, stores its facts and, when checkLevel is above 2, opens
    // its decoder. What stands in the way (no codec parameters, no frame duration, no
    // decoder, a decoder that does not open) becomes an issue of the owner, and the stream
    // is then checked without a decoder.
    void setUp(AVStream* stream, int checkLevel, int decoderThreadOption);

    // The read pass: one packet, or the end-of-file flush when packet is null.
    void handlePacket(const AVPacket* packet);

    // Rescales the first/next frame time stamps into the decoded start and end.
    void computeDecodedValues();

    // Level 4: reports what the picture and sound checks found, after the pass, and whether
    // the stream decoded at all.
    void finishContentChecks();
    // Level 4: reports one kind of message that this stream's decoder logged.
    void reportLogged(const MediaLog::Entry& entry);

    StreamFacts& facts() { return m_facts; }
    const StreamFacts& facts() const { return m_facts; }
    int index() const { return m_index; }
    int checkLevel() const { return m_checkLevel; }
    TimeBase timeBase() const { return m_timeBase; }
    bool isVideoOrAudio() const
    {
        return m_facts.type == StreamType::Video || m_facts.type == StreamType::Audio;
    }

private:
    // The facts a delivery profile compares: pixel format, field order, bit depth, colour.
    void describeFormat(const AVCodecParameters& params);
    void checkPacketTime(const AVPacket& packet);
    // Sends packet (null: the end-of-file drain) and gives every frame that comes out to
    // onFrame, in order. False when the decoder refused the packet or failed on a frame.
    template <typename OnFrame> bool decode(const AVPacket* packet, OnFrame&& onFrame);
    void decodeVideo(const AVPacket* packet);
    void decodeAudio(const AVPacket* packet);
    void checkFrame(std::int64_t time, std::int64_t duration);
    // Position text of a stream time stamp measured from the container stream's start.
    std::string positionText(std::int64_t time) const;
    // The same place as a number: ClipTicks from the stream's start; kNoTime for none.
    ClipTicks positionTicks(std::int64_t time) const;
    // a - b in the stream time base, as ClipTicks (saturating, never the no-value number).
    ClipTicks ticksBetween(std::int64_t a, std::int64_t b) const;

    ClipChecker& m_owner;
    const int m_index;
    int m_checkLevel = 0;
    StreamFacts m_facts;

    AVStream* m_stream = nullptr;
    TimeBase m_timeBase{};
    std::int64_t m_streamStart = kNoTime; // the container stream's start, stream time base
    const AVCodec* m_decoder = nullptr;
    av::CodecContextPtr m_context;
    av::FramePtr m_frame;
    std::unique_ptr<ContentChecks> m_content; // level 4 only
    MediaLog* m_log = nullptr;                // level 4: the session's, when it watches us
    // Level 4: packets with data given to the decoder, those it failed on, frames it gave.
    std::int64_t m_packets = 0;
    std::int64_t m_failedPackets = 0;
    std::int64_t m_frames = 0;

    // Stream time base, or kNoTime.
    std::int64_t m_firstPacketTime = kNoTime;
    std::int64_t m_nextPacketTime = kNoTime;
    std::int64_t m_firstFrameTime = kNoTime;
    std::int64_t m_nextFrameTime = kNoTime;
    std::int64_t m_frameDuration = kNoTime; // video only, stream time-base ticks
};

} // namespace tarvoqc
