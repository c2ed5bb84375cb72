#include "engine/contentchecks.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "engine/clipchecker.h"
#include "engine/enginetrace.h"

namespace tarvoqc {

namespace {

using Cat = QcIssueCategory;
using Sev = QcSeverity;

// The detectors and their settings; everything not named is the detector's default
// (blackdetect's picture and pixel thresholds, freezedetect's noise and 2 s, silencedetect's
// -60 dB and 2 s over all channels together).
struct DetectorStage
{
    const char* name;
    const char* args;
};
constexpr DetectorStage kVideoStages[] = {{"blackdetect", nullptr}, {"freezedetect", nullptr}};
constexpr DetectorStage kAudioStages[] = {{"ebur128", "peak=true:metadata=1"},
                                          {"silencedetect", nullptr}};

constexpr ClipTicks kSecond = kTicksPerSecond;
// The run freezedetect and silencedetect wait for by default before they mark one, s.
constexpr double kDetectorShortest = 2.0;
// A run that starts or ends this close to the stream's first or last frame touches it:
// the detectors give sample-exact times, the frames' own times may be rounded.
constexpr ClipTicks kEdgeSlack = kSecond / 100;
// -60 dBFS, silencedetect's own threshold: a stream with no sample reaching it is silent.
constexpr double kSilentPeak = 0.001;
// Full-scale samples in a row from which the sound counts as clipped.
constexpr int kClipRun = 3;

// Integrated loudness is judged only on a programme of 3 s or more: the loudness meter's
// short-term window. Shorter sound (a stinger, a test excerpt, a track file of a few frames)
// gives the measure only a handful of overlapping 400 ms blocks, ruled by its first and last
// moments, and a short-term loudness it never fills, so no delivery rule can be held to it.
constexpr double kShortestJudgedSeconds = 3.0;
// Programmes under this length are short-form: a broadcast rule may add its limits on the
// highest short-term and momentary loudness.
constexpr double kShortFormBelowSeconds = 30.0;
// The loudness measure's absolute gate: a programme none of whose 400 ms blocks reaches it
// has no integrated loudness at all (ebur128 then shows the gate itself, -70 LUFS).
constexpr double kAbsoluteGate = -70.0;

// What the sound detectors are given at most. ebur128 allocates, when its graph is
// configured, the last 3 s of every channel (its short-term window) and a true-peak
// resampler: a header that claims an absurd rate or channel count makes it ask for
// gigabytes, the allocation fails inside the configuration, and the library's own teardown
// of that half-configured filter then reads a null pointer. Such sound is not handed to the
// detectors at all. The limits take every real rate (8 kHz telephone to 768 kHz) and up
// to 64 channels, with at most about 80 MB of detector state (32 channels at 96 kHz).
constexpr int kMinDetectorRate = 1000;
constexpr int kMaxDetectorRate = 768000;
constexpr int kMaxDetectorChannels = 64;
constexpr std::int64_t kMaxDetectorSamplesPerSecond = 32LL * 96000;

// "By run": a run at the stream's start or end is a lead-in or lead-out.
Sev severityOfRun(ClipTicks length, bool atEdge)
{
    if (atEdge) {
        return Sev::Warning;
    }
    return length < 2 * kSecond ? Sev::Low : length < 10 * kSecond ? Sev::High : Sev::Highest;
}

// "By excess" of the loudness over its tolerance, in LU; nothing at or below 0.
struct ExcessRow
{
    double below;
    Sev severity;
};
constexpr ExcessRow kExcessRows[] = {{2.0, Sev::Warning}, {5.0, Sev::Low}, {10.0, Sev::High}};

Sev severityOfExcess(double excess)
{
    for (const ExcessRow& row : kExcessRows) {
        if (excess < row.below) {
            return row.severity;
        }
    }
    return Sev::Highest;
}

ClipTicks secondsToTicks(double seconds)
{
    const double ticks = seconds * static_cast<double>(kTicksPerSecond);
    if (!std::isfinite(ticks) || std::fabs(ticks) >= 9.0e18) {
        return kNoTime;
    }
    return std::llround(ticks);
}

const char* metadataValue(const AVFrame& frame, const char* key)
{
    const AVDictionaryEntry* entry = av_dict_get(frame.metadata, key, nullptr, 0);
    return entry != nullptr ? entry->value : nullptr;
}

bool metadataNumber(const AVFrame& frame, const char* key, double& out)
{
    const char* text = metadataValue(frame, key);
    if (text == nullptr) {
        return false;
    }
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (end == text || !std::isfinite(value)) {
        return false;
    }
    out = value;
    return true;
}

// The full scale of a sample format whose samples hold `bits` significant bits (0 or more
// than the format has: all of them). Integer samples of fewer bits are left-aligned, so a
// 24-bit sample's positive full scale in 32 bits is 0x7FFFFF00, not the type's maximum.
template <typename T> struct FullScale
{
    T high;
    T low;
    bool reached(T v) const { return v >= high || v <= low; }
};
template <typename T> FullScale<T> fullScaleOf(int bits)
{
    if constexpr (std::is_floating_point_v<T>) {
        return {T{1}, T{-1}};
    } else if constexpr (std::is_same_v<T, std::uint8_t>) {
        return {255, 0};
    } else {
        using Unsigned = std::make_unsigned_t<T>;
        constexpr int width = std::numeric_limits<T>::digits + 1;
        const int unused = bits > 0 && bits < width ? width - bits : 0;
        const auto high = static_cast<Unsigned>(std::numeric_limits<T>::max()) &
                          static_cast<Unsigned>(~((Unsigned{1} << unused) - 1));
        return {static_cast<T>(high), std::numeric_limits<T>::min()};
    }
}
template <typename T> double magnitude(T v)
{
    if constexpr (std::is_floating_point_v<T>) {
        return std::fabs(static_cast<double>(v));
    } else if constexpr (std::is_same_v<T, std::uint8_t>) {
        return std::fabs(static_cast<double>(v) - 128.0) / 128.0;
    } else {
        return std::fabs(static_cast<double>(v)) /
               -static_cast<double>(std::numeric_limits<T>::min());
    }
}

} // namespace

ContentChecks::ContentChecks(ClipChecker& owner, int streamIndex, const AVCodecContext& decoder,
                             AVRational timeBase, std::int64_t streamStart,
                             const ClipCheckOptions& options, int threads,
                             DetectorThread* detectors)
    : m_owner(owner), m_index(streamIndex), m_type(decoder.codec_type), m_decoder(decoder),
      m_timeBase(timeBase), m_options(options), m_threads(threads), m_detectors(detectors),
      m_in(av_frame_alloc()), m_out(av_frame_alloc())
{
    if (streamStart != kNoTime) {
        m_origin = toTicks(streamStart);
    }
}

ContentChecks::~ContentChecks() = default;

std::string ContentChecks::describeFormat(const AVFrame& frame) const
{
    char text[128];
    if (m_type == AVMEDIA_TYPE_VIDEO) {
        const char* name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(frame.format));
        std::snprintf(text, sizeof text, "Picture checks skipped: %dx%d %s", frame.width,
                      frame.height, name != nullptr ? name : "of no known format");
    } else {
        std::snprintf(text, sizeof text, "Sound checks skipped: %d channels at %d Hz",
                      frame.ch_layout.nb_channels, frame.sample_rate);
    }
    return text;
}

