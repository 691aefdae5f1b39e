// Little-endian fields, whatever the host's byte order: every multi-byte
// integer of the update protocol, the package footer, the microcontroller's
// frames and the simulated register file is stored least significant byte
// first.
#pragma once

#include <cstddef>
#include <cstdint>

template <typename T> constexpr void le_put(uint8_t *p, T v)
{
    for (size_t i = 0; i < sizeof(T); i++)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

template <typename T> constexpr T le_get(const uint8_t *p)
{
    T v = 0;
    for (size_t i = sizeof(T); i-- > 0;)
        v = static_cast<T>(static_cast<T>(v << 8) | p[i]);
    return v;
}

constexpr void le_put16(uint8_t *p, uint16_t v)
{
    le_put(p, v);
}
constexpr void le_put32(uint8_t *p, uint32_t v)
{
    le_put(p, v);
}
constexpr void le_put64(uint8_t *p, uint64_t v)
{
    le_put(p, v);
}
constexpr uint16_t le_get16(const uint8_t *p)
{
    return le_get<uint16_t>(p);
}
constexpr uint32_t le_get32(const uint8_t *p)
{
    return le_get<uint32_t>(p);
}
constexpr uint64_t le_get64(const uint8_t *p)
{
    return le_get<uint64_t>(p);
}
