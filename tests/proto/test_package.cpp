// The package format: its footer and CRC byte for byte, and the name rules.
#include "proto/package.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace
{

TEST(PkgFooter, DecodesAndEncodesLittleEndianFields)
{
    const uint8_t raw[PKG_FOOTER_SIZE] = {0x01, 0,    0,    0,    0xAA, 0xBB,
                                          0xCC, 0xDD, 0x78, 0x56, 0x34, 0x12};
    pkg_metadata_t meta;
    pkg_footer_decode(raw, &meta);
    EXPECT_EQ(meta.artifacts_bitmask, 1u);
    EXPECT_EQ(meta.reserved, 0xDDCCBBAAu);
    EXPECT_EQ(meta.crc, 305419896u);
    uint8_t back[PKG_FOOTER_SIZE];
    pkg_footer_encode(&meta, back);
    EXPECT_EQ(0, memcmp(raw, back, sizeof raw));
}

// The package CRC is crc32() chained over 4096-byte pieces. Appending the
// little-endian register to a piece clears the register, so this payload's
// running value is 0 at the end of its first piece.
std::vector<uint8_t> payload_with_zero_at_first_piece_end()
{
    std::vector<uint8_t> p(PKG_CRC_PIECE + 1000);
    for (size_t i = 0; i < p.size(); i++)
        p[i] = static_cast<uint8_t>(i * 7 + 3);
    uint32_t reg = crc32(p.data(), PKG_CRC_PIECE - 4, PKG_CRC_START);
    for (int i = 0; i < 4; i++)
        p[PKG_CRC_PIECE - 4 + i] = static_cast<uint8_t>(reg >> (8 * i));
    return p;
}

TEST(PkgCrc, ChainsFromFfffAndRestartsAfterAPieceEndingAtZero)
{
    EXPECT_EQ(pkg_crc_buffer("123456789", 9), 0x42F92725u) << "from 0xFFFF, not inverted";
    std::vector<uint8_t> p = payload_with_zero_at_first_piece_end();
    ASSERT_EQ(crc32(p.data(), PKG_CRC_PIECE, PKG_CRC_START), 0u);
    uint32_t expected = crc32(p.data() + PKG_CRC_PIECE, 1000, 0x0000FFFF);
    EXPECT_EQ(pkg_crc_buffer(p.data(), p.size()), expected);
    EXPECT_NE(expected, crc32_bytewise(p.data(), p.size(), PKG_CRC_START))
        << "one unbroken pass would continue from 0";
}

TEST(PkgName, OneTo99LettersDigitsDotUnderscoreOrDash)
{
    const std::string n99(99, 'n');
    for (const std::string &ok : {std::string("pkg_1.0-2.tar.gz"), std::string("A"), n99})
        EXPECT_TRUE(pkg_name_valid(ok.data(), ok.size())) << ok;
    for (const std::string &bad :
         {std::string(""), n99 + "n", std::string("a/b"), std::string("a b"), std::string("a+b"),
          std::string("caf\xc3\xa9")})
        EXPECT_FALSE(pkg_name_valid(bad.data(), bad.size())) << bad;
}

} // namespace