ClipTicks ContentChecks::toTicks(std::int64_t time) const
{
    return rescaleTime(time, {m_timeBase.num, m_timeBase.den}, kClipTimeBase);
}

bool ContentChecks::detectorsTake(const AVFrame& frame) const
{
    if (m_type == AVMEDIA_TYPE_VIDEO) {
        const AVPixFmtDescriptor* pixels =
            av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
        return pixels != nullptr &&
               (pixels->flags & (AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_BITSTREAM)) == 0 &&
               frame.width > 0 && frame.height > 0;
    }
    const int channels = frame.ch_layout.nb_channels;
    return av_get_sample_fmt_name(static_cast<AVSampleFormat>(frame.format)) != nullptr &&
           frame.sample_rate >= kMinDetectorRate && frame.sample_rate <= kMaxDetectorRate &&
           channels > 0 && channels <= kMaxDetectorChannels &&
           std::int64_t{frame.sample_rate} * channels <= kMaxDetectorSamplesPerSecond;
}

bool ContentChecks::buildGraph(const AVFrame& frame)
{
    if (!m_in || !m_out || !detectorsTake(frame)) {
        return false;
    }
    m_graph.reset(avfilter_graph_alloc());
    if (!m_graph) {
        return false;
    }
    m_graph->nb_threads = m_threads;
    char args[512];
    const bool video = m_type == AVMEDIA_TYPE_VIDEO;
    if (video) {
        const AVRational sar = frame.sample_aspect_ratio;
        std::snprintf(
            args, sizeof args, "video_size=%dx%d:pix_fmt=%d:time_base=%d/%d:pixel_aspect=%d/%d",
            frame.width, frame.height, frame.format, m_timeBase.num, m_timeBase.den,
            sar.num > 0 && sar.den > 0 ? sar.num : 1, sar.num > 0 && sar.den > 0 ? sar.den : 1);
        m_width = frame.width;
        m_height = frame.height;
    } else {
        int n = std::snprintf(args, sizeof args, "time_base=%d/%d:sample_rate=%d:sample_fmt=%s",
                              m_timeBase.num, m_timeBase.den, frame.sample_rate,
                              av_get_sample_fmt_name(static_cast<AVSampleFormat>(frame.format)));
        // The detectors need a layout: channels without one (a plain WAV) are taken in the
        // default layout of their number.
        AVChannelLayout known{};
        if (frame.ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
            av_channel_layout_default(&known, frame.ch_layout.nb_channels);
        } else if (av_channel_layout_copy(&known, &frame.ch_layout) < 0) {
            return false;
        }
        char layout[256] = "";
        const bool described = av_channel_layout_describe(&known, layout, sizeof layout) > 0;
        av_channel_layout_uninit(&known);
        if (!described) {
            return false;
        }
        std::snprintf(args + n, sizeof args - static_cast<std::size_t>(n), ":channel_layout=%s",
                      layout);
        m_sampleRate = frame.sample_rate;
        m_channels = frame.ch_layout.nb_channels;
    }
    m_format = frame.format;

    AVFilterGraph* graph = m_graph.get();
    if (avfilter_graph_create_filter(&m_source, avfilter_get_by_name(video ? "buffer" : "abuffer"),
                                     "in", args, nullptr, graph) < 0 ||
        avfilter_graph_create_filter(&m_sink,
                                     avfilter_get_by_name(video ? "buffersink" : "abuffersink"),
                                     "out", nullptr, nullptr, graph) < 0) {
        return false;
    }
    AVFilterContext* previous = m_source;
    const std::span<const DetectorStage> stages =
        video ? std::span<const DetectorStage>(kVideoStages)
              : std::span<const DetectorStage>(kAudioStages);
    for (const DetectorStage& stage : stages) {
        AVFilterContext* filter = nullptr;
        // The freeze and silence detectors mark a run once it lasted their own 2 s: a shorter
        // minimum asked for must be theirs too.
        const double shortest =
            std::string_view(stage.name) == "freezedetect"    ? m_options.minFrozenSeconds
            : std::string_view(stage.name) == "silencedetect" ? m_options.minSilenceSeconds
                                                              : kDetectorShortest;
        const std::string own =
            shortest < kDetectorShortest ? "d=" + std::to_string(std::max(shortest, 0.01)) : "";
        if (avfilter_graph_create_filter(&filter, avfilter_get_by_name(stage.name), stage.name,
                                         own.empty() ? stage.args : own.c_str(), nullptr,
                                         graph) < 0 ||
            avfilter_link(previous, 0, filter, 0) < 0) {
            return false; // filters made but never configured: the graph frees them safely
        }
        previous = filter;
    }
    if (avfilter_link(previous, 0, m_sink, 0) < 0) {
        return false;
    }
    if (avfilter_graph_config(graph, nullptr) < 0) {
        // A filter whose configuration failed half-way may not survive its own teardown
        // (ebur128 then reads what it never allocated), so this graph is never freed. The
        // limits of detectorsTake keep this to a real shortage of memory.
        EngineTrace(kTraceNormal, "..Stream %d: the detectors' graph is left unfreed\n", m_index);
        static_cast<void>(m_graph.release());
        m_source = nullptr;
        m_sink = nullptr;
        return false;
    }
    return true;
}

