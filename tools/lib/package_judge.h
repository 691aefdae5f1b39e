// The judge of a package: what the terminal's "tar -xzf" (BusyBox) puts in
// its staging directory from an archive's members, and which of those
// artifacts the terminal would install wrongly.
//
// The members are replayed as BusyBox tar extracts them: a leading '/' and
// everything up to a "/../" stripped from the name, an existing entry of the
// same name removed first (a directory in the way fails the run), leading
// directories made, symbolic links followed, links that point outside the
// archive or to an absolute path created after every other member, and hard
// links created last of all. The artifacts are the regular files at the top
// of the directory afterwards, as the terminal lists them.
#pragma once

#include "proto/package.h"

#include <cstdint>
#include <string>
#include <vector>

enum pack_kind {
    PACK_FILE,     // regular file
    PACK_DIR,      // directory
    PACK_SYMLINK,  // symbolic link to `link`
    PACK_HARDLINK, // hard link to the member named `link`
    PACK_OTHER,    // anything else (device, fifo)
};

// "file", "directory", "symbolic link", "hard link" or "special file".
const char *pack_kind_name(pack_kind kind);

// One member of an archive, as its headers (PAX and GNU long names applied)
// describe it.
struct pack_listed {
    std::string name;
    pack_kind kind;
    int64_t size;
    std::string link;    // target of a link
    bool sparse = false; // stored with holes
};

// One thing about a package that the terminal would get wrong.
struct pack_finding {
    bool refuse; // false: worth a warning only
    std::string text;
};

// A regular file at the top of the staging directory: what the terminal
// copies to its card.
struct pack_artifact {
    std::string name;
    int64_t size;
    size_t member; // index of the member whose data it holds
};

struct pack_judgement {
    bool tar_fails = false;               // the terminal's tar exits with an error
    std::vector<pack_artifact> artifacts; // in name order
    std::vector<pack_finding> findings;
};

// Most bytes a package may unpack to: the staging directory and the card
// are sized for the largest package the terminal takes.
inline constexpr uint64_t PACK_UNPACKED_MAX = PKG_MAX_SIZE;

// What a member takes of the unpacked archive: its 512-byte header and the
// data its header declares, whatever its kind.
uint64_t pack_member_bytes(const pack_listed &m);

// Why the terminal could not install an artifact of this name, or "" when it
// can: the name must fit the terminal's 128-byte name field with its
// terminator, and the card's FAT file system must be able to hold it as is.
std::string pack_name_problem(const std::string &name);

// `name` as the card's FAT file system compares it: without case.
std::string pack_fold_case(std::string name);

// Replays `members` as the terminal's tar extracts them and judges the
// result. A failed installation makes the terminal re-partition and
// re-format its card, and an empty microcontroller image is found only after
// the microcontroller's application was erased; so refused are: an archive
// the terminal's tar fails on, sparse members and more than
// PACK_UNPACKED_MAX bytes (the terminal's tar can't unpack them), artifact
// names the card can't hold, two artifact names equal but for case, and an
// "st.bin" (in any case) that is empty or larger than the microcontroller's
// application area. Members that install nothing are warned about.
pack_judgement pack_judge(const std::vector<pack_listed> &members);

// pack_judge's findings alone.
std::vector<pack_finding> pack_review(const std::vector<pack_listed> &members);
