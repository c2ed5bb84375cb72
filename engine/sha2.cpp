#include "engine/sha2.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>

#include "engine/sha2blocks.h"

namespace tarvoqc {

namespace sha2 {

namespace {

constexpr std::uint32_t kSha256Init[8] = {
    0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19,
};

constexpr std::uint64_t kSha384Init[8] = {
    0xcbbb9d5dc1059ed8, 0x629a292a367cd507, 0x9159015a3070dd17, 0x152fecd8f70e5939,
    0x67332667ffc00b31, 0x8eb44a8768581511, 0xdb0c2e0d64f98fa7, 0x47b5481dbefa4fa4,
};

constexpr std::uint64_t kSha512Init[8] = {
    0x6a09e667f3bcc908, 0xbb67ae8584caa73b, 0x3c6ef372fe94f82b, 0xa54ff53a5f1d36f1,
    0x510e527fade682d1, 0x9b05688c2b3e6c1f, 0x1f83d9abfb41bd6b, 0x5be0cd19137e2179,
};

} // namespace

alignas(16) const std::uint32_t kSha256RoundConstants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
};

namespace {

constexpr std::uint64_t kSha512Rounds[80] = {
    0x428a2f98d728ae22, 0x7137449123ef65cd, 0xb5c0fbcfec4d3b2f, 0xe9b5dba58189dbbc,
    0x3956c25bf348b538, 0x59f111f1b605d019, 0x923f82a4af194f9b, 0xab1c5ed5da6d8118,
    0xd807aa98a3030242, 0x12835b0145706fbe, 0x243185be4ee4b28c, 0x550c7dc3d5ffb4e2,
    0x72be5d74f27b896f, 0x80deb1fe3b1696b1, 0x9bdc06a725c71235, 0xc19bf174cf692694,
    0xe49b69c19ef14ad2, 0xefbe4786384f25e3, 0x0fc19dc68b8cd5b5, 0x240ca1cc77ac9c65,
    0x2de92c6f592b0275, 0x4a7484aa6ea6e483, 0x5cb0a9dcbd41fbd4, 0x76f988da831153b5,
    0x983e5152ee66dfab, 0xa831c66d2db43210, 0xb00327c898fb213f, 0xbf597fc7beef0ee4,
    0xc6e00bf33da88fc2, 0xd5a79147930aa725, 0x06ca6351e003826f, 0x142929670a0e6e70,
    0x27b70a8546d22ffc, 0x2e1b21385c26c926, 0x4d2c6dfc5ac42aed, 0x53380d139d95b3df,
    0x650a73548baf63de, 0x766a0abb3c77b2a8, 0x81c2c92e47edaee6, 0x92722c851482353b,
    0xa2bfe8a14cf10364, 0xa81a664bbc423001, 0xc24b8b70d0f89791, 0xc76c51a30654be30,
    0xd192e819d6ef5218, 0xd69906245565a910, 0xf40e35855771202a, 0x106aa07032bbd1b8,
    0x19a4c116b8d2d0c8, 0x1e376c085141ab53, 0x2748774cdf8eeb99, 0x34b0bcb5e19b48a8,
    0x391c0cb3c5c95a63, 0x4ed8aa4ae3418acb, 0x5b9cca4f7763e373, 0x682e6ff3d6b2b8a3,
    0x748f82ee5defb2fc, 0x78a5636f43172f60, 0x84c87814a1f0ab72, 0x8cc702081a6439ec,
    0x90befffa23631e28, 0xa4506cebde82bde9, 0xbef9a3f7b2c67915, 0xc67178f2e372532b,
    0xca273eceea26619c, 0xd186b8c721c0c207, 0xeada7dd6cde0eb1e, 0xf57d4f7fee6ed178,
    0x06f067aa72176fba, 0x0a637dc5a2c898a6, 0x113f9804bef90dae, 0x1b710b35131c471b,
    0x28db77f523047d84, 0x32caab7b40c72493, 0x3c9ebe0a15c9bebc, 0x431d67c49c100d4c,
    0x4cc5d4becb3e42b6, 0x597f299cfc657e2a, 0x5fcb6fab3ad6faec, 0x6c44198c4a475817,
};

constexpr std::uint32_t kSha256BlockBytes = 64;
constexpr std::uint32_t kSha512BlockBytes = 128;
// Where the message length goes in the last block: 8 bytes for SHA-256, 16 for SHA-512.
constexpr std::uint32_t kSha256LengthAt = kSha256BlockBytes - 8;
constexpr std::uint32_t kSha512LengthAt = kSha512BlockBytes - 16;

std::uint32_t loadBe32(const std::uint8_t* p)
{
    return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
           std::uint32_t{p[3]};
}

std::uint64_t loadBe64(const std::uint8_t* p)
{
    return (std::uint64_t{loadBe32(p)} << 32) | loadBe32(p + 4);
}

void storeBe32(std::uint8_t* p, std::uint32_t v)
{
    p[0] = static_cast<std::uint8_t>(v >> 24);
    p[1] = static_cast<std::uint8_t>(v >> 16);
    p[2] = static_cast<std::uint8_t>(v >> 8);
    p[3] = static_cast<std::uint8_t>(v);
}

void storeBe64(std::uint8_t* p, std::uint64_t v)
{
    storeBe32(p, static_cast<std::uint32_t>(v >> 32));
    storeBe32(p + 4, static_cast<std::uint32_t>(v));
}

using Sha256BlockFunction = void (*)(std::uint32_t*, const std::uint8_t*, std::size_t);

std::atomic<Sha256BlockFunction>& sha256Blocks()
{
    static std::atomic<Sha256BlockFunction> blocks{
        sha256ShaExtensionsAvailable() ? &sha256BlocksShaExt : &sha256BlocksPortable};
    return blocks;
}

} // namespace

namespace {

// SHA-256 and SHA-512 run the same rounds on words of different widths; only the round
// count, the constants and the rotation amounts differ. The last amount of each message
// schedule triple is a shift.
template <typename Word> struct Rounds;

template <> struct Rounds<std::uint32_t>
{
    static constexpr int kCount = 64;
    static constexpr int kSum0[3] = {2, 13, 22};
    static constexpr int kSum1[3] = {6, 11, 25};
    static constexpr int kSchedule0[3] = {7, 18, 3};
    static constexpr int kSchedule1[3] = {17, 19, 10};
    static constexpr const std::uint32_t* kConstants = kSha256RoundConstants;
    static std::uint32_t load(const std::uint8_t* p) { return loadBe32(p); }
};

template <> struct Rounds<std::uint64_t>
{
    static constexpr int kCount = 80;
    static constexpr int kSum0[3] = {28, 34, 39};
    static constexpr int kSum1[3] = {14, 18, 41};
    static constexpr int kSchedule0[3] = {1, 8, 7};
    static constexpr int kSchedule1[3] = {19, 61, 6};
    static constexpr const std::uint64_t* kConstants = kSha512Rounds;
    static std::uint64_t load(const std::uint8_t* p) { return loadBe64(p); }
};

template <typename Word>
void compressBlocks(Word state[8], const std::uint8_t* data, std::size_t blocks)
{
    using R = Rounds<Word>;
    constexpr auto sum = [](Word x, const int(&n)[3]) constexpr
    {
        return std::rotr(x, n[0]) ^ std::rotr(x, n[1]) ^ std::rotr(x, n[2]);
    };
    constexpr auto schedule = [](Word x, const int(&n)[3]) constexpr
    {
        return std::rotr(x, n[0]) ^ std::rotr(x, n[1]) ^ (x >> n[2]);
    };
    for (; blocks > 0; --blocks, data += 16 * sizeof(Word)) {
        // The message schedule is kept as a ring of the last 16 words.
        Word w[16];
        for (int i = 0; i < 16; ++i) {
            w[i] = R::load(data + sizeof(Word) * i);
        }
        Word a = state[0], b = state[1], c = state[2], d = state[3];
        Word e = state[4], f = state[5], g = state[6], h = state[7];
        for (int t = 0; t < R::kCount; ++t) {
            Word wt;
            if (t < 16) {
                wt = w[t];
            } else {
                wt = w[t & 15] = w[t & 15] + schedule(w[(t - 15) & 15], R::kSchedule0) +
                                 w[(t - 7) & 15] + schedule(w[(t - 2) & 15], R::kSchedule1);
            }
            const Word t1 = h + sum(e, R::kSum1) + ((e & f) ^ (~e & g)) + R::kConstants[t] + wt;
            const Word t2 = sum(a, R::kSum0) + ((a & b) ^ (a & c) ^ (b & c));
            h = g;
            g = f;
            f = e;
            e = d + t1;
            d = c;
            c = b;
            b = a;
            a = t1 + t2;
        }
        state[0] += a;
        state[1] += b;
        state[2] += c;
        state[3] += d;
        state[4] += e;
        state[5] += f;
        state[6] += g;
        state[7] += h;
    }
}

} // namespace

void sha256BlocksPortable(std::uint32_t state[8], const std::uint8_t* data, std::size_t blocks)
{
    compressBlocks(state, data, blocks);
}

void sha512Blocks(std::uint64_t state[8], const std::uint8_t* data, std::size_t blocks)
{
    compressBlocks(state, data, blocks);
}

Sha256Path sha256Path()
{
    return sha256Blocks().load(std::memory_order_relaxed) == &sha256BlocksShaExt
               ? Sha256Path::ShaExtensions
               : Sha256Path::Portable;
}

bool setSha256Path(Sha256Path path)
{
    if (path == Sha256Path::ShaExtensions) {
        if (!sha256ShaExtensionsAvailable()) {
            return false;
        }
        sha256Blocks().store(&sha256BlocksShaExt, std::memory_order_relaxed);
    } else {
        sha256Blocks().store(&sha256BlocksPortable, std::memory_order_relaxed);
    }
    return true;
}

} // namespace sha2