void ContentChecks::addFrame(const AVFrame& frame, std::int64_t time, std::int64_t duration)
{
    if (m_finished) {
        return;
    }
    // Frames without a time of their own follow the previous one (they still hold sound).
    ClipTicks start = time != kNoTime ? toTicks(time) : m_end;
    if (start == kNoTime) {
        return;
    }
    const ClipTicks length = duration != kNoTime && duration > 0 ? toTicks(duration) : 0;
    const ClipTicks end = saturatingAdd(start, length);
    if (m_first == kNoTime) {
        m_first = start;
        if (m_origin == kNoTime) {
            m_origin = start;
        }
    }
    m_end = m_end == kNoTime ? end : std::max(m_end, end);

    if (m_type == AVMEDIA_TYPE_VIDEO) {
        const bool damaged =
            frame.decode_error_flags != 0 || (frame.flags & AV_FRAME_FLAG_CORRUPT) != 0;
        if (damaged && m_damageOpen) {
            m_damaged.back().end = end;
        } else if (damaged) {
            m_damaged.push_back({start, end});
        }
        m_damageOpen = damaged;
    } else {
        countClipping(frame, start);
    }

    if (time == kNoTime) {
        return;
    }
    if (m_detectors == nullptr) {
        detect(&frame, time, start);
    } else if (!m_detectors->post(*this, &frame, time, start)) {
        EngineTrace(kTraceNormal, "..Stream %d: a frame could not go to the detectors\n", m_index);
    }
}

