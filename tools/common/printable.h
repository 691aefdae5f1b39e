// Text from a terminal or from a package, made safe to show on a technician's
// terminal: every byte outside printable ASCII, and the backslash, becomes
// \xNN, so no escape sequence (a title change, a screen clear) gets through.
#pragma once

#include <cstdio>
#include <string>

inline std::string printable(const std::string &text)
{
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char esc[5];
            snprintf(esc, sizeof esc, "\\x%02X", c);
            out += esc;
        }
    }
    return out;
}
