// Address helpers and the ICMPv6 checksum of the L3 engine.
#include "l3_wire.h"

#include <sys/socket.h>

#include "ef_csum.h"
#include "ef_wire.h"

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

uint16_t icmpv6_checksum(const IpAddr &src, const IpAddr &dst, const uint8_t *body, size_t len)
{
    uint8_t tail[8] = {};
    ef_put_be32(tail, static_cast<uint32_t>(len));
    tail[7] = EF_IPPROTO_ICMPV6;
    uint64_t sum = ef_csum_accumulate(0, src.addr.data(), 16);
    sum = ef_csum_accumulate(sum, dst.addr.data(), 16);
    sum = ef_csum_accumulate(sum, tail, sizeof tail);
    sum = ef_csum_accumulate(sum, body, static_cast<uint32_t>(len));
    return static_cast<uint16_t>(~ef_csum_finish(sum));
}

}  // namespace efhost::l3
