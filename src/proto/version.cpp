#include "proto/version.h"

#include <cstdlib>
#include <cstring>
#include <ini.h>

namespace
{

int version_key_handler(void *arg, const char *section, const char *name, const char *value)
{
    auto *key = static_cast<pkg_version_key *>(arg);
    if (strcmp(section, "pkg_data") == 0 && strcmp(name, "version") == 0) {
        key->found = true;
        key->value = value; // the last of several keys counts
    }
    return 1;
}

} // namespace

int pkg_version_ini_file(FILE *f, pkg_version_key *key)
{
    *key = pkg_version_key{};
    return ini_parse_file(f, version_key_handler, key);
}

int pkg_version_ini_text(const std::string &text, pkg_version_key *key)
{
    *key = pkg_version_key{};
    return ini_parse_string(text.c_str(), version_key_handler, key);
}

void pkg_version_parse(const char *text, pkg_version_t *version)
{
    std::string copy = text;
    char *save = nullptr;
    char *piece = strtok_r(copy.data(), ".", &save);
    for (int i = 0; i < 3 && piece != nullptr; i++) {
        version->v[i] = static_cast<uint16_t>(strtoul(piece, nullptr, 10));
        piece = strtok_r(nullptr, ".", &save);
    }
}

int pkg_version_compare(const pkg_version_t &a, const pkg_version_t &b)
{
    for (int i = 0; i < 3; i++)
        if (a.v[i] != b.v[i])
            return a.v[i] < b.v[i] ? -1 : 1;
    return 0;
}

std::string pkg_version_text(const uint16_t v[3])
{
    return std::to_string(v[0]) + "." + std::to_string(v[1]) + "." + std::to_string(v[2]);
}

std::string pkg_version_text(const pkg_version_t &v)
{
    return pkg_version_text(v.v);
}
