// Reading and writing ARP and ICMPv6 neighbour messages; see
// neighbour_wire.h.
#include "neighbour_wire.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "ef_byteorder.h"
#include "ef_csum.h"
#include "ef_wire.h"

namespace efrt::nwire {

namespace {

template <size_t N>
std::array<uint8_t, N> bytes_at(const uint8_t *p)
{
    std::array<uint8_t, N> out;
    std::memcpy(out.data(), p, N);
    return out;
}

void put_eth(uint8_t *frame, const MacAddr &dst, const MacAddr &src, uint16_t type)
{
    ef_eth_hdr eth;
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
        if (len < 2 || p[1] == 0 || size_t{p[1]} * EF_ND_OPT_UNIT > len)
            return false;
        const size_t size = size_t{p[1]} * EF_ND_OPT_UNIT;
        if (p[0] == wanted && size == sizeof(ef_nd_link_addr_opt))
            link = bytes_at<EF_ETH_ALEN>(p + offsetof(ef_nd_link_addr_opt, mac));
        p += size;
        len -= size;
    }
    return true;
}

}  // namespace

std::optional<ArpMessage> read_arp(const uint8_t *p, size_t len)
{
    if (p == nullptr || len < sizeof(ef_arp))
        return std::nullopt;
    ef_arp body;
    std::memcpy(&body, p, sizeof body);
    if (ef_get_be16(body.hw_type) != EF_ARP_HW_ETHERNET || ef_get_be16(body.proto_type) != EF_ETHERTYPE_IPV4 ||
        body.hw_len != EF_ETH_ALEN || body.proto_len != sizeof body.sender_ip)
        return std::nullopt;
    ArpMessage m;
    m.op = ef_get_be16(body.op);
    m.sender_mac = bytes_at<EF_ETH_ALEN>(body.sender_mac);
    m.sender_ip = bytes_at<4>(body.sender_ip);
    m.target_mac = bytes_at<EF_ETH_ALEN>(body.target_mac);
    m.target_ip = bytes_at<4>(body.target_ip);
    return m;
}

void write_arp_reply(uint8_t *frame, const MacAddr &from_mac, const Ipv4Bytes &from_ip, const MacAddr &to_mac,
                     const Ipv4Bytes &to_ip)
{
    put_eth(frame, to_mac, from_mac, EF_ETHERTYPE_ARP);
    ef_arp body;
    ef_put_be16(body.hw_type, EF_ARP_HW_ETHERNET);
    ef_put_be16(body.proto_type, EF_ETHERTYPE_IPV4);
    body.hw_len = 6;
    body.proto_len = 4;
    ef_put_be16(body.op, EF_ARP_REPLY);
    std::copy(from_mac.begin(), from_mac.end(), body.sender_mac);
    std::copy(from_ip.begin(), from_ip.end(), body.sender_ip);
    std::copy(to_mac.begin(), to_mac.end(), body.target_mac);
    std::copy(to_ip.begin(), to_ip.end(), body.target_ip);
    std::memcpy(frame + EF_ETH_HLEN, &body, sizeof body);
}

uint8_t nd_type(const uint8_t *p, size_t len)
{
    if (p == nullptr || len < sizeof(ef_ipv6_hdr) + 1 || p[offsetof(ef_ipv6_hdr, next_hdr)] != EF_IPPROTO_ICMPV6)
        return 0;
    const uint8_t type = p[sizeof(ef_ipv6_hdr)];
    return type >= EF_ND_FIRST_TYPE && type <= EF_ND_LAST_TYPE ? type : 0;
}

