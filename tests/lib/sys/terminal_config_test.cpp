#include "lib/sys/terminal_config.h"

#include "support/sim_root.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <sys/syscall.h>
#include <unistd.h>

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

constexpr size_t REGION = TERMINAL_CONFIG_REGION_SIZE;

struct TerminalConfig : ::testing::Test {
    SimRoot root;
    void SetUp() override
    {
        root.write("dev/mtd0", "<orVanId>T-17</orVanId>");
        root.write("dev/mtd1", "previous block");
    }
};

TEST_F(TerminalConfig, ReadZeroesTheBufferThenFillsWhatThePartitionHolds)
{
    std::vector<char> buf(4096, 'x');
    EXPECT_EQ(read_config0(buf.data(), 4096), 0);
    EXPECT_EQ(std::string(buf.data()), "<orVanId>T-17</orVanId>");
    EXPECT_EQ(std::vector<char>(buf.begin() + 23, buf.end()), std::vector<char>(4096 - 23, 0));
    EXPECT_EQ(read_config1(buf.data(), 8), 0);
    EXPECT_EQ(std::string(buf.data()), "previous>T-17</orVanId>"); // only 8 bytes touched
}

TEST_F(TerminalConfig, WriteReplacesTheRegionWithDataThenZeros)
{
    // Bytes past the erase region belong to no block and stay.
    root.write("dev/mtd1", std::string(REGION + 100, 'o'));
    EXPECT_EQ(write_config("0123456789", 10), 0);
    EXPECT_EQ(root.read("dev/mtd1"),
              "0123456789" + std::string(REGION - 10, '\0') + std::string(100, 'o'));
    std::string full(REGION, 'f');
    EXPECT_EQ(write_config(full.data(), REGION), 0);
    EXPECT_EQ(root.read("dev/mtd1").substr(0, REGION), full);

    // One byte more would overflow the staging buffer: refused.
    std::string too_big(REGION + 1, 'b');
    EXPECT_EQ(write_config(too_big.data(), REGION + 1), -1);
    EXPECT_EQ(root.read("dev/mtd1").substr(0, REGION), full);
}

// Each row: the seam operation failed once ("missing": no device at all) and
// the one line printed, which names the call.
TEST_F(TerminalConfig, EveryFailureIsReportedOnceAndReturnsMinusOne)
{
    const std::pair<std::string, std::string> rows[] = {
        {"missing", "read_config: open config failed. err:No such file or directory\n"},
        {"read", "read_config: read config failed. err:Input/output error\n"},
        {"missing", "write_config: open config failed. err:No such file or directory\n"},
        {"open", "write_config: open config failed. err:Input/output error\n"},
        {"erase", "write_config: err on memerase: Input/output error\n"},
        {"lseek", "write_config: err on lseek: Illegal seek\n"},
        {"write", "write_config: err on write: Input/output error\n"},
    };
    // The staging buffer's allocation failure is not provoked: it would take a
    // replaced global allocator, which the sanitizer builds do not allow cleanly.
    for (const auto &[fail, message] : rows) {
        SCOPED_TRACE(message);
        const bool is_write = message.rfind("write", 0) == 0;
        root.write("dev/mtd1", "previous block");
        if (fail == "missing")
            std::filesystem::remove(root.path("dev/mtd1"));
        else if (fail == "lseek")
            g_fail_next_lseek = true;
        else
            root.fail(fail);
        std::vector<char> buf(64, 'x');
        testing::internal::CaptureStdout();
        EXPECT_EQ(is_write ? write_config("new", 3) : read_config1(buf.data(), 64), -1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), message);
        if (!is_write) {
            EXPECT_EQ(buf, std::vector<char>(64, 0));
        }
        if (fail != "missing") { // the old block stays until the region is erased
            bool erased = fail == "lseek" || fail == "write";
            EXPECT_EQ(root.read("dev/mtd1"),
                      erased ? std::string(REGION, '\xFF') : "previous block");
        }
    }
}

} // namespace
