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

TEST(Crc32, KnownValuesAndTheZeroStartRule)
{
    EXPECT_EQ(crc32_table[1], 0x77073096U);
    EXPECT_EQ(crc32_table[255], 0x2D02EF8DU);
    const char *digits = "123456789";
    EXPECT_EQ(crc32(digits, 9, 0), 0x42F92725U);
    EXPECT_EQ(crc32_bytewise(digits, 9, 0), 0x42F92725U);
    EXPECT_EQ(crc32(digits, 9, 0x0000FFFF), 0x42F92725U);
    EXPECT_NE(crc32(digits, 9, 0xFFFFFFFF), 0x42F92725U);
    // No bytes: the start value.
    EXPECT_EQ(crc32(nullptr, 0, 0), 0x0000FFFFU);
    EXPECT_EQ(crc32("", 0, 0x12345678), 0x12345678U);
    EXPECT_EQ(crc32_bytewise(nullptr, 0, 0), 0x0000FFFFU);
}

// The faster path (when built) must agree with the table loop on every
// length, alignment and start value, whole or chained in pieces.
TEST(Crc32, BothMethodsMatchTheReferenceWholeAndChained)
{
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

    uint32_t whole = reference_crc(buf.data(), buf.size(), 0x0000FFFF);
    for (size_t piece : {1u, 100u, 4096u}) {
        uint32_t fast = 0x0000FFFF, table = 0x0000FFFF;
        for (size_t off = 0; off < buf.size(); off += piece) {
            size_t n = std::min(piece, buf.size() - off);
            fast = crc32(buf.data() + off, n, fast);
            table = crc32_bytewise(buf.data() + off, n, table);
        }
        EXPECT_EQ(fast, whole) << "pieces of " << piece;
        EXPECT_EQ(table, whole) << "pieces of " << piece;
    }
}

// A piece whose result is exactly 0 makes the next piece start again from
// 0x0000FFFF; inside one pass a zero register is just a value.
TEST(Crc32, PieceEndingAtZeroRestartsFromDefault)
{
    // Each byte equals the register's low byte, so entry 0 is used every
    // time and the 0x0000FFFF start is shifted out to 0.
    const uint8_t tail[4] = {0xFF, 0xFF, 0x00, 0x00};
    ASSERT_EQ(crc32(tail, 4, 0), 0u);
    ASSERT_EQ(crc32_bytewise(tail, 4, 0), 0u);

    const uint8_t next[] = "next piece";
    uint32_t chained = crc32(next, sizeof(next), crc32(tail, 4, 0));
    EXPECT_EQ(chained, reference_crc(next, sizeof(next), 0x0000FFFF));
    EXPECT_EQ(chained, crc32_bytewise(next, sizeof(next), crc32_bytewise(tail, 4, 0)));

    std::vector<uint8_t> joined(tail, tail + 4);
    joined.insert(joined.end(), next, next + sizeof(next));
    uint32_t one_pass = reference_crc(joined.data(), joined.size(), 0);
    EXPECT_NE(one_pass, chained);
    EXPECT_EQ(crc32(joined.data(), joined.size(), 0), one_pass);
}

} // namespace
