// The update package's footer and its CRC, shared by the terminal's check and
// the package builder so that both compute the value the same way.
//
// A package is a gzip-compressed tar archive (the payload) followed by a
// 12-byte footer of three little-endian u32: artifacts bitmask, reserved, CRC
// of the payload. The CRC is crc32() fed the payload in consecutive pieces of
// PKG_CRC_PIECE bytes, the first started from 0x0000FFFF and each further one
// from the previous result. The piece boundaries matter: a running value of
// exactly 0 at the end of a piece makes the next piece start from 0x0000FFFF.
#pragma once

#include "lib/sys/crc.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>
#include <unistd.h>

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
// Largest package, footer included, that the terminal accepts.
inline constexpr uint64_t PKG_MAX_SIZE = 629145600;

inline void pkg_put_le32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

inline uint32_t pkg_get_le32(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// The 12 footer bytes of `meta`.
inline void pkg_footer_encode(const pkg_metadata_t *meta, uint8_t out[PKG_FOOTER_SIZE])
{
    pkg_put_le32(out + offsetof(pkg_metadata_t, artifacts_bitmask), meta->artifacts_bitmask);
    pkg_put_le32(out + offsetof(pkg_metadata_t, reserved), meta->reserved);
    pkg_put_le32(out + offsetof(pkg_metadata_t, crc), meta->crc);
}

// The record held by 12 footer bytes.
inline void pkg_footer_decode(const uint8_t in[PKG_FOOTER_SIZE], pkg_metadata_t *meta)
{
    meta->artifacts_bitmask = pkg_get_le32(in + offsetof(pkg_metadata_t, artifacts_bitmask));
    meta->reserved = pkg_get_le32(in + offsetof(pkg_metadata_t, reserved));
    meta->crc = pkg_get_le32(in + offsetof(pkg_metadata_t, crc));
}

// Package CRC of `size` bytes in memory.
inline uint32_t pkg_crc_buffer(const void *buf, size_t size)
{
    const auto *p = static_cast<const uint8_t *>(buf);
    uint32_t crc = PKG_CRC_START;
    for (size_t off = 0; off < size; off += PKG_CRC_PIECE)
        crc = crc32(p + off, size - off < PKG_CRC_PIECE ? size - off : PKG_CRC_PIECE, crc);
    return crc;
}

// Continues the package CRC in *crc over at most `size` bytes read from `fd`
// at its current offset, through one PKG_CRC_PIECE buffer. Stops early at end
// of file. 0 when done; -1 with errno set when a read failed (*crc then holds
// the value up to the last complete piece).
inline int pkg_crc_fd(int fd, uint64_t size, uint32_t *crc)
{
    uint8_t piece[PKG_CRC_PIECE];
    uint64_t left = size;
    while (left > 0) {
        // A piece is filled completely before it is counted, so a short read
        // cannot move a piece boundary.
        size_t want = left < PKG_CRC_PIECE ? static_cast<size_t>(left) : PKG_CRC_PIECE;
        size_t have = 0;
        while (have < want) {
            ssize_t n = read(fd, piece + have, want - have);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                return -1;
            if (n == 0)
                break;
            have += static_cast<size_t>(n);
        }
        if (have > 0)
            *crc = crc32(piece, have, *crc);
        if (have < want)
            break;
        left -= have;
    }
    return 0;
}
