// Flooding: whether a broadcast, unknown-unicast or multicast frame of a VXLAN
// segment may be flooded at all (ARP/ND suppression, protected VNIs, split
// horizon, the MLAG peer-link), and one copy per member class of its VNI
// (tunnels, sub-interfaces, VLANs), each with its list of destination nodes
// for the platform's broadcast engine. The incoming buffer is never consumed
// here; the caller holds the instance's read lock.
#include "frame/counters/drop_count.h"
#include "frame/forward/forward_private.h"
#include "vxlan_ef_forward.h"
#include "vxlan_ef_tables.h"

using vxlan_ef::TraceGate;
using namespace vxlan_ef::fwd;

namespace {

// Calls visit with every record linked into head through its member field.
#define FOR_EACH_MEMBER(head, type, member, visit)                         \
    for (list_head *n_ = (head)->next; n_ != (head); n_ = n_->next)        \
        visit(ef_container_of(n_, type, member))

bool outside_center(vxlan_ef_vsd_t *vsd, uint32_t ifx)
{
    return vxlan_ef_intf_is_outside_center(vsd, ifx) != 0;
}

// The router interface of the entry, when the device routes this VNI.
bool has_router(const vxlan_ef_entry_t *entry)
{
    return entry->router_ifx != 0 && lsm_get_intfcb(entry->router_ifx) != nullptr;
}

// Frames that also concern the device: suppressed ones stay with the CPU
// only; the others are flooded and go to the CPU as well, except local ARP
// and ND frames.
int bcast_and_cpu(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry)
{
    VXLAN_EF_TRACE_AS(buff, TraceGate::Forward, "vxlan_ef_bcast",
                      "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p Broadcast or multicast dst mac, "
                      "broadcast the packet and also send the packet to cpu.\n",
                      static_cast<void *>(buff));
    if (arp_suppressed(buff, vsd, entry)) {
        VXLAN_EF_TRACE_AS(buff, TraceGate::Forward, "vxlan_ef_bcast",
                          "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, is arp pkt and arp_suppress "
                          "enable so return Reserve\n",
                          static_cast<void *>(buff));
        return EF_Reserve;
    }
    if (nd_suppressed(buff, vsd, entry)) {
        VXLAN_EF_TRACE_AS(buff, TraceGate::Forward, "vxlan_ef_bcast",
                          "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, is nd pkt and nd_suppress enable "
                          "so return Reserve\n",
                          static_cast<void *>(buff));
        return EF_Reserve;
    }
    const int r = vxlan_ef_vni_bcast(buff, vsd);
    if (r != EF_Broadcast)
        return r;
    const char *local_kind = !is_local(buff) ? nullptr : is_arp(buff) ? "arp" : is_nd(buff) ? "nd" : nullptr;
    if (local_kind != nullptr) {
        VXLAN_EF_DROP_TRACE_AS(LocalNeighbourBroadcast, buff, TraceGate::Forward, "vxlan_ef_bcast",
                          "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, is local %s pkt after Broadcast "
                          "return Drop\n",
                          static_cast<void *>(buff), local_kind);
        return EF_Drop;
    }
    VXLAN_EF_TRACE_AS(buff, TraceGate::Forward, "vxlan_ef_bcast",
                      "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, is not local pkt after Broadcast "
                      "return Reserve\n",
                      static_cast<void *>(buff));
    return EF_Reserve;
}

int bcast_only(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry)
{
    if (arp_suppressed(buff, vsd, entry)) {
        VXLAN_EF_DROP_TRACE_AS(ArpSuppressed, buff, TraceGate::Forward, "vxlan_ef_bcast",
                          "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, is arp pkt and arp_suppress "
                          "enable so return Drop\n",
                          static_cast<void *>(buff));
        return EF_Drop;
    }
    if (nd_suppressed(buff, vsd, entry)) {
        VXLAN_EF_DROP_TRACE_AS(NdSuppressed, buff, TraceGate::Forward, "vxlan_ef_bcast",
                          "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, is nd pkt and nd_suppress enable "
                          "so return Drop\n",
                          static_cast<void *>(buff));
        return EF_Drop;
    }
    VXLAN_EF_TRACE_AS(buff, TraceGate::Forward, "vxlan_ef_bcast",
                      "VXLAN-EF-FORWARD: [vsd %d %s] pkt:%p Broadcast or multicast dst mac, "
                      "broadcast the packet.\n",
                      static_cast<void *>(buff));
    return vxlan_ef_vni_bcast(buff, vsd);
}

}  // namespace

