// Builders and parsers of ARP and neighbour-discovery frames.
#include "l3_arp_nd.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstddef>

#include "ef_byteorder.h"
#include "ef_wire.h"

namespace efhost::l3 {
namespace {

constexpr size_t kArpFrame = EF_ETH_HLEN + EF_ARP_LEN;
constexpr size_t kNdFrame = EF_ETH_HLEN + EF_IPV6_HLEN + EF_ND_LEN + EF_ND_LINK_ADDR_OPT_LEN;
// Options are counted in units of the link-layer address option's length,
// and each starts with its type and that count.
constexpr size_t kNdOptionHeader = offsetof(ef_nd_link_addr_opt, mac);
constexpr size_t kIpv4AddrLen = sizeof(ef_arp::sender_ip);

Mac mac_at(const uint8_t *p)
{
    Mac m;
    std::copy(p, p + m.size(), m.begin());
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
    auto *eth = reinterpret_cast<ef_eth_hdr *>(out.data());
    std::copy(dst.begin(), dst.end(), eth->dst);
    std::copy(src.begin(), src.end(), eth->src);
    ef_put_be16(eth->type, type);
    return out.data() + EF_ETH_HLEN;
}

void build_arp(std::vector<uint8_t> &out, uint16_t op, const Mac &eth_dst, const Mac &own_mac,
               const IpAddr &own_ip, const Mac &target_mac, const IpAddr &target_ip)
{
    auto *arp = reinterpret_cast<ef_arp *>(put_eth(out, kArpFrame, eth_dst, own_mac, EF_ETHERTYPE_ARP));
    ef_put_be16(arp->hw_type, EF_ARP_HW_ETHERNET);
    ef_put_be16(arp->proto_type, EF_ETHERTYPE_IPV4);
    arp->hw_len = EF_ETH_ALEN;
    arp->proto_len = kIpv4AddrLen;
    ef_put_be16(arp->op, op);
    std::copy(own_mac.begin(), own_mac.end(), arp->sender_mac);
    std::copy(own_ip.addr.begin(), own_ip.addr.begin() + kIpv4AddrLen, arp->sender_ip);
    std::copy(target_mac.begin(), target_mac.end(), arp->target_mac);
    std::copy(target_ip.addr.begin(), target_ip.addr.begin() + kIpv4AddrLen, arp->target_ip);
}

// IPv6 header and ICMPv6 body of a solicitation or advertisement; the
// caller has written the Ethernet header. Options are one link address.
void build_nd(uint8_t *ip, uint8_t type, uint32_t flags, const IpAddr &src, const IpAddr &dst,
              const IpAddr &target, const Mac *link, uint8_t option)
{
    const size_t body_len = EF_ND_LEN + (link != nullptr ? EF_ND_LINK_ADDR_OPT_LEN : 0);
    auto *h = reinterpret_cast<ef_ipv6_hdr *>(ip);
    ef_put_be32(h->ver_tc_flow, uint32_t{EF_IPV6_VERSION} << 28);
    ef_put_be16(h->payload_len, static_cast<uint16_t>(body_len));
    h->next_hdr = EF_IPPROTO_ICMPV6;
    h->hop_limit = EF_ND_HOP_LIMIT;
    std::copy(src.addr.begin(), src.addr.end(), h->src);
    std::copy(dst.addr.begin(), dst.addr.end(), h->dst);
    uint8_t *body = ip + EF_IPV6_HLEN;
    auto *nd = reinterpret_cast<ef_nd_msg *>(body);
    nd->type = type;
    ef_put_be32(nd->flags, flags);
    std::copy(target.addr.begin(), target.addr.end(), nd->target);
    if (link != nullptr) {
        auto *opt = reinterpret_cast<ef_nd_link_addr_opt *>(body + EF_ND_LEN);
        opt->type = option;
        opt->units = EF_ND_LINK_ADDR_OPT_LEN / EF_ND_OPT_UNIT;
        std::copy(link->begin(), link->end(), opt->mac);
    }
    ef_put_be16(nd->csum, icmpv6_checksum(src, dst, body, body_len));
}

// The link-layer address option of the wanted type among the options, or
// nothing; false when an option is malformed.
bool find_link_option(const uint8_t *opt, size_t len, uint8_t wanted, std::optional<Mac> &out)
{
    while (len > 0) {
        const auto *o = reinterpret_cast<const ef_nd_link_addr_opt *>(opt);
        if (len < kNdOptionHeader || o->units == 0 || size_t{o->units} * EF_ND_OPT_UNIT > len)
            return false;
        const size_t size = size_t{o->units} * EF_ND_OPT_UNIT;
        if (o->type == wanted && size >= EF_ND_LINK_ADDR_OPT_LEN)
            out = mac_at(o->mac);
        opt += size;
        len -= size;
    }
    return true;
}

}  // namespace

std::optional<ArpMessage> parse_arp(const uint8_t *frame, size_t len)
{
    const auto *eth = reinterpret_cast<const ef_eth_hdr *>(frame);
    if (len < kArpFrame || ef_get_be16(eth->type) != EF_ETHERTYPE_ARP)
        return std::nullopt;
    const auto *arp = reinterpret_cast<const ef_arp *>(frame + EF_ETH_HLEN);
    if (ef_get_be16(arp->hw_type) != EF_ARP_HW_ETHERNET || ef_get_be16(arp->proto_type) != EF_ETHERTYPE_IPV4 ||
        arp->hw_len != EF_ETH_ALEN || arp->proto_len != kIpv4AddrLen)
        return std::nullopt;
    ArpMessage m;
    m.op = ef_get_be16(arp->op);
    if (m.op != EF_ARP_REQUEST && m.op != EF_ARP_REPLY)
        return std::nullopt;
    m.sender_mac = mac_at(arp->sender_mac);
    m.sender_ip = ip_at(AF_INET, arp->sender_ip);
    m.target_mac = mac_at(arp->target_mac);
    m.target_ip = ip_at(AF_INET, arp->target_ip);
    return m;
}

std::optional<NdMessage> parse_nd(const uint8_t *frame, size_t len)
{
    const auto *eth = reinterpret_cast<const ef_eth_hdr *>(frame);
    if (len < EF_ETH_HLEN + EF_IPV6_HLEN + EF_ND_LEN || ef_get_be16(eth->type) != EF_ETHERTYPE_IPV6)
        return std::nullopt;
    const auto *ip = reinterpret_cast<const ef_ipv6_hdr *>(frame + EF_ETH_HLEN);
    const size_t payload = ef_get_be16(ip->payload_len);
    if (ip->ver_tc_flow[0] >> 4 != EF_IPV6_VERSION || ip->next_hdr != EF_IPPROTO_ICMPV6 ||
        ip->hop_limit != EF_ND_HOP_LIMIT || payload < EF_ND_LEN || payload > len - EF_ETH_HLEN - EF_IPV6_HLEN)
        return std::nullopt;
    const uint8_t *body = frame + EF_ETH_HLEN + EF_IPV6_HLEN;
    const auto *nd = reinterpret_cast<const ef_nd_msg *>(body);
    if ((nd->type != EF_ND_NEIGHBOUR_SOLICIT && nd->type != EF_ND_NEIGHBOUR_ADVERT) || nd->code != 0)
        return std::nullopt;
    NdMessage m;
    m.type = nd->type;
    m.eth_src = mac_at(eth->src);
    m.src = ip_at(AF_INET6, ip->src);
    m.dst = ip_at(AF_INET6, ip->dst);
    if (icmpv6_checksum(m.src, m.dst, body, payload) != 0)
        return std::nullopt;
    m.flags = ef_get_be32(nd->flags);
    m.target = ip_at(AF_INET6, nd->target);
    const uint8_t wanted =
        m.type == EF_ND_NEIGHBOUR_SOLICIT ? EF_ND_OPT_SOURCE_LINK_ADDR : EF_ND_OPT_TARGET_LINK_ADDR;
    if (!find_link_option(body + EF_ND_LEN, payload - EF_ND_LEN, wanted, m.link_addr))
        return std::nullopt;
    return m;
}

void build_ip_frame(std::vector<uint8_t> &out, const Mac &dst, const Mac &src, uint16_t type,
                    const uint8_t *packet, size_t len)
{
    uint8_t *p = put_eth(out, EF_ETH_HLEN + len, dst, src, type);
    std::copy(packet, packet + len, p);
}

void build_arp_request(std::vector<uint8_t> &out, const Mac &own_mac, const IpAddr &sender,
                       const IpAddr &target)
{
    build_arp(out, EF_ARP_REQUEST, kBroadcastMac, own_mac, sender, Mac{}, target);
}

void build_arp_reply(std::vector<uint8_t> &out, const Mac &own_mac, const IpAddr &own_ip,
                     const Mac &asker_mac, const IpAddr &asker_ip)
{
    build_arp(out, EF_ARP_REPLY, asker_mac, own_mac, own_ip, asker_mac, asker_ip);
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
    const size_t total = kNdFrame - (with_link ? 0 : EF_ND_LINK_ADDR_OPT_LEN);
    uint8_t *ip = put_eth(out, total, group_mac, own_mac, EF_ETHERTYPE_IPV6);
    build_nd(ip, EF_ND_NEIGHBOUR_SOLICIT, 0, src, group, target, with_link ? &own_mac : nullptr,
             EF_ND_OPT_SOURCE_LINK_ADDR);
}

void build_na(std::vector<uint8_t> &out, const Mac &own_mac, const Mac &eth_dst,
              const IpAddr &target, const IpAddr &dst, uint32_t flags)
{
    uint8_t *ip = put_eth(out, kNdFrame, eth_dst, own_mac, EF_ETHERTYPE_IPV6);
    build_nd(ip, EF_ND_NEIGHBOUR_ADVERT, flags, target, dst, target, &own_mac, EF_ND_OPT_TARGET_LINK_ADDR);
}

}  // namespace efhost::l3
