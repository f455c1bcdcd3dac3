// Address helpers and the ICMPv6 checksum of the L3 engine.
#include "l3_wire.h"

#include <sys/socket.h>

namespace efhost::l3 {

size_t IpAddr::size() const { return family == AF_INET ? 4 : 16; }

bool IpAddr::unspecified() const
{
    for (size_t i = 0; i < size(); ++i)
        if (addr[i] != 0)
            return false;
    return true;
}

IpAddr host_of(const IpPrefix &p)
{
    IpAddr a;
    a.family = p.family;
    std::memcpy(a.addr.data(), p.addr.data(), a.size());
    return a;
}

bool prefix_contains(const IpPrefix &p, const IpAddr &a)
{
    if (p.family != a.family || p.len > a.size() * 8)
        return false;
    const size_t whole = p.len / 8;
    if (std::memcmp(p.addr.data(), a.addr.data(), whole) != 0)
        return false;
    const unsigned rest = p.len % 8;
    if (rest == 0)
        return true;
    const auto mask = static_cast<uint8_t>(0xff << (8 - rest));
    return ((p.addr[whole] ^ a.addr[whole]) & mask) == 0;
}

namespace {

uint32_t sum_words(const uint8_t *p, size_t len, uint32_t sum)
{
    for (size_t i = 0; i + 1 < len; i += 2)
        sum += load_be16(p + i);
    if (len % 2 != 0)
        sum += uint32_t{p[len - 1]} << 8;
    return sum;
}

}  // namespace

uint16_t icmpv6_checksum(const IpAddr &src, const IpAddr &dst, const uint8_t *body, size_t len)
{
    uint8_t tail[8] = {};
    store_be32(tail, static_cast<uint32_t>(len));
    tail[7] = kProtoIcmpv6;
    uint32_t sum = sum_words(src.addr.data(), 16, 0);
    sum = sum_words(dst.addr.data(), 16, sum);
    sum = sum_words(tail, sizeof tail, sum);
    sum = sum_words(body, len, sum);
    while (sum >> 16 != 0)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

}  // namespace efhost::l3
