#include "app/report/reportpictures.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "batch/checkworker.h"
#include "batch/workerprocess.h"
#include "engine/framegrabber.h"
#include "files/fileio.h"

namespace tarvoqc::report {

namespace {

struct Point
{
    double seconds;
    std::string label;
};

// Where a stream begins in the clip, in seconds.
double streamOffset(const ClipRecord& clip, std::int32_t stream)
{
    if (stream < 0 || static_cast<std::size_t>(stream) >= clip.streams.size() || !clip.start) {
        return 0.0;
    }
    const auto& start = clip.streams[static_cast<std::size_t>(stream)].start;
    return start ? *start - *clip.start : 0.0;
}

bool isVideoIssue(const ClipRecord& clip, const ReportIssue& issue)
{
    if (issue.kind == QcStreamKind::Video) {
        return true;
    }
    return issue.stream >= 0 && static_cast<std::size_t>(issue.stream) < clip.streams.size() &&
           clip.streams[static_cast<std::size_t>(issue.stream)].type == "Video";
}

// The issue points first (the issues come worst first), then start, middle and end.
std::vector<Point> picturePoints(const ClipRecord& clip, double duration, std::size_t most)
{
    std::vector<Point> points;
    duration = std::isfinite(duration) ? std::max(0.0, duration) : 0.0;
    const std::size_t forIssues = most > 3 ? most - 3 : 0;
    for (const ReportIssue& issue : clip.issues) {
        if (points.size() == forIssues) {
            break;
        }
        if (issue.at && std::isfinite(*issue.at) && isVideoIssue(clip, issue)) {
            const double at = std::max(0.0, streamOffset(clip, issue.stream) + *issue.at);
            const bool again = std::any_of(points.begin(), points.end(), [&](const Point& p) {
                return std::fabs(p.seconds - at) < 0.02;
            });
            if (!again && (duration <= 0 || at <= duration)) {
                points.push_back({at, issue.longLine()});
            }
        }
    }
    for (const Point& fixed :
         {Point{0.0, "Start"}, Point{duration / 2, "Middle"}, Point{duration, "End"}}) {
        const bool taken = std::any_of(points.begin(), points.end(), [&](const Point& p) {
            return std::fabs(p.seconds - fixed.seconds) < 0.02;
        });
        if (!taken && (fixed.seconds == 0.0 || duration > 0)) {
            points.push_back(fixed);
        }
    }
    std::stable_sort(points.begin(), points.end(),
                     [](const Point& a, const Point& b) { return a.seconds < b.seconds; });
    return points;
}

bool writeAll(int fd, const void* data, std::size_t size)
{
    return writeFull(fd, data, size) == size;
}

// The clip's length for its pictures: the one its check found, else the container's.
double clipLength(const ClipRecord& clip, double opened)
{
    return clip.duration && *clip.duration > 0 ? *clip.duration : opened;
}

// The child's side: the clip's length as the reader found it (a double), then each
// picture as a 32-bit length and its bytes (length 0: none); or, when the clip cannot be
// opened, the length 0xFFFFFFFF (0xFFFFFFFE: it has no video) and the reason.
[[noreturn]] void grabInChild(int fd, const ClipRecord& clip, const PictureLimits& limits)
{
    // Restricted as a check's worker is: no network, no new programs, a memory limit.
    restrictPictureReader();
    FrameGrabber grabber;
    std::string why;
    if (!grabber.open(clip.path, why)) {
        const std::uint32_t mark = why == FrameGrabber::kNoVideo ? 0xFFFFFFFEu : 0xFFFFFFFFu;
        writeAll(fd, &mark, sizeof mark);
        writeAll(fd, why.data(), why.size());
        ::_exit(0);
    }
    const double length = grabber.duration();
    writeAll(fd, &length, sizeof length);
    for (const Point& point : picturePoints(clip, clipLength(clip, length), limits.perClip)) {
        const std::string jpeg = grabber.grab(point.seconds, limits.width);
        const auto size = static_cast<std::uint32_t>(jpeg.size());
        if (!writeAll(fd, &size, sizeof size) || !writeAll(fd, jpeg.data(), jpeg.size())) {
            break;
        }
    }
    ::_exit(0);
}

// Everything the child wrote until it closed its end, or until the deadline.
bool readAll(int fd, std::string& bytes, std::chrono::steady_clock::time_point deadline)
{
    char buffer[65536];
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return n == 0;
        }
        bytes.append(buffer, static_cast<std::size_t>(n));
    }
}

} // namespace

