#include "engine/fileinfo.h"

#include <cerrno>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvoqc {

namespace {

// Seconds between 1601-01-01 and 1970-01-01.
constexpr std::uint64_t kEpochDifference = 11'644'473'600ULL;

FileTime toFileTime(std::int64_t seconds, std::uint32_t nanoseconds)
{
    if (seconds < -static_cast<std::int64_t>(kEpochDifference)) {
        return 0;
    }
    return (static_cast<std::uint64_t>(seconds + static_cast<std::int64_t>(kEpochDifference)) *
            10'000'000ULL) +
           nanoseconds / 100;
}

std::string_view baseName(std::string_view path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.remove_suffix(1);
    }
    const auto slash = path.find_last_of('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

} // namespace

namespace {

bool statFile(int dirFd, const char* path, int flags, std::string_view name, FileInfo& info)
{
    struct statx st = {};
    if (::statx(dirFd, path, flags, STATX_BASIC_STATS | STATX_BTIME, &st) != 0) {
        return false;
    }
    std::uint32_t attributes = 0;
    if ((st.stx_mode & S_IWUSR) == 0) {
        attributes |= kAttrReadOnly;
    }
    if (!name.empty() && name.front() == '.' && name != "." && name != "..") {
        attributes |= kAttrHidden;
    }
    if (S_ISDIR(st.stx_mode)) {
        attributes |= kAttrDirectory;
    } else if (S_ISREG(st.stx_mode)) {
        attributes |= kAttrArchive;
    }
    info.attributes = attributes != 0 ? attributes : kAttrNormal;
    info.size = S_ISREG(st.stx_mode) ? st.stx_size : 0;
    const auto& created = (st.stx_mask & STATX_BTIME) != 0 ? st.stx_btime : st.stx_ctime;
    info.creationTime = toFileTime(created.tv_sec, created.tv_nsec);
    info.lastWriteTime = toFileTime(st.stx_mtime.tv_sec, st.stx_mtime.tv_nsec);
    return true;
}

} // namespace

bool queryFileInfo(const std::string& path, FileInfo& info)
{
    return statFile(AT_FDCWD, path.c_str(), 0, baseName(path), info);
}

bool queryFileInfo(int fd, FileInfo& info)
{
    return statFile(fd, "", AT_EMPTY_PATH, {}, info);
}

int openRegularFile(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        return -1;
    }
    struct stat st = {};
    const int flags = ::fcntl(fd, F_GETFL);
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || flags < 0 ||
        ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

WriteLockProbe probeWriteLock(int fd)
{
    if (::fcntl(fd, F_SETLEASE, F_RDLCK) == 0) {
        ::fcntl(fd, F_SETLEASE, F_UNLCK);
        return WriteLockProbe::Free;
    }
    return errno == EAGAIN || errno == EBUSY ? WriteLockProbe::Locked : WriteLockProbe::Unknown;
}

bool isWriteLocked(int fd)
{
    return probeWriteLock(fd) == WriteLockProbe::Locked;
}

} // namespace tarvoqc
