// The package version: three numbers, read as the terminal reads them from
// the "version" key of the "[pkg_data]" section of its version file, which
// it advertises. The daemon reads the card's file with these functions; the
// tools read a package's file and compare versions with them.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

struct pkg_version {
    uint16_t v[3] = {};
};
typedef struct pkg_version pkg_version_t;

// What an INI text says about the version: whether a "version" key of the
// "[pkg_data]" section was found, and the last such key's value.
struct pkg_version_key {
    bool found = false;
    std::string value;
};

// Reads the INI text of `f` (or `text`) with inih. 0 when it parses, with the
// key in *key; otherwise inih's result (the first bad line, or -1 when it
// can't be read).
int pkg_version_ini_file(FILE *f, pkg_version_key *key);
int pkg_version_ini_text(const std::string &text, pkg_version_key *key);

// Splits `text` at every '.' (empty pieces don't count) and converts the
// first three pieces with strtoul in base 10, each truncated to 16 bits;
// numbers without a piece keep the value they had in *version.
void pkg_version_parse(const char *text, pkg_version_t *version);

// <0, 0 or >0 as a is older than, the same as or newer than b.
int pkg_version_compare(const pkg_version_t &a, const pkg_version_t &b);

// "1.4.2", of a version or of the three numbers an advertisement carries.
std::string pkg_version_text(const pkg_version_t &v);
std::string pkg_version_text(const uint16_t v[3]);
