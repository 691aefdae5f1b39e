// Building and checking update packages: a gzip-compressed tar archive
// followed by the 12-byte footer the terminal checks (see proto/package.h).
//
// pack_write writes whatever members it is given, so tests can also build
// archives the terminal must refuse; the swu-pack tool admits only members
// that pass pack_check_name and are regular files.
#pragma once

#include "sign/manifest.h"

#include <cstdint>
#include <string>
#include <vector>

enum pack_kind {
    PACK_FILE,     // regular file: `source` on disk, or `data` when `source` is empty
    PACK_DIR,      // directory
    PACK_SYMLINK,  // symbolic link to `link`
    PACK_HARDLINK, // hard link to the member named `link`
    PACK_OTHER,    // anything else found in an archive (device, fifo); never written
};

struct pack_member {
    std::string name; // name in the archive, as given
    pack_kind kind = PACK_FILE;
    std::string source;
    std::string data;
    std::string link;
};

struct pack_listed {
    std::string name;
    pack_kind kind;
    int64_t size;
};

// A version as the terminal reads it from its version file: up to three
// numbers separated by dots, missing ones 0.
struct pack_version {
    uint16_t v[3] = {};
};
pack_version pack_parse_version(const std::string &text);
// <0, 0 or >0 as a is older than, the same as or newer than b.
int pack_version_compare(const pack_version &a, const pack_version &b);
std::string pack_version_text(const pack_version &v);

struct pack_report {
    uint32_t artifacts_bitmask = 0;
    uint32_t footer_crc = 0;
    uint32_t payload_crc = 0;
    uint64_t package_size = 0;
    std::vector<pack_listed> members;
    bool has_version = false; // the version file holds a "[pkg_data]" "version" key
    std::string version_text; // that key's value as written
    pack_version version;
    bool has_mcu_image = false;
    uint64_t mcu_image_size = 0;
    uint32_t mcu_image_crc32 = 0;          // the common CRC-32 (zlib's)
    std::vector<manifest_entry> artifacts; // the regular files at the top, hashed
    std::string manifest, manifest_sig;    // of a signed package
};

// Why the terminal could not install an artifact of this name, or "" when it
// can: the name must fit the terminal's 128-byte name field with its
// terminator, and the card's FAT file system must be able to hold it as is.
std::string pack_name_problem(const std::string &name);

// One thing about a package that the terminal would get wrong.
struct pack_finding {
    bool refuse; // false: worth a warning only
    std::string text;
};

// The package's members judged as the terminal would install them, for the
// tools to refuse a dangerous package before it is sent. A failed
// installation makes the terminal re-partition and re-format its card, and
// an empty microcontroller image is found only after the microcontroller's
// application was erased; so refused are: artifact names the card's FAT file
// system can't hold, two names equal but for case, and an "st.bin" that is
// empty or larger than the microcontroller's application area. Members the
// terminal ignores (anything but a regular file at the top of the archive)
// are warned about.
std::vector<pack_finding> pack_review(const std::vector<pack_listed> &members);

// "file", "directory", "symbolic link", "hard link" or "special file".
const char *pack_kind_name(pack_kind kind);

// Writes the archive of `members` and its footer to `out_path`. Fails, with
// the reason in *err and no file left behind, when a source can't be read, or
// when the package would exceed `max_size` bytes. 0 or -1.
int pack_write(const std::string &out_path, const std::vector<pack_member> &members,
               uint32_t bitmask, uint64_t max_size, std::string *err);

// Adds the signed manifest of `members` (regular files) to them, signed with
// the secret key `sk`. It states the version of the version file among them
// (0.0.0 without one), and with `downgrade` lets a terminal that holds a newer
// version install it. 0, or -1 with the reason in *err.
int pack_sign(std::vector<pack_member> *members, const std::vector<uint8_t> &sk, bool downgrade,
              std::string *err);

// Checks the footer CRC of the package at `path` without changing it, lists
// the archive's members and reads its version file and microcontroller image. 0 when the CRC
// matches and the archive reads to its end; -1 with the reason in *err otherwise (*report holds
// what was found).
int pack_verify(const std::string &path, pack_report *report, std::string *err);
