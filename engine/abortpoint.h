#pragma once

#include <csignal>

namespace tarvoqc {

// Marks the stretch of code where the calling thread may be left at once by a forced
// abort: a blocking system call of our own (open, read, stat of a clip) during which the
// thread holds no lock and no half-made object, neither of ours nor of the C library or
// the media libraries. The worker thread's abort signal handler leaves the thread only
// while such a mark is set, so a forced abort can never strand a lock or corrupt a heap.
//
// Thread-safety: each thread has its own mark; the signal handler of that thread reads it.
class AbortPoint
{
public:
    AbortPoint() noexcept { t_depth = t_depth + 1; }
    ~AbortPoint() { t_depth = t_depth - 1; }
    AbortPoint(const AbortPoint&) = delete;
    AbortPoint& operator=(const AbortPoint&) = delete;

    // True while the calling thread is inside an abort point. Async-signal-safe.
    static bool active() noexcept { return t_depth > 0; }

private:
    static inline thread_local volatile std::sig_atomic_t t_depth = 0;
};

} // namespace tarvoqc
