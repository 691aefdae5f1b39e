#include "lib/sys/crc.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace
{

// Byte-at-a-time reference, independent of the library's loops.
uint32_t reference_crc(const uint8_t *p, size_t n, uint32_t init)
{
    uint32_t v = init == 0 ? 0x0000FFFFU : init;
    for (size_t i = 0; i < n; ++i)
        v = (v >> 8) ^ crc32_table[(v ^ p[i]) & 0xFF];
    return v;
}

// The published check value, and the faster path (when built) agreeing with
// the table loop on every length, alignment and start value (a chained piece
// starts from any value; 0, as a piece that ended at 0 leaves it, starts from
// 0x0000FFFF).
TEST(Crc32, BothMethodsMatchTheReference)
{
    const char *digits = "123456789";
    EXPECT_EQ(crc32(digits, 9, 0), 0x42F92725U);  // 0 starts from 0x0000FFFF
    EXPECT_EQ(crc32(nullptr, 0, 0), 0x0000FFFFU); // no bytes: the start value
    EXPECT_EQ(crc32("", 0, 0x12345678), 0x12345678U);
    std::mt19937 rng(12345);
    std::vector<uint8_t> buf(70008);
    for (auto &b : buf)
        b = static_cast<uint8_t>(rng());
    for (size_t size : {1u, 3u, 7u, 8u, 15u, 16u, 31u, 64u, 255u, 4096u, 4097u, 65536u, 70000u})
        for (size_t off : {0u, 1u, 3u})
            for (uint32_t start : {0u, static_cast<uint32_t>(rng())}) {
                uint32_t want = reference_crc(buf.data() + off, size, start);
                ASSERT_EQ(crc32(buf.data() + off, size, start), want) << size << "+" << off;
                ASSERT_EQ(crc32_bytewise(buf.data() + off, size, start), want);
            }
}

// The common CRC-32: zlib's check value, chained across any split, and
// distinct from the package CRC's register.
TEST(Crc32, CommonCrcChainsLikeZlib)
{
    EXPECT_EQ(crc32_std(0, "123456789", 9), 0xCBF43926U);
    EXPECT_EQ(crc32_std(0, nullptr, 0), 0U);
    EXPECT_EQ(crc32_std(crc32_std(0, "1234", 4), "56789", 5), 0xCBF43926U);
}

} // namespace