int vxlan_ef_bcast(efmp_buff_t *buff, uint32_t vni, vxlan_ef_vsd_t *vsd, int also_to_cpu)
{
    if (buff == nullptr || vsd == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::NoInstance);
        return EF_Drop;
    }
    vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, vni);
    if (entry == nullptr) {
        VXLAN_EF_DROP_TRACE(UnknownVni, buff, TraceGate::Forward,
                       "VXLAN-EF-FORWARD: [vsd %d %s] pkt %p: vxlan entry is not exist, vni: %u\n",
                       static_cast<void *>(buff), vni);
        return EF_Drop;
    }
    if (also_to_cpu && !from_device(buff, vsd) && has_router(entry))
        return bcast_and_cpu(buff, vsd, entry);
    return bcast_only(buff, vsd, entry);
}

int vxlan_ef_vni_bcast(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd)
{
    if (buff == nullptr || vsd == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::NoInstance);
        return EF_Drop;
    }
    if (buff->flags & EFMP_F_BRG_NOT_FWD) {
        VXLAN_EF_TRACE(buff, TraceGate::Forward,
                       "VXLAN-EF-FORWARD: [vsd %d %s] pkt:%p BRG_NOT_FWD be set, no to vni bcast "
                       "return Broadcast.\n",
                       static_cast<void *>(buff));
        return EF_Broadcast;
    }
    vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, efmp_buff_vni(buff));
    if (entry == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::UnknownVni);
        return EF_Drop;
    }
    const lsm_intfcb_t *src = buff->src_intf;
    const bool centre = vxlan_ef::load_relaxed(g_vxlan_ef_master.outside_center) != 0;
    const bool sourceless_split = src == nullptr && !centre;
    // Split horizon: nothing goes back over the peer-link's tunnels, and
    // without the outside centre nothing goes from one tunnel to another.
    const bool skip_tunnels = (src != nullptr && src->ifindex == vsd->peerlink_ifx) ||
                              (!centre && is_tunnel(src)) || sourceless_split;
    if (!skip_tunnels)
        vxlan_ef_tunnel_bcast(buff, vsd, entry);
    if (!sourceless_split && entry->switch_proteched && !is_local(buff) && src != nullptr &&
        !is_tunnel(src)) {
        VXLAN_EF_DROP_TRACE(SwitchProtected, buff, TraceGate::Forward,
                       "VXLAN-EF-FORWARD: [vsd %d %s] pkt %p vni %u entry set the switch "
                       "protected (drop).\n",
                       static_cast<void *>(buff), entry->vni);
        return EF_Drop;
    }
    vxlan_ef_subif_bcast(buff, vsd, entry);
    vxlan_ef_vlan_bcast(buff, vsd, entry);
    return EF_Broadcast;
}

