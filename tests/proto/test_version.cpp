// The package version as the terminal reads it from its version file.
#include "proto/version.h"

#include <gtest/gtest.h>

namespace
{

TEST(PkgVersion, TheLastKeyOfPkgDataCountsAndIsSplitAtDots)
{
    pkg_version_key key;
    ASSERT_EQ(pkg_version_ini_text("; note\n[other]\nversion=9\n[pkg_data]\n version = 2.0.1 \n"
                                   "version=3.1\n",
                                   &key),
              0);
    EXPECT_TRUE(key.found);
    EXPECT_EQ(key.value, "3.1");
    EXPECT_EQ(pkg_version_ini_text("[other]\nversion=9\n", &key), 0);
    EXPECT_FALSE(key.found);
    EXPECT_NE(pkg_version_ini_text("[pkg_data\nversion=1\n", &key), 0);

    for (const auto &[text, read] : {std::pair{"2.10.3", "2.10.3"},
                                     {"1..2", "1.2.0"},
                                     {"1.2.3.4", "1.2.3"},
                                     {"70000.1", "4464.1.0"},
                                     {"", "0.0.0"}}) {
        pkg_version_t v;
        pkg_version_parse(text, &v);
        EXPECT_EQ(pkg_version_text(v), read) << text;
    }
    pkg_version_t a, b;
    pkg_version_parse("1.2.10", &a);
    pkg_version_parse("1.2.9", &b);
    EXPECT_GT(pkg_version_compare(a, b), 0);
    EXPECT_LT(pkg_version_compare(b, a), 0);
    pkg_version_parse("1.2.9.7", &a);
    EXPECT_EQ(pkg_version_compare(a, b), 0);
}

} // namespace