std::vector<bool> clipsWithPictures(const std::vector<ClipRecord>& clips,
                                    const PictureLimits& limits)
{
    std::vector<bool> chosen(clips.size(), false);
    std::size_t taken = 0;
    for (const std::size_t i : worstFirst(clips)) {
        if (taken == limits.clips) {
            break;
        }
        // A clip known to have no video (sound only) has no pictures to take and does not
        // count, nor does one without streams that scored 0 (it could not be opened); one
        // whose streams the input does not tell (an older run's lines) is tried.
        const auto& streams = clips[i].streams;
        const bool video =
            streams.empty() ? clips[i].score > 0
                            : std::any_of(streams.begin(), streams.end(),
                                          [](const ReportStream& s) { return s.type == "Video"; });
        if (video) {
            chosen[i] = true;
            ++taken;
        }
    }
    return chosen;
}

ClipPictures grabClipPictures(const ClipRecord& clip, const PictureLimits& limits)
{
    ClipPictures result;
    int pipeEnds[2];
    if (::pipe2(pipeEnds, O_CLOEXEC) != 0) {
        result.note = "Pictures left out: no pipe for the picture reader";
        return result;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(pipeEnds[0]);
        grabInChild(pipeEnds[1], clip, limits);
    }
    ::close(pipeEnds[1]);
    if (child < 0) {
        ::close(pipeEnds[0]);
        result.note = "Pictures left out: the picture reader could not be started";
        return result;
    }
    std::string bytes;
    const bool complete =
        readAll(pipeEnds[0], bytes,
                std::chrono::steady_clock::now() + std::chrono::seconds(limits.secondsPerClip));
    ::close(pipeEnds[0]);
    if (!complete) {
        ::kill(child, SIGKILL);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!complete) {
        result.note = "Pictures left out: reading the clip took longer than " +
                      std::to_string(limits.secondsPerClip) + " s";
        return result;
    }
    if (WIFSIGNALED(status)) {
        result.note = "Pictures left out: reading the clip ended with signal " +
                      std::to_string(WTERMSIG(status));
        return result;
    }
    std::size_t at = 0;
    const auto take = [&](std::uint32_t& value) {
        if (bytes.size() - at < sizeof value) {
            return false;
        }
        std::memcpy(&value, bytes.data() + at, sizeof value);
        at += sizeof value;
        return true;
    };
    std::uint32_t size = 0;
    if (take(size) && size == 0xFFFFFFFEu) {
        return result; // sound only: nothing to show, nothing to say
    }
    if (size == 0xFFFFFFFFu) {
        result.note =
            "The clip could not be read any more (" + bytes.substr(at) + "): pictures left out";
        return result;
    }
    at = 0;
    double length = 0;
    if (bytes.size() < sizeof length) {
        result.note = "No picture could be taken from the clip";
        return result;
    }
    std::memcpy(&length, bytes.data(), sizeof length);
    at = sizeof length;
    for (const Point& point : picturePoints(clip, clipLength(clip, length), limits.perClip)) {
        if (!take(size) || bytes.size() - at < size) {
            break;
        }
        if (size > 0) {
            result.pictures.push_back({point.seconds, point.label, bytes.substr(at, size)});
        }
        at += size;
    }
    if (result.pictures.empty()) {
        result.note = "No picture could be taken from the clip";
    }
    return result;
}

} // namespace tarvoqc::report