void vxlan_ef_tunnel_bcast(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry)
{
    if (buff == nullptr || vsd == nullptr || entry == nullptr)
        return;
    const lsm_intfcb_t *src = buff->src_intf;
    const bool from_tunnel = is_tunnel(src);
    const bool src_outside = from_tunnel && outside_center(vsd, src->ifindex);
    efmp_buff_t *copy = copy_frame(buff);
    if (copy == nullptr) {
        VXLAN_EF_TRACE(buff, TraceGate::Forward,
                       "VXLAN-EF-FORWARD: [vsd %d %s] efmp_buff_clone FAIL: No buff left.\n");
        return;
    }
    uint32_t count = 0;
    auto visit = [&](vxlan_ef_adj_t *adj) {
        // Outside tunnels reach only centre tunnels, and the reverse.
        if (from_tunnel && outside_center(vsd, adj->ifx) == src_outside)
            return;
        const lsm_intfcb_t *intf = lsm_get_intfcb(adj->ifx);
        if (intf == nullptr) {
            VXLAN_EF_TRACE_AS(buff, TraceGate::Forward, "vxlan_ef_tunnel_bcast",
                              "VXLAN-EF-FORWARD: [vsd %d %s] pkt %p: can't find dst_intf by ifx = "
                           "%u, so needn't to bcast on this port\n",
                           static_cast<void *>(buff), adj->ifx);
            return;
        }
        if (!intf->link_up) {
            VXLAN_EF_TRACE_AS(buff, TraceGate::Forward, "vxlan_ef_tunnel_bcast",
                              "VXLAN-EF-FORWARD: [vsd %d %s] pkt %p: dst_intf %s link down, so "
                           "needn't to bcast on this port\n",
                           static_cast<void *>(buff), name_of(intf).text);
            return;
        }
        vxlan_ef_bcast_node_create(copy, vsd, 0, 0, adj, VXLAN_EF_BCAST_NODE_OT, &count);
    };
    FOR_EACH_MEMBER(&entry->adj_list, vxlan_ef_adj_t, entry_node, visit);
    vxlan_ef_bcast_send(copy, vsd, count, "ot");
}

void vxlan_ef_subif_bcast(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry)
{
    if (buff == nullptr || vsd == nullptr || entry == nullptr)
        return;
    efmp_buff_t *copy = copy_frame(buff);
    if (copy == nullptr) {
        VXLAN_EF_TRACE(buff, TraceGate::Forward,
                       "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p efmp_buff_clone FAIL: No buff "
                       "left.\n",
                       static_cast<void *>(buff));
        return;
    }
    uint32_t count = 0;
    auto visit = [&](vxlan_ef_subif_t *s) {
        const lsm_intfcb_t *intf = lsm_get_intfcb(s->ifx);
        if (intf == nullptr) {
            VXLAN_EF_TRACE_AS(buff, TraceGate::Forward, "vxlan_ef_subif_bcast",
                              "VXLAN-EF-FORWARD: [vsd %d %s] Fail to find subifx %u.\n", s->ifx);
            return;
        }
        if (intf == buff->src_intf)
            return;
        vxlan_ef_bcast_node_create(copy, vsd, s->ifx, 0, nullptr, VXLAN_EF_BCAST_NODE_SUBIF,
                                   &count);
    };
    FOR_EACH_MEMBER(&entry->subif_list, vxlan_ef_subif_t, vni_node, visit);
    vxlan_ef_bcast_send(copy, vsd, count, "subif");
}

int vxlan_ef_vlan_bcast(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry)
{
    // Without the instance (after exit) there is no entry to flood in.
    if (buff == nullptr || vsd == nullptr || entry == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::NoInstance);
        return EF_Drop;
    }
    efmp_buff_t *copy = copy_frame(buff);
    if (copy == nullptr) {
        VXLAN_EF_TRACE(buff, TraceGate::Forward,
                       "VXLAN-EF-FORWARD: [vsd %d %s] efmp_buff_clone FAIL: No buff left.\n");
        return EF_Broadcast;
    }
    uint32_t count = 0;
    // The source port is left out by the platform, unless NOT_EX_SRC says not to.
    auto visit = [&](vxlan_ef_vid_t *v) {
        vxlan_ef_bcast_node_create(copy, vsd, 0, v->vid, nullptr, VXLAN_EF_BCAST_NODE_VLAN, &count);
    };
    FOR_EACH_MEMBER(&entry->vid_list, vxlan_ef_vid_t, node, visit);
    vxlan_ef_bcast_send(copy, vsd, count, "vlan");
    return EF_Broadcast;
}
