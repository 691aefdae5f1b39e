// The page's files, built into the program from page/ (see embed_page.cmake).
#pragma once

#include <cstddef>

struct console_page_file {
    const char *path; // as requested
    const char *type; // its Content-Type
    const unsigned char *data;
    size_t size;
};

extern const console_page_file console_page[];
extern const size_t console_page_count;
