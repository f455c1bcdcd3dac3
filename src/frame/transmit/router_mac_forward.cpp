// Routed packets whose next hop lies behind an overlay router interface: the
// inner Ethernet header is written towards the next hop's router MAC and the
// packet is encapsulated in the L3 VNI towards the next hop's VTEP. Also the
// answer whether overlay router interfaces stay silent on ICMP errors.
#include <arpa/inet.h>

#include "ef_byteorder.h"
#include "ef_wire.h"
#include "frame/counters/drop_count.h"
#include "frame/trace/packet_trace.h"
#include "frame/transmit/transmit_private.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_tables.h"

using vxlan_ef::TraceGate;

namespace {

constexpr const char *kFunc = "vxlan_ef_router_mac_forward";
constexpr size_t kAddrText = 46;

// One text buffer for the whole module: the line is a debug aid and a
// garbled address under concurrent tracing is accepted.
char g_nexthop_text[kAddrText];

const char *nexthop_text(const vxlan_ef_ip_addr_t *nh)
{
    std::memset(g_nexthop_text, 0, sizeof g_nexthop_text);
    if (nh->family == VXLAN_EF_AF_INET)
        inet_ntop(AF_INET, nh->addr, g_nexthop_text, sizeof g_nexthop_text);
    else if (nh->family == VXLAN_EF_AF_INET6)
        inet_ntop(AF_INET6, nh->addr, g_nexthop_text, sizeof g_nexthop_text);
    else
        g_nexthop_text[0] = '-';
    return g_nexthop_text;
}

void trace_arrival(efmp_buff_t *buff, const lsm_intfcb_t *dst, const vxlan_ef_ip_addr_t *nh,
                   const uint8_t *mac)
{
    if (!vxlan_ef::trace_admit(buff, TraceGate::Encap))
        return;
    printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2,
                      "VXLAN-EF-ENCAP: [vsd %d %s] pkt: %p receive pkt to Router's MAC forward "
                      "dest-intf %s, dip %s, mac %02x%02x.%02x%02x.%02x%02x\n",
                      g_vxlan_vsd->id, kFunc, static_cast<void *>(buff), dst->name,
                      nexthop_text(nh), mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

bool has_l2_header(const efmp_buff_t *buff)
{
    return buff->l2_len != 0 && buff->l3_off != buff->data_off;
}

// Writes the inner Ethernet header, pushing room for it when the packet has
// none. false when the headroom does not allow it.
bool write_eth_header(efmp_buff_t *buff, const lsm_intfcb_t *dst, const uint8_t *mac)
{
    uint8_t *p = buff->head + buff->data_off;
    if (!has_l2_header(buff)) {
        VXLAN_EF_TRACE_AS(buff, TraceGate::Encap, kFunc,
                          "VXLAN-EF-ENCAP: [vsd %d %s] try to l2hdr replace, l2_len:%u, "
                          "l2_offset: %u, ip_offset: %u\n",
                          static_cast<uint32_t>(buff->l2_len), static_cast<uint32_t>(buff->data_off),
                          static_cast<uint32_t>(buff->l3_off));
        p = efmp_buff_push(buff, EF_ETH_HLEN);
        if (p == nullptr) {
            VXLAN_EF_TRACE_AS(buff, TraceGate::Encap, kFunc,
                              "VXLAN-EF-ENCAP: [vsd %d %s] efmp_buff_push for Ethernet header "
                              "failed\n");
            return false;
        }
        buff->l2_len = EF_ETH_HLEN;
    }
    auto *eth = reinterpret_cast<ef_eth_hdr *>(p);
    std::memset(eth, 0, EF_ETH_HLEN);
    std::memcpy(eth->dst, mac, sizeof eth->dst);
    std::memcpy(eth->src, dst->mac, sizeof eth->src);
    ef_put_be16(eth->type,
                   buff->pkt_type == EFMP_PKT_IPV4 ? EF_ETHERTYPE_IPV4 : EF_ETHERTYPE_IPV6);
    buff->l4_off = 0;
    buff->vxlan_mtu = static_cast<uint16_t>(dst->mtu);
    return true;
}

// Finds the tunnel towards the next hop in the interface's L3 VNI; false
// (traced where the drop deserves a line) when there is none.
bool find_tunnel(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, const lsm_intfcb_t *dst,
                 const vxlan_ef_ip_addr_t *nh, vxlan_ef_tnl_addr_t *tnl)
{
    vxlan_ef::ReadLock lock(vsd);
    const vxlan_ef_intf_t *router = vxlan_ef_intf_get(vsd, dst->ifindex, LSM_IF_TYPE_OVERLAY_ROUTER);
    if (router == nullptr || router->vni == 0) {
        VXLAN_EF_DROP_TRACE_AS(NoRouterInterface, buff, TraceGate::Encap, kFunc,
                          "VXLAN-EF-ENCAP: [vsd %d %s] pkt: %p can't find orintf or vni by %s so "
                          "drop\n",
                          static_cast<void *>(buff), dst->name);
        return false;
    }
    vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, router->vni);
    if (entry == nullptr) {
        VXLAN_EF_DROP_TRACE_AS(UnknownVni, buff, TraceGate::Encap, kFunc,
                          "VXLAN-EF-ENCAP: [vsd %d %s] pkt: %p can't find vxlan entry by vni %u so "
                          "drop\n",
                          static_cast<void *>(buff), router->vni);
        return false;
    }
    efmp_buff_set_vni(buff, router->vni);
    const vxlan_ef_adj_t *adj = vxlan_ef_adj_get(vsd, nh, 0, entry);
    if (adj == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::TunnelWithoutVni);
        return false;
    }
    vxlan_ef::fill_tnl_addr(tnl, adj, router->vni);
    return true;
}

}  // namespace

