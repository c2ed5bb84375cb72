#pragma once

#include <cstddef>
#include <cstdint>

namespace tarvoqc {

// The SHA-2 hash family of FIPS 180-4: SHA-256 on 32-bit words, SHA-384 and SHA-512 on
// 64-bit words. SHA-224 and the SHA-512/t variants are not offered.
//
// Digest sizes in bytes.
inline constexpr std::uint32_t kSha256Bytes = 32;
inline constexpr std::uint32_t kSha384Bytes = 48;
inline constexpr std::uint32_t kSha512Bytes = 64;
// The largest digest, for callers that size one buffer for any variant.
inline constexpr std::uint32_t kSha2MaxBytes = kSha512Bytes;

// The running state of one hash, for any of the three variants; the variant is the digest
// size recorded by Sha2Init. A value-initialised context ({}) has no variant: Update and
// Final do nothing with it. A context is a plain value: copying it forks the hash.
//
// Thread-safety: none of its own; one thread at a time per context. Different contexts
// may be used on different threads at once.
struct Sha2Context
{
    std::uint32_t digestSize = 0; // 32, 48 or 64 after a successful Sha2Init, else 0
    std::uint32_t pending = 0;    // bytes waiting in block for a full block
    std::uint64_t length = 0;     // bytes fed so far
    union
    {
        std::uint32_t h32[8]; // SHA-256 chaining values
        std::uint64_t h64[8]; // SHA-384/512 chaining values
    } state = {};
    std::uint8_t block[128] = {}; // a partial block (64 bytes for SHA-256, 128 for 384/512)
};

// Starts a hash. size is the digest size in bits (256, 384, 512) or in bytes (32, 48,
// 64). Returns 0 on success; 1 for any other size, leaving the context without a variant.
int Sha2Init(std::uint32_t size, Sha2Context& context);

// Feeds length bytes at data (data may be null when length is 0). Whole blocks are hashed
// straight from data; only a partial block at either end is copied into the context.
// Does nothing for a context without a variant.
void Sha2Update(const void* data, std::size_t length, Sha2Context& context);

// Pads, writes context.digestSize bytes (32, 48 or 64) to digest and returns that count.
// The context is left without a variant (a further Update or Final does nothing; Final
// then returns 0 and writes nothing). digest must have room for the digest size.
std::uint32_t Sha2Final(std::uint8_t* digest, Sha2Context& context);

// Init, Update and Final on a context of its own. Returns 0 on success and 1 for a size
// that Sha2Init refuses (nothing is written then).
int Sha2Digest(std::uint32_t size, const void* data, std::size_t length, std::uint8_t* digest);

} // namespace tarvoqc
