// The event log: every line layout the flag word selects, with a fake clock
// where the time field matters, and the numbered files of file mode.
//
// The log's destination is process-wide and stream mode can't be left again,
// so the file-mode cases come first in this file.
#include "lib/st_control/logFile.h"
#include "support/sim_root.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdlib>

namespace
{

uint64_t g_fake_ns = 0;
uint64_t fake_monotonic()
{
    return g_fake_ns;
}
time_t fake_wall()
{
    return 9 * 3600 + 5 * 60 + 3;
} // 9:05:03 UTC

std::string capture(const std::function<void()> &fn)
{
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

} // namespace

TEST(LogFile, FileModeCreatesTheNextNumberedFile)
{
    SimRoot root;
    root.write("media/SDcard/run0.txt", "old");
    root.write("media/SDcard/run1.txt", "old");
    char name[] = "run";
    std::string run2 = root.dir() + "/media/SDcard/run2.txt";
    std::string out = capture([&] { EXPECT_EQ(initLog(name, 0x0A00), 1); });
    EXPECT_EQ(out, "Create file '" + run2 + "'\n");
    EXPECT_EQ(root.read("media/SDcard/run2.txt"), "");

    EXPECT_EQ(__addLog("a.cpp", "f", 7, "x=%d", 5), 1);
    EXPECT_EQ(__addLog("a.cpp", "f", 8, "y"), 1);
    EXPECT_EQ(root.read("media/SDcard/run2.txt"),
              "File: a.cpp | Line: 7 | --> x=5\nFile: a.cpp | Line: 8 | --> y\n");
    EXPECT_EQ(root.read("media/SDcard/run1.txt"), "old");

    // A name too long for the path buffer is refused, not truncated.
    std::string longName(130, 'n');
    out = capture([&] { EXPECT_EQ(initLog(longName.data(), 0), 0); });
    EXPECT_EQ(out.rfind("could not open file '", 0), 0u) << out;
    EXPECT_EQ(__addLog("a.cpp", "f", 9, "lost"), 0);

    // A directory that isn't there: the file can't be created nor appended.
    std::filesystem::remove_all(root.path("media"));
    std::string run0 = root.dir() + "/media/SDcard/run0.txt";
    out = capture([&] { EXPECT_EQ(initLog(name, 0), 0); });
    EXPECT_EQ(out, "could not open file '" + run0 + "'\n");
    out = capture([&] { EXPECT_EQ(__addLog("a.cpp", "f", 9, "lost"), 0); });
    EXPECT_EQ(out, "could not open file '" + run0 + "'\n");
}

TEST(LogFile, StreamModeLayouts)
{
    setenv("TZ", "UTC", 1);
    tzset();
    logSetClocks(fake_monotonic, fake_wall);
    g_fake_ns = 5234112ULL * 1000000 + 999999;

    EXPECT_EQ(capture([] { initLog(nullptr, 0x0104); }), "");
    EXPECT_EQ(capture([] { addLog("x=%d", 5); }), "LOG--> Time: 5234112(ms) | --> x=5\n");

    initLog(nullptr, 0x0F01);
    EXPECT_EQ(capture([] { __addLog("f.cpp", "fn", 42, "m"); }),
              "LOG--> Time: 9:5:3 | File: f.cpp | Function: fn | Line: 42 | --> m\n");
    initLog(nullptr, 0x0400);
    EXPECT_EQ(capture([] { __addLog("f.cpp", "fn", 42, "%s", "only"); }),
              "LOG--> Function: fn | --> only\n");
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

    closeLog(); // standard output stays the destination
    EXPECT_EQ(capture([] { __addLog("f", "g", 1, "still"); }),
              "LOG--> Time: 3000(ns) | --> still\n");
    logSetClocks(nullptr, nullptr);
}

TEST(LogFile, MillisecondStampComesFromTheMonotonicClock)
{
    auto ms = [] {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<uint64_t>(ts.tv_sec) * 1000 +
               static_cast<uint64_t>(ts.tv_nsec) / 1000000;
    };
    initLog(nullptr, 260);
    uint64_t before = ms();
    std::string out = capture([] { addLog("now"); });
    uint64_t after = ms();
    uint64_t stamp = 0;
    ASSERT_EQ(sscanf(out.c_str(), "LOG--> Time: %" SCNu64 "(ms) | --> now", &stamp), 1) << out;
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, after);
}

TEST(LogFile, StreamModeOutlivesALaterFileModeInit)
{
    SimRoot root;
    root.mkdir("media/SDcard");
    initLog(nullptr, 0);
    char name[] = "late";
    capture([&] { EXPECT_EQ(initLog(name, 0), 1); });
    EXPECT_EQ(capture([] { __addLog("f", "g", 1, "here"); }), "LOG--> --> here\n");
    EXPECT_EQ(root.read("media/SDcard/late0.txt"), "");
}
