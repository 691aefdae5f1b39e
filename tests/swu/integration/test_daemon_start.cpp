// The daemon's start: command line, banner, and the advertisement it builds
// from the flash block, the card's version file and the boot registers.
#include "support/terminal_fixture.h"

namespace
{

const std::string BANNER =
    std::string(57, '/') + "\n// SWU App Version 1.0.0\n" + std::string(57, '/') + "\n\n";

// `a` was taken from the terminal's counter a little after `b`.
bool taken_after(uint16_t a, uint16_t b)
{
    uint16_t d = static_cast<uint16_t>(a - b);
    return d > 0 && d < 1000;
}

std::string usage(const std::string &prog)
{
    return "Usage: " + prog +
           " [-S] [-w num of iterations]\n\tS:\tsimulate stream failure\n\tF:\tsimulate invalid "
           "file name\n\tL:\tsimulate invalid file name length\n\tZ:\tsimulate invalid pkg "
           "size\n\tM:\tsimulate memory failure\n\tR:\tsimulate SWU reson (0x0, 0x1, 0x2, 0x3)\n";
}

class CommandLine : public TerminalTest
{
  protected:
    // Runs the daemon to its end; its output.
    std::string run_to_end(const std::vector<std::string> &args, int expect_status)
    {
        std::vector<std::string> argv = {SWU_BIN_DIR "/swu"};
        argv.insert(argv.end(), args.begin(), args.end());
        TestProcess p;
        EXPECT_TRUE(p.start(argv, root_.dir(), root_.path("swu.log")));
        EXPECT_TRUE(p.wait_end(10s * SLOW)) << "still running";
        p.stop();
        EXPECT_TRUE(WIFEXITED(p.exit_status()) && WEXITSTATUS(p.exit_status()) == expect_status)
            << p.output();
        return p.output();
    }
};

TEST_F(CommandLine, UnknownOptionOrMissingValuePrintsTheUsage)
{
    const std::string prog = SWU_BIN_DIR "/swu";
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"-w"}, std::vector<std::string>{"-R"}}) {
        SCOPED_TRACE(args[0]);
        std::string out = run_to_end(args, 1);
        EXPECT_NE(out.find(usage(prog)), std::string::npos) << out;
        EXPECT_EQ(out.find("SWU App Version"), std::string::npos);
    }
}

TEST_F(CommandLine, WithoutTheSimulationRootTheDaemonRefusesToStart)
{
    unsetenv("SWU_ROOT"); // SimRoot puts it back
    std::string out = run_to_end({}, 2);
    EXPECT_NE(out.find("SWU_ROOT"), std::string::npos) << out;
}

TEST_F(CommandLine, ReasonOptionIsPrintedBeforeTheBanner)
{
    TerminalSetup setup;
    setup.daemon_args = {"-R", "0x3"};
    ASSERT_NO_FATAL_FAILURE(start(setup));
    EXPECT_EQ(swu_.output().rfind("swu reson: 0x3\n" + BANNER, 0), 0u) << swu_.output();
}

struct advert_case {
    const char *name;
    std::string block0;       // the start of flash block 0
    const char *version_file; // null: none on the card
    std::string id;           // the identity field's 32 bytes
    uint8_t id_len;
    std::vector<uint16_t> version;
};

void PrintTo(const advert_case &c, std::ostream *os)
{
    *os << c.name;
}

class Advertisement : public TerminalTest, public ::testing::WithParamInterface<advert_case>
{
};

