#include "engine/hashreader.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/eventfdwait.h"

namespace tarvoqc {

HashReader::HashReader(int fd, std::uint64_t fileSize, Mode mode)
    // Sizes beyond what a file offset can hold are cut; no real file reaches them.
    : m_fileSize(std::min<std::uint64_t>(fileSize, std::numeric_limits<off_t>::max())),
      m_mode(mode), m_fd(fd), m_buffer(std::make_unique<std::uint8_t[]>(kPieceBytes))
{
    Sha2Init(256, m_context);
    if (m_fd >= 0) {
        ::posix_fadvise(m_fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    }
    if (m_mode == Mode::Background && !startBackground()) {
        m_mode = Mode::Inline;
    }
}

std::unique_ptr<HashReader> HashReader::open(const std::string& path, Mode mode)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    struct stat st = {};
    if (::fstat(fd, &st) != 0 || st.st_size < 0) {
        ::close(fd);
        return nullptr;
    }
    return std::make_unique<HashReader>(fd, static_cast<std::uint64_t>(st.st_size), mode);
}

HashReader::~HashReader()
{
    if (m_thread.joinable()) {
        m_stopping.store(true, std::memory_order_seq_cst);
        wakeBackground();
        m_thread.join();
    }
    closeFd(m_wakeFd);
    closeFd(m_doneFd);
    closeFd(m_fd);
}

bool HashReader::startBackground()
{
    m_wakeFd = ::eventfd(0, EFD_CLOEXEC);
    m_doneFd = ::eventfd(0, EFD_CLOEXEC);
    if (m_wakeFd < 0 || m_doneFd < 0) {
        closeFd(m_wakeFd);
        closeFd(m_doneFd);
        return false;
    }
    try {
        m_thread = std::thread([this] { runBackground(); });
    } catch (const std::system_error&) {
        closeFd(m_wakeFd);
        closeFd(m_doneFd);
        return false;
    }
    return true;
}

bool HashReader::catchUp(std::uint64_t limit, bool onOwnerThread)
{
    limit = std::min(limit, m_fileSize);
    while (m_hashed < limit && (limit - m_hashed >= kPieceBytes || limit == m_fileSize)) {
        if (!onOwnerThread && m_stopping.load(std::memory_order_relaxed)) {
            return true; // the destructor waits; the thread's loop sees the flag next
        }
        const std::size_t want =
            static_cast<std::size_t>(std::min<std::uint64_t>(kPieceBytes, limit - m_hashed));
        ssize_t got = 0;
        do {
            got = ::pread(m_fd, m_buffer.get(), want, static_cast<off_t>(m_hashed));
        } while (got < 0 && errno == EINTR);
        if (got <= 0) {
            return false;
        }
        Sha2Update(m_buffer.get(), static_cast<std::size_t>(got), m_context);
        m_hashed += static_cast<std::uint64_t>(got);
        m_hashedCount.store(m_hashed, std::memory_order_relaxed);
    }
    return true;
}

// The sleep protocol pairs with wakeBackground(): the thread publishes what it waits for
// and that it sleeps, then looks at the target once more; the owner publishes the target
// (or a flag) and then looks whether the thread sleeps. With sequentially consistent
// order on both sides at least one of them sees the other, so no wake-up is lost.
void HashReader::runBackground()
{
    for (;;) {
        if (m_stopping.load(std::memory_order_seq_cst)) {
            break;
        }
        const bool finishing = m_finishing.load(std::memory_order_seq_cst);
        const std::uint64_t limit =
            finishing ? m_fileSize : m_target.load(std::memory_order_seq_cst);
        const bool readOn = catchUp(limit, false);
        if (finishing) {
            break; // read to the end, or ended early by a failed read
        }
        // Go on once a whole piece is ready, or, after a failed read, once the target
        // moves at all. A wantAt beyond the size is met only by finish() or the destructor.
        std::uint64_t wantAt = limit + 1;
        if (readOn) {
            wantAt = m_hashed < m_fileSize ? std::min(m_hashed + kPieceBytes, m_fileSize)
                                           : m_fileSize + 1;
        }
        m_wantAt.store(wantAt, std::memory_order_seq_cst);
        m_sleeping.store(true, std::memory_order_seq_cst);
        if (m_target.load(std::memory_order_seq_cst) >= m_wantAt.load(std::memory_order_seq_cst) ||
            m_finishing.load(std::memory_order_seq_cst) ||
            m_stopping.load(std::memory_order_seq_cst)) {
            m_sleeping.store(false, std::memory_order_seq_cst);
            continue;
        }
        waitEvent(m_wakeFd);
        m_sleeping.store(false, std::memory_order_seq_cst);
    }
    m_done.store(true, std::memory_order_release);
    signalEvent(m_doneFd);
}

void HashReader::wakeBackground()
{
    if (m_sleeping.exchange(false, std::memory_order_seq_cst)) {
        signalEvent(m_wakeFd);
    }
}

void HashReader::advanceTo(std::int64_t position)
{
    if (m_finished || position < 0 || static_cast<std::uint64_t>(position) > m_fileSize ||
        static_cast<std::uint64_t>(position) <= m_ownerTarget) {
        return;
    }
    m_ownerTarget = static_cast<std::uint64_t>(position);
    if (m_mode == Mode::Inline) {
        catchUp(m_ownerTarget, true);
        return;
    }
    m_target.store(m_ownerTarget, std::memory_order_seq_cst);
    if (m_ownerTarget >= m_wantAt.load(std::memory_order_seq_cst)) {
        wakeBackground();
    }
}

FileDigest HashReader::finish()
{
    if (m_finished) {
        return m_digest;
    }
    if (m_mode == Mode::Inline) {
        catchUp(m_fileSize, true);
    } else {
        m_finishing.store(true, std::memory_order_seq_cst);
        wakeBackground();
        while (!m_done.load(std::memory_order_acquire)) {
            waitEvent(m_doneFd);
        }
        m_thread.join();
    }
    Sha2Final(m_digest.data(), m_context);
    m_finished = true;
    return m_digest;
}

} // namespace tarvoqc
