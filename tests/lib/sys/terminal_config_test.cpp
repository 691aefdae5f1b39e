#include "lib/sys/terminal_config.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

// Seeks on a regular file never fail, so the test binary stands in for lseek
// to fail the next one on demand.
static std::atomic<bool> g_fail_next_lseek{false};

extern "C" off_t lseek(int fd, off_t offset, int whence) noexcept
{
    if (g_fail_next_lseek.exchange(false)) {
        errno = ESPIPE;
        return -1;
    }
    return static_cast<off_t>(syscall(SYS_lseek, fd, offset, whence));
}

namespace
{

namespace fs = std::filesystem;
constexpr size_t REGION = 262144;

// A fresh simulation root per test with the two flash partitions.
class TerminalConfig : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/swu-termcfg-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        setenv("SWU_ROOT", root.c_str(), 1);
        fs::create_directories(root + "/dev");
        fs::create_directories(root + "/sim/fail");
        put("/dev/mtd0", "<orVanId>T-17</orVanId>");
        put("/dev/mtd1", "previous block");
    }
    void TearDown() override { fs::remove_all(root); }

    void put(const std::string &rel, const std::string &bytes)
    {
        std::ofstream(root + rel, std::ios::binary) << bytes;
    }
    std::string get(const std::string &rel)
    {
        std::ifstream in(root + rel, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    std::string root;
};

TEST_F(TerminalConfig, ReadLeavesTheBufferBeyondThePartitionZero)
{
    std::vector<char> buf(4096, 'x');
    EXPECT_EQ(read_config0(buf.data(), 4096), 0);
    EXPECT_EQ(std::string(buf.data()), "<orVanId>T-17</orVanId>");
    EXPECT_EQ(std::vector<char>(buf.begin() + 23, buf.end()), std::vector<char>(4096 - 23, 0));

    EXPECT_EQ(read_config1(buf.data(), 4096), 0);
    EXPECT_EQ(std::string(buf.data()), "previous block");
    put("/dev/mtd1", "PREVIOUS BLOCK");
    EXPECT_EQ(read_config("/dev/mtd1", buf.data(), 8), 0);
    EXPECT_EQ(std::string(buf.data()), "PREVIOUS block"); // only 8 bytes touched
}

TEST_F(TerminalConfig, WriteReplacesTheRegionWithDataThenZeros)
{
    // Bytes past the erase region belong to no block and stay.
    put("/dev/mtd1", std::string(REGION + 100, 'o'));
    EXPECT_EQ(write_config("0123456789", 10), 0);
    EXPECT_EQ(get("/dev/mtd1"),
              "0123456789" + std::string(REGION - 10, '\0') + std::string(100, 'o'));

    std::string full(REGION, 'f');
    EXPECT_EQ(write_config(full.data(), REGION), 0);
    EXPECT_EQ(get("/dev/mtd1").substr(0, REGION), full);

    // One byte more is refused before the device is opened: the injected
    // open failure would print otherwise.
    put("/sim/fail/open", "1");
    std::string too_big(REGION + 1, 'b');
    testing::internal::CaptureStdout();
    EXPECT_EQ(write_config(too_big.data(), REGION + 1), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(get("/dev/mtd1").substr(0, REGION), full);
}

struct failure_row {
    const char *name;
    const char *fail_op;     // seam operation to fail once; null: none
    bool missing_device;     // remove /dev/mtd1 first
    bool fail_lseek;         // fail the seek instead
    bool is_write;           // write_config, else read_config1
    const char *message;     // exact line on standard output
    const char *flash_after; // /dev/mtd1 afterwards; null: not checked
};

const std::string ERASED(REGION, '\xFF');

const failure_row failure_rows[] = {
    {"read_open_missing", nullptr, true, false, false,
     "read_config: open config failed. err:No such file or directory\n", nullptr},
    {"read_read", "read", false, false, false,
     "read_config: read config failed. err:Input/output error\n", "previous block"},
    {"write_open_missing", nullptr, true, false, true,
     "write_config: open config failed. err:No such file or directory\n", nullptr},
    {"write_open", "open", false, false, true,
     "write_config: open config failed. err:Input/output error\n", "previous block"},
    {"write_erase", "erase", false, false, true,
     "write_config: err on memerase: Input/output error\n", "previous block"},
    {"write_lseek", nullptr, false, true, true, "write_config: err on lseek: Illegal seek\n",
     ERASED.c_str()},
    {"write_write", "write", false, false, true, "write_config: err on write: Input/output error\n",
     ERASED.c_str()},
};
// The staging buffer's allocation failure is not provoked: it would take a
// replaced global allocator, which the sanitizer builds do not allow cleanly.

TEST_F(TerminalConfig, EveryFailureIsReportedOnceAndReturnsMinusOne)
{
    for (const failure_row &row : failure_rows) {
        SCOPED_TRACE(row.name);
        put("/dev/mtd1", "previous block");
        if (row.missing_device)
            fs::remove(root + "/dev/mtd1");
        if (row.fail_op != nullptr)
            put(std::string("/sim/fail/") + row.fail_op, "1");
        g_fail_next_lseek = row.fail_lseek;

        std::vector<char> buf(64, 'x');
        testing::internal::CaptureStdout();
        int ret = row.is_write ? write_config("new", 3) : read_config1(buf.data(), 64);
        EXPECT_EQ(ret, -1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.message);
        if (!row.is_write) {
            EXPECT_EQ(buf, std::vector<char>(64, 0));
        }
        if (row.flash_after != nullptr) {
            EXPECT_EQ(get("/dev/mtd1"), row.flash_after);
        }
    }
}

} // namespace
