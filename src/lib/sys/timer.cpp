#include "lib/sys/timer.h"

#include "lib/sys/swu_assert.h"

#include <cstddef>

void timer_init(stopwatch_t *timer, time_t timeout)
{
    SWU_ASSERT(timer != NULL);
    timer->timeout_sec = timeout;
    timer->timer_last = 0;
}

void timer_set_timeout(stopwatch_t *timer, time_t timeout)
{
    if (timer == NULL)
        return;
    timer->timeout_sec = timeout;
}

void timer_reset(stopwatch_t *timer)
{
    SWU_ASSERT(timer != NULL);
    timer->timer_last = time(NULL);
}

int timer_is_timeout(stopwatch_t *timer)
{
    SWU_ASSERT(timer != NULL);
    return (time(NULL) - timer->timer_last) > timer->timeout_sec ? 1 : 0;
}

uint64_t timer_get_time_ns()
{
    struct timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        return 0;
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t timer_get_time_us()
{
    return timer_get_time_ns() / 1000;
}

uint64_t timer_get_time_ms()
{
    return timer_get_time_us() / 1000;
}

uint64_t timer_get_time_s()
{
    return timer_get_time_ms() / 1000;
}
