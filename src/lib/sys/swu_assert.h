// Assertions that stay active in every build type.
//
// A failed assertion marks a programming error (a null argument, a buffer too
// small): it prints the expression as written, the way the C library's
// assert() does, and aborts. Unlike assert(), NDEBUG does not remove it, so
// the release and terminal builds stop at the same place the debug build does.
#pragma once

#include <cstdio>
#include <cstdlib>

[[noreturn]] inline void swu_assert_fail(const char *expr, const char *file, int line,
                                         const char *func)
{
    std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, func, expr);
    std::fflush(stderr);
    std::abort();
}

#define SWU_ASSERT(expr)                                                                           \
    ((expr) ? static_cast<void>(0) : swu_assert_fail(#expr, __FILE__, __LINE__, __func__))
