#pragma once

#include <cerrno>

#include <sys/eventfd.h>
#include <unistd.h>

namespace tarvoqc {

// The eventfd wake-ups of the engine's helper threads (HashReader, DetectorThread): no lock,
// so that a wait left by a forced abort strands nothing.

// Blocks until the eventfd has been signalled at least once since it was last drained.
inline void waitEvent(int fd)
{
    eventfd_t value = 0;
    while (::eventfd_read(fd, &value) != 0 && errno == EINTR) {
    }
}

inline void signalEvent(int fd)
{
    ::eventfd_write(fd, 1);
}

inline void closeFd(int& fd)
{
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

} // namespace tarvoqc
