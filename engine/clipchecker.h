#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/checkoptions.h"
#include "results/mediatime.h"
#include "results/qcissue.h"
#include "results/qcresult.h"

namespace tarvoqc {

class ClipStream;
struct ClipSession;

// Progress of a check in hundred-thousandths of the clip.
inline constexpr std::int32_t kProgressMax = 100000;

// The largest picture (width x height) any decoder of the engine, and of the library's
// probe, may allocate: room for 8K (8192 x 4320, rounded up to whole 64-line blocks), so
// that a small file whose header claims a huge picture fails at once as a codec issue
// instead of costing gigabytes.
inline constexpr std::int64_t kMaxPicturePixels = 8192LL * 4352;

// The engine object for one clip: Open (query the file, open the container, probe the
// streams, set up decoders, header checks), Run (read every packet, hash the file,
// decode, time-stamp checks, decoded checks, keys), Close. Findings become issues in the
// clip's issue list, never exceptions. At level 4 the picture and sound checks run on a
// detector thread of the clip's own (engine/detectorthread.h), and what the clip's demuxer
// and decoders log at error level becomes issues too (engine/medialog.h), also when the
// clip does not open.
//
// Thread-safety: Open, Run and Close run on one thread (the runner's worker). Any other
// thread may at any time read ClipProgress() and take the snapshots issues(),
// mediaFacts() and result(); each snapshot takes one of the checker's two locks (issues,
// media facts), never both at once.
class ClipChecker
{
public:
    ClipChecker();
    virtual ~ClipChecker(); // calls Close()
    ClipChecker(const ClipChecker&) = delete;
    ClipChecker& operator=(const ClipChecker&) = delete;

    // The limits of level 4 and the decoder threads, for the next Open.
    void setOptions(const ClipCheckOptions& options) { m_options = options; }
    const ClipCheckOptions& options() const { return m_options; }

    // Opens and probes the clip at path (UTF-8). level is the CheckLevel (see
    // results/qcresult.h); one outside 1..4 is taken as the nearest of them, and the
    // result names the level that ran. decoderThreadOption below 0 makes decoding single-threaded,
    // otherwise the library picks (unless the options name a thread count). True when the
    // streams were built. A false result leaves the reason in the issue list (attributes or
    // open failed; a path that names no regular file, such as a FIFO, a device or a folder,
    // fails the open at once), except when the stream information could not be read: that
    // failure is traced only. Every decoder, the probe's too, refuses pictures above
    // kMaxPicturePixels.
    bool Open(const std::string& path, CheckLevel level, int decoderThreadOption);

    // The read and decode pass, the keys and the decoded checks; only after a successful
    // Open. cancelFlag (may be null) is polled before each packet: non-zero stops the
    // pass early, and the file is still hashed to its end. Returns 1 when the pass ran
    // (also when cancelled or when the demuxer failed), -9 when the clip file could not
    // be opened for reading (write-locked). When the file's size or modification time at the
    // end of the pass differ from those recorded at open, the clip gets the issue "File
    // changed while being checked" (File, High): its keys describe no stable file.
    int Run(const std::atomic<std::int32_t>* cancelFlag);

    // Releases the streams, the decoders and the container. Safe to call at any time on
    // the owning thread, also after a failed or no Open.
    void Close();

    // A flag the media libraries poll while they block inside Open or Run (for example
    // on a slow file system); non-zero makes them give up. May be null. The flag must
    // outlive the checker's use of it.
    void setInterruptFlag(const std::atomic<std::int32_t>* flag) { m_interruptFlag = flag; }

    // The container duration in ClipTicks, or nothing when no container is open.
    std::optional<ClipTicks> EstimatedDuration() const;

    // 0..kProgressMax; lock-free, any thread.
    std::int32_t ClipProgress() const { return m_progress.load(std::memory_order_relaxed); }
    // Grows with every read of the clip and every packet handled: a check whose activity
    // stands still for long is stuck (a hung file system, a decoder in a loop), even where
    // its progress may rightly stand still. Lock-free, any thread.
    std::uint64_t activity() const { return m_activity.load(std::memory_order_relaxed); }

    // Snapshots for other threads (see the class comment).
    QcIssueList issues() const;
    MediaFacts mediaFacts() const;
    QcResult result() const;

    const std::string& path() const { return m_path; }
    CheckLevel checkLevel() const { return m_level; }

    // Raises an issue: the message is formatted (printf rules, cut to 1024 characters)
    // outside the lock and added under it. streamIndex -1 is the whole clip; a stream
    // index gives the issue that stream's kind (video, audio, or none).
    void report(QcIssueCategory category, QcSeverity severity, int streamIndex, const char* format,
                ...) __attribute__((format(printf, 5, 6)));
    // The same for an issue with a place in its stream: at (and, for a run, length) in
    // ClipTicks from the stream's start, the values the text shows; kNoTime for none.
    void reportAt(QcIssueCategory category, QcSeverity severity, int streamIndex, ClipTicks at,
                  ClipTicks length, const char* format, ...) __attribute__((format(printf, 7, 8)));

private:
    friend class ClipStream;
    friend struct ClipSession;

    void reportIssue(QcIssue issue, const char* format, va_list args)
        __attribute__((format(printf, 3, 0)));
    void publishFacts();
    bool interrupted() const;
    // Consistency of one stream's header with the clip's, run by Open.
    void checkHeader(ClipStream& stream);
    // Decoded start and end against header and clip, run at the end of Run (level 3).
    void checkDecoded(ClipStream& stream);
    // Level 4: turns what the media libraries logged so far into issues, one per kind.
    void reportLogged();
    // Replaces the QC duration with the latest decoded end of the checked streams.
    void correctDuration();
    // The packet loop of Run: true when it reached the end of the file.
    bool readPackets();
    // Gives every stream the end-of-file flush.
    void flushDecoders();
    // The file hash of Run: started on the clip's own read handle (the session owns it),
    // kept behind the demuxer's position, finished over the whole file into the keys.
    void startHash(int fd);
    void advanceHash(std::int64_t position);
    void finishHash();
    // Raises "File changed while being checked" when the clip's size or modification time
    // differ from those recorded at open.
    void checkUnchanged();

    std::string m_path;
    CheckLevel m_level = 0;
    int m_decoderThreadOption = 0;
    ClipCheckOptions m_options;
    bool m_opened = false;

    // Working copy of the facts, touched only by the owning thread; published to
    // m_facts under m_factsLock at the end of Open and of Run.
    MediaFacts m_work;
    std::unique_ptr<ClipSession> m_session;

    std::atomic<std::int32_t> m_progress{0};
    std::atomic<std::uint64_t> m_activity{0};
    const std::atomic<std::int32_t>* m_interruptFlag = nullptr;
    const std::atomic<std::int32_t>* m_cancelFlag = nullptr;

    mutable std::mutex m_issuesLock;
    QcIssueList m_issues;
    mutable std::mutex m_factsLock;
    MediaFacts m_facts;
};

} // namespace tarvoqc
