#pragma once

#include <cstddef>
#include <cstdint>

// The block functions behind engine/sha2.h, for the tests and the benchmark that run each
// SHA-256 path on its own. The rest of the program uses engine/sha2.h only.

namespace tarvoqc::sha2 {

// The 64 round constants of SHA-256, 16-byte aligned for vector loads.
extern const std::uint32_t kSha256RoundConstants[64];

// Hashes blocks whole 64-byte blocks at data into the eight SHA-256 chaining values.
// data needs no alignment.
void sha256BlocksPortable(std::uint32_t state[8], const std::uint8_t* data, std::size_t blocks);
// The same with the x86-64 SHA extensions (SHA, SSE4.1, SSSE3). Only to be called where
// sha256ShaExtensionsAvailable() is true.
void sha256BlocksShaExt(std::uint32_t state[8], const std::uint8_t* data, std::size_t blocks);
// True when this CPU has the SHA extensions (always false off x86-64).
bool sha256ShaExtensionsAvailable();

// Hashes blocks whole 128-byte blocks into the eight SHA-384/512 chaining values.
void sha512Blocks(std::uint64_t state[8], const std::uint8_t* data, std::size_t blocks);

enum class Sha256Path {
    Portable,
    ShaExtensions,
};

// The path Sha2Update takes for SHA-256. It starts as the fastest one this CPU has.
Sha256Path sha256Path();
// Chooses the SHA-256 path for the whole process; false (and no change) when the CPU lacks
// it. Both paths give the same digests, so a hash may change path between Updates.
// Thread-safe; meant for tests and benchmarks.
bool setSha256Path(Sha256Path path);

} // namespace tarvoqc::sha2