void ContentChecks::detect(const AVFrame* frame, std::int64_t time, std::int64_t start)
{
    if (m_detectorsFailed) {
        return;
    }
    if (frame == nullptr) {
        if (m_graph) {
            pushToDetectors(nullptr, kNoTime);
        }
        return;
    }
    if (!m_graph) {
        if (!buildGraph(*frame)) {
            EngineTrace(kTraceNormal, "..Stream %d: the detectors could not be set up\n", m_index);
            m_detectorsFailed = true;
            m_notMeasured = describeFormat(*frame);
            m_graph.reset();
            return;
        }
    } else if (frame->format != m_format ||
               (m_type == AVMEDIA_TYPE_VIDEO ? frame->width != m_width || frame->height != m_height
                                             : frame->sample_rate != m_sampleRate ||
                                                   frame->ch_layout.nb_channels != m_channels)) {
        // The detectors measure one picture size and sound format: what they saw so far
        // is kept, the rest of the stream goes unmeasured.
        EngineTrace(kTraceNormal, "..Stream %d: format changed, detectors stopped at %s\n", m_index,
                    formatMediaTime100ns(saturatingSub(start, m_origin)).c_str());
        pushToDetectors(nullptr, kNoTime);
        m_detectorsFailed = true;
        m_detectorsEnd = start;
        return;
    }
    pushToDetectors(frame, time);
}

