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

TEST(PackReview, RefusesWhatWouldHarmTheTerminalAndWarnsOfWhatItIgnores)
{
    struct {
        std::vector<pack_listed> members;
        std::string finding; // "": nothing to say
        bool refuse;
    } const cases[] = {
        {{{"a.bin", PACK_FILE, 1}, {"./b.bin", PACK_FILE, 1}, {"./", PACK_DIR, 0}}, "", false},
        {{{std::string(127, 'n'), PACK_FILE, 1}}, "", false},
        {{{std::string(128, 'n'), PACK_FILE, 1}},
         "the name has 128 bytes; the terminal takes at most 127",
         true},
        {{{"a*b", PACK_FILE, 1}}, "the name holds '*', which the card's FAT file system", true},
        {{{"a:b", PACK_FILE, 1}}, "the name holds ':'", true},
        {{{"a\\b", PACK_FILE, 1}}, "the name holds '\\'", true},
        {{{"tab\there", PACK_FILE, 1}}, "'tab\\x09here': the name holds a control character", true},
        {{{"caf\xc3\xa9", PACK_FILE, 1}}, "non-ASCII byte", true},
        {{{"dot.", PACK_FILE, 1}}, "drops a trailing dot or blank", true},
        {{{"blank ", PACK_FILE, 1}}, "drops a trailing dot or blank", true},
        {{{"same.bin", PACK_FILE, 1}, {"SAME.BIN", PACK_HARDLINK, 0}},
         "artifacts 'same.bin' and 'SAME.BIN' would be one file",
         true},
        {{{"st.bin", PACK_FILE, 0}}, "'st.bin' is empty", true},
        {{{"ST.BIN", PACK_FILE, 0}}, "'ST.BIN' is empty", true},
        {{{"st.bin", PACK_FILE, 204800}}, "", false},
        {{{"st.bin", PACK_FILE, 204801}}, "has 204801 bytes, more than", true},
        {{{"sub/", PACK_DIR, 0}}, "'sub' is a directory: the terminal installs only", false},
        {{{"sub/st.bin", PACK_FILE, 0}}, "'sub/st.bin' is not at the top", false},
        {{{"link", PACK_SYMLINK, 0}}, "'link' is a symbolic link", false},
        {{{"fifo", PACK_OTHER, 0}}, "'fifo' is a special file", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.members[0].name);
        std::vector<pack_finding> found = pack_review(c.members);
        if (c.finding.empty()) {
            EXPECT_TRUE(found.empty()) << found[0].text;
            continue;
        }
        ASSERT_EQ(found.size(), 1u);
        EXPECT_THAT(found[0].text, HasSubstr(c.finding));
        EXPECT_EQ(found[0].refuse, c.refuse);
    }
}

TEST(SwuPack, SignsWithItsOwnKeysAndVerifiesTheSigner)
{
    SimRoot dir;
    dir.write("in/app.bin", "app");
    ASSERT_EQ(swu_pack(dir, {"keygen", dir.path("k")}).status, 0);
    ASSERT_EQ(swu_pack(dir, {"keygen", dir.path("other")}).status, 0);
    tool_run r =
        swu_pack(dir, {"-o", dir.path("p.swu"), "--sign", dir.path("k"), dir.path("in/app.bin")});
    ASSERT_EQ(r.status, 0) << r.output;
    r = swu_pack(dir, {"verify", dir.path("p.swu"), "--key", dir.path("k.pub")});
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_THAT(r.output, HasSubstr("signature ok"));
    r = swu_pack(dir, {"verify", dir.path("p.swu"), "--key", dir.path("other.pub")});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.output, HasSubstr("does not verify"));
    ASSERT_EQ(swu_pack(dir, {"-o", dir.path("u.swu"), dir.path("in/app.bin")}).status, 0);
    EXPECT_THAT(swu_pack(dir, {"verify", dir.path("u.swu"), "--key", dir.path("k.pub")}).output,
                HasSubstr("the package is unsigned"));
}

TEST(PackVersion, ReadAsTheTerminalReadsItFromThePackageAndCompared)
{
    for (const auto &[text, read] :
         {std::pair{"2.10.3", "2.10.3"}, {"1..2", "1.2.0"}, {"7", "7.0.0"}, {"", "0.0.0"}})
        EXPECT_EQ(pack_version_text(pack_parse_version(text)), read) << text;
    EXPECT_LT(pack_version_compare(pack_parse_version("1.9.9"), pack_parse_version("2")), 0);
    EXPECT_EQ(pack_version_compare(pack_parse_version("2.0"), pack_parse_version("2.0.0")), 0);
    EXPECT_GT(pack_version_compare(pack_parse_version("1.2.10"), pack_parse_version("1.2.9")), 0);

    SimRoot dir;
    pack_member ver, image;
    ver.name = "pkg_ver.txt";
    ver.data = "; note\n[other]\nversion=9\n[pkg_data]\n version = 2.0.1 \n";
    image.name = "ST.BIN";
    image.data = "123456789";
    std::string err;
    ASSERT_EQ(pack_write(dir.path("p.swu"), {ver, image}, 0, PKG_MAX_SIZE, &err), 0) << err;
    pack_report r;
    ASSERT_EQ(pack_verify(dir.path("p.swu"), &r, &err), 0) << err;
    EXPECT_TRUE(r.has_version);
    EXPECT_EQ(r.version_text, "2.0.1");
    EXPECT_TRUE(r.has_mcu_image);
    EXPECT_EQ(r.mcu_image_size, 9u);
    EXPECT_EQ(r.mcu_image_crc32, 0xCBF43926u) << "the common CRC-32";
}

TEST(SwuPack, RefusesAHarmfulPackageUnlessForcedAndVerifiesAsItPacks)
{
    SimRoot dir;
    dir.write("in/st.bin", "");
    tool_run r = swu_pack(dir, {"-o", dir.path("p.swu"), dir.path("in/st.bin")});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.output, HasSubstr("refused: 'st.bin' is empty"));
    EXPECT_THAT(r.output, HasSubstr("nothing written (--force packs it anyway)"));
    EXPECT_FALSE(dir.exists("p.swu"));
    r = swu_pack(dir, {"-o", dir.path("p.swu"), "--force", dir.path("in/st.bin")});
    EXPECT_EQ(r.status, 0) << r.output;
    r = swu_pack(dir, {"verify", dir.path("p.swu")});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.output, HasSubstr("the terminal would be harmed by this package"));

    EXPECT_THAT(swu_pack(dir, {"-o", dir.path("x.swu"), dir.path("in/missing")}).output,
                HasSubstr("cannot read artifact '" + dir.path("in/missing") +
                          "': No such file or directory"));
    dir.mkdir("in/directory");
    EXPECT_THAT(swu_pack(dir, {"-o", dir.path("x.swu"), dir.path("in/directory")}).output,
                HasSubstr("is not a regular file"));
    EXPECT_THAT(swu_pack(dir, {dir.path("in/st.bin")}).output, HasSubstr("no package file given"));
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
