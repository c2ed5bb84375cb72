#pragma once

#include <cstdint>
#include <string>

namespace tarvoqc {

// Windows-compatible attribute bits of a file.
inline constexpr std::uint32_t kAttrReadOnly = 0x01; // the owner may not write
inline constexpr std::uint32_t kAttrHidden = 0x02;   // the name begins with "."
inline constexpr std::uint32_t kAttrDirectory = 0x10;
inline constexpr std::uint32_t kAttrArchive = 0x20; // a regular file
inline constexpr std::uint32_t kAttrNormal = 0x80;  // no other bit set

// Windows file time: 100 ns units since 1601-01-01 UTC.
using FileTime = std::uint64_t;

struct FileInfo
{
    std::uint32_t attributes = 0;
    std::uint64_t size = 0;
    FileTime creationTime = 0;  // birth time where the file system records one, else ctime
    FileTime lastWriteTime = 0; // modification time
};

// Queries the facts of path (following links). False when the path cannot be queried.
bool queryFileInfo(const std::string& path, FileInfo& info);
// The same facts of an open file (no name, so never the hidden bit).
bool queryFileInfo(int fd, FileInfo& info);

// Opens path for reading when it names a regular file (links followed); -1 otherwise. The
// open does not wait for a FIFO's writer or a device, so a clip that is none of ours is
// refused at once; the handle then blocks on reads as usual.
int openRegularFile(const std::string& path);

// Whether another program has a file open for writing, as far as a read lease tells: Locked
// when the lease is refused because of a writer, Free when it could be taken, Unknown when
// it cannot be tried at all (a file of another owner without the right to lease it, file
// systems without leases). The lease is given back at once, so a writer is never held up
// by the probe.
enum class WriteLockProbe { Free, Locked, Unknown };
WriteLockProbe probeWriteLock(int fd);

// Locked by the probe above; a file the probe cannot judge counts as not locked (the
// engine's open of a clip, which a later change of the file is caught by anyway).
bool isWriteLocked(int fd);

} // namespace tarvoqc