void ContentChecks::pushToDetectors(const AVFrame* frame, std::int64_t time)
{
    int rc = 0;
    if (frame != nullptr) {
        if (av_frame_ref(m_in.get(), frame) < 0) {
            return;
        }
        m_in->pts = time;
        if (m_type == AVMEDIA_TYPE_AUDIO) {
            m_measuredSamples += frame->nb_samples;
        }
        rc = av_buffersrc_add_frame_flags(m_source, m_in.get(), 0);
        av_frame_unref(m_in.get());
    } else {
        rc = av_buffersrc_add_frame_flags(m_source, nullptr, 0);
    }
    while (rc >= 0) {
        rc = av_buffersink_get_frame(m_sink, m_out.get());
        if (rc < 0) {
            break;
        }
        readMetadata(*m_out);
        av_frame_unref(m_out.get());
    }
    if (rc != AVERROR(EAGAIN) && rc != AVERROR_EOF) {
        EngineTrace(kTraceNormal, "..Stream %d: the detectors failed (%d)\n", m_index, rc);
        m_detectorsFailed = true;
    }
}

void ContentChecks::readMetadata(const AVFrame& frame)
{
    if (frame.metadata == nullptr) {
        return;
    }
    const AVRational base = av_buffersink_get_time_base(m_sink);
    const ClipTicks at = frame.pts == AV_NOPTS_VALUE
                             ? kNoTime
                             : rescaleTime(frame.pts, {base.num, base.den}, kClipTimeBase);
    double seconds = 0.0;
    if (m_type == AVMEDIA_TYPE_VIDEO) {
        // blackdetect marks the first black frame and the first frame after the run.
        if (metadataValue(frame, "lavfi.black_start") != nullptr && m_openBlack == kNoTime) {
            m_openBlack = at;
        }
        if (metadataValue(frame, "lavfi.black_end") != nullptr && m_openBlack != kNoTime) {
            m_black.push_back({m_openBlack, at});
            m_openBlack = kNoTime;
        }
        // freezedetect marks a freeze once it has lasted its 2 s, with the time it began.
        if (metadataNumber(frame, "lavfi.freezedetect.freeze_start", seconds) &&
            m_openFrozen == kNoTime) {
            m_openFrozen = secondsToTicks(seconds);
        }
        // The freeze ends at the frame that carries the mark: its own time is exact, where
        // the mark's text has six digits.
        if (metadataValue(frame, "lavfi.freezedetect.freeze_end") != nullptr &&
            m_openFrozen != kNoTime) {
            m_frozen.push_back({m_openFrozen, at});
            m_openFrozen = kNoTime;
        }
        return;
    }
    if (metadataNumber(frame, "lavfi.silence_start", seconds) && m_openSilence == kNoTime) {
        m_openSilence = secondsToTicks(seconds);
    }
    if (metadataNumber(frame, "lavfi.silence_end", seconds) && m_openSilence != kNoTime) {
        m_silence.push_back({m_openSilence, secondsToTicks(seconds)});
        m_openSilence = kNoTime;
    }
    if (metadataNumber(frame, "lavfi.r128.I", seconds)) {
        m_integrated = seconds;
        m_haveIntegrated = true;
    }
    if (metadataNumber(frame, "lavfi.r128.M", seconds)) {
        m_maxMomentary = std::max(m_maxMomentary, seconds);
    }
    if (metadataNumber(frame, "lavfi.r128.S", seconds)) {
        m_maxShortTerm = std::max(m_maxShortTerm, seconds);
    }
    if (metadataNumber(frame, "lavfi.r128.true_peak", seconds)) {
        m_truePeak = seconds;
    }
}

