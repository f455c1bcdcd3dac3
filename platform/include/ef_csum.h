/* The Internet checksum (RFC 1071), summed 64 bits at a time, for every
 * header the platform, the modules and the tools write or check. Ones'
 * complement addition does not depend on byte order, so the bytes are added
 * as native words and the folded sum is turned into the big-endian word sum
 * at the end; folded, it equals the sum of the big-endian 16-bit words, an
 * odd last byte counting as a word padded with a zero byte after it. A
 * folded sum is 0 only when every byte added was zero, whatever the order
 * the pieces were added in. */
#ifndef EF_CSUM_H
#define EF_CSUM_H

#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Folds a wide sum to 16 bits with end-around carry: 0 only for a zero sum. */
static inline uint16_t ef_csum_fold(uint64_t sum)
{
    sum = (sum & 0xFFFFFFFFu) + (sum >> 32);
    sum = (sum & 0xFFFFFFFFu) + (sum >> 32);
    sum = (sum & 0xFFFFu) + (sum >> 16);
    sum = (sum & 0xFFFFu) + (sum >> 16);
    return (uint16_t)sum;
}

static inline uint16_t ef_csum_to_big_endian_sum(uint16_t native)
{
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    return (uint16_t)(native << 8 | native >> 8);
#else
    return native;
#endif
}

/* Adds a 64-bit word with end-around carry. */
static inline uint64_t ef_csum_add_carry(uint64_t sum, uint64_t word)
{
    sum += word;
    return sum + (sum < word);
}

static inline uint64_t ef_csum_load64(const uint8_t *p)
{
    uint64_t w;
    memcpy(&w, p, sizeof w);
    return w;
}

/* Adds the last 0 to 7 bytes of a run that began on a 16-bit boundary,
 * without a call: a 4-byte and a 2-byte piece keep their 16-bit alignment,
 * and a last odd byte is the first byte of a word padded with a zero byte. */
static inline uint64_t ef_csum_add_tail(uint64_t s, const uint8_t *p, uint32_t len)
{
    if (len & 4) {
        uint32_t w;
        memcpy(&w, p, sizeof w);
        s = ef_csum_add_carry(s, w);
        p += 4;
    }
    if (len & 2) {
        uint16_t w;
        memcpy(&w, p, sizeof w);
        s = ef_csum_add_carry(s, w);
        p += 2;
    }
    if (len & 1) {
        const uint64_t byte = *p;
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        s = ef_csum_add_carry(s, byte);
#else
        s = ef_csum_add_carry(s, byte << 8);
#endif
    }
    return s;
}

/* The unfolded native sum of len bytes starting on a 16-bit boundary, added
 * to s: runs that each begin on such a boundary may share one sum. */
static inline uint64_t ef_csum_accumulate(uint64_t s, const uint8_t *p, uint32_t len)
{
    for (; len >= 32; p += 32, len -= 32) {
        s = ef_csum_add_carry(s, ef_csum_load64(p));
        s = ef_csum_add_carry(s, ef_csum_load64(p + 8));
        s = ef_csum_add_carry(s, ef_csum_load64(p + 16));
        s = ef_csum_add_carry(s, ef_csum_load64(p + 24));
    }
    for (; len >= 8; p += 8, len -= 8)
        s = ef_csum_add_carry(s, ef_csum_load64(p));
    return ef_csum_add_tail(s, p, len);
}

/* An accumulated sum folded to 16 bits as the sum of big-endian words. */
static inline uint16_t ef_csum_finish(uint64_t s)
{
    return ef_csum_to_big_endian_sum(ef_csum_fold(s));
}

/* The folded sum of len bytes as big-endian 16-bit words. */
static inline uint16_t ef_csum_sum(const uint8_t *p, uint32_t len)
{
    return ef_csum_finish(ef_csum_accumulate(0, p, len));
}

/* Adds two folded sums (or a folded sum and a 16-bit value). */
static inline uint16_t ef_csum_add(uint32_t a, uint32_t b) { return ef_csum_fold((uint64_t)a + b); }

#ifdef __cplusplus
}
#endif

#endif
