// Package check and installation through the running daemon: broken
// packages, a card that fails and is recovered, and a microcontroller that
// refuses to be programmed.
#include "status_texts.h"
#include "support/terminal_fixture.h"

#include <functional>

namespace
{

class Install : public TerminalTest
{
  protected:
    // Streams `path` in a fresh session and follows it to its end.
    swuc_status update(const std::string &path, const std::string &name, int expect_result)
    {
        swuc_session s;
        connect(&s);
        EXPECT_EQ(send_file(&s, path, name), 0) << "stream of " << name;
        swuc_status last = follow(&s, expect_result);
        if (last.stage_code == SWUC_STAGE_ERROR)
            ack_error(&s);
        return last;
    }
};

TEST_F(Install, BrokenPackagesEndInErrorAndTheNextGoodOneInstalls)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const std::string app = test_bytes(50000, 7);
    std::string good = make_package("good.pkg", {file_member("app.bin", app)});
    const std::string good_bytes = root_.read("client/good.pkg");

    std::string bad_crc = good_bytes;
    bad_crc.back() ^= 0x01;
    const std::string not_gzip = test_bytes(5000, 8);
    uint8_t footer[PKG_FOOTER_SIZE];
    pkg_metadata_t meta = {0, 0, pkg_crc_buffer(not_gzip.data(), not_gzip.size())};
    pkg_footer_encode(&meta, footer);

    struct broken {
        const char *name;
        std::string bytes;
        const char *logged;
        bool staging_blocked = false; // a file where the staging directory goes
    };
    const broken cases[] = {
        {"staging.pkg", good_bytes, "mkdir faild", true},
        {"bad-crc.pkg", bad_crc, "invalid crc"},
        {"short.pkg", "8 bytes!", "file seek failed"},
        {"not-gzip.pkg", not_gzip + std::string(reinterpret_cast<char *>(footer), sizeof(footer)),
         "extract cmd failed"},
    };
    for (const broken &c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = write_client_file(c.name, c.bytes);
        if (c.staging_blocked)
            root_.write("tmp/pkg", "not a directory");
        swuc_status last = update(path, c.name, -1);
        if (c.staging_blocked)
            std::filesystem::remove(root_.path("tmp/pkg"));
        EXPECT_EQ(last.text, STT_ERROR_AFTER_STREAM);
        EXPECT_TRUE(swu_.wait_output(c.logged, 1s)) << "no \"" << c.logged << "\" in the log";
    }
    EXPECT_FALSE(root_.exists("dev/mmcblk0p1/app.bin"));

    // The check of a later package is its own, whatever came before.
    EXPECT_EQ(update(good, "good.pkg", 0).text, STT_FINISHED);
    EXPECT_EQ(card_file("app.bin"), app);
}

// A failure of the first installation attempt makes the terminal re-format
// its card and try once more.
struct card_failure {
    const char *name;
    std::function<void(const SimRoot &)> inject; // after the daemon's start-up
    bool installs;                               // the second attempt succeeds
    const char *logged;                          // reported by the failing step, or null
    bool run_sim = true;
};

void PrintTo(const card_failure &c, std::ostream *os)
{
    *os << c.name;
}

class CardFailure : public Install, public ::testing::WithParamInterface<card_failure>
{
};

TEST_P(CardFailure, FirstAttemptFailsAndTheCardIsRecovered)
{
    const card_failure &c = GetParam();
    TerminalSetup setup;
    setup.run_sim = c.run_sim;
    ASSERT_NO_FATAL_FAILURE(start(setup));
    const std::string app = test_bytes(40000, 10);
    std::string pkg = make_package("card.pkg", {file_member("app.bin", app)});
    c.inject(root_);

    swuc_status last = update(pkg, "card.pkg", c.installs ? 0 : -1);
    if (c.logged != nullptr) {
        EXPECT_GE(swu_.count(c.logged), c.installs ? 1u : 2u) << "\"" << c.logged << "\"";
    }
    EXPECT_TRUE(swu_.wait_output("[sim] mkfs.vfat", 1s)) << "no recovery";
    EXPECT_FALSE(root_.exists("dev/mmcblk0p1/old.txt"));
    EXPECT_FALSE(card_mounted());
    if (c.installs) {
        EXPECT_EQ(last.text, STT_FINISHED);
        // Only the package's artifacts are left, so the microcontroller
        // keeps its image.
        EXPECT_EQ(card_file("app.bin"), app);
        EXPECT_FALSE(root_.exists("dev/mmcblk0p1/st.bin"));
        if (c.run_sim) {
            EXPECT_EQ(mcu_flash(), old_st_bin_);
        }
    } else {
        EXPECT_EQ(last.text, STT_ERROR_AFTER_STREAM);
    }
}

const card_failure card_failures[] = {
    {"MountFailsOnce", [](const SimRoot &r) { r.fail("mount", 1); }, true, "mount faild"},
    {"StatfsFailsOnce", [](const SimRoot &r) { r.fail("statfs", 1); }, true,
     "failed to stat mountpoint:"},
    {"UnmountBeforeTheDigestsFailsOnce", [](const SimRoot &r) { r.fail("umount", 1); }, true,
     "umount_failed..."},
    {"OldCardFileCannotBeRemoved",
     [](const SimRoot &r) { r.write("dev/mmcblk0p1/app.bin/inside.txt", "x"); }, true,
     "remove faild"},
    {"NoMicrocontrollerOnTheLine", [](const SimRoot &) {}, true, "ERROR OPENNING UART TTY", false},
    {"MountAlwaysFails", [](const SimRoot &r) { r.fail("mount", 0); }, false, "mount faild"},
    {"OtherFileSystemOnTheMountPoint",
     [](const SimRoot &r) { r.write("sim/fstype", "0x58465342"); }, false, nullptr},
};

INSTANTIATE_TEST_SUITE_P(Install, CardFailure, ::testing::ValuesIn(card_failures),
                         [](const ::testing::TestParamInfo<card_failure> &param) {
                             return std::string(param.param.name);
                         });

TEST_F(Install, MicrocontrollerThatRefusesProgrammingIsLoggedAndTheInstallationSucceeds)
{
    TerminalSetup setup;
    setup.sim_args = {"--nak", "erase"};
    ASSERT_NO_FATAL_FAILURE(start(setup));
    const std::string st = test_bytes(4096, 12);
    std::string pkg = make_package("nak.pkg", {file_member("st.bin", st)});

    EXPECT_EQ(update(pkg, "nak.pkg", 0).text, STT_FINISHED);
    EXPECT_GE(swu_.count("ERROR update STM"), 1u);
    EXPECT_GE(sim_.count("(nak)"), 1u);
    EXPECT_EQ(card_file("st.bin"), st);
    EXPECT_NE(mcu_flash(), st);
    EXPECT_TRUE(root_.exists("dev/mmcblk0p1/old.txt")) << "a recovery ran";
}

} // namespace
