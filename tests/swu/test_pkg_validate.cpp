// The check of a received package: footer, CRC, unpacking, and what an
// archive from the network may and may not do.
#include "pkg_fixture.h"

#include <fcntl.h>
#include <filesystem>
#include <functional>

namespace
{

using testing::StartsWith;

std::string footer(uint32_t bitmask, uint32_t crc)
{
    pkg_metadata_t meta = {bitmask, 0xFFFFFFFF, crc};
    uint8_t raw[PKG_FOOTER_SIZE];
    pkg_footer_encode(&meta, raw);
    return std::string(reinterpret_cast<char *>(raw), sizeof raw);
}

TEST(PkgValidate, ChecksCutsTheFooterAndUnpacksBesideEarlierFiles)
{
    PkgSim sim;
    const SimRoot &root = sim.root;
    root.write("tmp/pkg/earlier.bin", "left by an earlier run");
    std::string big(100000, 'a');
    // The package's name reaches tar as one word, whatever it holds.
    const char *name = "-it's a;`touch pwned`$(touch pwned)\n*.swu";
    sim.pack(name, {file_member("a.bin", big), file_member("b c.txt", "b")}, 0x5);
    uintmax_t size = fs::file_size(name);
    pkg_metadata_t meta;
    CaptureStdout();
    EXPECT_EQ(do_pkg_validation(name, &meta), 0);
    std::string out = GetCapturedStdout();

    EXPECT_EQ(get_install_status(), INSTALL_STT_ARTIFACT_OK);
    std::string crc = std::to_string(meta.crc);
    EXPECT_EQ(out, "[pkg data]  ->artifacts_bitmask: 0x5, ->crc:" + crc +
                       "\n[success] extracted metadata crc: " + crc +
                       " | calculated truncated pkg crc " + crc + "..............\n");
    EXPECT_EQ(fs::file_size(name), size - PKG_FOOTER_SIZE);
    EXPECT_EQ(root.read("tmp/pkg/a.bin"), big);
    EXPECT_EQ(root.read("tmp/pkg/b c.txt"), "b");
    EXPECT_TRUE(root.exists("tmp/pkg/earlier.bin"));
    EXPECT_FALSE(fs::exists("pwned"));

    // "-" alone is tar's name for its standard input (here an empty one).
    sim.pack("-", {file_member("c.bin", "c")});
    int saved_stdin = dup(0);
    int null_fd = open("/dev/null", O_RDONLY);
    dup2(null_fd, 0);
    CaptureStdout();
    EXPECT_EQ(do_pkg_validation("-", &meta), 0);
    GetCapturedStdout();
    dup2(saved_stdin, 0);
    close(saved_stdin);
    close(null_fd);
    EXPECT_EQ(root.read("tmp/pkg/c.bin"), "c");
}

TEST(PkgValidate, EveryFailureIsReportedAndPublished)
{
    const std::string payload = "not an archive";
    const std::string payload_crc = std::to_string(pkg_crc_buffer(payload.data(), payload.size()));
    struct {
        const char *name;
        std::function<void(PkgSim &)> arrange;
        int status;           // published; INSTALL_STT_INSTALLING stands for "unchanged"
        std::string out;      // standard output, exactly
        std::string err;      // start of standard error
        intmax_t size_change; // of the package file
    } const cases[] = {
        {"missing package", [](PkgSim &) {}, INSTALL_STT_INSTALLING, "",
         "open pkg failed: No such file or directory\n", 0},
        {"too short for a footer", [](PkgSim &t) { t.root.write("pkg.swu", "11 bytes..."); },
         INSTALL_STT_CRC_ERROR, "", "file seek failed: Invalid argument\ninvalid footer: ", 0},
        {"footer can't be read",
         [](PkgSim &t) {
             t.pack("pkg.swu", {file_member("a.bin", "a")});
             t.root.fail("read");
         },
         INSTALL_STT_CRC_ERROR, "", "file read failed: Input/output error\ninvalid footer: ", 0},
        {"CRC differs",
         [&](PkgSim &t) { t.root.write("pkg.swu", payload + footer(1, 0x12345678)); },
         INSTALL_STT_CRC_ERROR,
         "[pkg data]  ->artifacts_bitmask: 0x1, ->crc:305419896\n[failure] extracted metadata crc: "
         "305419896 | calculated truncated pkg crc " +
             payload_crc + "..............\n",
         "invalid crc: ", -12},
        {"payload that tar can't read",
         [&](PkgSim &t) {
             t.root.write("pkg.swu", payload + footer(0, pkg_crc_buffer(payload.data(), 14)));
         },
         INSTALL_STT_ARTIFACT_ERROR, "", "", -12},
        {"staging directory can't be made",
         [](PkgSim &t) {
             t.pack("pkg.swu", {file_member("a.bin", "a")});
             fs::remove_all(t.root.path("tmp"));
         },
         INSTALL_STT_ARTIFACT_ERROR, "", "mkdir faild....\n: No such file or directory\n", -12},
    };
    for (const auto &c : cases) {
        PkgSim fresh; // a new root and working directory for each case
        c.arrange(fresh);
        intmax_t before =
            fs::exists("pkg.swu") ? static_cast<intmax_t>(fs::file_size("pkg.swu")) : 0;
        set_install_status(INSTALL_STT_INSTALLING);
        pkg_metadata_t meta;
        CaptureStdout();
        CaptureStderr();
        EXPECT_EQ(do_pkg_validation("pkg.swu", &meta), -1) << c.name;
        std::string out = GetCapturedStdout(), err = GetCapturedStderr();
        EXPECT_EQ(get_install_status(), c.status) << c.name;
        if (c.status == INSTALL_STT_ARTIFACT_ERROR && c.err.empty()) {
            EXPECT_THAT(err, HasSubstr("extract cmd failed: ")) << c.name;
        } else {
            EXPECT_THAT(err, StartsWith(c.err)) << c.name;
        }
        if (!c.out.empty()) {
            EXPECT_EQ(out, c.out) << c.name;
        }
        intmax_t after =
            fs::exists("pkg.swu") ? static_cast<intmax_t>(fs::file_size("pkg.swu")) : 0;
        EXPECT_EQ(after - before, c.size_change) << c.name;
    }
}

TEST(PkgValidate, MembersNeverLandOutsideTheStagingDirectory)
{
    PkgSim sim;
    const SimRoot &root = sim.root;
    root.write("outside/target", "untouched");
    const std::string outside = root.path("outside");
    pkg_metadata_t meta;
    CaptureStdout();
    CaptureStderr();
    // An absolute name is unpacked below the staging directory.
    sim.pack("abs.swu", {file_member(outside + "/abs.bin", "abs")});
    EXPECT_EQ(do_pkg_validation("abs.swu", &meta), 0);
    EXPECT_EQ(root.read("tmp/pkg" + outside + "/abs.bin"), "abs");

    // Climbing out, or writing through a link or hard link of the same archive.
    sim.pack("evil.swu",
             {file_member("../up.bin", "x"), file_member("sub/../../up2.bin", "x"),
              link_member("lnk", PACK_SYMLINK, outside), file_member("lnk/through.bin", "x"),
              link_member("hard.bin", PACK_HARDLINK, outside + "/target")});
    do_pkg_validation("evil.swu", &meta);

    // A link left in the staging directory by an earlier package.
    fs::create_directory_symlink(outside, root.path("tmp/pkg/old_link"));
    sim.pack("second.swu", {file_member("old_link/via.bin", "x")});
    EXPECT_EQ(do_pkg_validation("second.swu", &meta), 0);
    GetCapturedStdout();
    GetCapturedStderr();

    EXPECT_EQ(root.read("outside/target"), "untouched");
    EXPECT_EQ(std::distance(fs::directory_iterator(outside), fs::directory_iterator()), 1);
    EXPECT_FALSE(root.exists("up.bin") || root.exists("tmp/up.bin") || root.exists("up2.bin") ||
                 root.exists("tmp/up2.bin"));
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(root.path("tmp/pkg/old_link"))));
}

} // namespace
