#pragma once

#include <cstdint>
#include <string>

#include "batch/workerthread.h"
#include "engine/clipchecker.h"
#include "results/qcresult.h"

namespace tarvoqc {

class TaskItem;

// Checks one clip on a worker thread at idle priority: opens it (on the worker, so a slow
// or blocked open never holds up the caller), runs the read and decode pass, and closes
// it. The result stays in the runner until it is harvested.
//
// Thread-safety: created, started, polled and destroyed by one owning thread (the
// window's or the command line's). progress() and result() may be called at any time;
// result() takes the checker's two locks one after the other.
class CheckRunner : public WorkerThread
{
public:
    // Remembers the item by its id and copies its path; the item is not kept.
    // decoderThreadOption: below 0 single-threaded decoding, otherwise the library's choice.
    // priority: the worker's priority (kThreadPriority...), idle for the window.
    // options: the limits of level 4 and the decoder threads (see ClipCheckOptions).
    CheckRunner(const TaskItem& item, CheckLevel level, int decoderThreadOption,
                int priority = kThreadPriorityIdle, const ClipCheckOptions& options = {});
    // Stops the check (stop flag, up to 2 s, then the forced abort) and releases the
    // checker and its media library objects on the calling thread.
    ~CheckRunner() override;

    // Starts the check. When no thread can be made the clip is opened here instead, so
    // that its result still records how far it got; the runner then counts as finished.
    void StartCheck();

    // True once the check has ended (or never ran).
    bool finished() const { return !IsRunning(); }

    std::uint64_t itemId() const { return m_itemId; }
    const std::string& path() const { return m_path; }
    std::int32_t progress() const { return m_checker.ClipProgress(); }
    QcResult result() const { return m_checker.result(); }

protected:
    int Run() override;

private:
    const std::uint64_t m_itemId;
    const std::string m_path;
    const CheckLevel m_level;
    const int m_decoderThreadOption;
    const int m_priority;
    ClipChecker m_checker;
};

} // namespace tarvoqc
