// Builders of the benchmark frames, byte by byte.
#include "bench_frames.h"

#include <arpa/inet.h>

#include <algorithm>

namespace vxbench {

namespace {

constexpr size_t kEthLen = 14;
constexpr size_t kIpv4Len = 20;
constexpr size_t kUdpLen = 8;
constexpr size_t kVxlanLen = 8;
constexpr uint8_t kProtoUdp = 17;

void put16(Bytes &b, size_t at, uint16_t v)
{
    b[at] = static_cast<uint8_t>(v >> 8);
    b[at + 1] = static_cast<uint8_t>(v);
}

void put_ethernet(Bytes &f, const Mac &dst, const Mac &src, uint16_t type)
{
    std::copy(dst.begin(), dst.end(), f.begin());
    std::copy(src.begin(), src.end(), f.begin() + 6);
    put16(f, 12, type);
}

// RFC 1071 checksum of an IPv4 header written at `at`.
void put_ipv4_checksum(Bytes &f, size_t at)
{
    uint32_t acc = 0;
    for (size_t i = 0; i < kIpv4Len; i += 2)
        acc += static_cast<uint32_t>(f[at + i] << 8 | f[at + i + 1]);
    while (acc > 0xFFFF)
        acc = (acc & 0xFFFF) + (acc >> 16);
    put16(f, at + 10, static_cast<uint16_t>(~acc));
}

void put_ipv4(Bytes &f, size_t at, uint16_t total, const char *src, const char *dst)
{
    f[at] = 0x45;
    put16(f, at + 2, total);
    put16(f, at + 4, 0x1234);
    f[at + 8] = 64;
    f[at + 9] = kProtoUdp;
    inet_pton(AF_INET, src, &f[at + 12]);
    inet_pton(AF_INET, dst, &f[at + 16]);
    put_ipv4_checksum(f, at);
}

}  // namespace

Bytes ipv4_frame(const Mac &dst, const Mac &src, size_t frame_len)
{
    frame_len = std::max(frame_len, kEthLen + kIpv4Len + kUdpLen);
    Bytes f(frame_len);
    put_ethernet(f, dst, src, 0x0800);
    const size_t ip_len = frame_len - kEthLen;
    put_ipv4(f, kEthLen, static_cast<uint16_t>(ip_len), "192.168.1.1", "192.168.1.2");
    const size_t udp = kEthLen + kIpv4Len;
    put16(f, udp, 5000);
    put16(f, udp + 2, 5001);
    put16(f, udp + 4, static_cast<uint16_t>(ip_len - kIpv4Len));
    for (size_t i = udp + kUdpLen; i < frame_len; ++i)
        f[i] = static_cast<uint8_t>(i);
    return f;
}

Bytes vxlan4_frame(const OuterHeaders &o, const Bytes &inner)
{
    const size_t headers = kEthLen + kIpv4Len + kUdpLen + kVxlanLen;
    Bytes f(headers);
    put_ethernet(f, o.dst_mac, o.src_mac, 0x0800);
    const size_t udp_len = kUdpLen + kVxlanLen + inner.size();
    put_ipv4(f, kEthLen, static_cast<uint16_t>(kIpv4Len + udp_len), o.src_ip, o.dst_ip);
    const size_t udp = kEthLen + kIpv4Len;
    put16(f, udp, 49152);
    put16(f, udp + 2, o.dport);
    put16(f, udp + 4, static_cast<uint16_t>(udp_len));
    const size_t vx = udp + kUdpLen;
    f[vx] = 0x08;
    f[vx + 4] = static_cast<uint8_t>(o.vni >> 16);
    f[vx + 5] = static_cast<uint8_t>(o.vni >> 8);
    f[vx + 6] = static_cast<uint8_t>(o.vni);
    f.insert(f.end(), inner.begin(), inner.end());
    return f;
}

}  // namespace vxbench
