#include "lib/sys/crc.h"

#ifdef SWU_HAVE_ZLIB
#include <zlib.h>
#endif

namespace
{

constexpr uint32_t CRC32_DEFAULT_START = 0x0000FFFF;

constexpr uint32_t crc32_table_entry(uint32_t byte)
{
    uint32_t value = byte;
    for (int bit = 0; bit < 8; ++bit)
        value = (value & 1) ? (value >> 1) ^ 0xEDB88320U : value >> 1;
    return value;
}

constexpr bool crc32_table_is_standard()
{
    for (uint32_t i = 0; i < 256; ++i)
        if (crc32_table[i] != crc32_table_entry(i))
            return false;
    return true;
}

static_assert(crc32_table[1] == 0x77073096U && crc32_table[255] == 0x2D02EF8DU);
static_assert(crc32_table_is_standard());

constexpr uint32_t crc32_start(uint32_t init_val)
{
    return init_val == 0 ? CRC32_DEFAULT_START : init_val;
}

} // namespace

uint32_t crc32_bytewise(const void *buf, size_t size, uint32_t init_val)
{
    const auto *bytes = static_cast<const uint8_t *>(buf);
    uint32_t value = crc32_start(init_val);
    for (size_t i = 0; i < size; ++i)
        value = (value >> 8) ^ crc32_table[(value ^ bytes[i]) & 0xFF];
    return value;
}

#ifdef SWU_HAVE_ZLIB

uint32_t crc32_std(uint32_t crc, const void *buf, size_t size)
{
    return static_cast<uint32_t>(crc32_z(crc, static_cast<const Bytef *>(buf), size));
}

// zlib runs the same register but complements it on entry and on exit, so
// complementing both sides gives the bare register update. zlib's own crc32()
// shares our name, hence crc32_z.
uint32_t crc32(const void *buf, size_t size, uint32_t init_val)
{
    if (size == 0)
        return crc32_start(init_val);
    uint32_t start = static_cast<uint32_t>(~crc32_start(init_val));
    uLong zcrc = crc32_z(start, static_cast<const Bytef *>(buf), size);
    return static_cast<uint32_t>(~zcrc);
}

bool crc32_is_accelerated()
{
    return true;
}

#else

uint32_t crc32_std(uint32_t crc, const void *buf, size_t size)
{
    const auto *bytes = static_cast<const uint8_t *>(buf);
    uint32_t value = ~crc;
    for (size_t i = 0; i < size; ++i)
        value = (value >> 8) ^ crc32_table[(value ^ bytes[i]) & 0xFF];
    return ~value;
}

uint32_t crc32(const void *buf, size_t size, uint32_t init_val)
{
    return crc32_bytewise(buf, size, init_val);
}

bool crc32_is_accelerated()
{
    return false;
}

#endif
