// The unicast branch of the forwarding decision: for a frame whose
// destination MAC is a single station, route it through the overlay router,
// drop it, ask for a flood, or bridge it to the one port the bridge learnt.
// It only sets the buffer's destination; it makes no copy and writes no
// header, and the buffer always stays with the caller.
#include <cstring>

#include "ef_bridge.h"
#include "ef_wire.h"
#include "frame/counters/drop_count.h"
#include "frame/forward/forward_private.h"
#include "vxlan_ef_forward.h"
#include "vxlan_ef_tables.h"

using vxlan_ef::TraceGate;
using namespace vxlan_ef::fwd;

#define UCAST_TRACE(buff, fmt, ...) \
    VXLAN_EF_TRACE_AS(buff, TraceGate::Forward, "vxlan_ef_ucast", fmt, ##__VA_ARGS__)
// The same line for a drop, counted under its reason.
#define UCAST_DROP(reason, buff, fmt, ...) \
    VXLAN_EF_DROP_TRACE_AS(reason, buff, TraceGate::Forward, "vxlan_ef_ucast", fmt, ##__VA_ARGS__)

namespace {

uint32_t src_ifindex(const efmp_buff_t *buff)
{
    return buff->src_intf != nullptr ? buff->src_intf->ifindex : 0;
}

// The device's own MAC for this VNI: its router interface's, or the anycast
// MAC when both the entry and the device enable it.
bool router_mac_hit(const uint8_t *dmac, const vxlan_ef_vsd_t *vsd, const vxlan_ef_entry_t *entry,
                    lsm_intfcb_t *router)
{
    if (router != nullptr && std::memcmp(dmac, router->mac, EF_ETH_ALEN) == 0)
        return true;
    return entry->anycast && vsd->anycast_mac_valid &&
           std::memcmp(dmac, vsd->anycast_mac, EF_ETH_ALEN) == 0;
}

// Routed frames go to the switch engine through the 4094 slot with the
// router interface as their source; the receiving interface's index is kept.
void route_through(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, lsm_intfcb_t *router)
{
    buff->src_ifx = src_ifindex(buff);
    if (router != nullptr)
        buff->src_intf = router;
    buff->dst_intf = vxlan_ef::load_relaxed(vsd->intf_slot_4094);
    buff->flags |= EFMP_F_SWITCH_ENGINE;
}

// Looks the MAC up under the lookup VNI, then under the frame's own VNI when
// that differs.
int lookup_mac(ef_bridge_mac_lookup_fn lookup, const vxlan_ef_vsd_t *vsd, uint32_t lookup_vni,
               uint32_t vni, const uint8_t *dmac, ef_bridge_mac_out_t *out)
{
    int r = lookup(vsd->id, EF_BRIDGE_KEY_VNI | lookup_vni, dmac, out);
    if (r == EF_BRIDGE_MAC_NOT_FOUND && vni != lookup_vni)
        r = lookup(vsd->id, EF_BRIDGE_KEY_VNI | vni, dmac, out);
    return r;
}

// The split-horizon, peer-link and protection rules between the frame's
// source and the learnt destination; true (logged) when the frame must go.
bool refused_between(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, const vxlan_ef_entry_t *entry,
                     const lsm_intfcb_t *dst)
{
    const lsm_intfcb_t *src = buff->src_intf;
    if (dst == src) {
        UCAST_DROP(SplitHorizon, buff, "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p Dest eql src, drop pkt\n",
                    static_cast<void *>(buff));
        return true;
    }
    if (src != nullptr && src->ifindex == vsd->peerlink_ifx && is_tunnel(dst)) {
        UCAST_DROP(SplitHorizon, buff,
                    "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p src-intf (ifx=%d) is peer-link and "
                    "dst-intf  (ifx=%d) is overlaytunnel, so pkt should NOT be forward, drop pkt\n",
                    static_cast<void *>(buff), static_cast<int>(src->ifindex),
                    static_cast<int>(dst->ifindex));
        return true;
    }
    if (is_tunnel(src) && is_tunnel(dst) && !vxlan_ef_intf_is_outside_center(vsd, src->ifindex) &&
        !vxlan_ef_intf_is_outside_center(vsd, dst->ifindex)) {
        UCAST_DROP(SplitHorizon, buff,
                    "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p src and dest eql to overlaytunnel and "
                    "not set outside center, drop pkt\n",
                    static_cast<void *>(buff));
        return true;
    }
    // A frame with no source interface did not come over a tunnel either, so
    // a protected VNI holds it back like any other frame from a local port.
    if (entry->switch_proteched && !is_local(buff) && !is_tunnel(src) && !is_tunnel(dst) &&
        dst->type != LSM_IF_TYPE_OVERLAY_ROUTER) {
        UCAST_DROP(SwitchProtected, buff,
                    "VXLAN-EF-FORWARD: [vsd %d %s] pkt %p vni %u entry set the switch protected "
                    "(drop).\n",
                    static_cast<void *>(buff), entry->vni);
        return true;
    }
    return false;
}

int bridge_to_tunnel(efmp_buff_t *buff, lsm_intfcb_t *dst)
{
    if (!dst->link_up) {
        UCAST_DROP(LinkDown, buff,
                    "VXLAN-EF-FORWARD: [vsd %d %s] pkt %p: dst_intf %s link down, so needn't to "
                    "forward on this port (drop)\n",
                    static_cast<void *>(buff), name_of(dst).text);
        return EF_Drop;
    }
    buff->dst_intf = dst;
    buff->src_ifx = src_ifindex(buff);
    UCAST_TRACE(buff, "VXLAN-EF-FORWARD: [vsd %d %s] pkt %p find dst intf: %s by dst-mac.\n",
                static_cast<void *>(buff), name_of(dst).text);
    return EF_Normal;
}

int bridge_to_port(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, lsm_intfcb_t *dst, uint16_t vid)
{
    buff->dst_intf = dst;
    buff->src_ifx = src_ifindex(buff);
    UCAST_TRACE(buff, "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p update pkt vid %u\n",
                static_cast<void *>(buff), static_cast<uint32_t>(vid));
    efmp_buff_set_tag_vid(buff, vid);
    if (dst->type == LSM_IF_TYPE_OVERLAY_ROUTER) {
        buff->src_intf = dst;
        buff->dst_intf = vxlan_ef::load_relaxed(vsd->intf_slot_4094);
        buff->flags |= EFMP_F_SWITCH_ENGINE;
        UCAST_TRACE(buff, "VXLAN-EF-FORWARD: [vsd %d %s] pkt %p hit(2) OR, SWITCH-ENGINE.\n",
                    static_cast<void *>(buff));
    } else {
        UCAST_TRACE(buff, "VXLAN-EF-FORWARD: [vsd %d %s] pkt %p find dst intf: %s by dst-mac.\n",
                    static_cast<void *>(buff), name_of(dst).text);
    }
    return EF_Normal;
}

}  // namespace

int vxlan_ef_ucast(efmp_buff_t *buff, const uint8_t *dmac, uint32_t vni, vxlan_ef_vsd_t *vsd)
{
    if (buff == nullptr || dmac == nullptr || vsd == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::NoInstance);
        return EF_Drop;
    }
    vxlan_ef_entry_t *entry = vxlan_ef_manage_vxlan_get(vsd, vni);
    if (entry == nullptr) {
        UCAST_DROP(UnknownVni, buff, "VXLAN-EF-FORWARD: [vsd %d %s] pkt %p: vxlan entry is not exist, vni: %u\n",
                    static_cast<void *>(buff), vni);
        return EF_Drop;
    }
    // MACs of a segment are learnt under its managing entry's VNI, except for
    // frames the device sends itself.
    const uint32_t lookup_vni = from_device(buff, vsd) ? vni : entry->vni;

    lsm_intfcb_t *router = entry->router_ifx != 0 ? lsm_get_intfcb(entry->router_ifx) : nullptr;
    if (router_mac_hit(dmac, vsd, entry, router)) {
        route_through(buff, vsd, router);
        UCAST_TRACE(buff, "VXLAN-EF-FORWARD: [vsd %d %s] pkt %p hit(1) OR, SWITCH-ENGINE.\n",
                    static_cast<void *>(buff));
        return EF_Normal;
    }
    if (arp_suppressed(buff, vsd, entry)) {
        UCAST_DROP(ArpSuppressed, buff,
                    "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, is arp pkt and arp_suppress enable so "
                    "return Drop\n",
                    static_cast<void *>(buff));
        return EF_Drop;
    }
    if (nd_suppressed(buff, vsd, entry)) {
        UCAST_DROP(NdSuppressed, buff,
                    "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, is nd pkt and nd_suppress enable so "
                    "return Drop\n",
                    static_cast<void *>(buff));
        return EF_Drop;
    }
    // Read once: the bridge may withdraw the service between a check and a
    // second read.
    auto lookup = reinterpret_cast<ef_bridge_mac_lookup_fn>(vxlan_ef::load_relaxed(vxlan_ef_bridge_mac_lookup));
    if (lookup == nullptr)
        return EF_Broadcast;
    ef_bridge_mac_out_t out{};
    const int found = lookup_mac(lookup, vsd, lookup_vni, vni, dmac, &out);
    if (found == EF_BRIDGE_MAC_NOT_FOUND) {
        UCAST_TRACE(buff,
                    "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p search l2 dst-port by dest-mac failed, "
                    "broadcast.\n",
                    static_cast<void *>(buff));
        return EF_Broadcast;
    }
    if (found == EF_BRIDGE_MAC_FILTER) {
        UCAST_DROP(FilteredMac, buff,
                    "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p dst-mac matches filtering-mac, drop.\n",
                    static_cast<void *>(buff));
        return EF_Drop;
    }
    lsm_intfcb_t *dst = lsm_get_intfcb(out.ifindex);
    if (dst == nullptr)
        return EF_Broadcast;
    if (refused_between(buff, vsd, entry, dst))
        return EF_Drop;
    if (is_tunnel(dst))
        return bridge_to_tunnel(buff, dst);
    return bridge_to_port(buff, vsd, dst, out.vid);
}
