// The Internet checksum (RFC 1071) summed 64 bits at a time. Ones'
// complement addition does not depend on byte order, so the bytes are added
// as native words and the folded sum is turned into the big-endian word sum
// at the end; folded, it equals the sum of the big-endian 16-bit words, an
// odd last byte counting as a word padded with a zero byte after it.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace vxlan_ef::csum {

// Folds a wide sum to 16 bits with end-around carry: 0 only for a zero sum.
inline uint16_t fold(uint64_t sum)
{
    sum = (sum & 0xFFFFFFFFu) + (sum >> 32);
    sum = (sum & 0xFFFFFFFFu) + (sum >> 32);
    sum = (sum & 0xFFFFu) + (sum >> 16);
    sum = (sum & 0xFFFFu) + (sum >> 16);
    return static_cast<uint16_t>(sum);
}

inline uint16_t to_big_endian_sum(uint16_t native)
{
    if constexpr (std::endian::native == std::endian::little)
        return static_cast<uint16_t>(native << 8 | native >> 8);
    return native;
}

// Adds a 64-bit word with end-around carry.
inline uint64_t add_carry(uint64_t sum, uint64_t word)
{
    sum += word;
    return sum + (sum < word);
}

inline uint64_t load64(const uint8_t *p)
{
    uint64_t w;
    std::memcpy(&w, p, sizeof w);
    return w;
}

// The folded sum of len bytes as big-endian 16-bit words.
inline uint16_t sum(const uint8_t *p, uint32_t len)
{
    uint64_t s = 0;
    for (; len >= 32; p += 32, len -= 32) {
        s = add_carry(s, load64(p));
        s = add_carry(s, load64(p + 8));
        s = add_carry(s, load64(p + 16));
        s = add_carry(s, load64(p + 24));
    }
    for (; len >= 8; p += 8, len -= 8)
        s = add_carry(s, load64(p));
    // The last 0 to 7 bytes, padded with zero bytes after them.
    uint8_t tail[8] = {};
    std::memcpy(tail, p, len);
    s = add_carry(s, load64(tail));
    return to_big_endian_sum(fold(s));
}

// Adds two folded sums (or a folded sum and a 16-bit value).
inline uint16_t add(uint32_t a, uint32_t b) { return fold(uint64_t{a} + b); }

}  // namespace vxlan_ef::csum
