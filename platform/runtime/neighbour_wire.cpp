// Reading and writing ARP and ICMPv6 neighbour messages; see
// neighbour_wire.h.
#include "neighbour_wire.h"

#include <algorithm>
#include <cstring>

#include "ef_byteorder.h"
#include "ef_csum.h"

namespace efrt::nwire {

namespace {

constexpr uint8_t kIpv6Version = 6;

template <size_t N>
std::array<uint8_t, N> bytes_at(const uint8_t *p)
{
    std::array<uint8_t, N> out;
    std::memcpy(out.data(), p, N);
    return out;
}

void put_eth(uint8_t *frame, const MacAddr &dst, const MacAddr &src, uint16_t type)
{
    EthHdr eth;
    std::copy(dst.begin(), dst.end(), eth.dst);
    std::copy(src.begin(), src.end(), eth.src);
    ef_put_be16(eth.type, type);
    std::memcpy(frame, &eth, sizeof eth);
}

// Walks the options after the body; false when one does not fill its length
// or has none. *link gets the Ethernet link-layer option of the wanted type.
bool read_options(const uint8_t *p, size_t len, uint8_t wanted, std::optional<MacAddr> &link)
{
    while (len > 0) {
        if (len < 2 || p[1] == 0 || size_t{p[1]} * 8 > len)
            return false;
        const size_t size = size_t{p[1]} * 8;
        if (p[0] == wanted && size == sizeof(LinkAddrOption))
            link = bytes_at<6>(p + 2);
        p += size;
        len -= size;
    }
    return true;
}

}  // namespace

std::optional<ArpMessage> read_arp(const uint8_t *p, size_t len)
{
    if (p == nullptr || len < sizeof(ArpBody))
        return std::nullopt;
    ArpBody body;
    std::memcpy(&body, p, sizeof body);
    if (ef_get_be16(body.hw_type) != kArpHwEthernet || ef_get_be16(body.proto_type) != kArpProtoIpv4 ||
        body.hw_len != 6 || body.proto_len != 4)
        return std::nullopt;
    ArpMessage m;
    m.op = ef_get_be16(body.op);
    m.sender_mac = bytes_at<6>(body.sender_mac);
    m.sender_ip = bytes_at<4>(body.sender_ip);
    m.target_mac = bytes_at<6>(body.target_mac);
    m.target_ip = bytes_at<4>(body.target_ip);
    return m;
}

void write_arp_reply(uint8_t *frame, const MacAddr &from_mac, const Ipv4Bytes &from_ip, const MacAddr &to_mac,
                     const Ipv4Bytes &to_ip)
{
    put_eth(frame, to_mac, from_mac, kEtherArp);
    ArpBody body;
    ef_put_be16(body.hw_type, kArpHwEthernet);
    ef_put_be16(body.proto_type, kArpProtoIpv4);
    body.hw_len = 6;
    body.proto_len = 4;
    ef_put_be16(body.op, kArpReply);
    std::copy(from_mac.begin(), from_mac.end(), body.sender_mac);
    std::copy(from_ip.begin(), from_ip.end(), body.sender_ip);
    std::copy(to_mac.begin(), to_mac.end(), body.target_mac);
    std::copy(to_ip.begin(), to_ip.end(), body.target_ip);
    std::memcpy(frame + kEthHeader, &body, sizeof body);
}

uint8_t nd_type(const uint8_t *p, size_t len)
{
    if (p == nullptr || len < sizeof(Ipv6Hdr) + 1 || p[offsetof(Ipv6Hdr, next_hdr)] != kProtoIcmpv6)
        return 0;
    const uint8_t type = p[sizeof(Ipv6Hdr)];
    return type >= kNdFirstType && type <= kNdLastType ? type : 0;
}

std::optional<NdMessage> read_nd(const uint8_t *p, size_t len)
{
    if (p == nullptr || len < sizeof(Ipv6Hdr))
        return std::nullopt;
    Ipv6Hdr ip;
    std::memcpy(&ip, p, sizeof ip);
    const uint32_t payload = ef_get_be16(ip.payload_len);
    if (ip.ver_tc_flow[0] >> 4 != kIpv6Version || ip.next_hdr != kProtoIcmpv6 || ip.hop_limit != kNdHopLimit ||
        payload < sizeof(NdBody) || sizeof(Ipv6Hdr) + payload > len)
        return std::nullopt;
    const uint8_t *msg = p + sizeof(Ipv6Hdr);
    NdBody body;
    std::memcpy(&body, msg, sizeof body);
    if ((body.type != kNeighbourSolicit && body.type != kNeighbourAdvert) || body.code != 0)
        return std::nullopt;
    NdMessage m;
    m.type = body.type;
    m.src = bytes_at<16>(ip.src);
    m.dst = bytes_at<16>(ip.dst);
    m.solicited = body.type == kNeighbourAdvert && (body.flags[0] & kNaSolicited) != 0;
    m.target = bytes_at<16>(body.target);
    if (icmpv6_checksum(m.src, m.dst, msg, payload) != 0 || ipv6_multicast(m.src) || ipv6_multicast(m.target))
        return std::nullopt;
    const uint8_t wanted = body.type == kNeighbourSolicit ? kOptSourceLinkAddr : kOptTargetLinkAddr;
    if (!read_options(msg + sizeof body, payload - sizeof body, wanted, m.link_addr))
        return std::nullopt;
    if (body.type == kNeighbourSolicit && ipv6_all_zero(m.src) && m.link_addr)
        return std::nullopt;
    return m;
}

void write_na(uint8_t *frame, const MacAddr &from_mac, const Ipv6Bytes &target, const MacAddr &to_mac,
              const Ipv6Bytes &to_ip)
{
    constexpr uint32_t kMessageLen = sizeof(NdBody) + sizeof(LinkAddrOption);
    put_eth(frame, to_mac, from_mac, kEtherIpv6);
    Ipv6Hdr ip{};
    ip.ver_tc_flow[0] = kIpv6Version << 4;
    ef_put_be16(ip.payload_len, kMessageLen);
    ip.next_hdr = kProtoIcmpv6;
    ip.hop_limit = kNdHopLimit;
    std::copy(target.begin(), target.end(), ip.src);
    std::copy(to_ip.begin(), to_ip.end(), ip.dst);
    std::memcpy(frame + kEthHeader, &ip, sizeof ip);

    uint8_t *msg = frame + kEthHeader + sizeof ip;
    NdBody body{};
    body.type = kNeighbourAdvert;
    body.flags[0] = kNaSolicited | kNaOverride;
    std::copy(target.begin(), target.end(), body.target);
    std::memcpy(msg, &body, sizeof body);
    LinkAddrOption opt{kOptTargetLinkAddr, 1, {}};
    std::copy(from_mac.begin(), from_mac.end(), opt.mac);
    std::memcpy(msg + sizeof body, &opt, sizeof opt);
    ef_put_be16(msg + offsetof(NdBody, checksum), icmpv6_checksum(target, to_ip, msg, kMessageLen));
}

uint16_t icmpv6_checksum(const Ipv6Bytes &src, const Ipv6Bytes &dst, const uint8_t *msg, uint32_t len)
{
    // The pseudo-header's upper-layer length and next header, as 32-bit words.
    uint8_t tail[8] = {};
    ef_put_be32(tail, len);
    tail[7] = kProtoIcmpv6;
    uint64_t sum = ef_csum_accumulate(0, src.data(), 16);
    sum = ef_csum_accumulate(sum, dst.data(), 16);
    sum = ef_csum_accumulate(sum, tail, sizeof tail);
    sum = ef_csum_accumulate(sum, msg, len);
    return static_cast<uint16_t>(~ef_csum_finish(sum));
}

bool host_mac(const MacAddr &mac)
{
    return (mac[0] & 0x01) == 0 && std::any_of(mac.begin(), mac.end(), [](uint8_t b) { return b != 0; });
}

bool ipv6_all_zero(const Ipv6Bytes &ip)
{
    return std::all_of(ip.begin(), ip.end(), [](uint8_t b) { return b == 0; });
}

bool ipv6_multicast(const Ipv6Bytes &ip) { return ip[0] == 0xFF; }

bool ipv4_host(const Ipv4Bytes &ip)
{
    constexpr uint8_t kFirstMulticast = 224;
    return ip[0] < kFirstMulticast && (ip[0] | ip[1] | ip[2] | ip[3]) != 0;
}

NeighbourIp neighbour_ip(const Ipv4Bytes &ip)
{
    NeighbourIp out;
    std::copy(ip.begin(), ip.end(), out.bytes.begin());
    return out;
}

NeighbourIp neighbour_ip(const Ipv6Bytes &ip) { return NeighbourIp{true, ip}; }

}  // namespace efrt::nwire
