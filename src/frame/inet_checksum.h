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

// Adds the last 0 to 7 bytes of a run that began on a 16-bit boundary,
// without a call: a 4-byte and a 2-byte piece keep their 16-bit alignment,
// and a last odd byte is the first byte of a word padded with a zero byte.
inline uint64_t add_tail(uint64_t s, const uint8_t *p, uint32_t len)
{
    if (len & 4) {
        uint32_t w;
        std::memcpy(&w, p, sizeof w);
        s = add_carry(s, w);
        p += 4;
    }
    if (len & 2) {
        uint16_t w;
        std::memcpy(&w, p, sizeof w);
        s = add_carry(s, w);
        p += 2;
    }
    if (len & 1) {
        const uint64_t byte = *p;
        s = add_carry(s, std::endian::native == std::endian::little ? byte : byte << 8);
    }
    return s;
}

// The unfolded native sum of len bytes starting on a 16-bit boundary, added
// to s: runs that each begin on such a boundary may share one sum.
inline uint64_t accumulate(uint64_t s, const uint8_t *p, uint32_t len)
{
    for (; len >= 32; p += 32, len -= 32) {
        s = add_carry(s, load64(p));
        s = add_carry(s, load64(p + 8));
        s = add_carry(s, load64(p + 16));
        s = add_carry(s, load64(p + 24));
    }
    for (; len >= 8; p += 8, len -= 8)
        s = add_carry(s, load64(p));
    return add_tail(s, p, len);
}

// An accumulated sum folded to 16 bits as the sum of big-endian words.
inline uint16_t finish(uint64_t s) { return to_big_endian_sum(fold(s)); }

// The folded sum of len bytes as big-endian 16-bit words.
inline uint16_t sum(const uint8_t *p, uint32_t len) { return finish(accumulate(0, p, len)); }

// Adds two folded sums (or a folded sum and a 16-bit value).
inline uint16_t add(uint32_t a, uint32_t b) { return fold(uint64_t{a} + b); }

}  // namespace vxlan_ef::csum
