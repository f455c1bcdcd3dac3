// Fixture of the ARP and ND suppression tests: the forwarding tests'
// segment with the receive parsers of the ports and the uplink attached,
// the module's own suppression on for the VNI, and builders of ARP,
// neighbour-discovery and VXLAN frames. Checksums are computed here with a
// plain 16-bit sum, apart from the platform's own code, so that a test
// checks the platform's against an independent one.
//
//   host A 10.1.1.1 / 2001:db8:1::1 on P1 (VLAN 10 untagged)
//   host B 10.1.1.2 / 2001:db8:1::2 behind T1 (a remote binding when a test adds it)
//   uplink UP ifx 21: VXLAN from 10.0.0.1 (T1) to 192.0.2.1 arrives here
#pragma once

#include <arpa/inet.h>

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "ef_byteorder.h"
#include "ef_wire.h"
#include "efrt_pipeline.h"
#include "forward_fixture.h"
#include "suppress.h"
#include "vxlan_ef_frame.h"
#include "vxlan_ef_parser.h"

namespace vxtest {

using Bytes = std::vector<uint8_t>;
using Ip4 = std::array<uint8_t, 4>;
using Ip6 = std::array<uint8_t, 16>;

constexpr uint32_t kUplink = 21;
inline const uint8_t kHostC[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x03};

inline Ip4 v4(const char *text)
{
    Ip4 ip{};
    inet_pton(AF_INET, text, ip.data());
    return ip;
}

inline Ip6 v6(const char *text)
{
    Ip6 ip{};
    inet_pton(AF_INET6, text, ip.data());
    return ip;
}

inline efrt::MacAddr mac_of(const uint8_t *m) { return {m[0], m[1], m[2], m[3], m[4], m[5]}; }

inline efrt::NeighbourIp nip(const Ip4 &ip)
{
    efrt::NeighbourIp n;
    std::copy(ip.begin(), ip.end(), n.bytes.begin());
    return n;
}

inline efrt::NeighbourIp nip(const Ip6 &ip) { return efrt::NeighbourIp{true, ip}; }

inline void append(Bytes &out, const uint8_t *p, size_t n) { out.insert(out.end(), p, p + n); }

template <size_t N>
inline void append(Bytes &out, const std::array<uint8_t, N> &a)
{
    out.insert(out.end(), a.begin(), a.end());
}

inline void append16(Bytes &out, uint16_t v)
{
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
}

inline Bytes eth_header(const uint8_t *dst, const uint8_t *src, uint16_t type)
{
    Bytes f;
    append(f, dst, EF_ETH_ALEN);
    append(f, src, EF_ETH_ALEN);
    append16(f, type);
    return f;
}

// The frame with an 802.1Q tag after its addresses.
inline Bytes with_tag(Bytes f, uint16_t tci)
{
    Bytes tag;
    append16(tag, EF_ETHERTYPE_VLAN);
    append16(tag, tci);
    f.insert(f.begin() + EF_ETH_ADDRS_LEN, tag.begin(), tag.end());
    return f;
}

// An Ethernet/IPv4 ARP frame sent from sha.
inline Bytes arp_frame(uint16_t op, const uint8_t *sha, const Ip4 &spa, const uint8_t *tha, const Ip4 &tpa,
                       const uint8_t *eth_dst = kBcastMac)
{
    Bytes f = eth_header(eth_dst, sha, EF_ETHERTYPE_ARP);
    append16(f, EF_ARP_HW_ETHERNET);
    append16(f, EF_ETHERTYPE_IPV4);
    f.push_back(EF_ETH_ALEN);
    f.push_back(sizeof(ef_arp::sender_ip));
    append16(f, op);
    append(f, sha, EF_ETH_ALEN);
    append(f, spa);
    append(f, tha, EF_ETH_ALEN);
    append(f, tpa);
    return f;
}

inline Bytes arp_request(const uint8_t *sha, const Ip4 &spa, const Ip4 &tpa)
{
    static const uint8_t kZeroMac[EF_ETH_ALEN] = {};
    return arp_frame(EF_ARP_REQUEST, sha, spa, kZeroMac, tpa);
}

// The ones' complement of the ones' complement sum of 16-bit big-endian words.
inline uint16_t plain_checksum(const Bytes &data)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < data.size(); i += 2)
        sum += static_cast<uint32_t>(data[i] << 8 | (i + 1 < data.size() ? data[i + 1] : 0));
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

// The ICMPv6 checksum of msg under the pseudo-header of src and dst.
inline uint16_t icmpv6_sum(const Ip6 &src, const Ip6 &dst, const Bytes &msg)
{
    Bytes pseudo;
    append(pseudo, src);
    append(pseudo, dst);
    const uint32_t len = static_cast<uint32_t>(msg.size());
    for (int shift = 24; shift >= 0; shift -= 8)
        pseudo.push_back(static_cast<uint8_t>(len >> shift));
    pseudo.insert(pseudo.end(), {0, 0, 0, EF_IPPROTO_ICMPV6});
    pseudo.insert(pseudo.end(), msg.begin(), msg.end());
    return plain_checksum(pseudo);
}

// The body of a solicitation (flags 0) or advertisement, with a link-layer
// option of the given type when a MAC is given; checksum field zero.
inline Bytes nd_message(uint8_t type, uint8_t flags, const Ip6 &target, uint8_t option_type = 0,
                        const uint8_t *option_mac = nullptr)
{
    Bytes m{type, 0, 0, 0, flags, 0, 0, 0};
    append(m, target);
    if (option_mac != nullptr) {
        m.push_back(option_type);
        m.push_back(1);  // in units of the option's own length
        append(m, option_mac, EF_ETH_ALEN);
    }
    return m;
}

