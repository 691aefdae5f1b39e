// Package members as the tests write them, for the package library.
#pragma once

#include "lib/package_write.h"

#include <string>

inline pack_member file_member(const std::string &name, const std::string &data)
{
    return {name, PACK_FILE, "", data, ""};
}

inline pack_member link_member(const std::string &name, pack_kind kind, const std::string &to)
{
    return {name, kind, "", "", to};
}
