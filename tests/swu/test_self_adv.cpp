// The advertisement's bytes from the identity block and the card's version
// file, in a simulation root of their own.
#include "support/sim_root.h"
#include "support/swu_harness.h"
#include "swu/self_adv.h"

#include <gtest/gtest.h>

namespace
{

class SelfAdv : public ::testing::Test
{
  protected:
    SelfAdv()
    {
        swu_harness::reset_globals();
        root_.mkdir("mnt");
        root_.write("dev/mtd0", "<orVanId>T</orVanId>");
    }
    byte_vec advertisement()
    {
        self_adv_t adv;
        testing::internal::CaptureStdout();
        self_adv_build(&adv);
        log_ = testing::internal::GetCapturedStdout();
        adv.connection_status = SWU_CON_STATUS_BUSY;
        adv.hdr.seq_num = 0x0102;
        return dgram::encode(proto_encode_self_adv, adv, PROTO_SELF_ADV_SIZE);
    }
    SimRoot root_;
    std::string log_;
};

TEST_F(SelfAdv, GoldenBytes)
{
    root_.write("dev/mtd0", "<orVanId>ABC123</orVanId>rest of the block");
    root_.write("dev/mmcblk0p1/pkg_ver.txt", "[pkg_data]\nversion=1.4.2\n");
    g_swu_reson = 4;
    byte_vec expected = {0x02, 0x01, 0x70, 0, 1,   0xC2, 0x2F, 0xC2, 0x2F, // ports 12226
                         1,    0,    4,    0, 2,   0,                      // installed 1.4.2
                         0,    0,    1,    0, 3,   0,                      // factory, reason bit 4
                         0xF9, 0x01, 1,    6, 'A', 'B',  'C',  '1',  '2',  '3'};
    expected.resize(PROTO_SELF_ADV_SIZE, 0);
    EXPECT_EQ(advertisement(), expected);
    EXPECT_NE(log_.find("orvanID: ABC123 | len : 6\n"), std::string::npos);
}

TEST_F(SelfAdv, IdentityTagVariants)
{
    const std::string id32(32, 'I');
    const struct {
        const char *name;
        std::string block, id; // id: the field's text; "" with length 32 when unreadable
        uint8_t len;
    } cases[] = {
        {"empty", "<orVanId></orVanId>", "", 0},
        {"32 bytes", "<orVanId>" + id32 + "</orVanId>", id32, 32},
        {"33 bytes", "<orVanId>" + id32 + "J</orVanId>", "", 32},
        {"no start tag", "<orvanid>ABC</orVanId>", "", 32},
        {"no end tag", "<orVanId>ABC", "", 32},
        {"wrong end tag", "<orVanId>ABC</other>", "", 32},
        {"end tag beyond 1024 bytes", "<orVanId>" + std::string(1011, 'x') + "</orVanId>", "", 32},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        root_.write("dev/mtd0", c.block);
        byte_vec b = advertisement();
        EXPECT_EQ(b[24], c.len);
        EXPECT_EQ(std::string(b.begin() + 25, b.end()), c.id + std::string(32 - c.id.size(), '\0'));
    }
}

TEST_F(SelfAdv, VersionFileVariants)
{
    const struct {
        const char *name;
        const char *ini; // null: no file
        uint16_t v[3];
    } cases[] = {
        {"two numbers", "[pkg_data]\nversion=2.10\n", {2, 10, 0}},
        {"no key", "[pkg_data]\nname=x\n", {0, 0, 0}},
        {"malformed", "[pkg_data\nversion=1.2.3\n", {0, 0, 0}},
        {"no file", nullptr, {0, 0, 0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(root_.path("dev/mmcblk0p1/pkg_ver.txt"));
        root_.mkdir("dev/mmcblk0p1");
        if (c.ini != nullptr)
            root_.write("dev/mmcblk0p1/pkg_ver.txt", c.ini);
        byte_vec b = advertisement();
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(b[9 + 2 * i] | b[10 + 2 * i] << 8, c.v[i]) << "number " << i;
        EXPECT_EQ(byte_vec(b.begin() + 15, b.begin() + 21), byte_vec(6, 0)) << "factory version";
    }
}

} // namespace
