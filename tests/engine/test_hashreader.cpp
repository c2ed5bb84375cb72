#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "engine/clipkeys.h"
#include "engine/hashreader.h"
#include "engine/sha2.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

constexpr std::int64_t kPiece = HashReader::kPieceBytes;

std::string randomText(std::size_t count, std::mt19937& rng)
{
    std::string bytes(count, '\0');
    for (char& c : bytes) {
        c = static_cast<char>(rng());
    }
    return bytes;
}

std::string hash256Of(std::string_view bytes)
{
    FileDigest digest = {};
    Sha2Digest(256, bytes.data(), bytes.size(), digest.data());
    return makeHash256(digest);
}

std::string modeName(const ::testing::TestParamInfo<HashReader::Mode>& info)
{
    return info.param == HashReader::Mode::Inline ? "Inline" : "Background";
}

class HashReaderTest : public ::testing::TestWithParam<HashReader::Mode>
{
protected:
    std::unique_ptr<HashReader> openReader(const std::filesystem::path& path)
    {
        auto reader = HashReader::open(path.string(), GetParam());
        EXPECT_NE(reader, nullptr);
        if (reader != nullptr) {
            EXPECT_EQ(reader->mode(), GetParam()) << "the thread could not be started";
        }
        return reader;
    }

    test::TempDir m_dir;
};

// Targets as a demuxer gives them (forward in uneven steps, back, none, beyond the end),
// then finish(): always the hash of the whole file, and finish() is final.
TEST_P(HashReaderTest, AnyTargetsThenFinishHashTheWholeFile)
{
    std::mt19937 rng(3);
    // file size, the targets given before finish()
    const std::pair<std::int64_t, std::vector<std::int64_t>> cases[] = {
        {0, {}},
        {0, {-1, 5}},
        {1, {1}},
        {kPiece - 1, {kPiece}},
        {kPiece, {kPiece - 1, 0, kPiece}},
        {kPiece + 1, {-1, 7, kPiece + 100000}},
        {5 * kPiece + 123, {}},
        {5 * kPiece + 123, {1, kPiece, kPiece / 2, -1, 2 * kPiece + 7}},
        {5 * kPiece + 123, {3 * kPiece, 5 * kPiece + 122}},
        {5 * kPiece + 123, {6 * kPiece, 2 * kPiece}},
        {48 * kPiece + 5, {kPiece / 3, 7 * kPiece, 7 * kPiece + 9, 30 * kPiece, -1, 40 * kPiece}},
    };
    for (const auto& [size, targets] : cases) {
        SCOPED_TRACE(testing::Message() << size << " bytes, " << testing::PrintToString(targets));
        const std::string content = randomText(static_cast<std::size_t>(size), rng);
        test::writeFile(m_dir / "clip.bin", content);
        auto reader = openReader(m_dir / "clip.bin");
        ASSERT_NE(reader, nullptr);
        EXPECT_EQ(reader->fileSize(), content.size());
        for (std::int64_t target : targets) {
            reader->advanceTo(target);
        }
        EXPECT_EQ(makeHash256(reader->finish()), hash256Of(content));
        reader->advanceTo(size);
        EXPECT_EQ(makeHash256(reader->finish()), hash256Of(content));
        EXPECT_EQ(reader->bytesHashed(), content.size());
    }
}

