// The package library under the names the client's update code used before
// it was split; to go once the client calls the new ones.
#pragma once

#include "lib/package_inspect.h"
#include "lib/package_sign.h"
#include "lib/package_write.h"

using pack_version = pkg_version_t;

inline pack_version pack_parse_version(const std::string &text)
{
    pack_version v;
    pkg_version_parse(text.c_str(), &v);
    return v;
}

inline int pack_version_compare(const pack_version &a, const pack_version &b)
{
    return pkg_version_compare(a, b);
}

inline std::string pack_version_text(const pack_version &v)
{
    return pkg_version_text(v);
}
