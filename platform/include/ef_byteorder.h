/* Big-endian (network order) loads and stores of 16- and 32-bit fields at any
 * address: headers inside a packet buffer are rarely aligned, so the fields
 * are read byte by byte, which compilers turn into one swapped access. Shared
 * by the platform, the modules and the tools, so that every reader of a wire
 * field agrees on its order. */
#ifndef EF_BYTEORDER_H
#define EF_BYTEORDER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

static inline uint16_t ef_get_be16(const uint8_t *p) { return (uint16_t)(p[0] << 8 | p[1]); }

static inline void ef_put_be16(uint8_t *p, uint16_t v)
{
    p[0] = (uint8_t)(v >> 8);
    p[1] = (uint8_t)v;
}

static inline uint32_t ef_get_be32(const uint8_t *p)
{
    return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

static inline void ef_put_be32(uint8_t *p, uint32_t v)
{
    ef_put_be16(p, (uint16_t)(v >> 16));
    ef_put_be16(p + 2, (uint16_t)v);
}

#ifdef __cplusplus
}
#endif

#endif
