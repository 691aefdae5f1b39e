// swu-pack builds what the terminal can install, and nothing else.
#include "pack.h"
#include "proto/package.h"
#include "support/process.h"
#include "support/sim_root.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using testing::HasSubstr;
namespace fs = std::filesystem;

const std::string TOOL = SWU_BIN_DIR "/swu-pack";

struct tool_run {
    int status;
    std::string output; // everything it wrote
};

tool_run swu_pack(const SimRoot &dir, std::vector<std::string> args)
{
    args.insert(args.begin(), TOOL);
    run_result r = run_to_end(args, dir.dir());
    return {r.exit_code, r.out + r.err};
}

TEST(SwuPack, PacksBaseNamesWithTheTerminalsFooterAndVerifiesWithoutChanging)
{
    SimRoot dir;
    std::string big;
    for (int i = 0; i < 50000; i++)
        big.push_back(static_cast<char>(i * 7919 % 253));
    dir.write("in/app.bin", big);
    dir.write("in/sub/b c.txt", "b");
    dir.write("in/" + std::string(127, 'n'), "longest name");
    std::string pkg = dir.path("out.swu");
    tool_run r =
        swu_pack(dir, {"-o", pkg, "--bitmask", "0x12", dir.path("in/app.bin"),
                       dir.path("in/sub/b c.txt"), dir.path("in/" + std::string(127, 'n'))});
    ASSERT_EQ(r.status, 0) << r.output;

    // The footer, recomputed here over the payload in 4096-byte pieces.
    std::string bytes = dir.read("out.swu");
    ASSERT_GT(bytes.size(), PKG_FOOTER_SIZE);
    pkg_metadata_t meta;
    pkg_footer_decode(reinterpret_cast<const uint8_t *>(bytes.data() + bytes.size() - 12), &meta);
    EXPECT_EQ(meta.artifacts_bitmask, 0x12u);
    EXPECT_EQ(meta.crc, pkg_crc_buffer(bytes.data(), bytes.size() - PKG_FOOTER_SIZE));

    r = swu_pack(dir, {"verify", pkg});
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_THAT(r.output, HasSubstr("       50000  app.bin\n           1  b c.txt\n"));
    EXPECT_THAT(r.output, HasSubstr("3 members"));
    EXPECT_EQ(dir.read("out.swu"), bytes);

    bytes[100] ^= 1;
    dir.write("out.swu", bytes);
    r = swu_pack(dir, {"verify", pkg});
    EXPECT_NE(r.status, 0);
    EXPECT_THAT(r.output, HasSubstr("CRC mismatch"));
    EXPECT_EQ(dir.read("out.swu"), bytes);
}

TEST(SwuPack, RefusesWhatTheTerminalCouldNotInstall)
{
    SimRoot dir;
    struct {
        std::vector<std::string> files; // created under in/ unless named "missing"
        std::string message;
    } const cases[] = {
        {{"missing"},
         "cannot read artifact '" + dir.path("in/missing") + "': No such file or directory"},
        {{std::string(128, 'n')}, "the name has 128 bytes; the terminal takes at most 127"},
        {{"a*b"}, "the name holds '*', which the card's FAT file system can't hold"},
        {{"a:b"}, "the name holds ':'"},
        {{"a\\b"}, "the name holds '\\'"},
        {{"tab\there"}, "control character"},
        {{"caf\xc3\xa9"}, "non-ASCII byte"},
        {{"dot."}, "drops a trailing dot or blank"},
        {{"same.bin", "SAME.BIN"}, "would be one file on the card's FAT file system"},
    };
    for (const auto &c : cases) {
        std::vector<std::string> args = {"-o", dir.path("refused.swu")};
        for (const std::string &f : c.files) {
            if (f != "missing")
                dir.write("in/" + f, "x");
            args.push_back(dir.path("in/" + f));
        }
        tool_run r = swu_pack(dir, args);
        EXPECT_EQ(r.status, 1) << c.message;
        EXPECT_THAT(r.output, HasSubstr(c.message));
        EXPECT_FALSE(dir.exists("refused.swu")) << c.message;
    }

    dir.mkdir("in/directory");
    EXPECT_THAT(swu_pack(dir, {"-o", dir.path("x.swu"), dir.path("in/directory")}).output,
                HasSubstr("is not a regular file"));
    EXPECT_THAT(swu_pack(dir, {dir.path("in/same.bin")}).output,
                HasSubstr("no package file given"));
    dir.write("tiny.swu", "0123456789A");
    tool_run tiny = swu_pack(dir, {"verify", dir.path("tiny.swu")});
    EXPECT_EQ(tiny.status, 1);
    EXPECT_THAT(tiny.output, HasSubstr("too few for the 12-byte footer"));
}

TEST(SwuPack, ThePackageSizeLimitHoldsToTheByte)
{
    SimRoot dir;
    std::string noise;
    for (uint32_t x = 1, i = 0; i < 100000; i++) {
        x = x * 1103515245 + 12345;
        noise.push_back(static_cast<char>(x >> 16));
    }
    pack_member m;
    m.name = "noise.bin";
    m.data = noise;
    std::string err;
    EXPECT_EQ(pack_write(dir.path("big.swu"), {m}, 0, 50000, &err), -1);
    EXPECT_THAT(err, HasSubstr("the package would exceed 50000 bytes"));
    EXPECT_FALSE(dir.exists("big.swu"));
    ASSERT_EQ(pack_write(dir.path("big.swu"), {m}, 0, PKG_MAX_SIZE, &err), 0) << err;
    // A package of exactly the limit is written.
    EXPECT_EQ(pack_write(dir.path("big.swu"), {m}, 0, fs::file_size(dir.path("big.swu")), &err), 0)
        << err;
}

} // namespace
