// Builders and parsers of ARP and neighbour-discovery frames.
#include "l3_arp_nd.h"

#include <sys/socket.h>

#include <algorithm>

namespace efhost::l3 {
namespace {

constexpr size_t kArpFrame = kEthHeader + kArpBody;
constexpr size_t kNdFrame = kEthHeader + kIpv6Header + kNdBody + kNdLinkOption;

Mac mac_at(const uint8_t *p)
{
    Mac m;
    std::copy(p, p + 6, m.begin());
    return m;
}

IpAddr ip_at(int family, const uint8_t *p)
{
    IpAddr a;
    a.family = family;
    std::copy(p, p + a.size(), a.addr.begin());
    return a;
}

uint8_t *put_eth(std::vector<uint8_t> &out, size_t total, const Mac &dst, const Mac &src,
                 uint16_t type)
{
    out.assign(total, 0);
    std::copy(dst.begin(), dst.end(), out.begin());
    std::copy(src.begin(), src.end(), out.begin() + 6);
    ef_put_be16(&out[12], type);
    return out.data() + kEthHeader;
}

void build_arp(std::vector<uint8_t> &out, uint16_t op, const Mac &eth_dst, const Mac &own_mac,
               const IpAddr &own_ip, const Mac &target_mac, const IpAddr &target_ip)
{
    uint8_t *p = put_eth(out, kArpFrame, eth_dst, own_mac, kEtherArp);
    ef_put_be16(p, kArpHwEthernet);
    ef_put_be16(p + 2, kEtherIpv4);
    p[4] = 6;
    p[5] = 4;
    ef_put_be16(p + 6, op);
    std::copy(own_mac.begin(), own_mac.end(), p + 8);
    std::copy(own_ip.addr.begin(), own_ip.addr.begin() + 4, p + 14);
    std::copy(target_mac.begin(), target_mac.end(), p + 18);
    std::copy(target_ip.addr.begin(), target_ip.addr.begin() + 4, p + 24);
}

// IPv6 header and ICMPv6 body of a solicitation or advertisement; the
// caller has written the Ethernet header. Options are one link address.
void build_nd(uint8_t *ip, uint8_t type, uint32_t flags, const IpAddr &src, const IpAddr &dst,
              const IpAddr &target, const Mac *link, uint8_t option)
{
    const size_t body_len = kNdBody + (link != nullptr ? kNdLinkOption : 0);
    ef_put_be32(ip, 6u << 28);
    ef_put_be16(ip + 4, static_cast<uint16_t>(body_len));
    ip[6] = kProtoIcmpv6;
    ip[7] = kNdHopLimit;
    std::copy(src.addr.begin(), src.addr.end(), ip + 8);
    std::copy(dst.addr.begin(), dst.addr.end(), ip + 24);
    uint8_t *body = ip + kIpv6Header;
    body[0] = type;
    ef_put_be32(body + 4, flags);
    std::copy(target.addr.begin(), target.addr.end(), body + 8);
    if (link != nullptr) {
        body[kNdBody] = option;
        body[kNdBody + 1] = 1;  // in units of 8 bytes
        std::copy(link->begin(), link->end(), body + kNdBody + 2);
    }
    ef_put_be16(body + 2, icmpv6_checksum(src, dst, body, body_len));
}

// The link-layer address option of the wanted type among the options, or
// nothing; false when an option is malformed.
bool find_link_option(const uint8_t *opt, size_t len, uint8_t wanted, std::optional<Mac> &out)
{
    while (len > 0) {
        if (len < 2 || opt[1] == 0 || size_t{opt[1]} * 8 > len)
            return false;
        const size_t size = size_t{opt[1]} * 8;
        if (opt[0] == wanted && size >= 8)
            out = mac_at(opt + 2);
        opt += size;
        len -= size;
    }
    return true;
}

}  // namespace

std::optional<ArpMessage> parse_arp(const uint8_t *frame, size_t len)
{
    if (len < kArpFrame || ef_get_be16(frame + 12) != kEtherArp)
        return std::nullopt;
    const uint8_t *p = frame + kEthHeader;
    if (ef_get_be16(p) != kArpHwEthernet || ef_get_be16(p + 2) != kEtherIpv4 || p[4] != 6 || p[5] != 4)
        return std::nullopt;
    ArpMessage m;
    m.op = ef_get_be16(p + 6);
    if (m.op != kArpRequest && m.op != kArpReply)
        return std::nullopt;
    m.sender_mac = mac_at(p + 8);
    m.sender_ip = ip_at(AF_INET, p + 14);
    m.target_mac = mac_at(p + 18);
    m.target_ip = ip_at(AF_INET, p + 24);
    return m;
}

std::optional<NdMessage> parse_nd(const uint8_t *frame, size_t len)
{
    if (len < kEthHeader + kIpv6Header + kNdBody || ef_get_be16(frame + 12) != kEtherIpv6)
        return std::nullopt;
    const uint8_t *ip = frame + kEthHeader;
    const size_t payload = ef_get_be16(ip + 4);
    if (ip[0] >> 4 != 6 || ip[6] != kProtoIcmpv6 || ip[7] != kNdHopLimit || payload < kNdBody ||
        payload > len - kEthHeader - kIpv6Header)
        return std::nullopt;
    const uint8_t *body = ip + kIpv6Header;
    if ((body[0] != kNeighbourSolicit && body[0] != kNeighbourAdvert) || body[1] != 0)
        return std::nullopt;
    NdMessage m;
    m.type = body[0];
    m.eth_src = mac_at(frame + 6);
    m.src = ip_at(AF_INET6, ip + 8);
    m.dst = ip_at(AF_INET6, ip + 24);
    if (icmpv6_checksum(m.src, m.dst, body, payload) != 0)
        return std::nullopt;
    m.flags = ef_get_be32(body + 4);
    m.target = ip_at(AF_INET6, body + 8);
    const uint8_t wanted = m.type == kNeighbourSolicit ? kOptSourceLinkAddr : kOptTargetLinkAddr;
    if (!find_link_option(body + kNdBody, payload - kNdBody, wanted, m.link_addr))
        return std::nullopt;
    return m;
}

void build_ip_frame(std::vector<uint8_t> &out, const Mac &dst, const Mac &src, uint16_t type,
                    const uint8_t *packet, size_t len)
{
    uint8_t *p = put_eth(out, kEthHeader + len, dst, src, type);
    std::copy(packet, packet + len, p);
}

void build_arp_request(std::vector<uint8_t> &out, const Mac &own_mac, const IpAddr &sender,
                       const IpAddr &target)
{
    build_arp(out, kArpRequest, kBroadcastMac, own_mac, sender, Mac{}, target);
}

void build_arp_reply(std::vector<uint8_t> &out, const Mac &own_mac, const IpAddr &own_ip,
                     const Mac &asker_mac, const IpAddr &asker_ip)
{
    build_arp(out, kArpReply, asker_mac, own_mac, own_ip, asker_mac, asker_ip);
}

void build_ns(std::vector<uint8_t> &out, const Mac &own_mac, const IpAddr &src,
              const IpAddr &target)
{
    // The solicited-node group ff02::1:ffXX:XXXX and its Ethernet group
    // 33:33:ffXX:XXXX, from the target's last three bytes.
    IpAddr group;
    group.family = AF_INET6;
    group.addr = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0xff};
    std::copy(target.addr.begin() + 13, target.addr.end(), group.addr.begin() + 13);
    const Mac group_mac{0x33, 0x33, 0xff, target.addr[13], target.addr[14], target.addr[15]};
    const bool with_link = !src.unspecified();
    const size_t total = kNdFrame - (with_link ? 0 : kNdLinkOption);
    uint8_t *ip = put_eth(out, total, group_mac, own_mac, kEtherIpv6);
    build_nd(ip, kNeighbourSolicit, 0, src, group, target, with_link ? &own_mac : nullptr,
             kOptSourceLinkAddr);
}

void build_na(std::vector<uint8_t> &out, const Mac &own_mac, const Mac &eth_dst,
              const IpAddr &target, const IpAddr &dst, uint32_t flags)
{
    uint8_t *ip = put_eth(out, kNdFrame, eth_dst, own_mac, kEtherIpv6);
    build_nd(ip, kNeighbourAdvert, flags, target, dst, target, &own_mac, kOptTargetLinkAddr);
}

}  // namespace efhost::l3
