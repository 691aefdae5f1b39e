// Writing update packages: a gzip-compressed tar archive followed by the
// 12-byte footer the terminal checks (proto/package.h).
//
// pack_write writes whatever members it is given, so tests can also build
// packages the terminal must refuse; the swu-pack tool admits only regular
// files that the judge (package_judge.h) passes.
#pragma once

#include "lib/package_judge.h"

#include <cstdint>
#include <string>
#include <vector>

struct pack_member {
    std::string name; // name in the archive, as given
    pack_kind kind = PACK_FILE;
    std::string source; // PACK_FILE: the file on disk; empty: `data`
    std::string data;
    std::string link; // target of a link
};

// The regular files at `paths` as members stored under their base names at
// the top of the archive, and their listing for the judge. 0, or -1 with the
// reason in *err: a path that can't be read, is not a regular file or has no
// file name, or shares its base name with an earlier one (the terminal would
// keep only the later).
int pack_collect_files(const std::vector<std::string> &paths, std::vector<pack_member> *members,
                       std::vector<pack_listed> *listing, std::string *err);

// Writes the archive of `members` and its footer to `out_path`. Fails, with
// the reason in *err and no file left behind, when a source can't be read, a
// member is a PACK_OTHER, or the package would exceed `max_size` bytes.
// 0 or -1.
int pack_write(const std::string &out_path, const std::vector<pack_member> &members,
               uint32_t bitmask, uint64_t max_size, std::string *err);
