// A signed manifest admits exactly the artifacts it lists, as they were signed.
#include "sign/manifest.h"
#include "support/sim_root.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace
{

manifest_entry entry(const std::string &name, const std::string &data)
{
    return {name, data.size(), sign_sha256(data.data(), data.size())};
}

TEST(Manifest, AdmitsExactlyWhatWasSignedByTheTrustedKey)
{
    SimRoot dir;
    std::string err;
    ASSERT_EQ(sign_keygen(dir.path("k"), &err), 0) << err;
    ASSERT_EQ(sign_keygen(dir.path("other"), &err), 0) << err;
    std::vector<uint8_t> sk, pk, other;
    ASSERT_EQ(sign_read_key(dir.path("k"), SIGN_SECRET_KEY_SIZE, &sk, &err), 0) << err;
    ASSERT_EQ(sign_read_key(dir.path("k.pub"), SIGN_PUBLIC_KEY_SIZE, &pk, &err), 0) << err;
    ASSERT_EQ(sign_read_key(dir.path("other.pub"), SIGN_PUBLIC_KEY_SIZE, &other, &err), 0);
    EXPECT_NE(sign_read_key(dir.path("k"), SIGN_PUBLIC_KEY_SIZE, &pk, &err), 0) << "wrong size";
    ASSERT_EQ(sign_read_key(dir.path("k.pub"), SIGN_PUBLIC_KEY_SIZE, &pk, &err), 0) << err;

    const std::vector<manifest_entry> signed_files = {entry("b c.bin", "b"), entry("a.bin", "a")};
    const std::string text = manifest_text(signed_files, {{1, 20, 3}, false});
    EXPECT_EQ(text, "version 1.20.3\n" + entry("a.bin", "a").sha256 + " 1 a.bin\n" +
                        entry("b c.bin", "b").sha256 + " 1 b c.bin\n");
    const std::string sig = manifest_sign(text, sk);
    const struct {
        const char *name;
        std::vector<manifest_entry> files;
        const std::vector<uint8_t> *key;
        std::string why; // "": admitted
    } cases[] = {
        {"as signed", signed_files, &pk, ""},
        {"wrong key", signed_files, &other, "does not verify"},
        {"tampered", {entry("b c.bin", "B"), entry("a.bin", "a")}, &pk, "'b c.bin' differs"},
        {"extra",
         {entry("b c.bin", "b"), entry("a.bin", "a"), entry("x", "")},
         &pk,
         "'x' is not in the manifest"},
        {"missing", {entry("a.bin", "a")}, &pk, "'b c.bin' of the manifest is missing"},
    };
    for (const auto &c : cases) {
        std::string why;
        EXPECT_EQ(manifest_check(text, sig, *c.key, c.files, &why), c.why.empty() ? 0 : -1)
            << c.name;
        EXPECT_NE(why.find(c.why), std::string::npos) << c.name << ": " << why;
    }
    std::string why;
    EXPECT_NE(manifest_check(text + "0 0 x\n", sig, pk, signed_files, &why), 0) << "text changed";

    // An unpacked package on disk.
    dir.write("pkg/a.bin", "a");
    dir.write("pkg/b c.bin", "b");
    EXPECT_NE(manifest_check_dir(dir.path("pkg"), pk, &why), 0);
    EXPECT_EQ(why, "the package is unsigned");
    dir.write(std::string("pkg/") + MANIFEST_ARTIFACT, text);
    dir.write(std::string("pkg/") + MANIFEST_SIG_ARTIFACT, sig);
    std::string read_text, read_sig;
    EXPECT_EQ(manifest_check_dir(dir.path("pkg"), pk, &why, &read_text, &read_sig), 0) << why;
    EXPECT_EQ(read_text, text);
    EXPECT_EQ(read_sig, sig);
    dir.write("pkg/x.sh", "rm");
    EXPECT_NE(manifest_check_dir(dir.path("pkg"), pk, &why), 0);
    EXPECT_NE(why.find("'x.sh' is not in the manifest"), std::string::npos) << why;
    std::filesystem::remove(dir.path("pkg/x.sh"));

    // Copies made later are checked against the manifest read before.
    EXPECT_EQ(manifest_check_files(dir.path("pkg"), {"a.bin", "b c.bin"}, text, sig, pk, &why), 0)
        << why;
    dir.write("pkg/a.bin", "A");
    EXPECT_NE(manifest_check_dir(dir.path("pkg"), pk, &why), 0);
    EXPECT_NE(why.find("'a.bin' differs"), std::string::npos) << why;
    EXPECT_NE(manifest_check_files(dir.path("pkg"), {"a.bin", "b c.bin"}, text, sig, pk, &why), 0);
    EXPECT_EQ(why, "artifact 'a.bin' differs from the manifest");
    EXPECT_NE(manifest_check_files(dir.path("pkg"), {"gone"}, text, sig, pk, &why), 0);
    EXPECT_EQ(why, "artifact 'gone' cannot be read");
    dir.write(std::string("pkg/") + MANIFEST_ARTIFACT, text + "\n");
    EXPECT_NE(manifest_check_files(dir.path("pkg"), {MANIFEST_ARTIFACT}, text, sig, pk, &why), 0);
    EXPECT_NE(why.find("'swu-manifest' differs"), std::string::npos) << why;
}

TEST(Manifest, StatesThePackagesVersionAndWhetherItMayReplaceANewerOne)
{
    const uint16_t installed[3] = {2, 1, 0};
    const struct {
        manifest_package package;
        bool allowed;
    } cases[] = {
        {{{2, 1, 0}, false}, true},  {{{2, 1, 1}, false}, true},  {{{3, 0, 0}, false}, true},
        {{{2, 0, 9}, false}, false}, {{{1, 9, 9}, false}, false}, {{{0, 0, 0}, false}, false},
        {{{1, 0, 0}, true}, true},
    };
    for (const auto &c : cases) {
        const manifest_package read = manifest_package_of(manifest_text({}, c.package));
        EXPECT_TRUE(std::equal(read.version, read.version + 3, c.package.version));
        EXPECT_EQ(read.downgrade, c.package.downgrade);
        EXPECT_EQ(manifest_allows(read, installed), c.allowed)
            << read.version[0] << "." << read.version[1] << "." << read.version[2];
    }
    // A manifest without package lines is as old as can be.
    const manifest_package bare = manifest_package_of("");
    EXPECT_FALSE(manifest_allows(bare, installed));
    EXPECT_FALSE(bare.downgrade);
}

} // namespace