namespace {

// Block size of the context's variant, 0 for a context without one.
std::uint32_t blockBytes(const Sha2Context& context)
{
    switch (context.digestSize) {
    case kSha256Bytes:
        return sha2::kSha256BlockBytes;
    case kSha384Bytes:
    case kSha512Bytes:
        return sha2::kSha512BlockBytes;
    default:
        return 0;
    }
}

void hashBlocks(Sha2Context& context, const std::uint8_t* data, std::size_t blocks)
{
    if (context.digestSize == kSha256Bytes) {
        sha2::sha256Blocks().load(std::memory_order_relaxed)(context.state.h32, data, blocks);
    } else {
        sha2::sha512Blocks(context.state.h64, data, blocks);
    }
}

} // namespace

int Sha2Init(std::uint32_t size, Sha2Context& context)
{
    context = Sha2Context{};
    switch (size) {
    case 256:
    case kSha256Bytes:
        context.digestSize = kSha256Bytes;
        std::memcpy(context.state.h32, sha2::kSha256Init, sizeof sha2::kSha256Init);
        return 0;
    case 384:
    case kSha384Bytes:
        context.digestSize = kSha384Bytes;
        std::memcpy(context.state.h64, sha2::kSha384Init, sizeof sha2::kSha384Init);
        return 0;
    case 512:
    case kSha512Bytes:
        context.digestSize = kSha512Bytes;
        std::memcpy(context.state.h64, sha2::kSha512Init, sizeof sha2::kSha512Init);
        return 0;
    default:
        return 1;
    }
}

