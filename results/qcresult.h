#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "results/mediatime.h"
#include "results/qcissue.h"

namespace tarvoqc {

// The demuxer's media type numbers.
enum class StreamType : std::int32_t {
    Unknown = -1,
    Video = 0,
    Audio = 1,
    Data = 2,
    Subtitle = 3,
    Attach = 4
};

// "Video", "Audio", "Data", "Subtitle", "Attach"; "Unk" for any other number.
std::string_view streamTypeText(StreamType type);

// How deep a check goes: 1 open and header checks; 2 also every packet, packet time-stamp
// checks and the keys; 3 also decoding with frame checks and the decoded checks; 4 also
// full decoding with the picture and sound checks (categories Video and Audio).
using CheckLevel = int;
inline constexpr CheckLevel kLowestCheckLevel = 1;
inline constexpr CheckLevel kHighestCheckLevel = 4;

// What the engine found out about one container stream. Times are ClipTicks (100 ns) or
// kNoTime.
struct StreamFacts
{
    StreamType type = StreamType::Unknown;
    std::string codecName;
    ClipTicks headerStart = kNoTime;
    ClipTicks headerDuration = kNoTime;
    std::int64_t byteCount = 0; // sum of the packet sizes read
    ClipTicks decodedStart = kNoTime;
    ClipTicks decodedEnd = kNoTime;
    std::int32_t width = 0;
    std::int32_t height = 0;
    // The two values kept between picture size and frame rate: the sample aspect ratio.
    std::int32_t sampleAspectNum = 0;
    std::int32_t sampleAspectDen = 0;
    std::int32_t frameRateNum = 0; // the real base frame rate; 0/0 when unknown
    std::int32_t frameRateDen = 0;
    std::int32_t channels = 0;
    std::int32_t sampleRate = 0;
    // Up to 4 bytes of the "language" metadata, zero-filled, not terminated when full.
    std::array<char, 4> language = {};
    // What a delivery profile compares (batch/deliveryprofile.h), as the demuxer and the
    // stream information give them; empty or 0 when unknown. Pictures: the pixel format,
    // the field order (the media libraries' numbers: 1 progressive, 2 top field first,
    // 3 bottom field first, 4 and 5 the mixed orders) and the colour description by the
    // libraries' names. Bit depth: of a picture's samples or of the sound as stored.
    std::string pixelFormat{};
    std::int32_t fieldOrder = 0;
    std::int32_t bitDepth = 0;
    std::string colourPrimaries{};
    std::string colourTransfer{};
    std::string colourMatrix{};

    bool operator==(const StreamFacts&) const = default;
};

// The file and media facts of a clip: file identity, keys, clip times and streams.
struct MediaFacts
{
    std::uint32_t attributes = 0; // Windows-compatible attribute bits
    std::uint32_t reserved = 0;
    std::uint64_t fileSize = 0;
    std::uint64_t creationTime = 0; // Windows file times: 100 ns since 1601-01-01 UTC
    std::uint64_t lastWriteTime = 0;
    ClipTicks clipStart = kNoTime;
    ClipTicks clipDuration = kNoTime;
    ClipTicks qcDuration = kNoTime;   // the duration decoding found; starts as clipDuration
    std::string hash256;              // 64 upper-case hex digits, empty until made
    std::uint64_t fkey = 0;           // 0 until made
    std::vector<StreamFacts> streams; // position = container stream index
    std::string container;            // the demuxer's name ("mpegts", "mov,mp4,..."); empty
                                      // until opened

    bool operator==(const MediaFacts&) const = default;
};

// The record of one checked clip: what it is, how deep it was checked, what was found.
// A plain value; copies are independent.
struct QcResult
{
    std::string path;
    CheckLevel checkLevel = 0;
    bool opened = false; // the clip was opened and probed (its streams were built)
    MediaFacts facts;
    QcIssueList issues;
    // The delivery profile the clip was graded by; empty for none (the technical checks).
    std::string profile{};

    QcScore score() const { return issues.score(); }
};

} // namespace tarvoqc
