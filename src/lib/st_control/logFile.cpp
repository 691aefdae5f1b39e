#include "lib/st_control/logFile.h"

#include "platform/platform.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

namespace
{

FILE *gpLogFile = nullptr;
uint16_t gFlag = 0;
uint64_t gExtTime = 0;
uint64_t gInitLocalTime = 0;
char gLogFileFullPath[128] = "";

constexpr uint16_t LOG_UNIT_MASK = 0x000F;
constexpr uint16_t LOG_SYNC_TIME = 0x0010;
constexpr uint16_t LOG_TIME = 0x0100;
constexpr uint16_t LOG_FILE = 0x0200;
constexpr uint16_t LOG_FUNCTION = 0x0400;
constexpr uint16_t LOG_LINE = 0x0800;
constexpr int LOG_INDEX_MAX = 0x7FFFFFFE;

uint64_t monotonicNow()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

time_t wallNow()
{
    return time(nullptr);
}

uint64_t (*gMonotonic)(void) = monotonicNow;
time_t (*gWall)(void) = wallNow;

// Formats one candidate name into gLogFileFullPath; false when it does not fit.
bool formatLogPath(const char *fileName, int index)
{
    std::string dir = plat_path("/media/SDcard/");
    int n = snprintf(gLogFileFullPath, sizeof(gLogFileFullPath), "%s%s%d%s", dir.c_str(), fileName,
                     index, ".txt");
    return n >= 0 && static_cast<size_t>(n) < sizeof(gLogFileFullPath);
}

} // namespace

void logSetClocks(uint64_t (*monotonicNs)(void), time_t (*wallClock)(void))
{
    gMonotonic = monotonicNs ? monotonicNs : monotonicNow;
    gWall = wallClock ? wallClock : wallNow;
}

int initLog(char *fileName, uint16_t flag, uint64_t extTime)
{
    if ((flag & (LOG_SYNC_TIME | LOG_TIME)) == (LOG_SYNC_TIME | LOG_TIME)) {
        gInitLocalTime = gMonotonic();
        printf("gInitLocalTime = %llu\n", static_cast<unsigned long long>(gInitLocalTime));
        gExtTime = extTime;
    }
    gFlag = flag;

    if (fileName == nullptr) {
        gpLogFile = stdout;
        return 1;
    }

    // A name that would not fit the 128-byte path buffer is refused rather
    // than truncated, so lines never land in a file of another name; the
    // log then has no file until a later initLog succeeds.
    for (int index = 0; index <= LOG_INDEX_MAX; index++) {
        if (!formatLogPath(fileName, index)) {
            printf("could not open file '%s%s%d.txt'\n", plat_path("/media/SDcard/").c_str(),
                   fileName, index);
            gLogFileFullPath[0] = '\0';
            return 0;
        }
        FILE *probe = fopen(gLogFileFullPath, "re");
        if (probe == nullptr)
            break;
        fclose(probe);
        // Every index taken: create nothing rather than overwrite the last.
        if (index == LOG_INDEX_MAX) {
            printf("could not open file '%s'\n", gLogFileFullPath);
            return 0;
        }
    }

    FILE *f = fopen(gLogFileFullPath, "we");
    if (f == nullptr) {
        printf("could not open file '%s'\n", gLogFileFullPath);
        return 0;
    }
    printf("Create file '%s'\n", gLogFileFullPath);
    fclose(f);
    return 1;
}

int __addLog(const char *file, const char *function, const int line,
             const char *__restrict __format, ...)
{
    uint64_t now = gMonotonic();
    time_t wall = gWall();
    struct tm local;
    localtime_r(&wall, &local);

    FILE *out;
    bool fileMode = false;
    if (gpLogFile != nullptr) {
        out = gpLogFile;
        fputs("LOG--> ", out);
    } else if (gLogFileFullPath[0] == '\0') {
        return 0;
    } else {
        out = fopen(gLogFileFullPath, "ae");
        if (out == nullptr) {
            printf("could not open file '%s'\n", gLogFileFullPath);
            return 0;
        }
        fileMode = true;
    }

    if (gFlag & LOG_TIME) {
        uint64_t elapsed = now - gInitLocalTime;
        uint64_t sync = (gFlag & LOG_SYNC_TIME) ? gExtTime : 0;
        switch (gFlag & LOG_UNIT_MASK) {
        case 2:
            fprintf(out, "Time: %llu(ns) | ", static_cast<unsigned long long>(elapsed + sync));
            break;
        case 3:
            fprintf(out, "Time: %llu(us) | ",
                    static_cast<unsigned long long>(sync / 1000 + elapsed / 1000));
            break;
        case 4:
            fprintf(out, "Time: %llu(ms) | ",
                    static_cast<unsigned long long>(sync / 1000000 + elapsed / 1000000));
            break;
        case 5:
            fprintf(out, "Time: %llu(s) | ",
                    static_cast<unsigned long long>(sync / 1000000000 + elapsed / 1000000000));
            break;
        default:
            fprintf(out, "Time: %d:%d:%d | ", local.tm_hour, local.tm_min, local.tm_sec);
            break;
        }
    }
    if (gFlag & LOG_FILE)
        fprintf(out, "File: %s | ", file);
    if (gFlag & LOG_FUNCTION)
        fprintf(out, "Function: %s | ", function);
    if (gFlag & LOG_LINE)
        fprintf(out, "Line: %d | ", line);
    fputs("--> ", out);

    va_list ap;
    va_start(ap, __format);
    vfprintf(out, __format, ap);
    va_end(ap);
    fputc('\n', out);

    if (fileMode)
        fclose(out);
    else
        fflush(out); // a line is seen at once even while a command blocks
    return 1;
}

void closeLog(void)
{
    if (gpLogFile != nullptr && gpLogFile != stdout) {
        fclose(gpLogFile);
        gpLogFile = nullptr;
    }
}
