#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace tarvoqc {

// The one way TarvoQC reads and writes files: the result documents, the settings file, the
// daily log, the reports and the copies of the watch job all go through this layer, so they
// share one set of rules. Opens never follow a surprise (a FIFO or a device put where a file
// was expected does not block, a terminal never becomes ours, no handle leaks into a child),
// reads and writes survive signals and short counts, and a durable write reaches the disk
// with its folder before it counts as done. Nothing here removes a file it did not create.
//
// Errors come back as false or an invalid handle with errno set; nothing throws. Paths are
// byte strings.
// Thread-safety: every function may be called from any thread; a FileHandle or a
// FileReplacement belongs to one thread at a time.

// An open file descriptor, closed when the handle goes.
class FileHandle
{
public:
    FileHandle() = default;
    explicit FileHandle(int fd) noexcept : m_fd(fd) {}
    ~FileHandle() { reset(); }
    FileHandle(FileHandle&& other) noexcept : m_fd(other.release()) {}
    FileHandle& operator=(FileHandle&& other) noexcept;
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    // Closes the descriptor held (its close error is lost) and holds fd instead.
    void reset(int fd = -1) noexcept;
    // Gives the descriptor up without closing it.
    int release() noexcept;
    // Closes now; false when the close failed (a late write error of some file systems shows
    // only here).
    bool close() noexcept;

private:
    int m_fd = -1;
};

// open(2) with O_CLOEXEC added, retried when a signal interrupts it.
FileHandle openFile(const std::string& path, int flags, mode_t mode = 0);

// Opens path for reading when it names a regular file (links followed). The open does not
// wait for a FIFO's writer or a device, and the handle blocks on reads as usual afterwards.
// Invalid otherwise, errno ENOENT or ENOTDIR when nothing is there, EINVAL when something
// other than a regular file is.
FileHandle openForReading(const std::string& path);

// Reads until count bytes or the end of the file: the number of bytes read, or -1 on a read
// error.
ssize_t readFull(int fd, void* buffer, std::size_t count);

// Writes all size bytes, as many calls as it takes: the number of bytes written, which is
// less than size only after a failure (errno says which; ENOSPC for a disk that filled up).
std::size_t writeFull(int fd, const void* data, std::size_t size);

// A whole file read into memory by readWholeFile.
struct FileBytes
{
    enum class Status {
        Ok,
        Missing, // nothing under the path (ENOENT, ENOTDIR)
        TooLong, // more than the limit: bytes holds the first limit bytes
        Failed   // not a regular file, no permission, a read error
    };
    Status status = Status::Failed;
    std::string bytes;
    mode_t mode = 0; // permission bits of the file read
};

// Reads the regular file at path, up to maxBytes (the limit is kept while reading too, since
// the file may grow meanwhile).
FileBytes readWholeFile(const std::string& path, std::size_t maxBytes);

// fsync(2) retried when a signal interrupts it.
bool syncFile(int fd);
// Flushes the folder's entries (a rename or a new name in it) to the disk. An empty folder
// is the current folder. File systems that cannot flush a folder count as done, since they
// offer nothing stronger to wait for.
bool syncFolder(const std::string& folder);

// The folder part of a path: up to its last "/", "/" for a file in the root, "." without one.
std::string folderOf(const std::string& path);

// Makes folder and its missing parents (mode 0777 less the umask). True when it is a folder
// afterwards.
bool makeFolders(const std::string& folder);

// The path a write to path lands in: links are followed, at most 40 deep, so a write through
// a link replaces the link's target (which a dangling link names too), never the link.
std::string followLinks(std::string path);

// What tells one file from another, whatever its names: device and inode.
struct FileId
{
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileId&) const = default;
};
// The identity of the file at path (links followed), or nullopt when nothing is there.
std::optional<FileId> fileIdOf(const std::string& path);

// Why a program must not write its output to path, or empty when it may: "it is not a
// regular file" when something other than a regular file is there (links followed), "it is
// read-only" when the process may not write it, "it is one of the inputs" when it is the same
// file as one of inputs, whatever the names (links and hard links count). Nothing there, or
// a dangling link, may be written.
std::string outputRefusal(const std::string& path, const std::vector<std::string>& inputs);

// Replaces (or creates) the file at a path as one step: the bytes go into a temp file beside
// the target, which takes the target's name only when everything was written and flushed,
// so a failure at any point (a full disk, a lost mount, a crash, a power cut) leaves the
// earlier file whole and no half-written file under the name.
//
// The target is the path with its links followed. An existing target must be a regular file
// (a device, a FIFO or a folder is never replaced) that the process may write; it keeps its
// permission bits, and its owner where the process may give it away. A new file gets 0666
// less the umask. The temp name is "." + the target's name + "." + a unique number + ".tmp",
// the name cut so that the whole stays within the 255 bytes a file name may have. Commit
// flushes the file, renames it over the target and flushes the folder. A replacement that
// is not committed removes its temp file, the only file it ever removes.
class FileReplacement
{
public:
    // Opens the temp file; ok() tells whether that worked. makeFolders: create the target's
    // missing folders first.
    explicit FileReplacement(const std::string& path, bool makeFolders = false);
    ~FileReplacement();
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;

    // False once anything has failed.
    bool ok() const { return m_ok; }
    // The file that commit replaces (the path with its links followed).
    const std::string& target() const { return m_target; }

    // Appends bytes to the temp file.
    bool write(std::string_view bytes);
    // Makes the written bytes the target's content (see the class comment). False when
    // anything failed, before or now; the target then holds what it held before, except
    // after a failure to flush the folder, when the new content is in place but its name may
    // not survive a power cut.
    bool commit();

private:
    std::string m_target;
    std::string m_temp;
    FileHandle m_file;
    bool m_ok = false;
};

// A FileReplacement with all of bytes in one call.
bool replaceFile(const std::string& path, std::string_view bytes, bool makeFolders = false);

// Test seam: when set, every flush of this layer (syncFile and syncFolder, also those inside
// FileReplacement) reports the device and inode it flushed and whether it was a folder, right
// after a successful flush, on the flushing thread. Tests set it to prove which writes are
// durable; nothing else does. Null: nothing is reported.
using SyncObserver = void (*)(dev_t device, ino_t inode, bool folder);
void setSyncObserver(SyncObserver observer);

} // namespace tarvoqc
