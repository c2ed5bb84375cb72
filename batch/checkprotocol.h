#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/checkoptions.h"
#include "results/checkdefaults.h"
#include "results/qcresult.h"

namespace tarvoqc {

// The messages between a program and its check worker processes (batch/checkworker.h), over
// one stream socket. Binary and exact: a path is any bytes a Linux name may hold (not
// necessarily UTF-8), and a result must come back equal, issue for issue, to the one the
// worker's ClipChecker holds.
//
// Framing: a little-endian 32-bit payload length, one byte of message type, the payload.
// Fields inside a payload: integers little-endian (fixed widths), doubles as their 64
// bits, strings as a 32-bit length then the bytes. A reader never trusts a length: frames
// above kMaxFrameBytes, fields that run past their frame, unknown types and values out of
// range are refused (the program treats such a worker as broken and ends it).

inline constexpr std::size_t kFrameHeaderBytes = 5;
// Far above the largest real frame: a result holds at most 255 issues per category of at
// most 1024 characters each (about 6 MiB in the worst case) and the facts of its streams.
inline constexpr std::size_t kMaxFrameBytes = std::size_t{64} << 20;

enum class FrameType : std::uint8_t {
    // Program to worker.
    Check = 1, // a CheckRequest
    // Worker to program.
    Ready = 10,    // a WorkerReady, once after start
    Progress = 11, // a WorkerProgress, while a check runs
    Opened = 12,   // request id, then the QcResult so far (facts and issues), while it runs
    Done = 13,     // a CheckDone
};

// One clip to check, as ClipChecker::Open and Run take it.
struct CheckRequest
{
    std::uint64_t id = 0; // chosen by the program; echoed in every reply
    std::string path;
    CheckLevel level = kDefaultCheckLevel;
    int decoderThreadOption = 0;
    ClipCheckOptions options;

    bool operator==(const CheckRequest&) const = default;
};

// What a worker says about itself once it has started: its sandbox as it could be set up.
struct WorkerReady
{
    std::uint32_t protocolVersion = 0;
    bool memoryLimited = false; // the address-space limit is in force
    bool noNewPrivileges = false;
    bool syscallFilter = false; // network, process creation, exec and tracing are refused

    bool operator==(const WorkerReady&) const = default;
};
// 2: issues carry their place in the stream (QcIssue::at, QcIssue::length), the facts
// their container's name.
inline constexpr std::uint32_t kCheckProtocolVersion = 2;

// Sent while a check runs whenever something moved: progress is the checker's counter
// (0..kProgressMax); activity counts the reads and decoded frames, so that a long stretch
// at one progress value still shows the check is alive.
struct WorkerProgress
{
    std::uint64_t id = 0;
    std::int32_t progress = 0;
    std::uint64_t activity = 0;

    bool operator==(const WorkerProgress&) const = default;
};

// The end of a check: ClipChecker::Run's return (0 when Open failed and Run was not
// called) and the final result.
struct CheckDone
{
    std::uint64_t id = 0;
    std::int32_t runCode = 0;
    QcResult result;
};

// One decoded frame: its type and payload (a view into the reader's buffer).
struct Frame
{
    FrameType type{};
    std::string_view payload;
};

// Builds the bytes of one frame.
// Sends the whole of an encoded frame on a socket, never raising SIGPIPE. False when the
// peer has gone or, without wait, when the socket cannot take it all at once.
bool sendFrame(int fd, std::string_view frame, bool wait);

std::string encodeCheck(const CheckRequest& request);
std::string encodeReady(const WorkerReady& ready);
std::string encodeProgress(const WorkerProgress& progress);
std::string encodeOpened(std::uint64_t id, const QcResult& result);
std::string encodeDone(const CheckDone& done);

// Payload readers: nothing when the payload is malformed (short, too long, a value out of
// range).
std::optional<CheckRequest> decodeCheck(std::string_view payload);
std::optional<WorkerReady> decodeReady(std::string_view payload);
std::optional<WorkerProgress> decodeProgress(std::string_view payload);
std::optional<std::pair<std::uint64_t, QcResult>> decodeOpened(std::string_view payload);
std::optional<CheckDone> decodeDone(std::string_view payload);

// Collects bytes from a stream and cuts them into frames.
//
// Thread-safety: none; one reader.
class FrameReader
{
public:
    // Appends bytes as they came from the stream.
    void append(const char* data, std::size_t size) { m_buffer.append(data, size); }
    // The next complete frame, valid until the next call of any member; nothing when no
    // complete frame is buffered or the stream is broken (see broken()).
    std::optional<Frame> next();
    // True once a frame header announced more than kMaxFrameBytes: the stream cannot be
    // resynchronised and must be dropped.
    bool broken() const { return m_broken; }
    // Bytes received but not yet returned as frames.
    std::size_t pending() const { return m_buffer.size() - m_start; }

private:
    std::string m_buffer;
    std::size_t m_start = 0;
    bool m_broken = false;
};

} // namespace tarvoqc