int vxlan_ef_router_mac_forward(efmp_buff_t *buff, lsm_intfcb_t *dst_intf,
                                const vxlan_ef_ip_addr_t *next_hop, const uint8_t *router_mac)
{
    if (buff == nullptr || dst_intf == nullptr || next_hop == nullptr || router_mac == nullptr ||
        dst_intf->type != LSM_IF_TYPE_OVERLAY_ROUTER || (buff->flags & EFMP_F_NO_OVERLAY_ROUTE)) {
        vxlan_ef::count_drop(buff == nullptr || dst_intf == nullptr || next_hop == nullptr ||
                                     router_mac == nullptr
                                 ? vxlan_ef::Drop::NoInstance
                                 : vxlan_ef::Drop::NotOverlayRoute);
        return EF_Drop;
    }
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::NoInstance);
        return EF_Drop;
    }
    trace_arrival(buff, dst_intf, next_hop, router_mac);
    if (buff->pkt_type != EFMP_PKT_IPV4 && buff->pkt_type != EFMP_PKT_IPV6) {
        VXLAN_EF_DROP_TRACE(NotIp, buff, TraceGate::Encap,
                       "VXLAN-EF-ENCAP: [vsd %d %s] pkt: %p pktType %u is not ipv4 or ipv6 so "
                       "drop\n",
                       static_cast<void *>(buff), static_cast<uint32_t>(buff->pkt_type));
        return EF_Drop;
    }
    if (vxlan_ef::load_relaxed(vsd->entry_count) == 0) {
        VXLAN_EF_DROP_TRACE(NoVniConfigured, buff, TraceGate::Encap,
                       "VXLAN-EF-ENCAP: [vsd %d %s] pkt: %p no vxlan create in this vsd so drop\n",
                       static_cast<void *>(buff));
        return EF_Drop;
    }
    if (!write_eth_header(buff, dst_intf, router_mac)) {
        vxlan_ef::count_drop(vxlan_ef::Drop::RouterHeaderFailed);
        return EF_Drop;
    }
    vxlan_ef_tnl_addr_t tnl{};
    if (!find_tunnel(buff, vsd, dst_intf, next_hop, &tnl))
        return EF_Drop;
    efmp_buff_set_tag_vid(buff, 0);
    return vxlan_ef::encap_and_hand_off(buff, vsd, &tnl, VXLAN_EF_ENCAP_MODE_TUNNEL, kFunc);
}

uint8_t vxlan_ef_or_no_icmp_service(void) { return vxlan_ef::load_relaxed(g_vxlan_ef_master.or_no_icmp); }
