#pragma once

#include <memory>
#include <vector>

#include "engine/clipstream.h"
#include "engine/detectorthread.h"
#include "engine/ffmpeg.h"
#include "engine/hashreader.h"
#include "engine/medialog.h"

namespace tarvoqc {

// Reads the stream information with the picture-size limit (kMaxPicturePixels) on every
// decoder the library opens for it, so that a small file claiming a huge picture cannot cost
// gigabytes. False when the library failed.
bool findStreamInfo(AVFormatContext* format);

class ClipChecker;

// Everything an open clip holds from the media libraries and the file system, owned by
// the ClipChecker and released in Close.
struct ClipSession
{
    explicit ClipSession(ClipChecker& owner) : owner(owner) {}
    ~ClipSession();
    ClipSession(const ClipSession&) = delete;
    ClipSession& operator=(const ClipSession&) = delete;

    ClipChecker& owner;
    // Level 4: what the demuxer and the decoders log. Declared first, so that it goes last,
    // after every context it watches.
    std::unique_ptr<MediaLog> log;
    int fd = -1; // the demuxer's own handle on the clip
    av::IoContextPtr io;
    av::FormatContextPtr format; // declared after io: closed before it
    av::PacketPtr packet;
    std::vector<std::unique_ptr<ClipStream>> streams; // position = container stream index
    std::vector<ClipStream*> videoStreams;
    std::vector<ClipStream*> audioStreams;
    bool wavOrMp3 = false;
    // The file hash of the read pass: its own read handle, kept just behind the demuxer.
    std::unique_ptr<HashReader> hash;
    // Level 4: the thread of the picture and sound detectors. Declared after the streams,
    // whose checks it works for, so that it stops before they go.
    std::unique_ptr<DetectorThread> detectors;

    // The media libraries read the clip through these, so that every blocking read
    // honours the interrupt and cancel flags and counts as activity.
    static int readPacket(void* opaque, std::uint8_t* buffer, int size);
    static std::int64_t seek(void* opaque, std::int64_t offset, int whence);
    static int interruptCallback(void* opaque);
};

} // namespace tarvoqc
