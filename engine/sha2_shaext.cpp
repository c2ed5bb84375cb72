// SHA-256 with the x86-64 SHA extensions. The functions carry their own target attribute,
// so the file builds with the project's ordinary flags and the code only runs where the
// CPU check says it may.

#include <cstddef>
#include <cstdint>
#include <utility>

#if defined(__x86_64__)
#include <cpuid.h>
#include <immintrin.h>
#endif

#include "engine/sha2blocks.h"

namespace tarvoqc::sha2 {

#if defined(__x86_64__)

namespace {

#define TARVOQC_SHA_EXT __attribute__((target("sha,sse4.1,ssse3")))
#define TARVOQC_SHA_EXT_INLINE __attribute__((target("sha,sse4.1,ssse3"), always_inline)) inline

using Schedule = __m128i[4];

// Rounds 4g..4g+3. The four schedule registers hold message words 4g..4g+15 as a ring;
// interleaving the schedule of later groups with these rounds keeps the SHA units busy.
// State registers: abef holds A, B, E, F and cdgh holds C, D, G, H, as the round
// instruction wants them.
template <int G> TARVOQC_SHA_EXT_INLINE void fourRounds(__m128i& abef, __m128i& cdgh, Schedule& m)
{
    __m128i wk = _mm_add_epi32(
        m[G % 4], _mm_loadu_si128(reinterpret_cast<const __m128i*>(kSha256RoundConstants + 4 * G)));
    cdgh = _mm_sha256rnds2_epu32(cdgh, abef, wk);
    if constexpr (G >= 3 && G <= 14) {
        // Words 4g+4..4g+7: add W[t-7], then sigma1 of W[t-2].
        const __m128i w7 = _mm_alignr_epi8(m[G % 4], m[(G + 3) % 4], 4);
        m[(G + 1) % 4] = _mm_sha256msg2_epu32(_mm_add_epi32(m[(G + 1) % 4], w7), m[G % 4]);
    }
    wk = _mm_shuffle_epi32(wk, 0x0E);
    abef = _mm_sha256rnds2_epu32(abef, cdgh, wk);
    if constexpr (G >= 1 && G <= 12) {
        // W[t-16] plus sigma0 of W[t-15] for words 4g+12..4g+15.
        m[(G + 3) % 4] = _mm_sha256msg1_epu32(m[(G + 3) % 4], m[G % 4]);
    }
}

template <std::size_t... G>
TARVOQC_SHA_EXT_INLINE void allRounds(__m128i& abef, __m128i& cdgh, Schedule& m,
                                      std::index_sequence<G...>)
{
    (fourRounds<static_cast<int>(G)>(abef, cdgh, m), ...);
}

} // namespace

TARVOQC_SHA_EXT void sha256BlocksShaExt(std::uint32_t state[8], const std::uint8_t* data,
                                        std::size_t blocks)
{
    const __m128i byteSwap = _mm_set_epi64x(0x0c0d0e0f08090a0bLL, 0x0405060700010203LL);

    // From A..H in order to the ABEF / CDGH halves.
    __m128i cdab = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<__m128i*>(state)), 0xB1);
    __m128i efgh = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<__m128i*>(state + 4)), 0x1B);
    __m128i abef = _mm_alignr_epi8(cdab, efgh, 8);
    __m128i cdgh = _mm_blend_epi16(efgh, cdab, 0xF0);

    for (; blocks > 0; --blocks, data += 64) {
        const __m128i abefBefore = abef;
        const __m128i cdghBefore = cdgh;
        Schedule m;
        for (int i = 0; i < 4; ++i) {
            m[i] = _mm_shuffle_epi8(
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + 16 * i)), byteSwap);
        }
        allRounds(abef, cdgh, m, std::make_index_sequence<16>{});
        abef = _mm_add_epi32(abef, abefBefore);
        cdgh = _mm_add_epi32(cdgh, cdghBefore);
    }

    const __m128i feba = _mm_shuffle_epi32(abef, 0x1B);
    const __m128i dchg = _mm_shuffle_epi32(cdgh, 0xB1);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(state), _mm_blend_epi16(feba, dchg, 0xF0));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(state + 4), _mm_alignr_epi8(dchg, feba, 8));
}

bool sha256ShaExtensionsAvailable()
{
    static const bool available = [] {
        unsigned a = 0, b = 0, c = 0, d = 0;
        if (__get_cpuid(1, &a, &b, &c, &d) == 0) {
            return false;
        }
        const bool ssse3 = (c & bit_SSSE3) != 0;
        const bool sse41 = (c & bit_SSE4_1) != 0;
        if (__get_cpuid_count(7, 0, &a, &b, &c, &d) == 0) {
            return false;
        }
        const bool sha = (b & bit_SHA) != 0;
        return ssse3 && sse41 && sha;
    }();
    return available;
}

#else // not x86-64

void sha256BlocksShaExt(std::uint32_t state[8], const std::uint8_t* data, std::size_t blocks)
{
    sha256BlocksPortable(state, data, blocks);
}

bool sha256ShaExtensionsAvailable()
{
    return false;
}

#endif

} // namespace tarvoqc::sha2
