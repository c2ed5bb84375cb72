#include "batch/watchclaims.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "batch/checkprotocol.h"

namespace tarvoqc {

namespace {

constexpr const char* kOwnerFile = "owner";
constexpr std::string_view kResultSuffix = ".result";
constexpr std::string_view kPlanSuffix = ".move";
// A claim folder without its owner file is a job that died while making it; it is left
// alone for this long, in case its job is still making it.
constexpr int kOwnerlessGraceSeconds = 60;

bool isJournalName(std::string_view name)
{
    return name == kOwnerFile || name.ends_with(kResultSuffix) || name.ends_with(kPlanSuffix);
}

std::string hostName()
{
    char host[256] = {};
    if (::gethostname(host, sizeof host - 1) != 0 || host[0] == '\0') {
        return "host";
    }
    std::string name;
    for (const char* c = host; *c != '\0' && name.size() < 64; ++c) {
        const bool plain = (*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') ||
                           (*c >= '0' && *c <= '9') || *c == '-';
        name += plain ? *c : '-';
    }
    return name;
}

// A rename that never replaces a name. File systems without the flag get a look first,
// which suffices where only this job writes the target's folder.
bool renameNoReplace(int fromFolder, const std::string& from, int toFolder, const std::string& to)
{
    if (::renameat2(fromFolder, from.c_str(), toFolder, to.c_str(), RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return false;
    }
    struct stat st = {};
    if (::fstatat(toFolder, to.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        errno = EEXIST;
        return false;
    }
    return ::renameat(fromFolder, from.c_str(), toFolder, to.c_str()) == 0;
}

// "base (n).ext" as UniqueFileName makes it, for a bare file name.
std::string variant(const std::string& name, int n)
{
    const std::size_t dot = name.rfind('.');
    const std::size_t split = dot == std::string::npos || dot == 0 ? name.size() : dot;
    return name.substr(0, split) + " (" + std::to_string(n) + ")" + name.substr(split);
}

FileHandle openFolder(const std::string& path)
{
    return openFile(path, O_RDONLY | O_DIRECTORY);
}

// An exclusive lock on the whole file that lives as long as the open file description:
// false with errno EAGAIN (or EACCES) while another holder has it.
bool lockWhole(int fd)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return ::fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

// "host.pid.random": whether it names a job of this host that is gone.
bool deadJobOfThisHost(const std::string& name)
{
    const std::string host = hostName() + ".";
    if (!name.starts_with(host)) {
        return false;
    }
    const long pid = std::strtol(name.c_str() + host.size(), nullptr, 10);
    return pid > 0 && ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

std::string encodePlan(const WatchClaims::MovePlan& plan)
{
    std::string bytes;
    for (const std::string* field : {&plan.temp, &plan.final}) {
        bytes += std::to_string(field->size()) + ":" + *field;
    }
    return bytes;
}

std::optional<WatchClaims::MovePlan> decodePlan(std::string_view bytes)
{
    WatchClaims::MovePlan plan;
    for (std::string* field : {&plan.temp, &plan.final}) {
        const std::size_t colon = bytes.find(':');
        if (colon == std::string_view::npos || colon == 0 || colon > 8) {
            return std::nullopt;
        }
        std::size_t size = 0;
        for (const char c : bytes.substr(0, colon)) {
            if (c < '0' || c > '9') {
                return std::nullopt;
            }
            size = size * 10 + static_cast<std::size_t>(c - '0');
        }
        bytes.remove_prefix(colon + 1);
        if (bytes.size() < size) {
            return std::nullopt;
        }
        *field = bytes.substr(0, size);
        bytes.remove_prefix(size);
    }
    return bytes.empty() ? std::optional(plan) : std::nullopt;
}

std::optional<std::string> readJournal(const std::string& path)
{
    const FileBytes file = readWholeFile(path, kMaxFrameBytes);
    return file.status == FileBytes::Status::Ok ? std::optional(file.bytes) : std::nullopt;
}

// Moves name from one folder to the other under its name or its first free " (n)" variant;
// the name it got, or empty. The folders are open handles, so a watched folder that was
// renamed meanwhile still gets its clip back.
std::string putBack(int claimFolder, int watched, const std::string& name)
{
    for (int n = 0; n <= 999; ++n) {
        const std::string to = n == 0 ? name : variant(name, n);
        if (renameNoReplace(claimFolder, name, watched, to)) {
            ::fsync(watched);
            ::fsync(claimFolder);
            return to;
        }
        if (errno != EEXIST) {
            return {};
        }
    }
    return {};
}

} // namespace

WatchClaims::~WatchClaims()
{
    if (m_own.empty()) {
        return;
    }
    // Only an empty claim folder goes; what a failure left stays for the recovery.
    if (clipsIn(m_own).empty()) {
        DIR* dir = ::opendir(m_own.c_str());
        bool journal = false;
        while (const dirent* entry = dir != nullptr ? ::readdir(dir) : nullptr) {
            const std::string_view name = entry->d_name;
            journal = journal || (name != "." && name != ".." && name != kOwnerFile);
        }
        if (dir != nullptr) {
            ::closedir(dir);
        }
        if (!journal) {
            ::unlink((m_own + kOwnerFile).c_str());
            ::rmdir(m_own.c_str());
            ::rmdir((m_watched + kClaimsFolderName).c_str()); // fails while others use it
            syncFolder(m_watched);
        }
    }
    for (auto& [folder, lock] : m_held) {
        lock.reset();
    }
}

bool WatchClaims::open(const std::string& folder, std::string& error)
{
    m_watched = folder;
    m_watchedFolder = openFolder(folder);
    if (!m_watchedFolder.valid()) {
        error = std::strerror(errno);
        return false;
    }
    struct stat watched = {};
    if (::stat(folder.c_str(), &watched) != 0 || !S_ISDIR(watched.st_mode)) {
        error = std::strerror(errno == 0 ? ENOTDIR : errno);
        return false;
    }
    // Jobs of other users (an upload account, another host's service) claim into the same
    // folder: it gets the watched folder's permissions.
    const mode_t mode = watched.st_mode & 07777;
    const std::string claims = folder + kClaimsFolderName;
    if (::mkdir(claims.c_str(), mode) != 0 && errno != EEXIST) {
        error = std::strerror(errno);
        return false;
    }
    ::chmod(claims.c_str(), mode);
    std::uint32_t random = 0;
    if (::getrandom(&random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
        random = static_cast<std::uint32_t>(::getpid()) * 2654435761U;
    }
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, ".%d.%08x/", static_cast<int>(::getpid()), random);
    const std::string own = claims + "/" + hostName() + suffix;
    if (::mkdir(own.c_str(), mode) != 0) {
        error = std::strerror(errno);
        return false;
    }
    ::chmod(own.c_str(), mode);
    m_lock = openFile(own + kOwnerFile, O_RDWR | O_CREAT | O_EXCL, 0666);
    if (!m_lock.valid() || (!lockWhole(m_lock.get()) && errno != EINVAL && errno != ENOLCK)) {
        error = std::strerror(errno);
        m_lock.reset();
        ::unlink((own + kOwnerFile).c_str());
        ::rmdir(own.c_str());
        return false;
    }
    m_ownFolder = openFolder(own);
    if (!m_ownFolder.valid()) {
        error = std::strerror(errno);
        ::unlink((own + kOwnerFile).c_str());
        ::rmdir(own.c_str());
        return false;
    }
    syncFolder(own);
    syncFolder(claims);
    syncFolder(folder);
    m_own = own;
    return true;
}

std::string fitFileName(const std::string& name, std::string_view suffix)
{
    constexpr std::size_t kMaxName = 255;
    if (name.size() + suffix.size() <= kMaxName) {
        return name + std::string(suffix);
    }
    std::uint64_t hash = 14695981039346656037ULL; // FNV-1a
    for (const char c : name) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
    }
    char mark[24];
    std::snprintf(mark, sizeof mark, "~%016llx", static_cast<unsigned long long>(hash));
    std::size_t keep = kMaxName - suffix.size() - std::strlen(mark);
    while (keep > 0 && (static_cast<unsigned char>(name[keep]) & 0xC0) == 0x80) {
        --keep; // never inside a UTF-8 sequence
    }
    return name.substr(0, keep) + mark + std::string(suffix);
}

std::string WatchClaims::claim(const std::string& name)
{
    if (!renameNoReplace(m_watchedFolder.get(), name, m_ownFolder.get(), name)) {
        return {};
    }
    ::fsync(m_ownFolder.get());
    ::fsync(m_watchedFolder.get());
    return m_own + name;
}

std::string WatchClaims::giveBack(const std::string& name)
{
    const std::string back = putBack(m_ownFolder.get(), m_watchedFolder.get(), name);
    return back.empty() ? back : m_watched + back;
}

std::string WatchClaims::giveBackFrom(const std::string& claimFolder, const std::string& name)
{
    const FileHandle from = openFolder(claimFolder);
    const std::string back =
        from.valid() ? putBack(from.get(), m_watchedFolder.get(), name) : std::string();
    return back.empty() ? back : m_watched + back;
}

bool WatchClaims::writeResult(const std::string& name, const QcResult& result)
{
    return replaceFile(m_own + fitFileName(name, kResultSuffix), encodeDone({0, 0, result}));
}

std::optional<QcResult> WatchClaims::readResult(const std::string& name) const
{
    return readResultIn(m_own, name);
}

bool WatchClaims::writePlan(const std::string& name, const MovePlan& plan)
{
    return replaceFile(m_own + fitFileName(name, kPlanSuffix), encodePlan(plan));
}

std::optional<WatchClaims::MovePlan> WatchClaims::readPlan(const std::string& name) const
{
    return readPlanIn(m_own, name);
}

void WatchClaims::forget(const std::string& name)
{
    ::unlink((m_own + fitFileName(name, kResultSuffix)).c_str());
    ::unlink((m_own + fitFileName(name, kPlanSuffix)).c_str());
    syncFolder(m_own);
}

std::optional<QcResult> WatchClaims::readResultIn(const std::string& claimFolder,
                                                  const std::string& name)
{
    const auto bytes = readJournal(claimFolder + fitFileName(name, kResultSuffix));
    if (!bytes) {
        return std::nullopt;
    }
    FrameReader reader;
    reader.append(bytes->data(), bytes->size());
    const auto frame = reader.next();
    if (!frame || frame->type != FrameType::Done || reader.pending() != 0) {
        return std::nullopt;
    }
    auto done = decodeDone(frame->payload);
    return done ? std::optional(std::move(done->result)) : std::nullopt;
}

std::optional<WatchClaims::MovePlan> WatchClaims::readPlanIn(const std::string& claimFolder,
                                                             const std::string& name)
{
    const auto bytes = readJournal(claimFolder + fitFileName(name, kPlanSuffix));
    return bytes ? decodePlan(*bytes) : std::nullopt;
}

std::vector<std::string> WatchClaims::clipsIn(const std::string& claimFolder)
{
    std::vector<std::string> names;
    DIR* dir = ::opendir(claimFolder.c_str());
    if (dir == nullptr) {
        return names;
    }
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && !isJournalName(name)) {
            names.push_back(name);
        }
    }
    ::closedir(dir);
    return names;
}

std::vector<std::string> WatchClaims::abandoned()
{
    std::vector<std::string> folders;
    const std::string claims = m_watched + kClaimsFolderName + "/";
    DIR* dir = ::opendir(claims.c_str());
    if (dir == nullptr) {
        return folders;
    }
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && claims + name + "/" != m_own) {
            names.push_back(name);
        }
    }
    ::closedir(dir);
    for (const std::string& name : names) {
        const std::string folder = claims + name + "/";
        struct stat st = {};
        if (::lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            continue;
        }
        bool held = false;
        for (const auto& entry : m_held) {
            held = held || entry.first == folder;
        }
        if (held) {
            folders.push_back(folder);
            continue;
        }
        FileHandle lock = openFile(folder + kOwnerFile, O_RDWR);
        if (lock.valid() && lockWhole(lock.get())) {
            m_held.emplace_back(folder, std::move(lock));
            folders.push_back(folder);
        } else if (lock.valid() ? (errno == EINVAL || errno == ENOLCK) && deadJobOfThisHost(name)
                                : errno == ENOENT &&
                                      ::time(nullptr) - st.st_mtime > kOwnerlessGraceSeconds) {
            m_held.emplace_back(folder, std::move(lock));
            folders.push_back(folder);
        }
    }
    return folders;
}

void WatchClaims::release(const std::string& claimFolder)
{
    if (!clipsIn(claimFolder).empty()) {
        return;
    }
    DIR* dir = ::opendir(claimFolder.c_str());
    std::vector<std::string> journal;
    while (const dirent* entry = dir != nullptr ? ::readdir(dir) : nullptr) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            journal.push_back(name);
        }
    }
    if (dir != nullptr) {
        ::closedir(dir);
    }
    for (const std::string& name : journal) {
        ::unlink((claimFolder + name).c_str());
    }
    ::rmdir(claimFolder.c_str());
    syncFolder(m_watched + kClaimsFolderName);
    std::erase_if(m_held, [&](const auto& entry) { return entry.first == claimFolder; });
}

} // namespace tarvoqc
