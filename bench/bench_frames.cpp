// Builders of the benchmark frames, byte by byte.
#include "bench_frames.h"

#include <arpa/inet.h>

#include <algorithm>

#include "ef_byteorder.h"
#include "ef_wire.h"

namespace vxbench {

namespace {

void put_ethernet(Bytes &f, const Mac &dst, const Mac &src, uint16_t type)
{
    auto *eth = reinterpret_cast<ef_eth_hdr *>(f.data());
    std::copy(dst.begin(), dst.end(), eth->dst);
    std::copy(src.begin(), src.end(), eth->src);
    ef_put_be16(eth->type, type);
}

// RFC 1071 checksum of an IPv4 header written at `at`.
void put_ipv4_checksum(Bytes &f, size_t at)
{
    uint32_t acc = 0;
    for (size_t i = 0; i < EF_IPV4_HLEN; i += 2)
        acc += ef_get_be16(&f[at + i]);
    while (acc > 0xFFFF)
        acc = (acc & 0xFFFF) + (acc >> 16);
    ef_put_be16(reinterpret_cast<ef_ipv4_hdr *>(&f[at])->csum, static_cast<uint16_t>(~acc));
}

void put_ipv4(Bytes &f, size_t at, uint16_t total, const char *src, const char *dst)
{
    auto *ip = reinterpret_cast<ef_ipv4_hdr *>(&f[at]);
    ip->ver_ihl = EF_IPV4_VER_IHL;
    ef_put_be16(ip->total_len, total);
    ef_put_be16(ip->id, 0x1234);
    ip->ttl = 64;
    ip->proto = EF_IPPROTO_UDP;
    inet_pton(AF_INET, src, ip->src);
    inet_pton(AF_INET, dst, ip->dst);
    put_ipv4_checksum(f, at);
}

void put_udp(Bytes &f, size_t at, uint16_t sport, uint16_t dport, size_t len)
{
    auto *udp = reinterpret_cast<ef_udp_hdr *>(&f[at]);
    ef_put_be16(udp->sport, sport);
    ef_put_be16(udp->dport, dport);
    ef_put_be16(udp->len, static_cast<uint16_t>(len));
}

}  // namespace

Bytes ipv4_frame(const Mac &dst, const Mac &src, size_t frame_len)
{
    frame_len = std::max<size_t>(frame_len, EF_ETH_HLEN + EF_IPV4_HLEN + EF_UDP_HLEN);
    Bytes f(frame_len);
    put_ethernet(f, dst, src, EF_ETHERTYPE_IPV4);
    const size_t ip_len = frame_len - EF_ETH_HLEN;
    put_ipv4(f, EF_ETH_HLEN, static_cast<uint16_t>(ip_len), "192.168.1.1", "192.168.1.2");
    const size_t udp = EF_ETH_HLEN + EF_IPV4_HLEN;
    put_udp(f, udp, 5000, 5001, ip_len - EF_IPV4_HLEN);
    for (size_t i = udp + EF_UDP_HLEN; i < frame_len; ++i)
        f[i] = static_cast<uint8_t>(i);
    return f;
}

Bytes vxlan4_frame(const OuterHeaders &o, const Bytes &inner)
{
    Bytes f(EF_VXLAN_IPV4_OVERHEAD);
    put_ethernet(f, o.dst_mac, o.src_mac, EF_ETHERTYPE_IPV4);
    const size_t udp_len = EF_UDP_HLEN + EF_VXLAN_HLEN + inner.size();
    put_ipv4(f, EF_ETH_HLEN, static_cast<uint16_t>(EF_IPV4_HLEN + udp_len), o.src_ip, o.dst_ip);
    const size_t udp = EF_ETH_HLEN + EF_IPV4_HLEN;
    put_udp(f, udp, 49152, o.dport, udp_len);
    auto *vx = reinterpret_cast<ef_vxlan_hdr *>(&f[udp + EF_UDP_HLEN]);
    vx->flags = EF_VXLAN_FLAG_I;
    vx->vni[0] = static_cast<uint8_t>(o.vni >> 16);
    vx->vni[1] = static_cast<uint8_t>(o.vni >> 8);
    vx->vni[2] = static_cast<uint8_t>(o.vni);
    f.insert(f.end(), inner.begin(), inner.end());
    return f;
}

}  // namespace vxbench
