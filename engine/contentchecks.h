#pragma once

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "engine/checkoptions.h"
#include "engine/detectorthread.h"
#include "engine/ffmpeg.h"
#include "results/mediatime.h"

namespace tarvoqc {

class ClipChecker;

// The picture and sound checks of check level 4 on one decoded stream. The frames that
// the read pass decodes go through a filter graph of the media libraries' detectors
// (video: blackdetect, freezedetect; audio: ebur128 with true peak, silencedetect), whose
// findings come back as frame metadata; damaged pictures (the decoder's own marks) and
// clipped samples are counted here on the frames themselves. finish() turns the runs and
// measures into issues of the owner.
//
// Owned by its ClipStream. addFrame and finish run on the checker's thread; the detector
// graph (detect) runs on the clip's DetectorThread when there is one, else inline. What the
// graph finds is read only in finish, after the thread has drained.
class ContentChecks : private DetectorThread::Client
{
public:
    // decoder: the open decoder whose frames these are (its kind, and the real sample depth
    // of the sound); it must outlive this object. timeBase: the stream's; streamStart: the
    // container stream's start in it (kNoTime: the first frame counts as the start).
    // threads: the detector graph's threads (0: the library's choice). detectors: the
    // clip's detector thread, which must outlive this object's frames (may be null).
    ContentChecks(ClipChecker& owner, int streamIndex, const AVCodecContext& decoder,
                  AVRational timeBase, std::int64_t streamStart, const ClipCheckOptions& options,
                  int threads, DetectorThread* detectors);
    virtual ~ContentChecks();
    ContentChecks(const ContentChecks&) = delete;
    ContentChecks& operator=(const ContentChecks&) = delete;

    // One decoded frame, in decoding order. time: its best-effort time stamp (stream time
    // base, kNoTime when unknown); duration: its length in the same base. The frame is
    // not changed; the detectors take their own reference.
    void addFrame(const AVFrame& frame, std::int64_t time, std::int64_t duration);

    // Drains the detectors, closes the runs still open at the last frame and reports.
    // Once; later calls do nothing.
    void finish();

private:
    struct Run
    {
        ClipTicks start = kNoTime;
        ClipTicks end = kNoTime;
    };

    // The detector graph's share of a frame (see DetectorThread::Client).
    void detect(const AVFrame* frame, std::int64_t time, std::int64_t start) override;
    // Whether the detectors can take frames of this format; nothing is allocated to know.
    bool detectorsTake(const AVFrame& frame) const;
    bool buildGraph(const AVFrame& frame);
    // The issue text for a stream whose frames the detectors could not take.
    std::string describeFormat(const AVFrame& frame) const;
    // Feeds one frame (null: the end) and reads every frame the detectors give back.
    void pushToDetectors(const AVFrame* frame, std::int64_t time);
    void readMetadata(const AVFrame& frame);
    void countClipping(const AVFrame& frame, ClipTicks time);
    ClipTicks toTicks(std::int64_t time) const;

    void reportVideo();
    void reportAudio();
    void reportLoudness();
    void reportRuns(const std::vector<Run>& runs, ClipTicks minimum, const char* format,
                    bool damaged);

    ClipChecker& m_owner;
    const int m_index;
    const AVMediaType m_type;
    const AVCodecContext& m_decoder;
    const AVRational m_timeBase;
    const ClipCheckOptions m_options;
    const int m_threads;
    DetectorThread* const m_detectors;
    ClipTicks m_origin = kNoTime; // set with the first frame, before any goes to the detectors

    bool m_finished = false;

    // The checker thread's: the frames as decoded.
    ClipTicks m_first = kNoTime; // first frame's time
    ClipTicks m_end = kNoTime;   // end of the latest frame
    std::vector<Run> m_damaged;
    bool m_damageOpen = false;
    double m_samplePeak = 0.0; // linear, of the samples as decoded
    std::int64_t m_sampleCount = 0;
    std::vector<int> m_fullScaleRun; // per channel: full-scale samples in a row so far
    std::int64_t m_clipped = 0;
    ClipTicks m_firstClip = kNoTime;

    // The detector graph's (detect), read by finish only after the detector thread drained.
    av::FilterGraphPtr m_graph;
    AVFilterContext* m_source = nullptr; // owned by the graph
    AVFilterContext* m_sink = nullptr;   // owned by the graph
    av::FramePtr m_in;
    av::FramePtr m_out;
    bool m_detectorsFailed = false;
    std::string m_notMeasured; // why the detectors never ran, as issue text; empty when they did
    // What the graph was built for; a frame that differs stops the detectors.
    int m_width = 0;
    int m_height = 0;
    int m_format = -1;
    int m_sampleRate = 0;
    int m_channels = 0;
    ClipTicks m_detectorsEnd = kNoTime; // where a change of format stopped the detectors
    std::vector<Run> m_black;
    std::vector<Run> m_frozen;
    std::vector<Run> m_silence;
    ClipTicks m_openBlack = kNoTime;
    ClipTicks m_openFrozen = kNoTime;
    ClipTicks m_openSilence = kNoTime;
    double m_integrated = 0.0;
    bool m_haveIntegrated = false;
    double m_maxMomentary = -HUGE_VAL;  // LUFS, highest of the 400 ms blocks
    double m_maxShortTerm = -HUGE_VAL;  // LUFS, highest of the 3 s windows
    std::int64_t m_measuredSamples = 0; // per channel, given to the loudness meter
    double m_truePeak = -1.0;           // linear, below 0 when none was measured
};

} // namespace tarvoqc