void Sha2Update(const void* data, std::size_t length, Sha2Context& context)
{
    const std::uint32_t block = blockBytes(context);
    if (block == 0 || length == 0) {
        return;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    context.length += length;

    if (context.pending > 0) {
        const std::size_t take = std::min<std::size_t>(block - context.pending, length);
        std::memcpy(context.block + context.pending, bytes, take);
        context.pending += static_cast<std::uint32_t>(take);
        bytes += take;
        length -= take;
        if (context.pending < block) {
            return;
        }
        hashBlocks(context, context.block, 1);
        context.pending = 0;
    }
    const std::size_t whole = length / block;
    if (whole > 0) {
        hashBlocks(context, bytes, whole);
        bytes += whole * block;
        length -= whole * block;
    }
    if (length > 0) {
        std::memcpy(context.block, bytes, length);
        context.pending = static_cast<std::uint32_t>(length);
    }
}

std::uint32_t Sha2Final(std::uint8_t* digest, Sha2Context& context)
{
    const std::uint32_t block = blockBytes(context);
    if (block == 0) {
        return 0;
    }
    const std::uint32_t lengthAt =
        block == sha2::kSha256BlockBytes ? sha2::kSha256LengthAt : sha2::kSha512LengthAt;

    context.block[context.pending++] = 0x80;
    if (context.pending > lengthAt) {
        std::memset(context.block + context.pending, 0, block - context.pending);
        hashBlocks(context, context.block, 1);
        context.pending = 0;
    }
    std::memset(context.block + context.pending, 0, lengthAt - context.pending);
    // The length field counts bits; its high bytes (all of them for SHA-512 beyond 64 bits)
    // take what the byte count's top three bits carry over.
    sha2::storeBe64(context.block + block - 8, context.length << 3);
    if (block == sha2::kSha512BlockBytes) {
        sha2::storeBe64(context.block + block - 16, context.length >> 61);
    }
    hashBlocks(context, context.block, 1);

    const std::uint32_t size = context.digestSize;
    if (size == kSha256Bytes) {
        for (int i = 0; i < 8; ++i) {
            sha2::storeBe32(digest + 4 * i, context.state.h32[i]);
        }
    } else {
        for (std::uint32_t i = 0; i < size / 8; ++i) {
            sha2::storeBe64(digest + 8 * i, context.state.h64[i]);
        }
    }
    // Nothing of the message is left behind in the context.
    context = Sha2Context{};
    return size;
}

int Sha2Digest(std::uint32_t size, const void* data, std::size_t length, std::uint8_t* digest)
{
    Sha2Context context;
    if (Sha2Init(size, context) != 0) {
        return 1;
    }
    Sha2Update(data, length, context);
    Sha2Final(digest, context);
    return 0;
}

} // namespace tarvoqc
