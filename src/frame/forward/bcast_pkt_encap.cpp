// The broadcast engine's per-node callback: a tunnel node's copy is
// encapsulated and handed to the L3 engine, a VLAN node's copy is flooded in
// that VLAN, a sub-interface node's copy is pointed at the sub-interface for
// its encapsulation hook.
#include "frame/counters/drop_count.h"
#include "frame/forward/forward_private.h"
#include "frame/trace/packet_dump.h"
#include "frame/transmit/transmit_private.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_forward.h"

using vxlan_ef::TraceGate;
namespace fwd = vxlan_ef::fwd;

namespace {

// What one branch did: its EF code and whether the buffer's lines are printed
// (decided while the buffer still existed).
struct Outcome {
    int code;
    bool traced;
};

bool traced(efmp_buff_t *buff) { return (buff->flags & EFMP_F_TRACE) != 0; }

Outcome ot_bcast(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, const efmp_mcast_node_t *node,
                 uint32_t vni)
{
    vxlan_ef_tnl_addr_t tnl{};
    tnl.vni = vni;
    tnl.family = node->family;
    std::memcpy(tnl.sip, node->sip, sizeof tnl.sip);
    std::memcpy(tnl.dip, node->dip, sizeof tnl.dip);
    tnl.ifx = static_cast<uint32_t>(node->adj_words[0]);
    const uint32_t cleared = EFMP_TAG_VSD_MASK | EFMP_TAG_VID_MASK;
    efmp_buff_set_tag_word(buff, efmp_buff_tag_word(buff) & ~cleared);
    VXLAN_EF_TRACE_AS(buff, TraceGate::Encap, "vxlan_ef_ot_bcast_pkt_encap",
                      "VXLAN-EF-ENCAP: [vsd %d %s] pkt: %p VNI[%d] of ot broadcast encap.\n",
                      static_cast<void *>(buff), static_cast<int>(vni));
    const bool was_traced = traced(buff);
    const int code = vxlan_ef::encap_and_hand_off(buff, vsd, &tnl, VXLAN_EF_ENCAP_MODE_TUNNEL,
                                                  "vxlan_ef_ot_bcast_pkt_encap",
                                                  vxlan_ef::FlowDir::FloodTx);
    return {code, was_traced};
}

// The frame did not come from a port of this VLAN when it came from the
// device or from a tunnel: then no port is left out of the flood.
bool keep_source_port(const efmp_buff_t *buff, const vxlan_ef_vsd_t *vsd)
{
    return fwd::from_device(buff, vsd) || fwd::is_tunnel(buff->src_intf);
}

Outcome vlan_bcast(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, const efmp_mcast_node_t *node,
                   uint32_t vni)
{
    const uint32_t vid = node->vid;
    VXLAN_EF_TRACE_AS(buff, TraceGate::Encap, "vxlan_ef_vlan_bcast_pkt_encap",
                      "VXLAN-EF-ENCAP: [vsd %d %s] pkt: %p VNI[%u] of VID[%u] broadcast send.\n",
                      static_cast<void *>(buff), vni, vid);
    if (keep_source_port(buff, vsd)) {
        buff->flags |= EFMP_F_NOT_EX_SRC;
        VXLAN_EF_TRACE_AS(buff, TraceGate::Encap, "vxlan_ef_vlan_bcast_pkt_encap",
                          "VXLAN-EF-ENCAP: [vsd %d %s] pkt: %p Broadcast this packet, NOT_EX_SRC "
                          "be set\n",
                          static_cast<void *>(buff));
    }
    efmp_buff_set_tag_vid(buff, node->vid);
    efmp_buff_set_vni(buff, 0);
    buff->flags |= EFMP_F_BCAST_COPY;
    if (vxlan_ef::trace_admit(buff, TraceGate::Encap))
        vxlan_ef_pkt_dump(buff, "vlan-bcast(encap)");
    const bool was_traced = traced(buff);
    if (efmp_bcast_proc(buff, 0) == 1) {
        VXLAN_EF_DROP_TRACE_AS(BroadcastFailed, buff, TraceGate::Encap, "vxlan_ef_vlan_bcast_pkt_encap",
                          "VXLAN-EF-ENCAP: [vsd %d %s] pkt: %p VNI[%u] VID[%u] broadcast failed, "
                          "drop.\n",
                          static_cast<void *>(buff), vni, vid);
        return {EF_Drop, was_traced};
    }
    VXLAN_EF_TRACE_DECIDED(was_traced, "vxlan_ef_vlan_bcast_pkt_encap",
                           "VXLAN-EF-ENCAP: [vsd %d %s] pkt: %p VNI[%u] VID[%u] broadcast "
                           "success.\n",
                           static_cast<void *>(buff), vni, vid);
    return {EF_Lost, was_traced};
}

Outcome subif_bcast(efmp_buff_t *buff, const efmp_mcast_node_t *node, uint32_t vni)
{
    lsm_intfcb_t *subif = lsm_get_intfcb(node->ifindex);
    if (subif == nullptr) {
        VXLAN_EF_DROP_TRACE_AS(NoSubInterface, buff, TraceGate::Encap, "vxlan_ef_subif_bcast_pkt_encap",
                          "VXLAN-EF-ENCAP: [vsd %d %s] SUB-INTF(%u) is not exist.\n",
                          node->ifindex);
        return {EF_Drop, traced(buff)};
    }
    buff->dst_intf = subif;
    efmp_buff_set_vni(buff, 0);
    buff->flags |= EFMP_F_DST_SET;
    VXLAN_EF_TRACE_AS(buff, TraceGate::Encap, "vxlan_ef_subif_bcast_pkt_encap",
                      "VXLAN-EF-ENCAP: [vsd %d %s] pkt: %p VNI[%u] of dst_intf[%s] broadcast "
                      "send.\n",
                      static_cast<void *>(buff), vni, fwd::name_of(subif).text);
    buff->outer_family = fwd::kSubifEngine;
    buff->module_code = fwd::kSubifModule;
    if (vxlan_ef::trace_admit(buff, TraceGate::Encap))
        vxlan_ef_pkt_dump(buff, "subif-bcast(encap)");
    return {EF_Normal, traced(buff)};
}

}  // namespace

int vxlan_ef_bcast_pkt_encap(efmp_buff_t **slot, efmp_mcast_node_t *node)
{
    efmp_buff_t *buff = slot != nullptr ? *slot : nullptr;
    if (buff == nullptr || node == nullptr || buff->src_intf == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::NoInstance);
        return EF_Drop;
    }
    fwd::clear_tag_vsd(buff);
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::NoInstance);
        return EF_Drop;
    }
    const uint32_t vni = efmp_buff_vni(buff);
    Outcome out{EF_Drop, traced(buff)};
    switch (node->kind) {
    case VXLAN_EF_BCAST_NODE_OT:
        out = ot_bcast(buff, vsd, node, vni);
        break;
    case VXLAN_EF_BCAST_NODE_VLAN:
        out = vlan_bcast(buff, vsd, node, vni);
        break;
    case VXLAN_EF_BCAST_NODE_SUBIF:
        out = subif_bcast(buff, node, vni);
        break;
    default:
        vxlan_ef::count_drop(vxlan_ef::Drop::UnknownFloodNode);
        break;
    }
    if (out.code == EF_Lost)
        *slot = nullptr;
    VXLAN_EF_TRACE_DECIDED(out.traced, "vxlan_ef_bcast_pkt_encap",
                           "VXLAN-EF-ENCAP: [vsd %d %s] pkt: %p, ret: %s.\n",
                           static_cast<void *>(buff), fwd::result_name(out.code));
    return out.code;
}
