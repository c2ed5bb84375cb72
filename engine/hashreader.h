#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "engine/clipkeys.h"
#include "engine/sha2.h"

namespace tarvoqc {

// Hashes one clip file (SHA-256) from offset 0 to the size recorded when the clip was
// opened, in pieces of at most kPieceBytes, while the demuxer reads the same file. The
// owner raises a target position as the demuxer advances (advanceTo); the reader stays
// just behind it, reading only whole pieces that end at or before the target, so it finds
// the pages the demuxer has just brought into the file cache. finish() reads on to the
// recorded size and gives the digest.
//
// Modes:
// - Inline: the reads and the hashing happen inside advanceTo and finish, on the owner's
//   thread.
// - Background: a thread of the reader's own reads and hashes. advanceTo only publishes
//   the target (and wakes the thread when a whole piece has become ready), so the owner,
//   a decode loop, never waits for the hashing; only finish() waits for it.
// Both modes hash the same bytes in the same order and give the same digest.
//
// Reading rules: a read that fails or returns 0 bytes ends the current catching-up; the
// reader tries again at the same offset once the target moves further, and in finish()
// such a read ends the reading for good: the digest then covers the bytes read before it,
// and no error is raised. The file is read with pread, so its file position is neither
// used nor moved. Nothing past the recorded size is ever hashed, even if the file grows.
//
// The background thread and its owner meet through atomics and sleep on eventfds: in
// Background mode advanceTo never blocks (at most one eventfd write), and the owner's only
// blocking call is finish()'s wait for the thread.
//
// Thread-safety: the owner's calls come from one thread at a time: normally the worker;
// the destructor may run on another thread once the worker has ended. bytesHashed() may
// be read from any thread. The background thread is internal. The destructor may run at any time
// (before, during or without finish): it stops and joins the thread, waiting at most for the read
// in progress.
class HashReader
{
public:
    enum class Mode {
        Inline,
        Background,
    };

    // The largest piece read and hashed at once; also the reader's one buffer.
    static constexpr std::size_t kPieceBytes = 65536;

    // Takes ownership of fd, a file open for reading (closed by the destructor; a negative
    // fd reads nothing). fileSize: the bytes to hash at most. Background falls back to
    // Inline when no thread can be started (see mode()).
    HashReader(int fd, std::uint64_t fileSize, Mode mode);
    // Opens path read-only with the sequential-read hint and records its size at open.
    // Null when the file cannot be opened or queried.
    static std::unique_ptr<HashReader> open(const std::string& path, Mode mode);
    ~HashReader();
    HashReader(const HashReader&) = delete;
    HashReader& operator=(const HashReader&) = delete;

    // Raises the target to position (bytes from the start of the file). Lower targets than
    // the current one, negative positions (a packet without one) and positions beyond the
    // recorded size are ignored. Does nothing after finish().
    void advanceTo(std::int64_t position);

    // Reads on to the recorded size (see Reading rules) and gives the digest of what was
    // hashed. Later calls give the same digest again.
    FileDigest finish();

    Mode mode() const { return m_mode; }
    std::uint64_t fileSize() const { return m_fileSize; }
    // The bytes hashed so far, from offset 0; after finish() the bytes the digest covers.
    // In Background mode the thread publishes it after each piece.
    std::uint64_t bytesHashed() const { return m_hashedCount.load(std::memory_order_relaxed); }

private:
    // Reads and hashes pieces while a piece ending at or before limit is ready; false when
    // a read failed or returned 0 bytes. On the background thread the stop flag is looked
    // at before each piece.
    bool catchUp(std::uint64_t limit, bool onOwnerThread);
    void runBackground();
    void wakeBackground();
    bool startBackground();

    const std::uint64_t m_fileSize;
    Mode m_mode;
    int m_fd = -1;
    bool m_finished = false;
    std::uint64_t m_ownerTarget = 0; // the owner's copy of the target
    FileDigest m_digest = {};

    // Owned by whoever hashes: the background thread while it runs, else the owner (after
    // m_done is seen, or always in Inline mode).
    Sha2Context m_context;
    std::uint64_t m_hashed = 0;
    std::unique_ptr<std::uint8_t[]> m_buffer;

    // Background mode only.
    std::thread m_thread;
    int m_wakeFd = -1; // eventfd the thread sleeps on
    int m_doneFd = -1; // eventfd finish() waits on
    std::atomic<std::uint64_t> m_target{0};
    std::atomic<std::uint64_t> m_wantAt{0}; // the target that lets the sleeping thread go on
    std::atomic<bool> m_sleeping{false};
    std::atomic<bool> m_finishing{false};
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_done{false};
    std::atomic<std::uint64_t> m_hashedCount{0}; // m_hashed, published for bytesHashed()
};

} // namespace tarvoqc
