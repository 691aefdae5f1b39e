// The update package as the terminal and the tools agree on it: its largest
// size, the rules for its name and for its artifacts' names, and its footer
// with the CRC.
//
// A package is a gzip-compressed tar archive (the payload) followed by a
// 12-byte footer of three little-endian u32: artifacts bitmask, reserved, CRC
// of the payload. The CRC is crc32() fed the payload in consecutive pieces of
// PKG_CRC_PIECE bytes, the first started from 0x0000FFFF and each further one
// from the previous result. The piece boundaries matter: a running value of
// exactly 0 at the end of a piece makes the next piece start from 0x0000FFFF.
#pragma once

#include "lib/sys/crc.h"

#include <cstddef>
#include <cstdint>

// Largest package, footer included, that the terminal accepts (600 MiB).
inline constexpr uint64_t PKG_MAX_SIZE = 600ull * 1048576;

// A package travels under a name of 1 to PKG_NAME_MAX_LEN letters, digits,
// '.', '_' or '-', which the terminal uses as a file name.
inline constexpr size_t PKG_NAME_MAX_LEN = 99;

constexpr bool pkg_name_char(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

constexpr bool pkg_name_valid(const char *name, size_t len)
{
    if (len == 0 || len > PKG_NAME_MAX_LEN)
        return false;
    for (size_t i = 0; i < len; i++)
        if (!pkg_name_char(name[i]))
            return false;
    return true;
}

// Longest artifact name the terminal installs: it keeps the name with its
// terminator in 128 bytes.
inline constexpr size_t ARTIFACT_NAME_MAX_LEN = 127;

// The artifact that reprograms the supervisor microcontroller, and the size
// of its application area (what the programming reads back to check).
inline constexpr char MCU_IMAGE_ARTIFACT[] = "st.bin";
// The artifact whose "[pkg_data]" section's "version" key is the version the
// package installs, and which the terminal advertises once installed.
inline constexpr char VERSION_ARTIFACT[] = "pkg_ver.txt";
inline constexpr size_t MCU_APP_AREA_SIZE = 204800;

// The terminal unpacks a package (its footer cut off) into its staging
// directory with its BusyBox tar: the package path and the directory, each
// one quoted shell word. -o keeps the archive's owners from being restored.
inline constexpr char PKG_UNPACK_CMD[] = "tar -o -xzf %s -C %s";

struct pkg_metadata {
    uint32_t artifacts_bitmask; // shown when the package is checked; nothing depends on it
    uint32_t reserved;
    uint32_t crc;
};
typedef struct pkg_metadata pkg_metadata_t;

static_assert(sizeof(pkg_metadata_t) == 12);
static_assert(offsetof(pkg_metadata_t, artifacts_bitmask) == 0);
static_assert(offsetof(pkg_metadata_t, reserved) == 4);
static_assert(offsetof(pkg_metadata_t, crc) == 8);

inline constexpr size_t PKG_FOOTER_SIZE = 12;
inline constexpr size_t PKG_CRC_PIECE = 4096;
inline constexpr uint32_t PKG_CRC_START = 0x0000FFFF;

// The 12 footer bytes of `meta`, and back.
void pkg_footer_encode(const pkg_metadata_t *meta, uint8_t out[PKG_FOOTER_SIZE]);
void pkg_footer_decode(const uint8_t in[PKG_FOOTER_SIZE], pkg_metadata_t *meta);

// Package CRC of `size` bytes in memory.
uint32_t pkg_crc_buffer(const void *buf, size_t size);

// Continues the package CRC in *crc over at most `size` bytes read from `fd`
// at its current offset, through one PKG_CRC_PIECE buffer. Stops early at end
// of file. 0 when done; -1 with errno set when a read failed (*crc then holds
// the value up to the last complete piece).
int pkg_crc_fd(int fd, uint64_t size, uint32_t *crc);
