#include "batch/checkprotocol.h"

#include <bit>
#include <cerrno>
#include <cstring>
#include <type_traits>

#include <sys/socket.h>

namespace tarvoqc {

namespace {

static_assert(std::endian::native == std::endian::little,
              "the frames are written in the machine's order, which must be little-endian");

// Most streams and issues a result may claim; far above any real clip, so that a broken
// count cannot make the reader reserve gigabytes.
constexpr std::uint32_t kMaxStreams = 1 << 16;
constexpr std::uint32_t kMaxIssues = kIssueCap * kCategoryCount;

class Writer
{
public:
    explicit Writer(FrameType type)
    {
        m_bytes.resize(kFrameHeaderBytes);
        m_bytes[4] = static_cast<char>(type);
    }

    template <typename T> void put(T value)
    {
        static_assert(std::is_arithmetic_v<T>);
        char raw[sizeof(T)];
        std::memcpy(raw, &value, sizeof(T));
        m_bytes.append(raw, sizeof(T));
    }
    void putText(std::string_view text)
    {
        put(static_cast<std::uint32_t>(text.size()));
        m_bytes.append(text);
    }

    std::string finish()
    {
        const auto length = static_cast<std::uint32_t>(m_bytes.size() - kFrameHeaderBytes);
        std::memcpy(m_bytes.data(), &length, sizeof length);
        return std::move(m_bytes);
    }

private:
    std::string m_bytes;
};

// Reads fields in order; once a field runs past the payload every later read fails too,
// so a decoder checks ok() once at its end.
class Reader
{
public:
    explicit Reader(std::string_view payload) : m_rest(payload) {}

