#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "engine/sha2.h"
#include "engine/sha2blocks.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

std::string toHex(const std::uint8_t* bytes, std::size_t count)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

// The hash of the message fed in pieces cut at the given offsets (ascending).
std::string digestHex(std::uint32_t size, std::string_view message,
                      const std::vector<std::size_t>& cuts = {})
{
    Sha2Context context;
    EXPECT_EQ(Sha2Init(size, context), 0);
    std::size_t from = 0;
    for (std::size_t cut : cuts) {
        Sha2Update(message.data() + from, cut - from, context);
        from = cut;
    }
    Sha2Update(message.data() + from, message.size() - from, context);
    std::uint8_t digest[kSha2MaxBytes] = {};
    return toHex(digest, Sha2Final(digest, context));
}

// Runs each SHA-256 test once per path the CPU has, and puts the path back afterwards.
class Sha256PathTest : public ::testing::TestWithParam<sha2::Sha256Path>
{
protected:
    void SetUp() override
    {
        m_before = sha2::sha256Path();
        if (!sha2::setSha256Path(GetParam())) {
            GTEST_SKIP() << "this CPU has no SHA extensions";
        }
    }
    void TearDown() override { sha2::setSha256Path(m_before); }

private:
    sha2::Sha256Path m_before = sha2::Sha256Path::Portable;
};

std::string pathName(const ::testing::TestParamInfo<sha2::Sha256Path>& info)
{
    return info.param == sha2::Sha256Path::Portable ? "Portable" : "ShaExtensions";
}

const std::string kAbc = "abc";
const std::string k448Bits = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
const std::string k896Bits = "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmn"
                             "hijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu";
const std::string kMillionA(1'000'000, 'a');

// The standard examples of all three sizes, by size in bits and in bytes, through
// Init/Update/Final and through the one-call digest.
TEST_P(Sha256PathTest, StandardExamples)
{
    const std::string empty;
    const std::tuple<std::uint32_t, const std::string*, const char*> cases[] = {
        {256, &empty, "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855"},
        {256, &kAbc, "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"},
        {256, &k448Bits, "248D6A61D20638B8E5C026930C3E6039A33CE45964FF2167F6ECEDD419DB06C1"},
        {256, &k896Bits, "CF5B16A778AF8380036CE59E7B0492370B249B11E8F07A51AFAC45037AFEE9D1"},
        {256, &kMillionA, "CDC76E5C9914FB9281A1C7E284D73E67F1809A48A497200E046D39CCC7112CD0"},
        {384, &kAbc,
         "CB00753F45A35E8BB5A03D699AC65007272C32AB0EDED1631A8B605A43FF5BED8086072BA1E7CC2358BAECA1"
         "34C825A7"},
        {384, &k448Bits,
         "3391FDDDFC8DC7393707A65B1B4709397CF8B1D162AF05ABFE8F450DE5F36BC6B0455A8520BC4E6F5FE95B1F"
         "E3C8452B"},
        {384, &k896Bits,
         "09330C33F71147E83D192FC782CD1B4753111B173B3B05D22FA08086E3B0F712FCC7C71A557E2DB966C3E9FA"
         "91746039"},
        {384, &kMillionA,
         "9D0E1809716474CB086E834E310A4A1CED149E9C00F248527972CEC5704C2A5B07B8B3DC38ECC4EBAE97DDD8"
         "7F3D8985"},
        {512, &kAbc,
         "DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A2192992A274FC1A836BA3C23"
         "A3FEEBBD454D4423643CE80E2A9AC94FA54CA49F"},
        {512, &k448Bits,
         "204A8FC6DDA82F0A0CED7BEB8E08A41657C16EF468B228A8279BE331A703C33596FD15C13B1B07F9AA1D3BEA"
         "57789CA031AD85C7A71DD70354EC631238CA3445"},
        {512, &k896Bits,
         "8E959B75DAE313DA8CF4F72814FC143F8F7779C6EB9F7FA17299AEADB6889018501D289E4900F7E4331B99DE"
         "C4B5433AC7D329EEB6DD26545E96E55B874BE909"},
        {512, &kMillionA,
         "E718483D0CE769644E2E42C7BC15B4638E1F98B13B2044285632A803AFA973EBDE0FF244877EA60A4CB0432C"
         "E577C31BEB009C5C2C49AA2E4EADB217AD8CC09B"},
    };
    for (const auto& [size, message, digest] : cases) {
        SCOPED_TRACE(std::to_string(size) + " " + message->substr(0, 16));
        EXPECT_EQ(digestHex(size, *message), digest);
        EXPECT_EQ(digestHex(size / 8, *message), digest);
        std::uint8_t oneCall[kSha2MaxBytes] = {};
        ASSERT_EQ(Sha2Digest(size, message->empty() ? nullptr : message->data(), message->size(),
                             oneCall),
                  0);
        EXPECT_EQ(toHex(oneCall, size / 8), digest);
    }
}

