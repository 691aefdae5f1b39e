#include "proto/package.h"

#include "lib/sys/le_bytes.h"

#include <cerrno>
#include <unistd.h>

void pkg_footer_encode(const pkg_metadata_t *meta, uint8_t out[PKG_FOOTER_SIZE])
{
    le_put32(out + offsetof(pkg_metadata_t, artifacts_bitmask), meta->artifacts_bitmask);
    le_put32(out + offsetof(pkg_metadata_t, reserved), meta->reserved);
    le_put32(out + offsetof(pkg_metadata_t, crc), meta->crc);
}

void pkg_footer_decode(const uint8_t in[PKG_FOOTER_SIZE], pkg_metadata_t *meta)
{
    meta->artifacts_bitmask = le_get32(in + offsetof(pkg_metadata_t, artifacts_bitmask));
    meta->reserved = le_get32(in + offsetof(pkg_metadata_t, reserved));
    meta->crc = le_get32(in + offsetof(pkg_metadata_t, crc));
}

uint32_t pkg_crc_buffer(const void *buf, size_t size)
{
    const auto *p = static_cast<const uint8_t *>(buf);
    uint32_t crc = PKG_CRC_START;
    for (size_t off = 0; off < size; off += PKG_CRC_PIECE)
        crc = crc32(p + off, size - off < PKG_CRC_PIECE ? size - off : PKG_CRC_PIECE, crc);
    return crc;
}

int pkg_crc_fd(int fd, uint64_t size, uint32_t *crc)
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
