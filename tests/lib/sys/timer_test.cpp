#include "lib/sys/timer.h"

#include <gtest/gtest.h>

#include <ctime>

namespace
{

// The reset time is set back instead of waiting. A tick of time() between
// setting and testing would change the result only at the exact boundary,
// which is retried.
TEST(Stopwatch, TimesOutOnlyWhenMoreThanTheTimeoutHasPassed)
{
    stopwatch_t sw;
    timer_init(&sw, 5);
    EXPECT_EQ(timer_is_timeout(&sw), 1); // never reset
    timer_reset(&sw);
    EXPECT_EQ(timer_is_timeout(&sw), 0);
    sw.timer_last = time(nullptr) - 6;
    EXPECT_EQ(timer_is_timeout(&sw), 1);

    bool checked = false;
    for (int attempt = 0; attempt < 5 && !checked; ++attempt) {
        time_t before = time(nullptr);
        sw.timer_last = before - 5;
        int result = timer_is_timeout(&sw);
        if (time(nullptr) == before) {
            EXPECT_EQ(result, 0) << "exactly the time-out is not yet a time-out";
            checked = true;
        }
    }
    EXPECT_TRUE(checked);

    // A new time-out applies to the running stopwatch.
    sw.timer_last = time(nullptr) - 6;
    timer_set_timeout(&sw, 10);
    EXPECT_EQ(timer_is_timeout(&sw), 0);
}

TEST(Clocks, ReadersShareOneClockInTheirUnits)
{
    uint64_t ns = timer_get_time_ns();
    for (auto [got, unit] : {std::pair{timer_get_time_us(), 1000ULL},
                             {timer_get_time_ms(), 1000000ULL},
                             {timer_get_time_s(), 1000000000ULL}}) {
        EXPECT_GE(got, ns / unit);
        EXPECT_LE(got, (ns + 1000000000ULL) / unit) << unit; // read within a second
    }
}

} // namespace
