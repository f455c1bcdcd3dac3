// VXLAN decapsulation on a parser interface: the outer header check (IP, UDP
// port, I flag, VNI), the tunnel lookup by the packet's addresses, removal of
// the outer headers, the inner tag check and the marking of the inner frame
// as received on the tunnel with its VNI.
#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "frame/counters/drop_count.h"
#include "frame/counters/flow_count.h"
#include "ef_byteorder.h"
#include "ef_wire.h"
#include "frame/receive/receive_private.h"
#include "frame/trace/packet_dump.h"
#include "vxlan_ef.h"
#include "vxlan_ef_parser.h"
#include "vxlan_ef_tables.h"

namespace vxlan_ef {

namespace {

constexpr uint32_t kAddrBufLen = 46;

// Where the outer headers of each family lie. The IPv4 header is taken as 20
// bytes and the IPv6 header without extension headers, as VTEPs send them:
// options and extensions are deliberately not honoured, so such a packet
// almost always fails the checks and is taken as a local frame.
struct OuterLayout {
    uint16_t eth_type;
    uint32_t family;
    uint32_t proto_off;  // IP protocol or next-header byte
    uint32_t src_off;
    uint32_t dst_off;
    uint32_t addr_len;
    uint32_t udp_off;
    const char *not_udp;
};

constexpr OuterLayout kIpv4Layout{EF_ETHERTYPE_IPV4,
                                  VXLAN_EF_AF_INET,
                                  EF_ETH_HLEN + offsetof(ef_ipv4_hdr, proto),
                                  EF_ETH_HLEN + offsetof(ef_ipv4_hdr, src),
                                  EF_ETH_HLEN + offsetof(ef_ipv4_hdr, dst),
                                  sizeof(ef_ipv4_hdr::src),
                                  EF_ETH_HLEN + EF_IPV4_HLEN,
                                  "VXLAN-EF-PARSER: [vsd %d %s] pkt %p: %u not UDP-PROTOCOL.\n"};
constexpr OuterLayout kIpv6Layout{EF_ETHERTYPE_IPV6,
                                  VXLAN_EF_AF_INET6,
                                  EF_ETH_HLEN + offsetof(ef_ipv6_hdr, next_hdr),
                                  EF_ETH_HLEN + offsetof(ef_ipv6_hdr, src),
                                  EF_ETH_HLEN + offsetof(ef_ipv6_hdr, dst),
                                  sizeof(ef_ipv6_hdr::src),
                                  EF_ETH_HLEN + EF_IPV6_HLEN,
                                  "VXLAN-EF-PARSER: [vsd %d %s] pkt %p: %u not UDP-PROTOCOL(ipv6).\n"};

// A frame that passed the header check.
struct VxlanFrame {
    const OuterLayout *layout;
    uint32_t vni;
};

#define HDR_TRACE(buff, fmt, ...) \
    VXLAN_EF_TRACE_AS(buff, TraceGate::Parser, "vxlan_ef_vxlan_header_check", fmt, ##__VA_ARGS__)
#define DECAP_TRACE(buff, fmt, ...) \
    VXLAN_EF_TRACE_AS(buff, TraceGate::Parser, "vxlan_ef_vxlan_parser", fmt, ##__VA_ARGS__)

const OuterLayout *outer_layout(efmp_buff_t *buff, uint16_t type)
{
    if (type == kIpv4Layout.eth_type)
        return &kIpv4Layout;
    if (type == kIpv6Layout.eth_type)
        return &kIpv6Layout;
    HDR_TRACE(buff, "VXLAN-EF-PARSER: [vsd %d %s] pkt %p: protocol(0x%04x) is not IP-PROTOCOL.\n",
              static_cast<void *>(buff), type);
    return nullptr;
}

// The checks read the stored bytes, not only the frame's length: a frame
// too short for its headers is told apart later, when they are removed.
bool header_check(efmp_buff_t *buff, const vxlan_ef_vsd_t *vsd, VxlanFrame &out)
{
    const uint8_t *f = frame_of(buff);
    const uint32_t stored = stored_bytes(buff);
    if (stored < EF_ETH_HLEN)
        return false;
    const OuterLayout *layout = outer_layout(buff, ef_get_be16(f + EF_ETH_TYPE_OFFSET));
    if (layout == nullptr || stored < layout->udp_off + EF_UDP_HLEN + EF_VXLAN_HLEN)
        return false;
    if (f[layout->proto_off] != EF_IPPROTO_UDP) {
        HDR_TRACE(buff, layout->not_udp, static_cast<void *>(buff), f[layout->proto_off]);
        return false;
    }
    const uint8_t *udp = f + layout->udp_off;
    const uint16_t dport = ef_get_be16(reinterpret_cast<const ef_udp_hdr *>(udp)->dport);
    const uint16_t our_port = load_relaxed(vsd->udp_port);
    if (dport != our_port) {
        HDR_TRACE(buff, "VXLAN-EF-PARSER: [vsd %d %s] pkt %p: udp-dport %u != %u\n",
                  static_cast<void *>(buff), dport, our_port);
        return false;
    }
    const auto *vxlan = reinterpret_cast<const ef_vxlan_hdr *>(udp + EF_UDP_HLEN);
    if ((vxlan->flags & EF_VXLAN_FLAG_I) == 0) {
        HDR_TRACE(buff, "VXLAN-EF-PARSER: [vsd %d %s] pkt %p: flag_i is not 1, 0x%02x\n",
                  static_cast<void *>(buff), vxlan->flags);
        return false;
    }
    // The VNI and the reserved byte after it, read as one word.
    const uint32_t vni = ef_get_be32(udp + EF_UDP_HLEN + offsetof(ef_vxlan_hdr, vni)) >> 8;
    if (vni == 0) {
        HDR_TRACE(buff, "VXLAN-EF-PARSER: [vsd %d %s] pkt %p: vni is error, vni: %u\n",
                  static_cast<void *>(buff), vni);
        return false;
    }
    out = VxlanFrame{layout, vni};
    return true;
}

// The packet's source and destination as table addresses.
void packet_addresses(efmp_buff_t *buff, const OuterLayout &layout, vxlan_ef_ip_addr_t &src,
                      vxlan_ef_ip_addr_t &dst)
{
    const uint8_t *f = frame_of(buff);
    src = vxlan_ef_ip_addr_t{layout.family, {}};
    dst = vxlan_ef_ip_addr_t{layout.family, {}};
    // Constant lengths, so the copies are a move or two each rather than a
    // library call.
    if (layout.addr_len == kIpv4Layout.addr_len) {
        std::memcpy(src.addr, f + kIpv4Layout.src_off, kIpv4Layout.addr_len);
        std::memcpy(dst.addr, f + kIpv4Layout.dst_off, kIpv4Layout.addr_len);
    } else {
        std::memcpy(src.addr, f + kIpv6Layout.src_off, kIpv6Layout.addr_len);
        std::memcpy(dst.addr, f + kIpv6Layout.dst_off, kIpv6Layout.addr_len);
    }
}

void format_addr(const vxlan_ef_ip_addr_t &ip, char (&text)[kAddrBufLen])
{
    if (ip.family == VXLAN_EF_AF_INET)
        inet_ntop(AF_INET, ip.addr, text, sizeof text);
    else if (ip.family == VXLAN_EF_AF_INET6)
        inet_ntop(AF_INET6, ip.addr, text, sizeof text);
    else
        std::snprintf(text, sizeof text, "-");
}

bool vid_valid(uint16_t tci)
{
    const uint16_t vid = tci & EFMP_TAG_VID_MASK;
    return vid >= 1 && vid <= kVidMax;
}

// Up to two inner tags must carry VLAN ids 1 to 4094; they stay in the frame.
bool inner_tags_valid(efmp_buff_t *buff)
{
    const uint8_t *f = frame_of(buff);
    for (uint32_t at = EF_ETH_TYPE_OFFSET;
         at + EF_VLAN_TAG_LEN <= buff->len && ef_get_be16(f + at) == EF_ETHERTYPE_VLAN; at += EF_VLAN_TAG_LEN) {
        const uint16_t tci = ef_get_be16(reinterpret_cast<const ef_vlan_tag *>(f + at)->tci);
        if (!vid_valid(tci)) {
            VXLAN_EF_DROP_TRACE_AS(BadInnerTag, buff, TraceGate::Parser, "vxlan_ef_vxlan_parser",
                        "VXLAN-EF-PARSER: [vsd %d %s] pkt %p: the inner tag of the vxlan packet "
                        "is abnormal[vid: %u], drop.\n",
                        static_cast<void *>(buff), tci & EFMP_TAG_VID_MASK);
            return false;
        }
        if (at > EF_ETH_TYPE_OFFSET)
            break;
    }
    return true;
}

// The inner frame now arrives on the tunnel, in the packet's VNI.
void mark_decapsulated(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, uint32_t vni, lsm_intfcb_t *tunnel)
{
    efmp_buff_or_vni(buff, vni);
    count_flow(FlowDir::Rx, vni, tunnel->ifindex, buff->len);
    DECAP_TRACE(buff, "VXLAN-EF-PARSER: [vsd %d %s] pkt %p: remove vxlan-header.\n",
                static_cast<void *>(buff));
    set_tag_vsd(buff, vsd->id);
    efmp_buff_set_tag_vid(buff, 0);
    buff->src_intf = tunnel;
    buff->src_ifx = tunnel->ifindex;
    buff->flags |= EFMP_F_VXLAN_DECAP;
    if (trace_admit(buff, TraceGate::Parser))
        vxlan_ef_pkt_dump(buff, "patch-parser(vxlan)");
}

}  // namespace

DecapResult vxlan_decap(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd)
{
    VxlanFrame vx{};
    if (!header_check(buff, vsd, vx))
        return DecapResult::NotVxlan;
    vxlan_ef_ip_addr_t src{};
    vxlan_ef_ip_addr_t dst{};
    packet_addresses(buff, *vx.layout, src, dst);
    uint32_t vni = vx.vni;
    lsm_intfcb_t *tunnel = nullptr;
    bool learn = false;
    {
        ReadLock lock(vsd);
        vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, vni);
        if (entry == nullptr) {
            DECAP_TRACE(buff, "VXLAN-EF-PARSER: [vsd %d %s] pkt: %p vxlan %u is not exist\n",
                        static_cast<void *>(buff), vni);
            return DecapResult::Done;
        }
        if (vxlan_ef::load_relaxed(g_vxlan_ef_master.l2vni_mapping) && entry->map_vni_b != 0)
            vni = entry->map_vni_b;
        // The tunnel's source is the packet's destination.
        tunnel = vxlan_ef_tunnel_get(reinterpret_cast<void *>(static_cast<intptr_t>(vsd->id)),
                                     entry, &dst, &src);
        // Asked while the lock is held anyway; used only once the frame is
        // decapsulated.
        learn = tunnel != nullptr && soft_forwarding() &&
                vxlan_ef_check_tnl_mac_learn(vsd, tunnel->ifindex) != 0;
    }
    if (tunnel == nullptr) {
        char text[kAddrBufLen] = {};
        format_addr(dst, text);
        DECAP_TRACE(buff,
                    "VXLAN-EF-PARSER: [vsd %d %s] pkt %p: fail to find tunnel(sip) with packet's "
                    "dip(%s), so needn't to process vxlan-pkt\n",
                    static_cast<void *>(buff), text);
        return DecapResult::Done;
    }
    if (efmp_buff_pull(buff, vx.layout->udp_off + EF_UDP_HLEN + EF_VXLAN_HLEN) == nullptr) {
        DECAP_TRACE(buff, "VXLAN-EF-PARSER: [vsd %d %s] pkt %p: efmp_buff_pull failed\n",
                    static_cast<void *>(buff));
        return DecapResult::NotVxlan;
    }
    if (!inner_tags_valid(buff))
        return DecapResult::Drop;
    mark_decapsulated(buff, vsd, vni, tunnel);
    if (learn)
        vxlan_ef_learn_xmac(buff, vsd, vni, 0, tunnel);
    return DecapResult::Done;
}

}  // namespace vxlan_ef
