// swu-pack builds what the terminal can install, and nothing else.
#include "proto/package.h"
#include "support/process.h"
#include "support/sim_root.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace
{

using testing::HasSubstr;

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
    std::string pkg = dir.path("out.swu");
    tool_run r = swu_pack(
        dir, {"-o", pkg, "--bitmask", "0x12", dir.path("in/app.bin"), dir.path("in/sub/b c.txt")});
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
    EXPECT_THAT(r.output, HasSubstr("\n         50000  app.bin\n             1  b c.txt\n"));
    EXPECT_THAT(r.output, HasSubstr("installs   2 artifacts\n"));
    EXPECT_THAT(r.output, HasSubstr("verdict    ok"));
    r = swu_pack(dir, {"verify", pkg, "--json"});
    EXPECT_EQ(r.status, 0) << r.output;
    nlohmann::json j = nlohmann::json::parse(r.output);
    EXPECT_EQ(j["result"], "ok");
    EXPECT_EQ(j["artifacts_bitmask"], 0x12);
    EXPECT_EQ(j["artifacts"][0]["name"], "app.bin");
    EXPECT_EQ(j["artifacts"][0]["size"], 50000);
    EXPECT_EQ(dir.read("out.swu"), bytes);

    bytes[100] ^= 1;
    dir.write("out.swu", bytes);
    r = swu_pack(dir, {"verify", pkg});
    EXPECT_NE(r.status, 0);
    EXPECT_THAT(r.output, HasSubstr("CRC mismatch"));
    EXPECT_EQ(dir.read("out.swu"), bytes);
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
    EXPECT_THAT(r.output, HasSubstr("signer     ok"));
    r = swu_pack(dir, {"verify", dir.path("p.swu"), "--key", dir.path("other.pub")});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.output, HasSubstr("does not verify"));
    ASSERT_EQ(swu_pack(dir, {"-o", dir.path("u.swu"), dir.path("in/app.bin")}).status, 0);
    EXPECT_THAT(swu_pack(dir, {"verify", dir.path("u.swu"), "--key", dir.path("k.pub")}).output,
                HasSubstr("the package is unsigned"));
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
    EXPECT_THAT(r.output, HasSubstr("REFUSED  'st.bin' is empty"));

    EXPECT_THAT(swu_pack(dir, {"-o", dir.path("x.swu"), dir.path("in/missing")}).output,
                HasSubstr("cannot read artifact '" + dir.path("in/missing") +
                          "': No such file or directory"));
    dir.mkdir("in/directory");
    EXPECT_THAT(swu_pack(dir, {"-o", dir.path("x.swu"), dir.path("in/directory")}).output,
                HasSubstr("is not a regular file"));
    EXPECT_THAT(swu_pack(dir, {dir.path("in/st.bin")}).output, HasSubstr("no package file given"));
    dir.write("in/sub/st.bin", "x");
    EXPECT_THAT(
        swu_pack(dir, {"-o", dir.path("x.swu"), dir.path("in/st.bin"), dir.path("in/sub/st.bin")})
            .output,
        HasSubstr("two artifacts named 'st.bin'"));
    dir.write("tiny.swu", "0123456789A");
    tool_run tiny = swu_pack(dir, {"verify", dir.path("tiny.swu")});
    EXPECT_EQ(tiny.status, 1);
    EXPECT_THAT(tiny.output, HasSubstr("too few for the 12-byte footer"));
}

} // namespace
