#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

namespace tarvoqc {

// Flags of SafeTransfer; they may be combined. TransferOverwrite wins over TransferUnique.
inline constexpr std::uint32_t TransferVerify = 0x00001;    // read the copy back and compare
inline constexpr std::uint32_t TransferOverwrite = 0x10000; // an existing destination is replaced
inline constexpr std::uint32_t TransferUnique =
    0x20000; // ... or kept; the copy gets "base (n).ext"

// The progress record of one transfer: cancel flag, progress ratio, status text and error
// text. The caller owns it and passes it to SafeTransfer, which may also get none at all;
// the three operations below then do nothing and a cancellation is never seen.
//
// Thread-safety: one lock guards the fields. The transferring thread writes through the
// static operations; any other thread may read at any time through the getters, snapshot()
// or withLock(), and may set the cancel flag (which the record only observes).
class TransferProgress
{
public:
    struct State
    {
        double ratio = 0.0; // bytes processed / bytes to process, 0.0 to 1.0
        std::string status; // the last step begun
        std::string error;  // the last failure; a successful transfer leaves it as it was
    };

    // cancelFlag: the caller's flag, non-zero means "stop"; it must outlive the record.
    // A null flag reads as 0.
    explicit TransferProgress(const std::atomic<std::int32_t>* cancelFlag = nullptr) noexcept
        : m_cancelFlag(cancelFlag)
    {}
    virtual ~TransferProgress() = default;
    TransferProgress(const TransferProgress&) = delete;
    TransferProgress& operator=(const TransferProgress&) = delete;

