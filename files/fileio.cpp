#include "files/fileio.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvoqc {

namespace {

std::atomic<SyncObserver> g_syncObserver{nullptr};

void reportSync(int fd, bool folder)
{
    const SyncObserver observer = g_syncObserver.load(std::memory_order_acquire);
    struct stat st
    {};
    if (observer != nullptr && ::fstat(fd, &st) == 0) {
        observer(st.st_dev, st.st_ino, folder);
    }
}

// The last component of a file name keeps at most this many bytes on every file system
// TarvoQC writes to.
constexpr std::size_t kMaxNameBytes = 255;

// A temp name beside target: "." + name + "." + pid and count + ".tmp", the name cut (never
// inside a UTF-8 sequence) so that the whole fits in kMaxNameBytes.
std::string tempNameBeside(const std::string& target)
{
    static std::atomic<unsigned> counter{0};
    std::string suffix(1, '.');
    suffix += std::to_string(::getpid());
    suffix += '-';
    suffix += std::to_string(counter.fetch_add(1));
    suffix += ".tmp";
    const auto slash = target.rfind('/');
    const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    std::size_t keep = std::min(target.size() - nameStart, kMaxNameBytes - 1 - suffix.size());
    while (keep > 0 && keep < target.size() - nameStart &&
           (static_cast<unsigned char>(target[nameStart + keep]) & 0xC0) == 0x80) {
        --keep;
    }
    std::string temp = target.substr(0, nameStart);
    temp += '.';
    temp.append(target, nameStart, keep);
    temp += suffix;
    return temp;
}

} // namespace

FileHandle& FileHandle::operator=(FileHandle&& other) noexcept
{
    if (this != &other) {
        reset(other.release());
    }
    return *this;
}

void FileHandle::reset(int fd) noexcept
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
    m_fd = fd;
}

