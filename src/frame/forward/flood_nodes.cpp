// The destination nodes of a broadcast copy and its hand-over to the
// platform's broadcast engine.
#include <cstring>

#include "frame/forward/forward_private.h"
#include "vxlan_ef_forward.h"
#include "vxlan_ef_tables.h"

using vxlan_ef::TraceGate;
using namespace vxlan_ef::fwd;

int vxlan_ef_bcast_node_create(efmp_buff_t *copy, vxlan_ef_vsd_t *vsd, uint32_t subif,
                               uint16_t vid, const vxlan_ef_adj_t *tunnel, uint32_t kind,
                               uint32_t *count)
{
    (void)vsd;
    efmp_mcast_node_t *node = efmp_mcast_alloc_nodes(1);
    if (node == nullptr) {
        VXLAN_EF_TRACE(copy, TraceGate::Forward,
                       "VXLAN-EF-FORWARD: [vsd %d %s] alloc mcast_node failed.\n");
        return -1;
    }
    std::memset(node, 0, sizeof *node);
    node->kind = kind;
    node->vid = vid;
    if (tunnel != nullptr) {
        node->family = static_cast<uint8_t>(tunnel->dip.family);
        std::memcpy(node->sip, tunnel->sip.addr, sizeof node->sip);
        std::memcpy(node->dip, tunnel->dip.addr, sizeof node->dip);
        // The tunnel interface travels with the addresses for the L3 hand-off.
        node->adj_words[0] = tunnel->ifx;
    } else {
        node->ifindex = subif;
    }
    // Pushed at the head: the list holds the members in reverse walk order.
    node->next = copy->mcast_nodes;
    copy->mcast_nodes = node;
    ++*count;
    return 0;
}

void vxlan_ef_bcast_send(efmp_buff_t *copy, vxlan_ef_vsd_t *vsd, uint32_t count, const char *kind)
{
    (void)vsd;
    if (count == 0) {
        VXLAN_EF_TRACE(copy, TraceGate::Forward,
                       "VXLAN-EF-FORWARD: [vsd %d %s] Needn't to %s broadcast.\n", kind);
        efmp_mcast_free_nodes(copy->mcast_nodes);
        copy->mcast_nodes = nullptr;
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, copy);
        return;
    }
    VXLAN_EF_TRACE(copy, TraceGate::Forward, "VXLAN-EF-FORWARD: [vsd %d %s] Broadcast %s now.\n",
                   kind);
    copy->flags |= EFMP_F_BCAST_COPY;
    copy->priv_flags |= EFMP_PF_BCAST_COPY;
    const uint32_t vni = efmp_buff_vni(copy);
    // Once accepted the copy belongs to the engine: its last line is decided first.
    const bool traced = vxlan_ef::trace_admit(copy, TraceGate::Forward);
    if (efmp_bcast_proc(copy, 0) == 1) {
        VXLAN_EF_TRACE_DECIDED(traced, "vxlan_ef_bcast_send",
                               "VXLAN-EF-FORWARD: [vsd %d %s] clone pkt_copy: %p VNI[%u] %s "
                               "broadcast failed, drop.\n",
                               static_cast<void *>(copy), vni, kind);
        efmp_mcast_free_nodes(copy->mcast_nodes);
        copy->mcast_nodes = nullptr;
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, copy);
        return;
    }
    VXLAN_EF_TRACE_DECIDED(traced, "vxlan_ef_bcast_send",
                           "VXLAN-EF-FORWARD: [vsd %d %s] clone pkt_copy: %p VNI[%u] %s broadcast "
                           "success.\n",
                           static_cast<void *>(copy), vni, kind);
}