TEST_P(HashReaderTest, FileCutOrGrownAfterOpenIsHashedToTheEarlierEnd)
{
    // Another program changes the length through its own descriptor while we hash: a read at
    // a new, earlier end returns 0 bytes and ends the reading without an error; bytes beyond
    // the size at the open are never read.
    std::mt19937 rng(4);
    const std::string content = randomText(6 * kPiece, rng);
    // where the reader was advanced to before the change, the new length
    const std::pair<std::int64_t, std::int64_t> cases[] = {{-1, 0},
                                                           {0, 1000},
                                                           {kPiece, 3 * kPiece + 17},
                                                           {2 * kPiece, 4 * kPiece},
                                                           {kPiece, 7 * kPiece + 99}};
    for (const auto& [targetBefore, newLength] : cases) {
        SCOPED_TRACE("length changed to " + std::to_string(newLength));
        test::writeFile(m_dir / "clip.bin", content);
        auto reader = openReader(m_dir / "clip.bin");
        ASSERT_NE(reader, nullptr);
        reader->advanceTo(targetBefore);
        const int writer = ::open((m_dir / "clip.bin").c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(writer, 0);
        ASSERT_EQ(::ftruncate(writer, newLength), 0);
        ::close(writer);
        reader->advanceTo(static_cast<std::int64_t>(content.size()) + 10);
        const auto kept = std::min(content.size(), static_cast<std::size_t>(newLength));
        EXPECT_EQ(makeHash256(reader->finish()), hash256Of(content.substr(0, kept)));
        EXPECT_EQ(reader->bytesHashed(), kept);
    }
}

TEST_P(HashReaderTest, DestroyedAtAnyTime)
{
    std::mt19937 rng(6);
    const std::string content = randomText(8 * 1024 * 1024, rng);
    test::writeFile(m_dir / "clip.bin", content);
    const auto size = static_cast<std::int64_t>(content.size());
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        auto reader = openReader(m_dir / "clip.bin");
        ASSERT_NE(reader, nullptr);
        switch (round % 4) {
        case 0: // never asked for anything
            break;
        case 1: // in the middle of a long catching-up
            reader->advanceTo(size);
            break;
        case 2: // several small steps, the thread waking and sleeping
            for (std::int64_t p = 0; p < size; p += size / 7) {
                reader->advanceTo(p);
            }
            break;
        case 3: // after the work is done
            reader->advanceTo(size / 3);
            EXPECT_EQ(makeHash256(reader->finish()), hash256Of(content));
            break;
        }
        reader.reset();
    }
}

INSTANTIATE_TEST_SUITE_P(HashReader, HashReaderTest,
                         ::testing::Values(HashReader::Mode::Inline, HashReader::Mode::Background),
                         modeName);

TEST(HashReader, FailedReadEndsTheCatchingUpAndTheNextOneTriesAgain)
{
    // A real read error in the middle of the file: the reader's descriptor is replaced by
    // one of a folder (dup2), so pread fails with EISDIR; putting the file back lets the
    // next catching-up go on at the same offset.
    std::mt19937 rng(8);
    test::TempDir dir;
    const std::string content = randomText(5 * kPiece + 3, rng);
    test::writeFile(dir / "clip.bin", content);
    const int fd = ::open((dir / "clip.bin").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const int spare = ::dup(fd);
    const int folder = ::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(spare, 0);
    ASSERT_GE(folder, 0);

    {
        SCOPED_TRACE("error, then the file back");
        HashReader reader(fd, content.size(), HashReader::Mode::Inline);
        reader.advanceTo(2 * kPiece);
        ASSERT_EQ(::dup2(folder, fd), fd);
        reader.advanceTo(3 * kPiece); // fails: nothing more is hashed
        ASSERT_EQ(::dup2(spare, fd), fd);
        EXPECT_EQ(makeHash256(reader.finish()), hash256Of(content));
    } // closes fd
    {
        SCOPED_TRACE("error at the finish");
        const int fd2 = ::dup(spare);
        ASSERT_GE(fd2, 0);
        HashReader reader(fd2, content.size(), HashReader::Mode::Inline);
        reader.advanceTo(3 * kPiece + 1);
        ASSERT_EQ(::dup2(folder, fd2), fd2);
        EXPECT_EQ(makeHash256(reader.finish()), hash256Of(content.substr(0, 3 * kPiece)));
        EXPECT_EQ(reader.bytesHashed(), static_cast<std::uint64_t>(3 * kPiece));
    }
    {
        SCOPED_TRACE("no usable descriptor at all");
        for (HashReader::Mode mode : {HashReader::Mode::Inline, HashReader::Mode::Background}) {
            HashReader reader(-1, content.size(), mode);
            reader.advanceTo(kPiece);
            EXPECT_EQ(makeHash256(reader.finish()), hash256Of(""));
            EXPECT_EQ(reader.bytesHashed(), 0u);
        }
    }
    ::close(spare);
    ::close(folder);
}

} // namespace
} // namespace tarvoqc