    // Replace the status / error text with the printf-style text. Nothing when record is null.
    static void setStatus(TransferProgress* record, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
    static void setError(TransferProgress* record, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
    // Stores done / total as the ratio when total is not 0 (capped at 1.0 for a source that
    // grew under the copy) and gives the cancel flag's value; 0 when record is null.
    static std::int32_t reportProgress(TransferProgress* record, std::uint64_t done,
                                       std::uint64_t total);

    double ratio() const;
    std::string status() const;
    std::string error() const;
    // The three fields as one consistent copy.
    State snapshot() const;
    // Runs fn(const State&) under the record's lock and gives its result. While fn runs, the
    // transfer waits at its next report, so a reader can act at an exact point of the
    // transfer (set the cancel flag, say). fn must not call back into the record.
    template <typename Fn> decltype(auto) withLock(Fn&& fn) const
    {
        std::lock_guard lock(m_mutex);
        return std::forward<Fn>(fn)(std::as_const(m_state));
    }

private:
    static void storeFormatted(TransferProgress* record, std::string State::*field,
                               const char* format, std::va_list args);

    mutable std::mutex m_mutex;
    const std::atomic<std::int32_t>* const m_cancelFlag;
    State m_state;
};

// Copies source to destination without ever leaving a half-written file under the
// destination name: the data goes into a temp file "%d-%m-%Y %H%M%S.tmp" (local time, made
// unique by UniqueFileName) in the destination's folder, is optionally read back and
// compared with the source (TransferVerify), and the temp file is renamed to the
// destination only then. The new file and its folder are on disk (fsync) before 0 is
// returned. The copy gets the source's permission bits. The source is never changed or
// deleted; a move is SafeMove below.
//
// destination: the full path of the new file; its folder is the text up to and including
// the last "/" (no "/" at all means the current folder). A destination ending in "/" names
// no file and is refused like an empty one. Paths are UTF-8.
// finalPath (optional): set to the path that holds the copy once it has its final name,
// which differs from destination when TransferUnique picked a free name; left alone when
// the transfer fails earlier or is cancelled.
//
// Blocks the calling thread for the whole copy; runs on a worker, never on a window thread.
// Several transfers may run at the same time, into the same folder too.
//
// Result, with the error text set in the progress record:
//    0  success; also after a cancellation (status "Exit signal, cleaning up.")
//   -1  "Invalid input name" / "Invalid output name" (empty, or holding a zero byte),
//       "Cannot check %s" (source attributes unreadable), "Cannot open input %s" (cannot be
//       opened for reading, is no regular file, or another program has it open for writing)
//   -3  "Cannot generate output filename": destination exists, TransferUnique, no free name
//   -4  "Cannot copy, output exists": destination exists and no flag allows it, or
//       TransferOverwrite would replace the source itself
//   -5  "Cannot generate output temp filename"   -6  "Cannot open output temp file %s"
//   -7, -8  "Cannot rename temp file %s": the folder does not allow renames
//   -9  "Cannot open output file %s"
//  -21  "Cannot write to output file"; also when the copy cannot be flushed to disk, and
//       when its folder cannot be flushed after the rename: the copy then stays under its
//       final name (finalPath says which) and the caller keeps the source
//  -22  "Cannot read input file %s": the source fails to read during the copy, or ends
//       before the size it had when it was opened (it shrank under the copy)
//  -51  "Error writing to output file": a block is stored only in part (disk full)
//  -30  "Memory alloc failed, exiting."   -31  "Cannot read output file"
//  -32  "Verify proces failed.": the copy differs from the source, in bytes or in length
//  -33  "Problem while verifying, exiting.": the source fails to read during the verify
//  -41  "Cannot delete %s", -42 "Cannot rename out %s to %s" (TransferOverwrite)
//  -43  "Cannot generate output filename", -44 "Cannot rename temp file %s" (TransferUnique)
//  -45  "Cannot rename temp file %s to %s" (destination appeared during the copy)
// Every other failure leaves no temp file behind and does not touch the destination.
//
// onTempName (optional) learns the temp file's name before the file is made, so that a
// caller can write it down and find the file again after a crash; returning false gives up
// the transfer with -5.
using TempNameHook = std::function<bool(const std::string& temp)>;
std::int32_t SafeTransfer(const std::string& destination, const std::string& source,
                          std::uint32_t flags, TransferProgress* progress,
                          std::string* finalPath = nullptr, const TempNameHook& onTempName = {});

// Result codes of SafeMove beyond those of SafeTransfer.
inline constexpr std::int32_t kSourceChanged =
    -23; // "Source %s changed during the move; it is kept"
inline constexpr std::int32_t kSourceNotDeleted = -24; // "Cannot delete source %s"

// Moves source to destination: a SafeTransfer with TransferVerify added to flags, then the
// source is deleted, but only when its path still names the file that was copied (same
// device, inode, size and modification time as when it was opened). This is the move of
// A narrow window stays between that look and the deletion; a file renamed over the source
// or written to during the copy is caught. A move that fails after its copy was made
// removes the copy again, so a failed move never leaves a second copy behind.
//
// Result, with the error text set in the progress record:
//    0  moved: the copy is under its final name (finalPath) and the source is gone; also
//       after a cancellation, when nothing was moved, the source is kept and finalPath is
//       left alone (the caller tells the two apart by its cancel flag)
//  kSourceChanged (-23)  "Source %s changed during the move; it is kept": the source path,
//       which now names another file or a changed one, is not touched; the copy is removed
//  kSourceNotDeleted (-24)  "Cannot delete source %s": the source stays, the copy is
//       removed
//  any other code: that of SafeTransfer; the source is kept.
//
// Blocks like SafeTransfer; the same thread rules apply.
std::int32_t SafeMove(const std::string& destination, const std::string& source,
                      std::uint32_t flags, TransferProgress* progress,
                      std::string* finalPath = nullptr, const TempNameHook& onTempName = {});

// True when the name is taken: the path opens for reading, or something exists under it
// that cannot be opened (no permission, a dangling link, a file another program holds).
// False for an empty path and where nothing is found.
bool FileExists(const std::string& path);

// Leaves a path for which FileExists is false as it is; otherwise replaces it with the first
// free "base (n).ext" for n = 1 to 999 (ext: from the last "." of the file name on; none
// when that "." is the name's first character, as in ".profile"). False, path unchanged, for an
// empty path or when all 999 names are taken.
bool UniqueFileName(std::string& path);

} // namespace tarvoqc
