// Stopwatch with one-second resolution, and monotonic clock readers.
//
// The stopwatch runs on wall-clock seconds (time()); it is used by one thread
// at a time and needs no teardown.
#pragma once

#include <cstdint>
#include <ctime>

struct stopwatch {
    time_t timeout_sec; // time-out in seconds
    time_t timer_last;  // time() of the last reset; 0 when never reset
};
using stopwatch_t = stopwatch;

// Sets the time-out and clears the last reset (a fresh stopwatch has timed out).
void timer_init(stopwatch_t *timer, time_t timeout);

// Changes the time-out; the last reset stays.
void timer_set_timeout(stopwatch_t *timer, time_t timeout);

// Restarts the stopwatch at the current time().
void timer_reset(stopwatch_t *timer);

// 1 when more than timeout_sec seconds have passed since the last reset
// (exactly timeout_sec is not yet a time-out), else 0.
int timer_is_timeout(stopwatch_t *timer);

// CLOCK_MONOTONIC in nanoseconds; 0 when the clock cannot be read.
uint64_t timer_get_time_ns();
// The same clock truncated to micro-, milli- and whole seconds (0 on failure).
uint64_t timer_get_time_us();
uint64_t timer_get_time_ms();
uint64_t timer_get_time_s();
