#include "sha256.h"

#include <algorithm>

#if defined(__i386__) || defined(__x86_64__)
#include <cpuid.h>
#include <immintrin.h>
#define HAS_X86_INSTRUCTIONS 1
#endif

#include "hex_text.h"

namespace
{

// The first 32 bits of the fractional parts of the cube roots of the first 64 primes.
constexpr std::uint32_t CONSTANTS[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

constexpr std::uint32_t small_sigma_0(std::uint32_t x)
{
    return std::rotr(x, 7) ^ std::rotr(x, 18) ^ x >> 3;
}

constexpr std::uint32_t small_sigma_1(std::uint32_t x)
{
    return std::rotr(x, 17) ^ std::rotr(x, 19) ^ x >> 10;
}

constexpr std::uint32_t big_sigma_0(std::uint32_t x)
{
    return std::rotr(x, 2) ^ std::rotr(x, 13) ^ std::rotr(x, 22);
}

constexpr std::uint32_t big_sigma_1(std::uint32_t x)
{
    return std::rotr(x, 6) ^ std::rotr(x, 11) ^ std::rotr(x, 25);
}

#ifdef HAS_X86_INSTRUCTIONS
bool find_instructions()
{
    constexpr unsigned SSSE3 = 1U << 9;   // leaf 1, ecx
    constexpr unsigned SSE4_1 = 1U << 19; //
    constexpr unsigned SHA = 1U << 29;    // leaf 7, ebx
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (__get_cpuid(1, &a, &b, &c, &d) == 0 || (c & SSSE3) == 0 || (c & SSE4_1) == 0)
        return false;
    return __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (b & SHA) != 0;
}

const bool has_instructions = find_instructions();

__attribute__((target("sha,sse4.1"))) void take_block_by_instructions(std::array<std::uint32_t, 8> &state,
                                                                      const std::array<std::uint32_t, 16> &words)
{
    // The instructions take the state as the words a, b, e, f and c, d, g, h, the first of each in the highest
    // place.
    auto *const low = reinterpret_cast<__m128i *>(state.data());
    auto *const high = reinterpret_cast<__m128i *>(state.data() + 4);
    const __m128i badc = _mm_shuffle_epi32(_mm_loadu_si128(low), 0xb1);
    const __m128i hgfe = _mm_shuffle_epi32(_mm_loadu_si128(high), 0x1b);
    __m128i abef = _mm_alignr_epi8(badc, hgfe, 8);
    __m128i cdgh = _mm_blend_epi16(hgfe, badc, 0xf0);
    const __m128i abef_before = abef;
    const __m128i cdgh_before = cdgh;

    __m128i schedule[4]; // the sixteen words that come next
    for (std::size_t k = 0; k < 4; ++k)
        schedule[k] = _mm_loadu_si128(reinterpret_cast<const __m128i *>(words.data() + 4 * k));
    for (std::size_t k = 0; k < 16; ++k) {
        __m128i &four = schedule[k % 4];
        const __m128i third = schedule[(k + 2) % 4];
        const __m128i last = schedule[(k + 3) % 4];
        const __m128i constants = _mm_loadu_si128(reinterpret_cast<const __m128i *>(CONSTANTS + 4 * k));
        const __m128i added = _mm_add_epi32(four, constants);
        cdgh = _mm_sha256rnds2_epu32(cdgh, abef, added);
        abef = _mm_sha256rnds2_epu32(abef, cdgh, _mm_shuffle_epi32(added, 0x0e));
        const __m128i first_half = _mm_sha256msg1_epu32(four, schedule[(k + 1) % 4]);
        four = _mm_sha256msg2_epu32(_mm_add_epi32(first_half, _mm_alignr_epi8(last, third, 4)), last);
    }
    abef = _mm_add_epi32(abef, abef_before);
    cdgh = _mm_add_epi32(cdgh, cdgh_before);

    const __m128i feba = _mm_shuffle_epi32(abef, 0x1b);
    const __m128i dchg = _mm_shuffle_epi32(cdgh, 0xb1);
    _mm_storeu_si128(low, _mm_blend_epi16(feba, dchg, 0xf0));
    _mm_storeu_si128(high, _mm_alignr_epi8(dchg, feba, 8));
}
#endif

} // namespace

template class block_hash<sha256_rounds>;

void sha256_rounds::take_block(const std::array<std::uint32_t, 16> &words)
{
#ifdef HAS_X86_INSTRUCTIONS
    if (has_instructions) {
        take_block_by_instructions(state, words);
        return;
    }
#endif
    take_block_plainly(words);
}

void sha256_rounds::take_block_plainly(const std::array<std::uint32_t, 16> &words)
{
    std::uint32_t schedule[64];
    std::copy(words.begin(), words.end(), schedule);
    for (std::size_t k = 16; k < 64; ++k)
        schedule[k] =
            schedule[k - 16] + small_sigma_0(schedule[k - 15]) + schedule[k - 7] + small_sigma_1(schedule[k - 2]);

    auto [a, b, c, d, e, f, g, h] = state;
    for (std::size_t k = 0; k < 64; ++k) {
        const std::uint32_t first = h + big_sigma_1(e) + ((e & f) ^ (~e & g)) + CONSTANTS[k] + schedule[k];
        const std::uint32_t second = big_sigma_0(a) + ((a & b) ^ (a & c) ^ (b & c));
        h = g;
        g = f;
        f = e;
        e = d + first;
        d = c;
        c = b;
        b = a;
        a = first + second;
    }
    const std::uint32_t added[] = {a, b, c, d, e, f, g, h};
    for (std::size_t k = 0; k < state.size(); ++k)
        state[k] += added[k];
}

std::string sha256_text(const sha256_digest &digest)
{
    return hex_text(digest);
}
