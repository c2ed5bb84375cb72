#include "engine/detectorthread.h"

#include <system_error>

#include "engine/eventfdwait.h"

namespace tarvoqc {

std::unique_ptr<DetectorThread> DetectorThread::start()
{
    std::unique_ptr<DetectorThread> detectors(new DetectorThread);
    detectors->m_workFd = ::eventfd(0, EFD_CLOEXEC);
    detectors->m_spaceFd = ::eventfd(0, EFD_CLOEXEC);
    if (detectors->m_workFd < 0 || detectors->m_spaceFd < 0) {
        return nullptr;
    }
    try {
        detectors->m_thread = std::thread([raw = detectors.get()] { raw->run(); });
    } catch (const std::system_error&) {
        return nullptr;
    }
    return detectors;
}

DetectorThread::~DetectorThread()
{
    if (m_thread.joinable()) {
        m_stopping.store(true, std::memory_order_seq_cst);
        wake(m_threadSleeps, m_workFd);
        m_thread.join();
    }
    for (std::uint64_t i = m_done.load(); i < m_posted.load(); ++i) {
        av_frame_free(&m_slots[i % kSlots].frame);
    }
    closeFd(m_workFd);
    closeFd(m_spaceFd);
}

template <typename Ready>
void DetectorThread::sleepUntil(std::atomic<bool>& sleeping, int fd, Ready ready)
{
    while (!ready()) {
        sleeping.store(true, std::memory_order_seq_cst);
        if (ready()) {
            sleeping.store(false, std::memory_order_seq_cst);
            return;
        }
        waitEvent(fd);
        sleeping.store(false, std::memory_order_seq_cst);
    }
}

void DetectorThread::wake(std::atomic<bool>& sleeping, int fd)
{
    if (sleeping.exchange(false, std::memory_order_seq_cst)) {
        signalEvent(fd);
    }
}

bool DetectorThread::post(Client& client, const AVFrame* frame, std::int64_t time,
                          std::int64_t start)
{
    AVFrame* copy = nullptr;
    if (frame != nullptr && (copy = av_frame_clone(frame)) == nullptr) {
        return false;
    }
    const std::uint64_t posted = m_posted.load(std::memory_order_relaxed);
    sleepUntil(m_ownerSleeps, m_spaceFd,
               [&] { return posted - m_done.load(std::memory_order_seq_cst) < kSlots; });
    m_slots[posted % kSlots] = {&client, copy, time, start};
    m_posted.store(posted + 1, std::memory_order_seq_cst);
    wake(m_threadSleeps, m_workFd);
    return true;
}

void DetectorThread::drain()
{
    const std::uint64_t posted = m_posted.load(std::memory_order_relaxed);
    sleepUntil(m_ownerSleeps, m_spaceFd,
               [&] { return m_done.load(std::memory_order_seq_cst) == posted; });
}

void DetectorThread::run()
{
    std::uint64_t done = 0;
    for (;;) {
        sleepUntil(m_threadSleeps, m_workFd, [&] {
            return m_stopping.load(std::memory_order_seq_cst) ||
                   m_posted.load(std::memory_order_seq_cst) > done;
        });
        if (m_stopping.load(std::memory_order_seq_cst)) {
            return;
        }
        Slot& slot = m_slots[done % kSlots];
        slot.client->detect(slot.frame, slot.time, slot.start);
        av_frame_free(&slot.frame);
        m_done.store(++done, std::memory_order_seq_cst);
        wake(m_ownerSleeps, m_spaceFd);
    }
}

} // namespace tarvoqc
