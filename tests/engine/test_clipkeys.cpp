#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "engine/clipkeys.h"
#include "engine/sha2.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

FileDigest digestOf(const std::string& bytes)
{
    FileDigest digest = {};
    EXPECT_EQ(Sha2Digest(256, bytes.data(), bytes.size(), digest.data()), 0);
    return digest;
}

// FKey made without our code: the digest buffer and the salt written to a file and hashed
// by sha256sum, then its first eight digest bytes taken little-endian.
TEST(ClipKeys, FKeyMatchesAnIndependentComputation)
{
    test::TempDir dir;
    FileDigest ones;
    ones.fill(0xFF);
    for (const FileDigest& digest :
         {FileDigest{}, ones, digestOf(""), digestOf("abc"), digestOf(std::string(1000, 'x'))}) {
        SCOPED_TRACE(makeHash256(digest));
        std::string input(reinterpret_cast<const char*>(digest.data()), digest.size());
        input.append(224, '\0');
        input.append("Permadolvixun", 13);
        input.push_back('\0');
        test::writeFile(dir / "fkey-input.bin", input);
        const std::string hex = test::sha256sumOf(dir / "fkey-input.bin");
        ASSERT_EQ(hex.size(), 64u) << "sha256sum is needed";
        std::uint64_t key = 0;
        for (std::size_t i = 8; i-- > 0;) {
            key = (key << 8) | std::stoul(hex.substr(2 * i, 2), nullptr, 16);
        }
        EXPECT_EQ(makeFKey(digest), key);
    }
}

} // namespace
} // namespace tarvoqc
