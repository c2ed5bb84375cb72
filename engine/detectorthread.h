#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "engine/ffmpeg.h"

namespace tarvoqc {

// Runs the picture and sound detectors of one clip (level 4) on a thread of their own,
// beside the decoder: the read pass hands each decoded frame over (a new reference to it)
// and goes on reading and decoding, so that the decoder's threads and the detectors work at
// the same time instead of taking turns on the read pass's thread. Frames are worked on in
// the order they were handed over. The read pass waits only while kSlots frames are queued
// (which bounds the memory the queue holds) and in drain().
//
// The queue is a ring of slots between two atomic counters, so no lock is ever taken; the
// owner's only blocking calls (a full queue, drain()) wait on an eventfd. The destructor
// stops the detector thread after the frame in hand.
//
// Thread-safety: post() and drain() come from one owner thread (the checker's); the
// destructor may run on another once the owner has ended. Each Client's detect() runs on
// the detector thread only; a client must outlive the frames posted to it (drain(), or
// destroy this object first).
class DetectorThread
{
public:
    // Frames queued at most: enough to carry the detectors over a slow picture, few enough
    // that the queue adds little memory (a 1080p 4:2:2 10-bit picture is 8 MB). Six slots
    // were not faster than three on 1080p H.264, and cost a peak above ffmpeg's own.
    static constexpr std::size_t kSlots = 3;

    // What a frame is handed to.
    class Client
    {
    public:
        // One frame (null: the stream's end) with the owner's time stamp and start (see
        // ContentChecks); runs on the detector thread. The frame is the client's to use
        // until it returns.
        virtual void detect(const AVFrame* frame, std::int64_t time, std::int64_t start) = 0;

    protected:
        ~Client() = default;
    };

    // A running thread, or null when none could be started (the owner then runs the
    // detectors itself).
    static std::unique_ptr<DetectorThread> start();
    ~DetectorThread(); // frames still queued are dropped, not detected
    DetectorThread(const DetectorThread&) = delete;
    DetectorThread& operator=(const DetectorThread&) = delete;

    // Queues a new reference to frame (null: the end) for client; waits while the queue is
    // full. False when the frame could not be referenced (it is then not queued).
    bool post(Client& client, const AVFrame* frame, std::int64_t time, std::int64_t start);
    // Waits until every frame posted so far has been detected.
    void drain();

private:
    struct Slot
    {
        Client* client = nullptr;
        AVFrame* frame = nullptr; // owned while queued; null for a stream's end
        std::int64_t time = 0;
        std::int64_t start = 0;
    };

    DetectorThread() = default;
    void run();
    // Sleeps on fd until ready() holds, with the protocol of HashReader: publish that we
    // sleep, look again, then wait; the other side looks at the flag after it publishes.
    template <typename Ready> void sleepUntil(std::atomic<bool>& sleeping, int fd, Ready ready);
    static void wake(std::atomic<bool>& sleeping, int fd);

    std::array<Slot, kSlots> m_slots{};
    std::atomic<std::uint64_t> m_posted{0}; // written by the owner
    std::atomic<std::uint64_t> m_done{0};   // written by the thread
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_threadSleeps{false};
    std::atomic<bool> m_ownerSleeps{false};
    int m_workFd = -1;  // the thread sleeps on it while the queue is empty
    int m_spaceFd = -1; // the owner sleeps on it while the queue is full or draining
    std::thread m_thread;
};

} // namespace tarvoqc