void ContentChecks::countClipping(const AVFrame& frame, ClipTicks time)
{
    const int channels = frame.ch_layout.nb_channels;
    const int samples = frame.nb_samples;
    if (channels <= 0 || samples <= 0 || frame.sample_rate <= 0 || frame.extended_data == nullptr) {
        return;
    }
    if (m_fullScaleRun.size() != static_cast<std::size_t>(channels)) {
        m_fullScaleRun.assign(static_cast<std::size_t>(channels), 0);
    }
    const auto format = static_cast<AVSampleFormat>(frame.format);
    const bool planar = av_sample_fmt_is_planar(format) != 0;
    const auto scan = [&]<typename T>(T) {
        const FullScale<T> full = fullScaleOf<T>(m_decoder.bits_per_raw_sample);
        for (int c = 0; c < channels; ++c) {
            const T* data = reinterpret_cast<const T*>(frame.extended_data[planar ? c : 0]);
            const int step = planar ? 1 : channels;
            const int offset = planar ? 0 : c;
            int& run = m_fullScaleRun[static_cast<std::size_t>(c)];
            for (int i = 0; i < samples; ++i) {
                const T v = data[offset + i * step];
                m_samplePeak = std::max(m_samplePeak, magnitude(v));
                if (!full.reached(v)) {
                    run = 0;
                    continue;
                }
                ++run;
                if (run == kClipRun) {
                    m_clipped += kClipRun;
                    const ClipTicks first =
                        saturatingAdd(time, rescaleTime(i - (kClipRun - 1), {1, frame.sample_rate},
                                                        kClipTimeBase));
                    m_firstClip = m_firstClip == kNoTime ? first : std::min(m_firstClip, first);
                } else if (run > kClipRun) {
                    ++m_clipped;
                }
            }
        }
    };
    switch (av_get_packed_sample_fmt(format)) {
    case AV_SAMPLE_FMT_U8:
        scan(std::uint8_t{});
        break;
    case AV_SAMPLE_FMT_S16:
        scan(std::int16_t{});
        break;
    case AV_SAMPLE_FMT_S32:
        scan(std::int32_t{});
        break;
    case AV_SAMPLE_FMT_S64:
        scan(std::int64_t{});
        break;
    case AV_SAMPLE_FMT_FLT:
        scan(float{});
        break;
    case AV_SAMPLE_FMT_DBL:
        scan(double{});
        break;
    default:
        return;
    }
    m_sampleCount += samples;
}

void ContentChecks::finish()
{
    if (m_finished) {
        return;
    }
    m_finished = true;
    if (m_detectors == nullptr) {
        detect(nullptr, kNoTime, kNoTime);
    } else {
        m_detectors->post(*this, nullptr, kNoTime, kNoTime);
        m_detectors->drain();
    }
    m_graph.reset();
    if (m_first == kNoTime) {
        return; // nothing was decoded: the decode checks have said so
    }
    // Runs still open at the end last to the end of the last frame the detectors saw.
    const ClipTicks end = m_detectorsEnd != kNoTime ? m_detectorsEnd : m_end;
    for (auto [open, runs] :
         {std::pair{&m_openBlack, &m_black}, std::pair{&m_openFrozen, &m_frozen},
          std::pair{&m_openSilence, &m_silence}}) {
        if (*open != kNoTime) {
            runs->push_back({*open, end});
            *open = kNoTime;
        }
    }
    if (!m_notMeasured.empty()) {
        m_owner.report(m_type == AVMEDIA_TYPE_VIDEO ? Cat::Video : Cat::Audio, Sev::Warning,
                       m_index, "%s", m_notMeasured.c_str());
    }
    if (m_type == AVMEDIA_TYPE_VIDEO) {
        reportVideo();
    } else {
        reportAudio();
    }
}

void ContentChecks::reportRuns(const std::vector<Run>& runs, ClipTicks minimum, const char* format,
                               bool damaged)
{
    for (const Run& run : runs) {
        if (run.start == kNoTime || run.end == kNoTime) {
            continue;
        }
        const ClipTicks length = saturatingSub(run.end, run.start);
        if (length < minimum) {
            continue;
        }
        const bool atEdge =
            m_options.leadRunsAllowed && (run.start <= saturatingAdd(m_first, kEdgeSlack) ||
                                          run.end >= saturatingSub(m_end, kEdgeSlack));
        const Sev severity =
            damaged && length < 2 * kSecond ? Sev::Low : severityOfRun(length, atEdge);
        const Cat category = m_type == AVMEDIA_TYPE_VIDEO ? Cat::Video : Cat::Audio;
        const ClipTicks at = saturatingSub(run.start, m_origin);
        m_owner.reportAt(category, severity, m_index, at, length, format,
                         formatMediaTime100ns(length).c_str(), formatMediaTime100ns(at).c_str());
    }
}

