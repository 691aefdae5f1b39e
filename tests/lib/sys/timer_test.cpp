#include "lib/sys/timer.h"

#include <gtest/gtest.h>

#include <ctime>

namespace
{

// The reset time is set back instead of waiting. A tick of time() between
// setting and testing adds one second, which changes none of the results
// except at the exact boundary, which is retried.
TEST(Stopwatch, TimesOutOnlyWhenMoreThanTheTimeoutHasPassed)
{
    stopwatch_t sw;
    timer_init(&sw, 5);
    EXPECT_EQ(timer_is_timeout(&sw), 1); // never reset

    timer_reset(&sw);
    EXPECT_LE(time(nullptr) - sw.timer_last, 1);
    EXPECT_EQ(timer_is_timeout(&sw), 0);
    sw.timer_last = time(nullptr) - 4;
    EXPECT_EQ(timer_is_timeout(&sw), 0);
    sw.timer_last = time(nullptr) - 6;
    EXPECT_EQ(timer_is_timeout(&sw), 1);

    bool checked = false;
    for (int attempt = 0; attempt < 5 && !checked; ++attempt) {
        time_t before = time(nullptr);
        sw.timer_last = before - 5;
        int result = timer_is_timeout(&sw);
        if (time(nullptr) == before) {
            EXPECT_EQ(result, 0) << "a difference of exactly 5 is not yet a time-out";
            checked = true;
        }
    }
    EXPECT_TRUE(checked);

    // A new time-out applies to the running stopwatch.
    time_t last = sw.timer_last;
    timer_set_timeout(&sw, 10);
    EXPECT_EQ(sw.timer_last, last);
    EXPECT_EQ(timer_is_timeout(&sw), 0);
}

TEST(Clocks, ReadersAreMonotonicAndConsistentInUnits)
{
    uint64_t ns = timer_get_time_ns();
    uint64_t ms = timer_get_time_ms();
    uint64_t s = timer_get_time_s();
    EXPECT_GT(ns, 0u);
    EXPECT_GE(ms, ns / 1000000);
    EXPECT_LE(ms, ns / 1000000 + 1000);
    EXPECT_GE(s, ms / 1000);
    struct timespec pause = {0, 2000000};
    nanosleep(&pause, nullptr);
    EXPECT_GE(timer_get_time_us() - ns / 1000, 2000u);
}

TEST(StopwatchDeathTest, NullStopwatchAborts)
{
    EXPECT_DEATH(timer_reset(nullptr), "Assertion `timer != NULL' failed");
}

} // namespace