    template <typename T> T get()
    {
        static_assert(std::is_arithmetic_v<T>);
        T value{};
        if (m_rest.size() < sizeof(T)) {
            m_ok = false;
            m_rest = {};
            return value;
        }
        std::memcpy(&value, m_rest.data(), sizeof(T));
        m_rest.remove_prefix(sizeof(T));
        return value;
    }
    std::string getText()
    {
        const auto size = get<std::uint32_t>();
        if (m_rest.size() < size) {
            m_ok = false;
            m_rest = {};
            return {};
        }
        std::string text(m_rest.substr(0, size));
        m_rest.remove_prefix(size);
        return text;
    }
    void fail() { m_ok = false; }
    // No field has failed so far.
    bool good() const { return m_ok; }
    // Every field read and nothing left over.
    bool ok() const { return m_ok && m_rest.empty(); }

private:
    std::string_view m_rest;
    bool m_ok = true;
};

// Every member of ClipCheckOptions travels; one added there must be added here too.
static_assert(sizeof(ClipCheckOptions) == 96, "a new check option must travel to the worker");

void putOptional(Writer& out, const std::optional<double>& value)
{
    out.put(static_cast<std::uint8_t>(value ? 1 : 0));
    out.put(value.value_or(0.0));
}

std::optional<double> getOptional(Reader& in)
{
    const auto present = in.get<std::uint8_t>();
    const auto value = in.get<double>();
    if (present > 1) {
        in.fail();
    }
    return present == 1 ? std::optional(value) : std::nullopt;
}

void putOptions(Writer& out, const ClipCheckOptions& options)
{
    out.put(options.loudnessTarget);
    out.put(options.loudnessTolerance);
    out.put(options.truePeakLimit);
    out.put(static_cast<std::int32_t>(options.decoderThreads));
    out.put(static_cast<std::uint8_t>(options.loudnessRule ? 1 : 0));
    putOptional(out, options.shortFormMaxShortTerm);
    putOptional(out, options.shortFormMaxMomentary);
    out.put(options.minBlackSeconds);
    out.put(options.minFrozenSeconds);
    out.put(options.minSilenceSeconds);
    out.put(static_cast<std::uint8_t>(options.leadRunsAllowed ? 1 : 0));
}

ClipCheckOptions getOptions(Reader& in)
{
    ClipCheckOptions options;
    options.loudnessTarget = in.get<double>();
    options.loudnessTolerance = in.get<double>();
    options.truePeakLimit = in.get<double>();
    options.decoderThreads = in.get<std::int32_t>();
    const auto rule = in.get<std::uint8_t>();
    if (rule > 1) {
        in.fail();
    }
    options.loudnessRule = rule == 1;
    options.shortFormMaxShortTerm = getOptional(in);
    options.shortFormMaxMomentary = getOptional(in);
    options.minBlackSeconds = in.get<double>();
    options.minFrozenSeconds = in.get<double>();
    options.minSilenceSeconds = in.get<double>();
    const auto lead = in.get<std::uint8_t>();
    if (lead > 1 || !(options.minBlackSeconds >= 0) || !(options.minFrozenSeconds >= 0) ||
        !(options.minSilenceSeconds >= 0)) {
        in.fail();
    }
    options.leadRunsAllowed = lead == 1;
    return options;
}

void putStream(Writer& out, const StreamFacts& stream)
{
    out.put(static_cast<std::int32_t>(stream.type));
    out.putText(stream.codecName);
    out.put(stream.headerStart);
    out.put(stream.headerDuration);
    out.put(stream.byteCount);
    out.put(stream.decodedStart);
    out.put(stream.decodedEnd);
    for (const std::int32_t value :
         {stream.width, stream.height, stream.sampleAspectNum, stream.sampleAspectDen,
          stream.frameRateNum, stream.frameRateDen, stream.channels, stream.sampleRate}) {
        out.put(value);
    }
    for (const char c : stream.language) {
        out.put(c);
    }
    out.putText(stream.pixelFormat);
    out.put(stream.fieldOrder);
    out.put(stream.bitDepth);
    out.putText(stream.colourPrimaries);
    out.putText(stream.colourTransfer);
    out.putText(stream.colourMatrix);
}

StreamFacts getStream(Reader& in)
{
    StreamFacts stream;
    const auto type = in.get<std::int32_t>();
    if (type < static_cast<std::int32_t>(StreamType::Unknown) ||
        type > static_cast<std::int32_t>(StreamType::Attach)) {
        in.fail();
    }
    stream.type = static_cast<StreamType>(type);
    stream.codecName = in.getText();
    stream.headerStart = in.get<ClipTicks>();
    stream.headerDuration = in.get<ClipTicks>();
    stream.byteCount = in.get<std::int64_t>();
    stream.decodedStart = in.get<ClipTicks>();
    stream.decodedEnd = in.get<ClipTicks>();
    for (std::int32_t* value :
         {&stream.width, &stream.height, &stream.sampleAspectNum, &stream.sampleAspectDen,
          &stream.frameRateNum, &stream.frameRateDen, &stream.channels, &stream.sampleRate}) {
        *value = in.get<std::int32_t>();
    }
    for (char& c : stream.language) {
        c = in.get<char>();
    }
    stream.pixelFormat = in.getText();
    stream.fieldOrder = in.get<std::int32_t>();
    stream.bitDepth = in.get<std::int32_t>();
    stream.colourPrimaries = in.getText();
    stream.colourTransfer = in.getText();
    stream.colourMatrix = in.getText();
    return stream;
}

void putResult(Writer& out, const QcResult& result)
{
    out.putText(result.path);
    out.put(static_cast<std::int32_t>(result.checkLevel));
    out.put(static_cast<std::uint8_t>(result.opened ? 1 : 0));
    const MediaFacts& facts = result.facts;
    out.put(facts.attributes);
    out.put(facts.reserved);
    out.put(facts.fileSize);
    out.put(facts.creationTime);
    out.put(facts.lastWriteTime);
    out.put(facts.clipStart);
    out.put(facts.clipDuration);
    out.put(facts.qcDuration);
    out.putText(facts.hash256);
    out.put(facts.fkey);
    out.putText(facts.container);
    out.put(static_cast<std::uint32_t>(facts.streams.size()));
    for (const StreamFacts& stream : facts.streams) {
        putStream(out, stream);
    }
    out.put(static_cast<std::uint32_t>(result.issues.size()));
    for (const auto& issue : result.issues.all()) {
        out.put(static_cast<std::uint32_t>(issue->category));
        out.put(static_cast<std::uint32_t>(issue->severity));
        out.put(static_cast<std::int32_t>(issue->streamKind));
        out.put(issue->streamIndex);
        out.putText(issue->text);
        out.put(issue->at);
        out.put(issue->length);
    }
}

QcResult getResult(Reader& in)
{
    QcResult result;
    result.path = in.getText();
    result.checkLevel = in.get<std::int32_t>();
    const auto opened = in.get<std::uint8_t>();
    if (opened > 1) {
        in.fail();
    }
    result.opened = opened == 1;
    MediaFacts& facts = result.facts;
    facts.attributes = in.get<std::uint32_t>();
    facts.reserved = in.get<std::uint32_t>();
    facts.fileSize = in.get<std::uint64_t>();
    facts.creationTime = in.get<std::uint64_t>();
    facts.lastWriteTime = in.get<std::uint64_t>();
    facts.clipStart = in.get<ClipTicks>();
    facts.clipDuration = in.get<ClipTicks>();
    facts.qcDuration = in.get<ClipTicks>();
    facts.hash256 = in.getText();
    facts.fkey = in.get<std::uint64_t>();
    facts.container = in.getText();
    const auto streams = in.get<std::uint32_t>();
    if (streams > kMaxStreams) {
        in.fail();
        return result;
    }
    for (std::uint32_t i = 0; i < streams && in.good(); ++i) {
        facts.streams.push_back(getStream(in));
    }
    const auto issues = in.get<std::uint32_t>();
    if (issues > kMaxIssues) {
        in.fail();
        return result;
    }
    for (std::uint32_t i = 0; i < issues; ++i) {
        const auto category = in.get<std::uint32_t>();
        const auto severity = in.get<std::uint32_t>();
        const auto kind = in.get<std::int32_t>();
        const auto stream = in.get<std::int32_t>();
        std::string text = in.getText();
        const auto at = in.get<ClipTicks>();
        const auto length = in.get<ClipTicks>();
        if (category >= kCategoryCount || severity >= kSeverityCount || kind < 0 || kind > 2 ||
            text.size() > 4 * kMaxIssueTextChars || (at == kNoTime && length != kNoTime)) {
            in.fail();
            return result;
        }
        result.issues.add({static_cast<QcIssueCategory>(category),
                           static_cast<QcSeverity>(severity), static_cast<QcStreamKind>(kind),
                           stream, std::move(text), at, length});
    }
    // A list rebuilt in order holds what the sender's held, unless the sender's broke the
    // caps (a broken worker): then the lengths differ.
    if (result.issues.size() != issues) {
        in.fail();
    }
    return result;
}

} // namespace

bool sendFrame(int fd, std::string_view frame, bool wait)
{
    const int flags = MSG_NOSIGNAL | (wait ? 0 : MSG_DONTWAIT);
    while (!frame.empty()) {
        const ssize_t n = ::send(fd, frame.data(), frame.size(), flags);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        frame.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

std::string encodeCheck(const CheckRequest& request)
{
    Writer out(FrameType::Check);
    out.put(request.id);
    out.putText(request.path);
    out.put(static_cast<std::int32_t>(request.level));
    out.put(static_cast<std::int32_t>(request.decoderThreadOption));
    putOptions(out, request.options);
    return out.finish();
}

std::string encodeReady(const WorkerReady& ready)
{
    Writer out(FrameType::Ready);
    out.put(ready.protocolVersion);
    for (const bool flag : {ready.memoryLimited, ready.noNewPrivileges, ready.syscallFilter}) {
        out.put(static_cast<std::uint8_t>(flag ? 1 : 0));
    }
    return out.finish();
}

std::string encodeProgress(const WorkerProgress& progress)
{
    Writer out(FrameType::Progress);
    out.put(progress.id);
    out.put(progress.progress);
    out.put(progress.activity);
    return out.finish();
}

std::string encodeOpened(std::uint64_t id, const QcResult& result)
{
    Writer out(FrameType::Opened);
    out.put(id);
    putResult(out, result);
    return out.finish();
}

std::string encodeDone(const CheckDone& done)
{
    Writer out(FrameType::Done);
    out.put(done.id);
    out.put(done.runCode);
    putResult(out, done.result);
    return out.finish();
}

std::optional<CheckRequest> decodeCheck(std::string_view payload)
{
    Reader in(payload);
    CheckRequest request;
    request.id = in.get<std::uint64_t>();
    request.path = in.getText();
    request.level = in.get<std::int32_t>();
    request.decoderThreadOption = in.get<std::int32_t>();
    request.options = getOptions(in);
    return in.ok() ? std::optional(std::move(request)) : std::nullopt;
}

std::optional<WorkerReady> decodeReady(std::string_view payload)
{
    Reader in(payload);
    WorkerReady ready;
    ready.protocolVersion = in.get<std::uint32_t>();
    for (bool* flag : {&ready.memoryLimited, &ready.noNewPrivileges, &ready.syscallFilter}) {
        const auto value = in.get<std::uint8_t>();
        if (value > 1) {
            in.fail();
        }
        *flag = value == 1;
    }
    return in.ok() ? std::optional(ready) : std::nullopt;
}

std::optional<WorkerProgress> decodeProgress(std::string_view payload)
{
    Reader in(payload);
    WorkerProgress progress;
    progress.id = in.get<std::uint64_t>();
    progress.progress = in.get<std::int32_t>();
    progress.activity = in.get<std::uint64_t>();
    return in.ok() ? std::optional(progress) : std::nullopt;
}

std::optional<std::pair<std::uint64_t, QcResult>> decodeOpened(std::string_view payload)
{
    Reader in(payload);
    const auto id = in.get<std::uint64_t>();
    QcResult result = getResult(in);
    return in.ok() ? std::optional(std::pair(id, std::move(result))) : std::nullopt;
}

std::optional<CheckDone> decodeDone(std::string_view payload)
{
    Reader in(payload);
    CheckDone done;
    done.id = in.get<std::uint64_t>();
    done.runCode = in.get<std::int32_t>();
    done.result = getResult(in);
    return in.ok() ? std::optional(std::move(done)) : std::nullopt;
}

std::optional<Frame> FrameReader::next()
{
    if (m_broken) {
        return std::nullopt;
    }
    // Drop what earlier frames used once it is most of the buffer, so the buffer never
    // grows with the number of frames.
    if (m_start > 0 && m_start * 2 >= m_buffer.size()) {
        m_buffer.erase(0, m_start);
        m_start = 0;
    }
    if (pending() < kFrameHeaderBytes) {
        return std::nullopt;
    }
    std::uint32_t length = 0;
    std::memcpy(&length, m_buffer.data() + m_start, sizeof length);
    if (length > kMaxFrameBytes) {
        m_broken = true;
        return std::nullopt;
    }
    if (pending() < kFrameHeaderBytes + length) {
        return std::nullopt;
    }
    Frame frame;
    frame.type = static_cast<FrameType>(m_buffer[m_start + 4]);
    frame.payload = std::string_view(m_buffer).substr(m_start + kFrameHeaderBytes, length);
    m_start += kFrameHeaderBytes + length;
    return frame;
}

} // namespace tarvoqc
