#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "engine/clipkeys.h"
#include "engine/sha2.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

std::string randomText(std::size_t count, std::mt19937& rng)
{
    std::string bytes(count, '\0');
    for (char& c : bytes) {
        c = static_cast<char>(rng());
    }
    return bytes;
}

FileDigest digestOf(const std::string& bytes)
{
    FileDigest digest = {};
    EXPECT_EQ(Sha2Digest(256, bytes.data(), bytes.size(), digest.data()), 0);
    return digest;
}

// FKey made without our code: the digest buffer and the salt written to a file and hashed
// by sha256sum, then its first eight digest bytes taken little-endian.
std::uint64_t fkeyBySha256sum(const FileDigest& digest, const test::TempDir& dir)
{
    std::string input(reinterpret_cast<const char*>(digest.data()), digest.size());
    input.append(224, '\0');
    input.append("Permadolvixun", 13);
    input.push_back('\0');
    EXPECT_EQ(input.size(), 270u);
    test::writeFile(dir / "fkey-input.bin", input);
    const std::string hex = test::sha256sumOf(dir / "fkey-input.bin");
    EXPECT_EQ(hex.size(), 64u) << "sha256sum is needed";
    std::uint64_t key = 0;
    for (int i = 7; i >= 0 && hex.size() == 64; --i) {
        key = (key << 8) | std::stoul(hex.substr(2 * static_cast<std::size_t>(i), 2), nullptr, 16);
    }
    return key;
}

TEST(ClipKeys, Hash256IsTheSha256sumOfTheFile)
{
    std::mt19937 rng(32);
    test::TempDir dir;
    const std::size_t sizes[] = {0, 1, 63, 64, 65, 65535, 65536, 65537, 3 * 1024 * 1024 + 11};
    for (std::size_t size : sizes) {
        SCOPED_TRACE(size);
        const std::string content = randomText(size, rng);
        test::writeFile(dir / "clip.bin", content);
        const std::string expected = test::sha256sumOf(dir / "clip.bin");
        ASSERT_EQ(expected.size(), 64u) << "sha256sum is needed";
        const std::string text = makeHash256(digestOf(content));
        EXPECT_EQ(text, expected);
    }
}

TEST(ClipKeys, Hash256WritesEveryByteAsTwoUpperCaseDigits)
{
    // digest, text
    FileDigest counting = {};
    for (std::size_t i = 0; i < counting.size(); ++i) {
        counting[i] = static_cast<std::uint8_t>(i);
    }
    FileDigest high = {};
    for (std::size_t i = 0; i < high.size(); ++i) {
        high[i] = static_cast<std::uint8_t>(0xE0 + i);
    }
    const std::pair<FileDigest, const char*> cases[] = {
        {FileDigest{}, "0000000000000000000000000000000000000000000000000000000000000000"},
        {counting, "000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F"},
        {high, "E0E1E2E3E4E5E6E7E8E9EAEBECEDEEEFF0F1F2F3F4F5F6F7F8F9FAFBFCFDFEFF"}};
    for (const auto& [digest, text] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(makeHash256(digest), text);
    }
}

TEST(ClipKeys, FKeyMatchesAnIndependentComputation)
{
    std::mt19937 rng(64);
    test::TempDir dir;
    std::vector<FileDigest> digests = {FileDigest{}, digestOf(""), digestOf("abc")};
    FileDigest ones;
    ones.fill(0xFF);
    digests.push_back(ones);
    for (int i = 0; i < 5; ++i) {
        digests.push_back(digestOf(randomText(1000 + i, rng)));
    }
    for (const FileDigest& digest : digests) {
        SCOPED_TRACE(makeHash256(digest));
        const std::uint64_t key = makeFKey(digest);
        EXPECT_EQ(key, fkeyBySha256sum(digest, dir));
        EXPECT_NE(key, 0u);
    }
}

} // namespace
} // namespace tarvoqc
