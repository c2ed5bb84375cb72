#pragma once

#include <memory>
#include <string>

namespace tarvoqc {

// Takes small still pictures of a clip's first video stream as JPEG files, for reports:
// seek, decode, scale, encode, all through the media libraries.
//
// Thread-safety: none; one object per thread. A clip may be hostile: a picture costs at most
// four seeks of kMaxDecodedFrames decoded frames each, pictures larger than the engine's
// limit are refused like in a check, and only regular files are opened, through the file
// protocol alone. Read hostile clips in a restricted process (batch/checkworker.h).
class FrameGrabber
{
public:
    FrameGrabber();
    ~FrameGrabber();
    FrameGrabber(const FrameGrabber&) = delete;
    FrameGrabber& operator=(const FrameGrabber&) = delete;

    // Opens path and its first video stream's decoder. False (and why, for people) when
    // the clip cannot be opened or has no decodable video (why is then kNoVideo).
    bool open(const std::string& path, std::string& why);

    // The clip's length in seconds as its container states it; 0 when unknown.
    double duration() const;

    // The picture shown at seconds from the clip's start (the first frame at or after it;
    // past the end, the last frame), scaled to width pixels wide (height by the picture's
    // aspect ratio, even), as JPEG bytes. Empty when no frame could be had.
    std::string grab(double seconds, int width);

    static constexpr const char* kNoVideo = "the clip has no video that can be decoded";
    // Keeps the media libraries' own messages off standard error for the rest of the
    // process (a report's picture reader; a check keeps them, see enginetrace.h).
    static void silenceMediaLibraries();

    // Frames a grab decodes at most after each seek before it gives up.
    static constexpr int kMaxDecodedFrames = 600;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace tarvoqc
