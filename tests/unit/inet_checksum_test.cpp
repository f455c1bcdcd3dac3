// The Internet checksum summed in wide words must fold to exactly what the
// plain sum of big-endian 16-bit words gives, for every length and start.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "ef_csum.h"

namespace {

uint16_t sum_by_words(const uint8_t *p, uint32_t len)
{
    uint32_t s = 0;
    for (uint32_t i = 0; i + 1 < len; i += 2)
        s += static_cast<uint32_t>(p[i] << 8 | p[i + 1]);
    if (len % 2 != 0)
        s += static_cast<uint32_t>(p[len - 1] << 8);
    while (s > 0xFFFF)
        s = (s & 0xFFFF) + (s >> 16);
    return static_cast<uint16_t>(s);
}

TEST(InetChecksumTest, WideSumEqualsTheSixteenBitSumForEveryLengthAndAlignment)
{
    std::mt19937 rng(11);
    std::vector<uint8_t> bytes(1600 + 8);
    for (uint8_t &b : bytes)
        b = static_cast<uint8_t>(rng());
    for (uint32_t start = 0; start < 8; ++start)
        for (uint32_t len = 0; len <= 1600; ++len)
            ASSERT_EQ(ef_csum_sum(bytes.data() + start, len),
                      sum_by_words(bytes.data() + start, len))
                << "start " << start << " len " << len;
}

TEST(InetChecksumTest, AllOnesBytesSumToAllOnesNotZero)
{
    const std::vector<uint8_t> ones(64, 0xFF);
    EXPECT_EQ(ef_csum_sum(ones.data(), 64), 0xFFFF);
    EXPECT_EQ(ef_csum_sum(ones.data(), 0), 0);
}

TEST(InetChecksumTest, RunsSharingOneSumEqualTheSumOfTheirConcatenation)
{
    std::mt19937 rng(5);
    std::vector<uint8_t> bytes(200);
    for (uint8_t &b : bytes)
        b = static_cast<uint8_t>(rng());
    for (uint32_t first = 0; first <= 40; first += 2) {
        uint64_t s = ef_csum_accumulate(0, bytes.data(), first);
        s = ef_csum_accumulate(s, bytes.data() + first, 151 - first);
        EXPECT_EQ(ef_csum_finish(s), sum_by_words(bytes.data(), 151)) << first;
    }
}

}  // namespace