int FileHandle::release() noexcept
{
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

bool FileHandle::close() noexcept
{
    const int fd = release();
    // A close interrupted by a signal has still released the descriptor on Linux: never retry.
    return fd < 0 || ::close(fd) == 0;
}

FileHandle openFile(const std::string& path, int flags, mode_t mode)
{
    int fd = -1;
    do {
        fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return FileHandle(fd);
}

FileHandle openForReading(const std::string& path)
{
    FileHandle file = openFile(path, O_RDONLY | O_NOCTTY | O_NONBLOCK);
    if (!file.valid()) {
        return file;
    }
    struct stat st
    {};
    const int flags = ::fcntl(file.get(), F_GETFL);
    if (::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode) || flags < 0 ||
        ::fcntl(file.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
        file.reset();
        errno = EINVAL;
    }
    return file;
}

ssize_t readFull(int fd, void* buffer, std::size_t count)
{
    auto* bytes = static_cast<unsigned char*>(buffer);
    std::size_t got = 0;
    while (got < count) {
        const ssize_t n = ::read(fd, bytes + got, count - got);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (n == 0) {
            break;
        }
        got += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

std::size_t writeFull(int fd, const void* data, std::size_t size)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd, bytes + done, size - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        if (n == 0) {
            errno = ENOSPC;
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    return done;
}

FileBytes readWholeFile(const std::string& path, std::size_t maxBytes)
{
    FileBytes result;
    const FileHandle file = openForReading(path);
    if (!file.valid()) {
        result.status = (errno == ENOENT || errno == ENOTDIR) ? FileBytes::Status::Missing
                                                              : FileBytes::Status::Failed;
        return result;
    }
    struct stat st
    {};
    if (::fstat(file.get(), &st) != 0) {
        return result;
    }
    result.mode = st.st_mode & 07777;
    if (st.st_size > 0 && static_cast<std::uint64_t>(st.st_size) <= maxBytes) {
        result.bytes.reserve(static_cast<std::size_t>(st.st_size));
    }
    std::array<char, 65536> chunk{};
    for (;;) {
        // One byte past the limit tells a file of exactly maxBytes from a longer one.
        const std::size_t want = std::min(chunk.size(), maxBytes + 1 - result.bytes.size());
        const ssize_t got = readFull(file.get(), chunk.data(), want);
        if (got < 0) {
            result.bytes.clear();
            return result;
        }
        result.bytes.append(chunk.data(), static_cast<std::size_t>(got));
        if (result.bytes.size() > maxBytes) {
            result.bytes.resize(maxBytes);
            result.status = FileBytes::Status::TooLong;
            return result;
        }
        if (static_cast<std::size_t>(got) < want) {
            result.status = FileBytes::Status::Ok;
            return result;
        }
    }
}

bool syncFile(int fd)
{
    int rc = 0;
    do {
        rc = ::fsync(fd);
    } while (rc != 0 && errno == EINTR);
    if (rc == 0) {
        reportSync(fd, false);
    }
    return rc == 0;
}

bool syncFolder(const std::string& folder)
{
    const FileHandle dir =
        openFile(folder.empty() ? std::string(".") : folder, O_RDONLY | O_DIRECTORY | O_NOCTTY);
    if (!dir.valid()) {
        return false;
    }
    int rc = 0;
    do {
        rc = ::fsync(dir.get());
    } while (rc != 0 && errno == EINTR);
    if (rc == 0) {
        reportSync(dir.get(), true);
    }
    return rc == 0 || errno == EINVAL || errno == ENOTSUP;
}

std::string folderOf(const std::string& path)
{
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool makeFolders(const std::string& folder)
{
    struct stat st
    {};
    if (::stat(folder.c_str(), &st) == 0) {
        return S_ISDIR(st.st_mode);
    }
    const std::string parent = folderOf(folder);
    if (parent != folder && parent != "." && parent != "/" && !makeFolders(parent)) {
        return false;
    }
    return ::mkdir(folder.c_str(), 0777) == 0 || errno == EEXIST;
}

std::string followLinks(std::string path)
{
    for (int depth = 0; depth < 40; ++depth) {
        struct stat st
        {};
        if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) {
            return path;
        }
        std::string target(PATH_MAX, '\0');
        const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
        if (length <= 0 || static_cast<std::size_t>(length) >= target.size()) {
            return path;
        }
        target.resize(static_cast<std::size_t>(length));
        const auto slash = path.rfind('/');
        if (target.front() == '/' || slash == std::string::npos) {
            path = std::move(target);
        } else {
            path.resize(slash + 1);
            path += target;
        }
    }
    return path;
}

std::optional<FileId> fileIdOf(const std::string& path)
{
    struct stat st
    {};
    if (::stat(path.c_str(), &st) != 0) {
        return std::nullopt;
    }
    return FileId{st.st_dev, st.st_ino};
}

std::string outputRefusal(const std::string& path, const std::vector<std::string>& inputs)
{
    struct stat target
    {};
    if (::stat(path.c_str(), &target) != 0) {
        return {};
    }
    if (!S_ISREG(target.st_mode)) {
        return "it is not a regular file";
    }
    if (::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0) {
        return "it is read-only";
    }
    const FileId id{target.st_dev, target.st_ino};
    for (const std::string& input : inputs) {
        if (fileIdOf(input) == id) {
            return "it is one of the inputs";
        }
    }
    return {};
}

FileReplacement::FileReplacement(const std::string& path, bool makeFolders)
    : m_target(followLinks(path))
{
    if (makeFolders && !tarvoqc::makeFolders(folderOf(m_target))) {
        return;
    }
    struct stat existing
    {};
    const bool exists = ::stat(m_target.c_str(), &existing) == 0;
    if (exists && !S_ISREG(existing.st_mode)) {
        errno = EINVAL;
        return;
    }
    // A file the process may not write keeps its content, though the folder would allow the
    // rename that replaces it.
    if (exists && ::faccessat(AT_FDCWD, m_target.c_str(), W_OK, AT_EACCESS) != 0) {
        return;
    }
    for (int attempt = 0; attempt < 100 && !m_file.valid(); ++attempt) {
        // A new name only, never a link planted under it.
        m_temp = tempNameBeside(m_target);
        m_file = openFile(m_temp, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY, 0666);
        if (!m_file.valid() && errno != EEXIST) {
            break;
        }
    }
    if (!m_file.valid()) {
        m_temp.clear();
        return;
    }
    m_ok = true;
    if (exists) {
        // Only a privileged process may give the file away; for others the new file stays
        // theirs, as any rewrite of a file they may write would leave it. The mode comes
        // after the owner, whose change may clear it.
        if ((existing.st_uid != ::geteuid() || existing.st_gid != ::getegid()) &&
            ::fchown(m_file.get(), existing.st_uid, existing.st_gid) != 0) {
            errno = 0;
        }
        m_ok = ::fchmod(m_file.get(), existing.st_mode & 07777) == 0;
    }
}

FileReplacement::~FileReplacement()
{
    m_file.reset();
    if (!m_temp.empty()) {
        ::unlink(m_temp.c_str());
    }
}

bool FileReplacement::write(std::string_view bytes)
{
    m_ok = m_ok && writeFull(m_file.get(), bytes.data(), bytes.size()) == bytes.size();
    return m_ok;
}

bool FileReplacement::commit()
{
    // The data reaches the disk before the name does, so a power cut never leaves the name
    // over a file without its data.
    m_ok = m_ok && syncFile(m_file.get());
    m_ok = m_file.close() && m_ok;
    m_ok = m_ok && ::rename(m_temp.c_str(), m_target.c_str()) == 0;
    if (!m_ok) {
        return false;
    }
    m_temp.clear();
    m_ok = syncFolder(folderOf(m_target));
    return m_ok;
}

bool replaceFile(const std::string& path, std::string_view bytes, bool makeFolders)
{
    FileReplacement replacement(path, makeFolders);
    return replacement.write(bytes) && replacement.commit();
}

void setSyncObserver(SyncObserver observer)
{
    g_syncObserver.store(observer, std::memory_order_release);
}

} // namespace tarvoqc
