#include "md5.h"

namespace
{

// The integer parts of 2^32 times the sines of 1 to 64, without their signs.
constexpr std::uint32_t CONSTANTS[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};
constexpr int SHIFTS[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

} // namespace

template class block_hash<md5_rounds>;

void md5_rounds::take_block(const std::array<std::uint32_t, 16> &words)
{
    auto [a, b, c, d] = state;
    for (std::size_t k = 0; k < 64; ++k) {
        std::uint32_t mixed = 0;
        std::size_t word = k;
        switch (k / 16) {
        case 0:
            mixed = (b & c) | (~b & d);
            break;
        case 1:
            mixed = (b & d) | (c & ~d);
            word = 5 * k + 1;
            break;
        case 2:
            mixed = b ^ c ^ d;
            word = 3 * k + 5;
            break;
        default:
            mixed = c ^ (b | ~d);
            word = 7 * k;
        }
        const std::uint32_t sum = a + mixed + CONSTANTS[k] + words[word % 16];
        a = d;
        d = c;
        c = b;
        b += std::rotl(sum, SHIFTS[k / 16][k % 4]);
    }
    const std::uint32_t added[] = {a, b, c, d};
    for (std::size_t k = 0; k < state.size(); ++k)
        state[k] += added[k];
}