std::optional<NdMessage> read_nd(const uint8_t *p, size_t len)
{
    if (p == nullptr || len < sizeof(ef_ipv6_hdr))
        return std::nullopt;
    ef_ipv6_hdr ip;
    std::memcpy(&ip, p, sizeof ip);
    const uint32_t payload = ef_get_be16(ip.payload_len);
    if (ip.ver_tc_flow[0] >> 4 != EF_IPV6_VERSION || ip.next_hdr != EF_IPPROTO_ICMPV6 || ip.hop_limit != EF_ND_HOP_LIMIT ||
        payload < sizeof(ef_nd_msg) || sizeof(ef_ipv6_hdr) + payload > len)
        return std::nullopt;
    const uint8_t *msg = p + sizeof(ef_ipv6_hdr);
    ef_nd_msg body;
    std::memcpy(&body, msg, sizeof body);
    if ((body.type != EF_ND_NEIGHBOUR_SOLICIT && body.type != EF_ND_NEIGHBOUR_ADVERT) || body.code != 0)
        return std::nullopt;
    NdMessage m;
    m.type = body.type;
    m.src = bytes_at<16>(ip.src);
    m.dst = bytes_at<16>(ip.dst);
    m.solicited = body.type == EF_ND_NEIGHBOUR_ADVERT && (body.flags[0] & EF_ND_NA_SOLICITED) != 0;
    m.target = bytes_at<16>(body.target);
    if (icmpv6_checksum(m.src, m.dst, msg, payload) != 0 || ipv6_multicast(m.src) || ipv6_multicast(m.target))
        return std::nullopt;
    const uint8_t wanted = body.type == EF_ND_NEIGHBOUR_SOLICIT ? EF_ND_OPT_SOURCE_LINK_ADDR : EF_ND_OPT_TARGET_LINK_ADDR;
    if (!read_options(msg + sizeof body, payload - sizeof body, wanted, m.link_addr))
        return std::nullopt;
    if (body.type == EF_ND_NEIGHBOUR_SOLICIT && ipv6_all_zero(m.src) && m.link_addr)
        return std::nullopt;
    return m;
}

void write_na(uint8_t *frame, const MacAddr &from_mac, const Ipv6Bytes &target, const MacAddr &to_mac,
              const Ipv6Bytes &to_ip)
{
    constexpr uint32_t kMessageLen = sizeof(ef_nd_msg) + sizeof(ef_nd_link_addr_opt);
    put_eth(frame, to_mac, from_mac, EF_ETHERTYPE_IPV6);
    ef_ipv6_hdr ip{};
    ip.ver_tc_flow[0] = EF_IPV6_VERSION << 4;
    ef_put_be16(ip.payload_len, kMessageLen);
    ip.next_hdr = EF_IPPROTO_ICMPV6;
    ip.hop_limit = EF_ND_HOP_LIMIT;
    std::copy(target.begin(), target.end(), ip.src);
    std::copy(to_ip.begin(), to_ip.end(), ip.dst);
    std::memcpy(frame + EF_ETH_HLEN, &ip, sizeof ip);

    uint8_t *msg = frame + EF_ETH_HLEN + sizeof ip;
    ef_nd_msg body{};
    body.type = EF_ND_NEIGHBOUR_ADVERT;
    body.flags[0] = EF_ND_NA_SOLICITED | EF_ND_NA_OVERRIDE;
    std::copy(target.begin(), target.end(), body.target);
    std::memcpy(msg, &body, sizeof body);
    ef_nd_link_addr_opt opt{EF_ND_OPT_TARGET_LINK_ADDR, 1, {}};
    std::copy(from_mac.begin(), from_mac.end(), opt.mac);
    std::memcpy(msg + sizeof body, &opt, sizeof opt);
    ef_put_be16(msg + offsetof(ef_nd_msg, csum), icmpv6_checksum(target, to_ip, msg, kMessageLen));
}

uint16_t icmpv6_checksum(const Ipv6Bytes &src, const Ipv6Bytes &dst, const uint8_t *msg, uint32_t len)
{
    // The pseudo-header's upper-layer length and next header, as 32-bit words.
    uint8_t tail[8] = {};
    ef_put_be32(tail, len);
    tail[7] = EF_IPPROTO_ICMPV6;
    uint64_t sum = ef_csum_accumulate(0, src.data(), src.size());
    sum = ef_csum_accumulate(sum, dst.data(), dst.size());
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