TEST_P(Advertisement, CarriesTheIdentityAndVersionOfTheTerminal)
{
    const advert_case &c = GetParam();
    TerminalSetup setup;
    setup.initiate_reg = 0;
    setup.err_boot_reg = REG_ERROR_BOOT;
    setup.prepare = [&c](const SimRoot &r) {
        std::string block = c.block0;
        block.resize(4096, '\xFF');
        r.write("dev/mtd0", block);
        if (c.version_file == nullptr)
            std::filesystem::remove(r.path("dev/mmcblk0p1/pkg_ver.txt"));
        else
            r.write("dev/mmcblk0p1/pkg_ver.txt", c.version_file);
    };
    ASSERT_NO_FATAL_FAILURE(start(setup));
    const self_adv_t &adv = first_adv_.adv;
    EXPECT_EQ(adv.orvanID_len, c.id_len);
    EXPECT_EQ(std::string(adv.orvanID, 32), c.id);
    EXPECT_EQ(std::vector<uint16_t>(adv.curr_sw_v, adv.curr_sw_v + 3), c.version);
    // Reason 2 has no bit 4: no factory version.
    EXPECT_EQ(std::vector<uint16_t>(adv.factory_sw_v, adv.factory_sw_v + 3),
              (std::vector<uint16_t>{0, 0, 0}));

    swuc_session s;
    ASSERT_NO_FATAL_FAILURE(open_session(&s));
    conection_response_t rsp;
    ASSERT_EQ(swuc_connect(&s, &rsp), 0);
    EXPECT_EQ(rsp.swu_mode_reason_bitfield, 2);
}

const std::string ID32 = "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345";

const advert_case advert_cases[] = {
    {"IdentityOfExactly32Bytes",
     "<orVanId>" + ID32 + "</orVanId>",
     "[pkg_data]\nversion=1.2.3.4\n",
     ID32,
     32,
     {1, 2, 3}},
    {"IdentityTooLong",
     "<orVanId>" + ID32 + "6</orVanId>",
     "[pkg_data]\nversion=2.10\n",
     std::string(32, '\0'),
     32,
     {2, 10, 0}},
    {"EmptyIdentity",
     "<orVanId></orVanId>",
     "[pkg_data]\nversion=70000.1.1\n",
     std::string(32, '\0'),
     0,
     {4464, 1, 1}},
    {"NoStartTagAndNoVersionFile",
     "orVanId>ID</orVanId>",
     nullptr,
     std::string(32, '\0'),
     32,
     {0, 0, 0}},
    {"NoEndTagAndNoVersionKey",
     "<orVanId>ID",
     "[pkg_data]\nother=1\n",
     std::string(32, '\0'),
     32,
     {0, 0, 0}},
};

INSTANTIATE_TEST_SUITE_P(Daemon, Advertisement, ::testing::ValuesIn(advert_cases),
                         [](const ::testing::TestParamInfo<advert_case> &param) {
                             return std::string(param.param.name);
                         });

TEST_F(CommandLine, AdvertisementsRepeatEveryThreeSecondsWithFreshSequenceNumbers)
{
    ASSERT_NO_FATAL_FAILURE(start());
    EXPECT_EQ(swu_.output().rfind(BANNER, 0), 0u) << swu_.output();
    swuc_advert next;
    ASSERT_EQ(swuc_listen_next(&adv_, &next, 5000), 0);
    const int64_t gap = swuc_now_ms() - first_adv_at_;
    EXPECT_GT(gap, 2800);
    EXPECT_LT(gap, 3800 * SLOW);
    EXPECT_TRUE(taken_after(next.adv.hdr.seq_num, first_adv_.adv.hdr.seq_num));
    EXPECT_EQ(next.adv.hdr.reserved, 0);

    // Responses take their numbers from the same counter.
    swuc_session s;
    ASSERT_NO_FATAL_FAILURE(open_session(&s));
    uint8_t buf[2048];
    conection_response_t rsp;
    ASSERT_EQ(swuc_connect(&s, &rsp), 0);
    ASSERT_EQ(swuc_send_header(&s, SWUC_RX, STATUS_REQST), 0);
    ssize_t n = swuc_await(&s, SWUC_RX, STATUS_RSPNS, buf, sizeof(buf), 1000 * SLOW);
    ASSERT_GT(n, 0);
    msg_hdr_t hdr;
    ASSERT_EQ(proto_decode_hdr(buf, static_cast<size_t>(n), &hdr), 0);
    EXPECT_TRUE(taken_after(rsp.hdr.seq_num, next.adv.hdr.seq_num));
    EXPECT_TRUE(taken_after(hdr.seq_num, rsp.hdr.seq_num));
}

} // namespace