TEST_P(Sha256PathTest, LongMessageMatchesSha256sum)
{
    std::mt19937 rng(256);
    std::string message(5 * 1024 * 1024 + 37, '\0');
    for (char& c : message) {
        c = static_cast<char>(rng());
    }
    test::TempDir dir;
    test::writeFile(dir / "long.bin", message);
    const std::string expected = test::sha256sumOf(dir / "long.bin");
    ASSERT_EQ(expected.size(), 64u) << "sha256sum is needed";
    EXPECT_EQ(digestHex(256, message), expected);
    EXPECT_EQ(digestHex(256, message, {1, 65, 65536 * 3 + 5, 4 * 1024 * 1024}), expected);
}

INSTANTIATE_TEST_SUITE_P(Sha2, Sha256PathTest,
                         ::testing::Values(sha2::Sha256Path::Portable,
                                           sha2::Sha256Path::ShaExtensions),
                         pathName);

TEST(Sha2, InitAcceptsOnlyTheThreeSizesInBitsOrBytes)
{
    // Size asked for, result of Init, digest size.
    const std::tuple<std::uint32_t, int, std::uint32_t> cases[] = {
        {256, 0, 32}, {32, 0, 32}, {384, 0, 48}, {48, 0, 48},  {512, 0, 64},
        {64, 0, 64},  {224, 1, 0}, {28, 1, 0},   {0, 1, 0},    {1, 1, 0},
        {128, 1, 0},  {160, 1, 0}, {257, 1, 0},  {1024, 1, 0}, {0xFFFFFFFFu, 1, 0}};
    for (const auto& [size, result, digestSize] : cases) {
        SCOPED_TRACE(size);
        Sha2Context context;
        ASSERT_EQ(Sha2Init(256, context), 0); // a refused Init must not leave this variant
        EXPECT_EQ(Sha2Init(size, context), result);
        EXPECT_EQ(context.digestSize, digestSize);
        std::uint8_t digest[kSha2MaxBytes];
        std::memset(digest, 0xA5, sizeof digest);
        EXPECT_EQ(Sha2Digest(size, kAbc.data(), kAbc.size(), digest), result);
        if (result != 0) {
            for (std::uint8_t b : digest) {
                ASSERT_EQ(b, 0xA5) << "a refused size wrote a digest";
            }
        }
    }
}

TEST(Sha2, ContextOfAnotherSizeIsLeftAlone)
{
    const std::uint32_t foreignSizes[] = {0, 28, 33, 128, 256};
    for (std::uint32_t foreign : foreignSizes) {
        SCOPED_TRACE(foreign);
        Sha2Context context;
        ASSERT_EQ(Sha2Init(256, context), 0);
        Sha2Update(kAbc.data(), kAbc.size(), context);
        context.digestSize = foreign;
        const Sha2Context before = context;
        Sha2Update(k896Bits.data(), k896Bits.size(), context);
        EXPECT_EQ(0, std::memcmp(&before, &context, sizeof context)) << "Update changed it";

        std::uint8_t digest[kSha2MaxBytes];
        std::memset(digest, 0x5A, sizeof digest);
        EXPECT_EQ(Sha2Final(digest, context), 0u);
        for (std::uint8_t b : digest) {
            ASSERT_EQ(b, 0x5A) << "Final wrote a digest";
        }
    }
}

} // namespace
} // namespace tarvoqc