inline Bytes ns_message(const Ip6 &target, const uint8_t *source_mac)
{
    return nd_message(EF_ND_NEIGHBOUR_SOLICIT, 0, target, EF_ND_OPT_SOURCE_LINK_ADDR, source_mac);
}

inline Bytes na_message(uint8_t flags, const Ip6 &target, const uint8_t *target_mac)
{
    return nd_message(EF_ND_NEIGHBOUR_ADVERT, flags, target, EF_ND_OPT_TARGET_LINK_ADDR, target_mac);
}

// An IPv6 frame carrying msg as ICMPv6 with its checksum filled in.
inline Bytes ipv6_icmp_frame(const uint8_t *eth_dst, const uint8_t *eth_src, const Ip6 &src, const Ip6 &dst, Bytes msg,
                          uint8_t hop_limit = EF_ND_HOP_LIMIT)
{
    const uint16_t sum = icmpv6_sum(src, dst, msg);
    ef_put_be16(&msg[offsetof(ef_nd_msg, csum)], sum);
    Bytes f = eth_header(eth_dst, eth_src, EF_ETHERTYPE_IPV6);
    f.insert(f.end(), {EF_IPV6_VERSION << 4, 0, 0, 0});
    append16(f, static_cast<uint16_t>(msg.size()));
    f.push_back(EF_IPPROTO_ICMPV6);
    f.push_back(hop_limit);
    append(f, src);
    append(f, dst);
    f.insert(f.end(), msg.begin(), msg.end());
    return f;
}

// The solicited-node group of an address and its MAC.
inline Ip6 solicited_node(const Ip6 &target)
{
    Ip6 g = v6("ff02::1:ff00:0");
    std::copy(target.begin() + 13, target.end(), g.begin() + 13);
    return g;
}

inline std::array<uint8_t, 6> solicited_node_mac(const Ip6 &target)
{
    return {0x33, 0x33, 0xFF, target[13], target[14], target[15]};
}

// The inner frame in VXLAN (VNI 100) in UDP in IPv4 from src to dst.
inline Bytes vxlan_frame(const Bytes &inner, const char *src = "10.0.0.1", const char *dst = "192.0.2.1")
{
    static const uint8_t kUplinkMac[6] = {0x02, 0, 0, 0, 0, 0x21};
    static const uint8_t kNextHopMac[6] = {0x02, 0, 0, 0, 0, 0xFE};
    Bytes f = eth_header(kUplinkMac, kNextHopMac, EF_ETHERTYPE_IPV4);
    const uint16_t udp_len = static_cast<uint16_t>(EF_UDP_HLEN + EF_VXLAN_HLEN + inner.size());
    f.insert(f.end(), {EF_IPV4_VER_IHL, 0});
    append16(f, static_cast<uint16_t>(EF_IPV4_HLEN + udp_len));
    f.insert(f.end(), {0, 0, 0, 0, 64, EF_IPPROTO_UDP, 0, 0});
    append(f, v4(src));
    append(f, v4(dst));
    append16(f, 49152);
    append16(f, EF_VXLAN_PORT);
    append16(f, udp_len);
    append16(f, 0);
    f.insert(f.end(), {EF_VXLAN_FLAG_I, 0, 0, 0, 0, 0, static_cast<uint8_t>(kVni), 0});
    f.insert(f.end(), inner.begin(), inner.end());
    return f;
}

class SuppressTest : public ForwardTest {
protected:
    // The segment with the receive parsers of P1, P2 and the uplink and T1's
    // tunnel parser attached, P1 in VLAN 10 untagged, and the module's own
    // ARP and ND suppression on for the VNI.
    void start_suppression()
    {
        start_segment();
        add_intf(kUplink, kPortType, "UP");
        for (uint32_t ifx : {kP1, kP2, kUplink})
            ASSERT_EQ(ef_eth_reg_parser(ifx, reinterpret_cast<void *>(&vxlan_ef_parser_service), 0, 5), 0);
        ASSERT_EQ(vxlan_ef_reg_tunnel_parser(intf(kT1)), 0);
        efrt::bridge_set_pvid(kP1, 10);
        deliver_tlvs({vni_arp_suppress(kVni, 1), vni_nd_suppress(kVni, 1)});
        take_logs();
    }

    static efrt::PipeOutcome receive(uint32_t ifx, const Bytes &f)
    {
        efmp_buff_t *b = efrt::pipeline_frame(ifx, f.data(), f.size());
        EXPECT_NE(b, nullptr);
        return b == nullptr ? efrt::PipeOutcome::Dropped : efrt::pipeline_run(b);
    }

    // The frames sent on the ports P1 and P2 as a destination (not as VLAN
    // members) since the last call: what an answer is. The floods' sends
    // (VLAN members, sub-interfaces) are taken too and forgotten.
    static std::vector<efrt::PortSend> answers()
    {
        std::vector<efrt::PortSend> out;
        for (efrt::PortSend &s : efrt::port_take_sends())
            if (!s.vlan_flood && (s.ifindex == kP1 || s.ifindex == kP2))
                out.push_back(std::move(s));
        return out;
    }

    static size_t tunnel_copies()
    {
        std::vector<efmp_buff_t *> out = efrt::l3_take();
        for (efmp_buff_t *b : out)
            efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
        return out.size();
    }
};

}  // namespace vxtest
