#include "batch/safetransfer.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "batch/safetransfer_fault.h"
#include "engine/fileinfo.h"
#include "files/fileio.h"

namespace tarvoqc {

std::atomic<std::int32_t> g_safeTransferFault{0};

namespace {

bool injected(std::int32_t code)
{
    return g_safeTransferFault.load(std::memory_order_relaxed) == code;
}

constexpr std::size_t kBlockSize = 65'536;
constexpr int kMaxUniqueNumber = 999;

std::string formatText(const char* format, std::va_list args)
{
    std::va_list copy;
    va_copy(copy, args);
    // va_copy has initialised copy; the analyzer does not follow it through the macro.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length <= 0) {
        return {};
    }
    std::string text(static_cast<std::size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, args);
    return text;
}

bool validName(const std::string& path)
{
    // A zero byte would silently cut the name short at the system call and point the copy
    // at another file.
    return !path.empty() && path.find('\0') == std::string::npos;
}

// The destination's folder including its last "/"; empty (the current folder) without one.
std::string folderPart(const std::string& path)
{
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string{} : path.substr(0, slash + 1);
}

// rename(2) that never replaces an existing name, so a file that appears under the target
// name while we copy is neither lost nor overwritten. File systems without the no-replace
// mode get a look first (a narrow race that such file systems leave no way to close).
bool renameNoReplace(const std::string& from, const std::string& to)
{
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return false;
    }
    struct stat st = {};
    if (::lstat(to.c_str(), &st) == 0) {
        errno = EEXIST;
        return false;
    }
    return ::rename(from.c_str(), to.c_str()) == 0;
}

// True when both paths name the same folder entry (not merely the same file through a hard
// link), which replacing the one with a copy of the other would delete once the caller
// removes the source of a move.
bool sameEntry(const std::string& a, const std::string& b)
{
    struct stat fileA = {};
    struct stat fileB = {};
    if (::lstat(a.c_str(), &fileA) != 0 || ::lstat(b.c_str(), &fileB) != 0 ||
        fileA.st_dev != fileB.st_dev || fileA.st_ino != fileB.st_ino) {
        return false;
    }
    const std::string folderA = folderPart(a);
    const std::string folderB = folderPart(b);
    if (a.substr(folderA.size()) != b.substr(folderB.size())) {
        return false;
    }
    struct stat dirA = {};
    struct stat dirB = {};
    return ::stat(folderA.empty() ? "." : folderA.c_str(), &dirA) == 0 &&
           ::stat(folderB.empty() ? "." : folderB.c_str(), &dirB) == 0 &&
           dirA.st_dev == dirB.st_dev && dirA.st_ino == dirB.st_ino;
}

bool makeTempName(const std::string& destination, std::string& tempName)
{
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    if (::localtime_r(&now, &local) == nullptr) {
        return false;
    }
    char stamp[64];
    if (std::strftime(stamp, sizeof stamp, "%d-%m-%Y %H%M%S.tmp", &local) == 0) {
        return false;
    }
    tempName = folderPart(destination) + stamp;
    return UniqueFileName(tempName);
}

