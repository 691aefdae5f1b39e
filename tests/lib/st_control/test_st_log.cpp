// The event log: every line layout the flag word selects, with a fake clock
// where the time field matters, and the numbered files of file mode.
//
// The log's destination is process-wide and stream mode is never left again,
// so the file-mode case comes first in this file.
#include "lib/st_control/logFile.h"
#include "support/sim_root.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cinttypes>
#include <functional>

namespace
{

uint64_t g_fake_ns = 0;

std::string capture(const std::function<void()> &fn)
{
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

TEST(LogFile, FileModeCreatesTheNextNumberedFile)
{
    SimRoot root;
    root.write("media/SDcard/run0.txt", "old");
    root.write("media/SDcard/run1.txt", "old");
    char name[] = "run";
    EXPECT_EQ(capture([&] { EXPECT_EQ(initLog(name, 0x0A00), 1); }),
              "Create file '" + root.path("media/SDcard/run2.txt") + "'\n");
    EXPECT_EQ(__addLog("a.cpp", "f", 7, "x=%d", 5), 1);
    EXPECT_EQ(__addLog("a.cpp", "f", 8, "y"), 1);
    EXPECT_EQ(root.read("media/SDcard/run2.txt"),
              "File: a.cpp | Line: 7 | --> x=5\nFile: a.cpp | Line: 8 | --> y\n");

    // A name too long for the path buffer is refused, not truncated.
    std::string longName(130, 'n');
    std::string out = capture([&] { EXPECT_EQ(initLog(longName.data(), 0), 0); });
    EXPECT_EQ(out.rfind("could not open file '", 0), 0u) << out;
    EXPECT_EQ(__addLog("a.cpp", "f", 9, "lost"), 0);

    // A directory that isn't there: the file can't be created nor appended.
    std::filesystem::remove_all(root.path("media"));
    const std::string refused =
        "could not open file '" + root.path("media/SDcard/run0.txt") + "'\n";
    EXPECT_EQ(capture([&] { EXPECT_EQ(initLog(name, 0), 0); }), refused);
    EXPECT_EQ(capture([&] { EXPECT_EQ(__addLog("a.cpp", "f", 9, "lost"), 0); }), refused);
}

TEST(LogFile, StreamModeLayouts)
{
    // The real clock: milliseconds of CLOCK_MONOTONIC.
    auto ms = [] {
        auto now = std::chrono::steady_clock::now().time_since_epoch();
        return static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
    };
    initLog(nullptr, 0x0104);
    uint64_t before = ms(), stamp = 0;
    std::string out = capture([] { addLog("now"); });
    uint64_t after = ms();
    ASSERT_EQ(sscanf(out.c_str(), "LOG--> Time: %" SCNu64 "(ms) | --> now", &stamp), 1) << out;
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, after);

    setenv("TZ", "UTC", 1);
    tzset();
    logSetClocks([] { return g_fake_ns; }, [] { return time_t{9 * 3600 + 5 * 60 + 3}; }); // 9:05:03
    g_fake_ns = 5234112ULL * 1000000 + 999999;
    EXPECT_EQ(capture([] { addLog("x=%d", 5); }), "LOG--> Time: 5234112(ms) | --> x=5\n");
    initLog(nullptr, 0x0F01);
    EXPECT_EQ(capture([] { __addLog("f.cpp", "fn", 42, "m"); }),
              "LOG--> Time: 9:5:3 | File: f.cpp | Function: fn | Line: 42 | --> m\n");
    initLog(nullptr, 0x0105);
    EXPECT_EQ(capture([] { __addLog("f.cpp", "fn", 42, "s"); }), "LOG--> Time: 5234(s) | --> s\n");

    // 0x0010 without 0x0100: no further argument, no instant recorded.
    EXPECT_EQ(capture([] { initLog(nullptr, 0x0012); }), "");
    EXPECT_EQ(capture([] { __addLog("f", "g", 1, "n"); }), "LOG--> --> n\n");

    // Synchronised time: each term divided on its own.
    g_fake_ns = 1000000;
    EXPECT_EQ(capture([] { initLog(nullptr, 0x0113, uint64_t{1500}); }),
              "gInitLocalTime = 1000000\n");
    g_fake_ns += 1500;
    EXPECT_EQ(capture([] { __addLog("f", "g", 1, "t"); }), "LOG--> Time: 2(us) | --> t\n");
    initLog(nullptr, 0x0112, uint64_t{1500});
    g_fake_ns += 1500;
    EXPECT_EQ(capture([] { __addLog("f", "g", 1, "t"); }), "LOG--> Time: 3000(ns) | --> t\n");
}

} // namespace
