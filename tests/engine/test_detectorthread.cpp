#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "engine/detectorthread.h"

namespace tarvoqc {
namespace {

// Takes its time over each frame and notes the time stamps it was given.
class SlowClient : public DetectorThread::Client
{
public:
    void detect(const AVFrame* frame, std::int64_t time, std::int64_t) override
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        seen.push_back(frame != nullptr ? time : -1);
    }
    std::vector<std::int64_t> seen;
};

// Frames reach the client in order; drain waits for all of them; a thread destroyed with
// frames still queued drops them (under ASan: without a leak) and never waits for them.
TEST(DetectorThread, HandsFramesOverInOrderAndDropsTheRestWhenDestroyed)
{
    AVFrame* frame = av_frame_alloc();
    frame->format = AV_SAMPLE_FMT_S16;
    frame->nb_samples = 1024;
    frame->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    ASSERT_EQ(av_frame_get_buffer(frame, 0), 0);
    for (const bool drain : {true, false}) {
        SCOPED_TRACE(drain);
        SlowClient client;
        {
            const auto detectors = DetectorThread::start();
            ASSERT_NE(detectors, nullptr);
            for (std::int64_t time = 0; time < 40; ++time) {
                ASSERT_TRUE(detectors->post(client, frame, time, 0));
            }
            detectors->post(client, nullptr, 0, 0);
            if (drain) {
                detectors->drain();
                EXPECT_EQ(client.seen.size(), 41U);
            }
        }
        for (std::size_t i = 0; i + 1 < client.seen.size(); ++i) {
            EXPECT_EQ(client.seen[i], static_cast<std::int64_t>(i));
        }
        EXPECT_EQ(client.seen.size() == 41, drain);
    }
    av_frame_free(&frame);
}

} // namespace
} // namespace tarvoqc
