// Event log of the microcontroller control library: one process-wide
// destination, either standard output or a new numbered text file under
// "/media/SDcard/", and one line per event with optional time, file, function
// and line fields selected by a flag word:
//   0x000F  time unit: 2 ns, 3 us, 4 ms, 5 s; any other value: local h:m:s
//   0x0010  synchronised time (only with 0x0100): stamps count from initLog's
//           instant, plus the external time given to it
//   0x0100  time field   0x0200 file field   0x0400 function field
//   0x0800  line field
// Not locked: used from one thread at a time.
#pragma once

#include <cstdint>
#include <ctime>

// Selects the destination and the fields. A null fileName logs to standard
// output; otherwise a new empty file "/media/SDcard/<fileName><n>.txt" is
// created with the smallest free n. With 0x0110 set in flag the external time
// in nanoseconds follows as a third argument (typed rather than C varargs: a
// uint16_t can't portably precede "..."); without it that time is 0, and it is
// ignored unless 0x0110 is set. 1 on success, 0 when the log file can't be
// created.
int initLog(char *fileName, uint16_t flag, uint64_t extTime);
inline int initLog(char *fileName, uint16_t flag)
{
    return initLog(fileName, flag, 0);
}

// Writes one line: the selected fields for the call site, "--> ", the
// formatted message, a newline. In file mode the file is opened, appended to
// and closed for every line. 1 when written, 0 when there is no destination.
int __addLog(const char *file, const char *function, const int line,
             const char *__restrict __format, ...) __attribute__((format(printf, 4, 5)));

// Closes a destination stream other than standard output.
void closeLog(void);

// A line from the call site.
#define addLog(...) __addLog(__FILE__, __func__, __LINE__, __VA_ARGS__)

// Clock sources of the time field, replaceable for tests; null restores the
// real clocks (CLOCK_MONOTONIC in nanoseconds, time()).
void logSetClocks(uint64_t (*monotonicNs)(void), time_t (*wallClock)(void));