void ContentChecks::reportVideo()
{
    reportRuns(m_black, secondsToTicks(m_options.minBlackSeconds),
               "Black picture for %s sec from %s", false);
    // A black picture is frozen too: a freeze within a black run is that run, said once.
    std::vector<Run> frozen;
    for (const Run& run : m_frozen) {
        const bool inBlack = std::any_of(m_black.begin(), m_black.end(), [&](const Run& black) {
            return run.start >= saturatingSub(black.start, kEdgeSlack) &&
                   run.end <= saturatingAdd(black.end, kEdgeSlack);
        });
        if (!inBlack) {
            frozen.push_back(run);
        }
    }
    reportRuns(frozen, secondsToTicks(m_options.minFrozenSeconds),
               "Frozen picture for %s sec from %s", false);
    reportRuns(m_damaged, 1, "Damaged picture for %s sec from %s (concealed by the decoder)", true);
}

void ContentChecks::reportLoudness()
{
    const bool rule = m_options.loudnessRule;
    // Without a rule chosen, loudness is information: said, but never more than a Warning.
    const auto graded = [rule](Sev severity) { return rule ? severity : Sev::Warning; };
    const double seconds =
        m_sampleRate > 0 ? static_cast<double>(m_measuredSamples) / m_sampleRate : 0.0;
    if (m_haveIntegrated && m_maxMomentary >= kAbsoluteGate && seconds >= kShortestJudgedSeconds) {
        const double excess =
            std::fabs(m_integrated - m_options.loudnessTarget) - m_options.loudnessTolerance;
        if (excess > 0.0) {
            m_owner.report(Cat::Audio, graded(severityOfExcess(excess)), m_index,
                           "Loudness %.1f LUFS, target %.1f LUFS +/- %.1f LU", m_integrated,
                           m_options.loudnessTarget, m_options.loudnessTolerance);
        }
        if (rule && seconds < kShortFormBelowSeconds) {
            for (const auto& [measured, limit, format] :
                 {std::tuple{
                      m_maxShortTerm, m_options.shortFormMaxShortTerm,
                      "Short-term loudness %.1f LUFS over the short-form limit of %.1f LUFS"},
                  std::tuple{
                      m_maxMomentary, m_options.shortFormMaxMomentary,
                      "Momentary loudness %.1f LUFS over the short-form limit of %.1f LUFS"}}) {
                if (limit && measured > *limit) {
                    m_owner.report(Cat::Audio, severityOfExcess(measured - *limit), m_index, format,
                                   measured, *limit);
                }
            }
        }
    }
    // A true peak is a property of the samples, measured over any length.
    if (m_truePeak > 0.0) {
        const double decibels = 20.0 * std::log10(m_truePeak);
        if (decibels > m_options.truePeakLimit) {
            m_owner.report(Cat::Audio, graded(Sev::Low), m_index,
                           "True peak %.1f dBTP over the limit of %.1f dBTP", decibels,
                           m_options.truePeakLimit);
        }
    }
}

void ContentChecks::reportAudio()
{
    if (m_sampleCount > 0 && m_samplePeak < kSilentPeak) {
        m_owner.report(Cat::Audio, Sev::Warning, m_index, "Stream is silent");
        return;
    }
    reportRuns(m_silence, secondsToTicks(m_options.minSilenceSeconds), "Silence for %s sec from %s",
               false);
    reportLoudness();
    if (m_clipped > 0) {
        const ClipTicks at = saturatingSub(m_firstClip, m_origin);
        m_owner.reportAt(Cat::Audio, Sev::High, m_index, at, kNoTime,
                         "Clipped sound: %d samples at full scale, first at %s",
                         static_cast<int>(std::min<std::int64_t>(m_clipped, INT32_MAX)),
                         formatMediaTime100ns(at).c_str());
    }
}

} // namespace tarvoqc
