#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "engine/sha2.h"

namespace tarvoqc {

// The SHA-256 digest of a whole clip file.
using FileDigest = std::array<std::uint8_t, kSha256Bytes>;

// FKey is hashed from a digest buffer of this size: the 32 file digest bytes, then 224
// bytes that the key computation never writes. They are zero here, so a key is the same
// on every run and machine; keys made with other content there differ.
inline constexpr std::size_t kKeyDigestBufferBytes = 256;
// How much of the digest buffer enters FKey. It is the digest size in bits used as a byte
// count, and it is part of the key's definition: changing it changes every key.
inline constexpr std::size_t kFKeyHashedBytes = 256;
static_assert(kFKeyHashedBytes <= kKeyDigestBufferBytes);
// The salt hashed after the digest buffer: 13 letters and their terminating zero byte.
inline constexpr char kFKeySalt[] = "Permadolvixun";
inline constexpr std::size_t kFKeySaltBytes = sizeof kFKeySalt;
static_assert(kFKeySaltBytes == 14);

// Hash256: the digest as 64 hex digits, two per byte in digest order, upper case ("0A",
// never "A"). Thread-safe (pure function).
std::string makeHash256(const FileDigest& digest);

// FKey: SHA-256 over the digest buffer (kFKeyHashedBytes bytes) and the salt; the first
// 8 bytes of that digest read little-endian (byte 0 least significant). A result of 0
// cannot be told from "no key" (a chance of 2^-64). Thread-safe (pure function).
std::uint64_t makeFKey(const FileDigest& digest);

} // namespace tarvoqc