// One transfer's open files and buffers; the temp file is deleted unless it was handed on.
class Transfer
{
public:
    Transfer(const std::string& destination, const std::string& source, std::uint32_t flags,
             TransferProgress* progress, const TempNameHook& onTempName = {})
        : m_destination(destination), m_source(source), m_flags(flags), m_progress(progress),
          m_onTempName(onTempName)
    {}
    ~Transfer()
    {
        m_temp.reset();
        if (!m_tempName.empty()) {
            ::unlink(m_tempName.c_str());
        }
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    std::int32_t run(std::string* finalPath);

    bool wasCancelled() const { return m_cancelled; }
    // True when the source path still names the file that was copied, as it was at open:
    // same device, inode, size and modification time.
    bool sourceUnchanged() const;

private:
    std::int32_t fail(std::int32_t code, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    std::int32_t cancelled();
    bool report(std::uint64_t count);

    std::int32_t openSource();
    std::int32_t reserveTemp();
    std::int32_t copy();
    std::int32_t verify();
    std::int32_t finish(std::string* finalPath);

    const std::string& m_destination;
    const std::string& m_source;
    const std::uint32_t m_flags;
    TransferProgress* const m_progress;
    const TempNameHook& m_onTempName;

    FileHandle m_input;
    FileHandle m_temp;
    std::string m_tempName; // set while a temp file of ours exists under this name
    std::uint64_t m_size = 0;
    struct stat m_opened = {}; // the source as it was opened
    std::uint64_t m_copied = 0;
    std::uint64_t m_total = 0;
    std::uint64_t m_done = 0;
    bool m_cancelled = false;
    std::unique_ptr<unsigned char[]> m_buffer;
};

std::int32_t Transfer::fail(std::int32_t code, const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    const std::string text = formatText(format, args);
    va_end(args);
    TransferProgress::setError(m_progress, "%s", text.c_str());
    return code;
}

std::int32_t Transfer::cancelled()
{
    m_cancelled = true;
    TransferProgress::setStatus(m_progress, "Exit signal, cleaning up.");
    return 0;
}

// Counts processed bytes and reports them; true when the caller asked to stop.
bool Transfer::report(std::uint64_t count)
{
    m_done += count;
    return TransferProgress::reportProgress(m_progress, m_done, m_total) != 0;
}

std::int32_t Transfer::openSource()
{
    TransferProgress::setStatus(m_progress, "Open input %s", m_source.c_str());
    FileInfo info;
    if (!queryFileInfo(m_source, info)) {
        return fail(-1, "Cannot check %s", m_source.c_str());
    }
    m_size = info.size;
    // Non-blocking, so that a FIFO put in place of a clip fails below instead of waiting
    // for a writer forever, and a file under another program's write lease is refused.
    m_input = openFile(m_source, O_RDONLY | O_NOCTTY | O_NONBLOCK);
    if (!m_input.valid() || ::fstat(m_input.get(), &m_opened) != 0 || !S_ISREG(m_opened.st_mode) ||
        isWriteLocked(m_input.get())) {
        m_input.reset();
        return fail(-1, "Cannot open input %s", m_source.c_str());
    }
    // The handle's size is the one the copy must reach (the name may have been replaced
    // between the query and the open).
    m_size = static_cast<std::uint64_t>(m_opened.st_size);
    ::posix_fadvise(m_input.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return 0;
}

std::int32_t Transfer::reserveTemp()
{
    // A new name only: a name taken in the meantime is never truncated, and a planted link
    // is not followed. Another transfer into this folder in the same second (of this
    // program or another one) may take the free name between the look and the creation:
    // the next free name is tried then.
    std::string tempName;
    FileHandle reserved;
    for (int attempt = 0; attempt < 100 && !reserved.valid(); ++attempt) {
        if (!makeTempName(m_destination, tempName) || (m_onTempName && !m_onTempName(tempName))) {
            return fail(-5, "Cannot generate output temp filename");
        }
        reserved = openFile(tempName, O_RDWR | O_CREAT | O_EXCL, 0666);
        if (!reserved.valid() && errno != EEXIST) {
            break;
        }
    }
    if (!reserved.valid()) {
        return fail(-6, "Cannot open output temp file %s", tempName.c_str());
    }
    m_tempName = tempName;
    if (!reserved.close()) {
        return fail(-6, "Cannot open output temp file %s", tempName.c_str());
    }

    // Prove that the folder allows renames before any data moves.
    const std::string probeName = tempName + "-";
    if (!renameNoReplace(tempName, probeName)) {
        return fail(-7, "Cannot rename temp file %s", tempName.c_str());
    }
    m_tempName = probeName;
    if (injected(-8) || !renameNoReplace(probeName, tempName)) {
        return fail(-8, "Cannot rename temp file %s", probeName.c_str());
    }
    m_tempName = tempName;

    m_temp = openFile(tempName, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW, 0666);
    if (injected(-9) || !m_temp.valid()) {
        return fail(-9, "Cannot open output file %s", tempName.c_str());
    }
    ::posix_fadvise(m_temp.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    // The copy gets the source's permission bits, not those of a new file: a clip kept
    // private stays private in its new place.
    if (::fchmod(m_temp.get(), m_opened.st_mode & 0777) != 0) {
        return fail(-9, "Cannot open output file %s", tempName.c_str());
    }
    return 0;
}

std::int32_t Transfer::copy()
{
    unsigned char* const buffer = m_buffer.get();
    for (;;) {
        const ssize_t got = readFull(m_input.get(), buffer, kBlockSize);
        if (got < 0) {
            return fail(-22, "Cannot read input file %s", m_source.c_str());
        }
        if (got == 0) {
            // A source cut short during the copy ends early: without verify, that copy
            // would otherwise pass for the whole file.
            return m_copied < m_size ? fail(-22, "Cannot read input file %s", m_source.c_str()) : 0;
        }
        m_copied += static_cast<std::uint64_t>(got);
        if (report(static_cast<std::uint64_t>(got))) {
            return cancelled();
        }
        const std::size_t put = writeFull(m_temp.get(), buffer, static_cast<std::size_t>(got));
        if (put == 0) {
            return fail(-21, "Cannot write to output file");
        }
        if (put != static_cast<std::size_t>(got)) {
            return fail(-51, "Error writing to output file");
        }
        if (report(put)) {
            return cancelled();
        }
    }
}

std::int32_t Transfer::verify()
{
    TransferProgress::setStatus(m_progress, "Verifying");
    const std::unique_ptr<unsigned char[]> copyBuffer(new (std::nothrow) unsigned char[kBlockSize]);
    if (!copyBuffer) {
        return fail(-30, "Memory alloc failed, exiting.");
    }
    if (!syncFile(m_temp.get())) {
        return fail(-21, "Cannot write to output file");
    }
    // The copy is on disk now; dropping its cached pages makes the read-back below come
    // from the disk, so the verify proves what was stored, not what was meant to be.
#ifndef TARVOQC_TRANSFER_VERIFY_FROM_CACHE
    ::posix_fadvise(m_temp.get(), 0, 0, POSIX_FADV_DONTNEED);
#endif
    if (injected(-31) || ::lseek(m_temp.get(), 0, SEEK_SET) != 0) {
        return fail(-31, "Cannot read output file");
    }
    if (injected(-33) || ::lseek(m_input.get(), 0, SEEK_SET) != 0) {
        return fail(-33, "Problem while verifying, exiting.");
    }

    unsigned char* const sourceBuffer = m_buffer.get();
    for (;;) {
        const ssize_t got = readFull(m_temp.get(), copyBuffer.get(), kBlockSize);
        if (got < 0) {
            return fail(-31, "Cannot read output file");
        }
        if (got == 0) {
            // The copy has ended; a source with more bytes (it grew after the copy) would
            // lose them when the caller deletes it.
            const ssize_t more = readFull(m_input.get(), sourceBuffer, 1);
            if (more < 0) {
                return fail(-33, "Problem while verifying, exiting.");
            }
            return more == 0 ? 0 : fail(-32, "Verify proces failed.");
        }
        if (report(static_cast<std::uint64_t>(got))) {
            return cancelled();
        }
        const ssize_t sourceGot =
            readFull(m_input.get(), sourceBuffer, static_cast<std::size_t>(got));
        if (sourceGot < 0) {
            return fail(-33, "Problem while verifying, exiting.");
        }
        if (sourceGot > 0 && report(static_cast<std::uint64_t>(sourceGot))) {
            return cancelled();
        }
        if (sourceGot != got ||
            std::memcmp(copyBuffer.get(), sourceBuffer, static_cast<std::size_t>(got)) != 0) {
            return fail(-32, "Verify proces failed.");
        }
    }
}

std::int32_t Transfer::finish(std::string* finalPath)
{
    // The data reaches the disk before the name does, so a power cut never leaves a
    // destination name over a file without its data.
    const bool stored = syncFile(m_temp.get());
    if (!m_temp.close() || !stored) {
        return fail(-21, "Cannot write to output file");
    }
    m_buffer.reset();

    std::string target = m_destination;
    if (!renameNoReplace(m_tempName, m_destination)) {
        if ((m_flags & TransferOverwrite) != 0) {
            TransferProgress::setStatus(m_progress, "Overwriting dest %s", m_destination.c_str());
            // rename(2) replaces the old destination in one step, so readers of the folder
            // never see the name missing. What stops the replacement is what would have
            // stopped deleting the old file, unless our temp file is the one that is gone.
            if (::rename(m_tempName.c_str(), m_destination.c_str()) != 0) {
                if (FileExists(m_tempName) && FileExists(m_destination)) {
                    return fail(-41, "Cannot delete %s", m_destination.c_str());
                }
                return fail(-42, "Cannot rename out %s to %s", m_tempName.c_str(),
                            m_destination.c_str());
            }
        } else if ((m_flags & TransferUnique) != 0) {
            if (!UniqueFileName(target)) {
                return fail(-43, "Cannot generate output filename");
            }
            if (!renameNoReplace(m_tempName, target)) {
                return fail(-44, "Cannot rename temp file %s", m_tempName.c_str());
            }
        } else {
            return fail(-45, "Cannot rename temp file %s to %s", m_tempName.c_str(),
                        m_destination.c_str());
        }
    }
    m_tempName.clear();
    if (finalPath != nullptr) {
        *finalPath = target;
    }
    // The new name itself must survive a power cut before the caller deletes the source.
    if (!syncFolder(folderPart(target))) {
        return fail(-21, "Cannot write to output file");
    }
    return 0;
}

bool Transfer::sourceUnchanged() const
{
    struct stat now = {};
    return ::stat(m_source.c_str(), &now) == 0 && now.st_dev == m_opened.st_dev &&
           now.st_ino == m_opened.st_ino && now.st_size == m_opened.st_size &&
           now.st_mtim.tv_sec == m_opened.st_mtim.tv_sec &&
           now.st_mtim.tv_nsec == m_opened.st_mtim.tv_nsec;
}

std::int32_t Transfer::run(std::string* finalPath)
{
    if (const std::int32_t rc = openSource(); rc != 0) {
        return rc;
    }

    if (FileExists(m_destination)) {
        TransferProgress::setStatus(m_progress, "Output exists %s", m_destination.c_str());
        if ((m_flags & TransferOverwrite) != 0) {
            if (sameEntry(m_destination, m_source)) {
                return fail(-4, "Cannot copy, output exists");
            }
        } else if ((m_flags & TransferUnique) != 0) {
            std::string freeName = m_destination;
            if (!UniqueFileName(freeName)) {
                return fail(-3, "Cannot generate output filename");
            }
        } else {
            return fail(-4, "Cannot copy, output exists");
        }
    }

    if (const std::int32_t rc = reserveTemp(); rc != 0) {
        return rc;
    }

    m_total = m_size > UINT64_MAX / 4 ? UINT64_MAX : m_size * 2;
    if ((m_flags & TransferVerify) != 0 && m_total != UINT64_MAX) {
        m_total *= 2;
    }
    m_buffer.reset(new (std::nothrow) unsigned char[kBlockSize]);
    if (injected(-30) || !m_buffer) {
        return fail(-30, "Memory alloc failed, exiting.");
    }

    if (const std::int32_t rc = copy(); rc != 0 || m_cancelled) {
        return rc;
    }
    if ((m_flags & TransferVerify) != 0) {
        if (const std::int32_t rc = verify(); rc != 0 || m_cancelled) {
            return rc;
        }
    }
    return finish(finalPath);
}

} // namespace

void TransferProgress::storeFormatted(TransferProgress* record, std::string State::*field,
                                      const char* format, std::va_list args)
{
    if (record == nullptr) {
        return;
    }
    std::string text = formatText(format, args);
    std::lock_guard lock(record->m_mutex);
    record->m_state.*field = std::move(text);
}

void TransferProgress::setStatus(TransferProgress* record, const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    storeFormatted(record, &State::status, format, args);
    va_end(args);
}

void TransferProgress::setError(TransferProgress* record, const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    storeFormatted(record, &State::error, format, args);
    va_end(args);
}

std::int32_t TransferProgress::reportProgress(TransferProgress* record, std::uint64_t done,
                                              std::uint64_t total)
{
    if (record == nullptr) {
        return 0;
    }
    std::lock_guard lock(record->m_mutex);
    if (total != 0) {
        const double ratio = static_cast<double>(done) / static_cast<double>(total);
        record->m_state.ratio = ratio < 1.0 ? ratio : 1.0;
    }
    return record->m_cancelFlag != nullptr ? record->m_cancelFlag->load() : 0;
}

double TransferProgress::ratio() const
{
    std::lock_guard lock(m_mutex);
    return m_state.ratio;
}

std::string TransferProgress::status() const
{
    std::lock_guard lock(m_mutex);
    return m_state.status;
}

std::string TransferProgress::error() const
{
    std::lock_guard lock(m_mutex);
    return m_state.error;
}

TransferProgress::State TransferProgress::snapshot() const
{
    std::lock_guard lock(m_mutex);
    return m_state;
}

namespace {

std::int32_t checkNames(const std::string& destination, const std::string& source,
                        TransferProgress* progress)
{
    if (!validName(source)) {
        TransferProgress::setError(progress, "Invalid input name");
        return -1;
    }
    if (!validName(destination) || destination.back() == '/') {
        TransferProgress::setError(progress, "Invalid output name");
        return -1;
    }
    return 0;
}

} // namespace

std::int32_t SafeTransfer(const std::string& destination, const std::string& source,
                          std::uint32_t flags, TransferProgress* progress, std::string* finalPath,
                          const TempNameHook& onTempName)
{
    if (const std::int32_t rc = checkNames(destination, source, progress); rc != 0) {
        return rc;
    }
    Transfer transfer(destination, source, flags, progress, onTempName);
    return transfer.run(finalPath);
}

std::int32_t SafeMove(const std::string& destination, const std::string& source,
                      std::uint32_t flags, TransferProgress* progress, std::string* finalPath,
                      const TempNameHook& onTempName)
{
    if (const std::int32_t rc = checkNames(destination, source, progress); rc != 0) {
        return rc;
    }
    Transfer transfer(destination, source, flags | TransferVerify, progress, onTempName);
    std::string copy;
    const std::int32_t rc = transfer.run(&copy);
    if (rc != 0 || transfer.wasCancelled()) {
        return rc;
    }
    // A move that cannot delete its source takes its copy back: two copies of one clip, one
    // of them in a place nobody looks at, are worse than none moved.
    const auto undo = [&](std::int32_t code) {
        ::unlink(copy.c_str());
        syncFolder(folderPart(copy));
        return code;
    };
    // Another file renamed over the source, or the source written to, since it was opened:
    // the copy holds the old content, and deleting the name would lose the new one.
    if (!transfer.sourceUnchanged()) {
        TransferProgress::setError(progress, "Source %s changed during the move; it is kept",
                                   source.c_str());
        return undo(kSourceChanged);
    }
    if (::unlink(source.c_str()) != 0) {
        TransferProgress::setError(progress, "Cannot delete source %s", source.c_str());
        return undo(kSourceNotDeleted);
    }
    syncFolder(folderPart(source)); // the copy is safe already; this only settles the name
    if (finalPath != nullptr) {
        *finalPath = copy;
    }
    return 0;
}

bool FileExists(const std::string& path)
{
    if (!validName(path)) {
        return false;
    }
    // Without share modes on this system, a name is taken exactly when there is an entry
    // under it: whatever can be opened has one, and a file that cannot be opened (no
    // permission, a dangling link) still blocks the name for a rename.
    struct stat st = {};
    return ::lstat(path.c_str(), &st) == 0;
}

bool UniqueFileName(std::string& path)
{
    if (path.empty()) {
        return false;
    }
    if (!FileExists(path)) {
        return true;
    }
    const std::size_t nameStart = folderPart(path).size();
    std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || dot <= nameStart) {
        dot = path.size(); // no extension, or a name like ".profile"
    }
    const std::string base = path.substr(0, dot);
    const std::string extension = path.substr(dot);
    for (int n = 1; n <= kMaxUniqueNumber; ++n) {
        std::string candidate = base;
        candidate.append(" (").append(std::to_string(n)).append(")").append(extension);
        if (!FileExists(candidate)) {
            path = std::move(candidate);
            return true;
        }
    }
    return false;
}

} // namespace tarvoqc
