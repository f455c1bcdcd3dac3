// The outer headers of one VXLAN packet: VXLAN, UDP with its checksum and
// IPv4 or IPv6, pushed in that order into the buffer's headroom, and the
// buffer metadata rewritten for the L3 engine.
#include <cstddef>
#include <cstring>

#include "ef_byteorder.h"
#include "ef_csum.h"
#include "ef_wire.h"
#include "frame/trace/packet_dump.h"
#include "frame/trace/packet_trace.h"
#include "frame/transmit/transmit_private.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_tables.h"

using vxlan_ef::TraceGate;

namespace vxlan_ef {

namespace {

constexpr const char *kFunc = "vxlan_ef_encap_one_frag";

constexpr uint8_t kOuterFamilyV4 = 2;
constexpr uint8_t kOuterFamilyV6 = 3;
constexpr uint16_t kSportFloor = 0xBFFF;
constexpr uint8_t kTtl = 64;
constexpr uint8_t kHopLimit = 255;

constexpr uint64_t kFlagsCleared = EFMP_F_DST_SET | EFMP_F_L2_HDR_OWNED;
constexpr uint64_t kFlagsSet = EFMP_F_LOCAL | EFMP_F_VXLAN_ENCAP;

uint16_t udp_checksum(const uint8_t *sip, const uint8_t *dip, uint32_t addr_len,
                      const uint8_t *udp, uint32_t len)
{
    uint64_t s = ef_csum_accumulate(0, sip, addr_len);
    s = ef_csum_accumulate(s, dip, addr_len);
    const uint32_t fields =
        ef_get_be16(reinterpret_cast<const ef_udp_hdr *>(udp)->len) + EF_IPPROTO_UDP;
    return static_cast<uint16_t>(~ef_csum_add(ef_csum_finish(ef_csum_accumulate(s, udp, len)), fields));
}

// The traffic class to copy into the outer header: the whole inner TOS
// byte, ECN bits included, and only when copy-DSCP is on.
uint8_t inner_tos(const efmp_buff_t *buff, const vxlan_ef_vsd_t *vsd)
{
    if (!vsd->copy_dscp)
        return 0;
    const uint8_t *ip = buff->head + buff->l3_off;
    if (buff->pkt_type == EFMP_PKT_IPV4)
        return reinterpret_cast<const ef_ipv4_hdr *>(ip)->tos;
    if (buff->pkt_type == EFMP_PKT_IPV6)
        return static_cast<uint8_t>(ef_get_be32(ip) >> 20);
    return 0;
}

// The counter runs 49151..65535 and restarts at 49151, 0 included. Packet
// threads share it without a lock: two of them may stamp the same port,
// which receivers do not mind, so a plain load and store (not an atomic
// increment) is all it takes.
uint16_t next_sport(vxlan_ef_vsd_t *vsd)
{
    uint16_t port = static_cast<uint16_t>(load_relaxed(vsd->udp_sport) + 1);
    if (port < kSportFloor)
        port = kSportFloor;
    store_relaxed(vsd->udp_sport, port);
    return port;
}

// The IPv4 identification, shared the same way: packets leave with DF set,
// so a repeated value is harmless.
uint16_t next_ipv4_id(vxlan_ef_vsd_t *vsd)
{
    const uint16_t id = load_relaxed(vsd->ipv4_id);
    store_relaxed(vsd->ipv4_id, static_cast<uint16_t>(id + 1));
    return id;
}

void fill_vxlan(uint8_t *p, const vxlan_ef_tnl_addr_t *tnl)
{
    std::memset(p, 0, EF_VXLAN_HLEN);
    p[offsetof(ef_vxlan_hdr, flags)] = EF_VXLAN_FLAG_I;
    // The VNI and the reserved byte after it, written as one word.
    ef_put_be32(p + offsetof(ef_vxlan_hdr, vni), tnl->vni << 8);
}

// udp_len counts the UDP header and everything after it.
void fill_udp(uint8_t *p, vxlan_ef_vsd_t *vsd, const vxlan_ef_tnl_addr_t *tnl, uint32_t udp_len)
{
    auto *udp = reinterpret_cast<ef_udp_hdr *>(p);
    // The counter goes out in host order: receivers only need it to vary.
    const uint16_t sport = next_sport(vsd);
    std::memcpy(udp->sport, &sport, sizeof sport);
    ef_put_be16(udp->dport, load_relaxed(vsd->udp_port));
    ef_put_be16(udp->len, static_cast<uint16_t>(udp_len));
    ef_put_be16(udp->csum, 0);
    const bool v4 = tnl->family == VXLAN_EF_AF_INET;
    const uint16_t csum = v4 ? udp_checksum_v4(tnl->sip, tnl->dip, p, udp_len)
                             : udp_checksum_v6(tnl->sip, tnl->dip, p, udp_len);
    ef_put_be16(udp->csum, csum);
}

// total_len counts the IP header and everything after it.
void fill_ipv4(uint8_t *p, vxlan_ef_vsd_t *vsd, const vxlan_ef_tnl_addr_t *tnl, uint8_t tos,
               uint32_t total_len)
{
    auto *ip = reinterpret_cast<ef_ipv4_hdr *>(p);
    ip->ver_ihl = EF_IPV4_VER_IHL;
    ip->tos = tos;
    ef_put_be16(ip->total_len, static_cast<uint16_t>(total_len));
    ef_put_be16(ip->id, next_ipv4_id(vsd));
    ef_put_be16(ip->frag, EF_IPV4_DONT_FRAGMENT);
    ip->ttl = kTtl;
    ip->proto = EF_IPPROTO_UDP;
    ef_put_be16(ip->csum, 0);
    std::memcpy(ip->src, tnl->sip, sizeof ip->src);
    std::memcpy(ip->dst, tnl->dip, sizeof ip->dst);
    ef_put_be16(ip->csum, ipv4_header_checksum(p));
}

void fill_ipv6(uint8_t *p, const vxlan_ef_tnl_addr_t *tnl, uint8_t tos, uint32_t total_len)
{
    auto *ip = reinterpret_cast<ef_ipv6_hdr *>(p);
    ef_put_be32(ip->ver_tc_flow, uint32_t{EF_IPV6_VERSION} << 28 | static_cast<uint32_t>(tos) << 20);
    ef_put_be16(ip->payload_len, static_cast<uint16_t>(total_len - EF_IPV6_HLEN));
    ip->next_hdr = EF_IPPROTO_UDP;
    ip->hop_limit = kHopLimit;
    std::memcpy(ip->src, tnl->sip, sizeof ip->src);
    std::memcpy(ip->dst, tnl->dip, sizeof ip->dst);
}

bool push_vxlan(efmp_buff_t *buff, const vxlan_ef_tnl_addr_t *tnl)
{
    uint8_t *p = efmp_buff_push(buff, EF_VXLAN_HLEN);
    if (p == nullptr) {
        VXLAN_EF_TRACE_AS(buff, TraceGate::Encap, kFunc,
                          "VXLAN-EF-ENCAP: [vsd %d %s] efmp_buff_pull for vxlan header failed\n");
        return false;
    }
    fill_vxlan(p, tnl);
    return true;
}

bool push_udp(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, const vxlan_ef_tnl_addr_t *tnl)
{
    uint8_t *p = efmp_buff_push(buff, EF_UDP_HLEN);
    if (p == nullptr) {
        VXLAN_EF_TRACE_AS(buff, TraceGate::Encap, kFunc,
                          "VXLAN-EF-ENCAP: [vsd %d %s] efmp_buff_pull for udp header failed\n");
        return false;
    }
    fill_udp(p, vsd, tnl, buff->len);
    return true;
}

bool push_ipv4(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, const vxlan_ef_tnl_addr_t *tnl,
               uint8_t tos)
{
    uint8_t *p = efmp_buff_push(buff, EF_IPV4_HLEN);
    if (p == nullptr) {
        VXLAN_EF_TRACE_AS(buff, TraceGate::Encap, kFunc,
                          "VXLAN-EF-ENCAP: [vsd %d %s] efmp_buff_pull for ip header failed\n");
        return false;
    }
    fill_ipv4(p, vsd, tnl, tos, buff->len);
    return true;
}

bool push_ipv6(efmp_buff_t *buff, const vxlan_ef_tnl_addr_t *tnl, uint8_t tos)
{
    uint8_t *p = efmp_buff_push(buff, EF_IPV6_HLEN);
    if (p == nullptr) {
        VXLAN_EF_TRACE_AS(buff, TraceGate::Encap, kFunc,
                          "VXLAN-EF-ENCAP: [vsd %d %s] efmp_buff_pull for ipv6 header failed\n");
        return false;
    }
    fill_ipv6(p, tnl, tos, buff->len);
    return true;
}

// The buffer leaves as an IP packet of the tunnel's family, sent from the
// instance's L3 interface.
void rewrite_metadata(efmp_buff_t *buff, const vxlan_ef_vsd_t *vsd, bool v4, uint32_t mode)
{
    buff->flags &= ~kFlagsCleared;
    buff->flags |= kFlagsSet;
    if (mode == VXLAN_EF_ENCAP_MODE_CLEAR_NOT_FWD)
        buff->flags &= ~EFMP_F_BRG_NOT_FWD;
    buff->l3_src_intf = load_relaxed(vsd->intf_slot_other);
    buff->l3_word1 = 0;
    buff->l3_word2 = 0;
    buff->l2_len = 0;
    buff->l3_off = buff->data_off;
    buff->l4_off = 0;
    buff->module_code = 0;
    buff->pkt_type = v4 ? EFMP_PKT_IPV4 : EFMP_PKT_IPV6;
    buff->outer_family = v4 ? kOuterFamilyV4 : kOuterFamilyV6;
    buff->pid = vsd->user_pid;
    efmp_buff_set_vni(buff, 0);
}

}  // namespace

uint16_t udp_checksum_v4(const uint8_t *sip, const uint8_t *dip, const uint8_t *udp, uint32_t len)
{
    return udp_checksum(sip, dip, sizeof(ef_ipv4_hdr::src), udp, len);
}

uint16_t udp_checksum_v6(const uint8_t *sip, const uint8_t *dip, const uint8_t *udp, uint32_t len)
{
    return udp_checksum(sip, dip, sizeof(ef_ipv6_hdr::src), udp, len);
}

uint16_t ipv4_header_checksum(const uint8_t *hdr)
{
    return static_cast<uint16_t>(~ef_csum_sum(hdr, EF_IPV4_HLEN));
}

}  // namespace vxlan_ef

