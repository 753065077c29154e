// Operations on runs of bytes, against the same done byte by byte, for every length and place within a register.
#include "flash_fixture.h"

#include "byte_runs.h"

namespace
{

constexpr std::size_t MOST_BYTES = 5 * BYTE_LANES_BYTES;

// Calls check(offset, length) for each; what is outside of the run has to stay as it is.
template<class call>
void for_each_run(call &&check)
{
    for (std::size_t offset = 0; offset < BYTE_LANES_BYTES; ++offset) {
        for (std::size_t length = 0; length <= MOST_BYTES; ++length)
            check(offset, length);
    }
}

flash_bytes some_bytes()
{
    return random_bytes(MOST_BYTES + 2 * BYTE_LANES_BYTES);
}

} // namespace

TEST(ByteRuns, AreComplemented)
{
    for_each_run([](std::size_t offset, std::size_t length) {
        const flash_bytes from = some_bytes();
        flash_bytes to = some_bytes(), wanted = to;
        for (std::size_t index = 0; index < length; ++index)
            wanted[offset + index] = static_cast<std::uint8_t>(~from[index + 1]);
        complement_bytes(from.data() + 1, to.data() + offset, length);
        ASSERT_EQ(to, wanted) << offset << " " << length;
    });
}

TEST(ByteRuns, LoseTheBitsThatAMaskHasNot)
{
    for_each_run([](std::size_t offset, std::size_t length) {
        const flash_bytes mask = some_bytes();
        flash_bytes place = some_bytes(), wanted = place;
        for (std::size_t index = 0; index < length; ++index)
            wanted[offset + index] &= mask[index + 1];
        clear_bits(place.data() + offset, mask.data() + 1, length);
        ASSERT_EQ(place, wanted) << offset << " " << length;
    });
}

TEST(ByteRuns, HaveAFurtherBitAnywhere)
{
    for_each_run([](std::size_t offset, std::size_t length) {
        const flash_bytes there = some_bytes();
        flash_bytes wanted = there;
        // Bits that are missing in the run and further ones beside it do not count.
        for (std::size_t index = 0; index < wanted.size(); ++index)
            wanted[index] = index < offset || index >= offset + length ? static_cast<std::uint8_t>(~there[index])
                                                                       : there[index] & 0x5a;
        ASSERT_FALSE(has_further_bits(wanted.data() + offset, there.data() + offset, length));
        for (std::size_t index = offset; index < offset + length; ++index) {
            if (there[index] == 0xff)
                continue;
            flash_bytes further = wanted;
            further[index] |= static_cast<std::uint8_t>(~there[index]);
            ASSERT_TRUE(has_further_bits(further.data() + offset, there.data() + offset, length)) << index;
        }
    });
}
