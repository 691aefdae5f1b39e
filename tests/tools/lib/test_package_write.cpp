// The package writer's size limit.
#include "lib/package_write.h"
#include "support/sim_root.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using testing::HasSubstr;
namespace fs = std::filesystem;

TEST(PackWrite, ThePackageSizeLimitHoldsToTheByte)
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