bool vxlan_ef_encap_one_frag(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, const vxlan_ef_tnl_addr_t *tnl,
                             uint32_t mode)
{
    using namespace vxlan_ef;
    const uint8_t tos = inner_tos(buff, vsd);
    const bool v4 = tnl->family == VXLAN_EF_AF_INET;
    // The UDP length and the IP length count in 16 bits (IPv4's including its
    // own header): a frame that would make a longer packet is not sent with
    // a wrapped length. Only a frame that cannot be fragmented gets here so.
    const uint32_t counted = buff->len + EF_VXLAN_HLEN + EF_UDP_HLEN + (v4 ? EF_IPV4_HLEN : 0);
    if (counted > UINT16_MAX)
        return false;
    const uint32_t ip_len = v4 ? EF_IPV4_HLEN : EF_IPV6_HLEN;
    const uint32_t outer_len = ip_len + EF_UDP_HLEN + EF_VXLAN_HLEN;
    if (uint8_t *p = efmp_buff_push(buff, outer_len)) {
        // The headroom holds all three headers: one push, filled innermost
        // first as the header-by-header path below does.
        fill_vxlan(p + ip_len + EF_UDP_HLEN, tnl);
        fill_udp(p + ip_len, vsd, tnl, buff->len - ip_len);
        if (v4)
            fill_ipv4(p, vsd, tnl, tos, buff->len);
        else
            fill_ipv6(p, tnl, tos, buff->len);
    } else {
        // Too little headroom: pushed one header at a time, so the trace
        // names the header that did not fit.
        if (!push_vxlan(buff, tnl) || !push_udp(buff, vsd, tnl))
            return false;
        if (v4 ? !push_ipv4(buff, vsd, tnl, tos) : !push_ipv6(buff, tnl, tos))
            return false;
    }
    rewrite_metadata(buff, vsd, v4, mode);
    if (trace_admit(buff, TraceGate::Encap))
        vxlan_ef_pkt_dump(buff, "patch-enc(vxlan)");
    return true;
}
