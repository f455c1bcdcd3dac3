// Encapsulation of a frame sent to an overlay tunnel: the tunnel address is
// copied from the VTEP adjacency, the inner packet is fragmented when the
// outer packet would exceed the tunnel MTU, and the result goes to the L3
// engine.
#include "ef_wire.h"
#include "frame/counters/drop_count.h"
#include "frame/counters/flow_count.h"
#include "frame/trace/packet_trace.h"
#include "frame/transmit/l3_handoff.h"
#include "frame/transmit/transmit_private.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_tables.h"

using vxlan_ef::TraceGate;

namespace {

constexpr uint32_t kInnerIpHeader = EF_IPV4_HLEN;  // counted so whatever the inner family

bool ipv4_tunnel(const vxlan_ef_tnl_addr_t *tnl) { return tnl->family == VXLAN_EF_AF_INET; }

// The tunnel address this thread found last, with what it was found for.
// Frames of one flow follow each other, so the next one usually asks the
// same again; while the tables have not changed, the copy is the answer.
struct LastTunnel {
    const vxlan_ef_vsd_t *vsd;
    const lsm_intfcb_t *dst;
    uint32_t dst_ifx;
    uint32_t vni;
    uint64_t generation;
    vxlan_ef_tnl_addr_t tnl;
};

// Initial-exec: one load from the thread pointer, no call to find the
// block, which a packet thread could not afford on every frame.
__attribute__((tls_model("initial-exec"))) thread_local LastTunnel t_last{};

// The tunnel address of the frame's VNI on the destination tunnel, from the
// thread's last answer or from the tables; false when there is none.
bool tunnel_address(vxlan_ef_vsd_t *vsd, const lsm_intfcb_t *dst, uint32_t vni,
                    vxlan_ef_tnl_addr_t *tnl)
{
    LastTunnel &last = t_last;
    if (last.generation == vxlan_ef::table_generation() && last.vsd == vsd && last.dst == dst &&
        last.dst_ifx == dst->ifindex && last.vni == vni) {
        *tnl = last.tnl;
        return true;
    }
    vxlan_ef::ReadLock lock(vsd);
    // No writer runs while the read lock is held: this is the generation
    // the answer belongs to.
    const uint64_t generation = vxlan_ef::table_generation();
    vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, vni);
    if (entry == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::UnknownVni);
        return false;
    }
    const vxlan_ef_adj_t *adj = vxlan_ef_adj_get(vsd, nullptr, dst->ifindex, entry);
    if (adj == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::TunnelWithoutVni);
        return false;
    }
    vxlan_ef::fill_tnl_addr(tnl, adj, vni);
    last = LastTunnel{vsd, dst, dst->ifindex, vni, generation, *tnl};
    return true;
}

// The most inner bytes one outer packet may carry.
uint16_t payload_limit(const efmp_buff_t *buff, const vxlan_ef_tnl_addr_t *tnl)
{
    using namespace vxlan_ef;
    const bool v4 = ipv4_tunnel(tnl);
    if (buff->vxlan_mtu == 0)
        return v4 ? kDefaultLimitV4 : kDefaultLimitV6;
    return static_cast<uint16_t>(buff->vxlan_mtu - (v4 ? kOverheadV4 : kOverheadV6));
}

// Builds the headers on every fragment of the chain; a failure frees the
// whole chain.
int encap_fragments(vxlan_ef_vsd_t *vsd, const vxlan_ef_tnl_addr_t *tnl, uint32_t mode,
                    efmp_buff_t **first, efmp_buff_t **last, uint32_t *count)
{
    efmp_buff_t *cur = *first;
    for (uint32_t i = 0; i < *count; i++, cur = cur->next) {
        if (cur == nullptr) {
            VXLAN_EF_TRACE_AS(*first, TraceGate::Encap, "vxlan_ef_encap_header",
                              "VXLAN-EF-ENCAP: [vsd %d %s] cur_pkt == NULL\n");
            return EF_Normal;
        }
        if (!vxlan_ef_encap_one_frag(cur, vsd, tnl, mode)) {
            efmp_buff_chain_free_sw_user(EFMP_REASON_SW_USER, *first, 0, *count);
            *first = *last = nullptr;
            *count = 0;
            return EF_Lost;
        }
    }
    return EF_Normal;
}

}  // namespace

int vxlan_ef_encap_header(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, const vxlan_ef_tnl_addr_t *tnl,
                          uint32_t mode, efmp_buff_t **first, efmp_buff_t **last, uint32_t *count)
{
    if ((tnl->family & ~8u) != VXLAN_EF_AF_INET)
        return EF_Drop;
    *first = *last = buff;
    *count = 1;
    if (buff->pkt_type != EFMP_PKT_IPV4 && buff->pkt_type != EFMP_PKT_IPV6)
        return vxlan_ef_encap_one_frag(buff, vsd, tnl, mode) ? EF_Normal : EF_Drop;
    const uint16_t limit = payload_limit(buff, tnl);
    const uint32_t inner = buff->len - kInnerIpHeader - buff->l2_len;
    if (static_cast<int32_t>(limit) >= static_cast<int32_t>(inner))
        return vxlan_ef_encap_one_frag(buff, vsd, tnl, mode) ? EF_Normal : EF_Drop;

    VXLAN_EF_TRACE(buff, TraceGate::Encap,
                   "VXLAN-EF-ENCAP: [vsd %d %s] pkt_len %u > vxlan_mtu %u, need to fragment.\n",
                   inner, static_cast<uint32_t>(limit));
    // The split follows the inner packet's family, whatever the tunnel's.
    *count = buff->pkt_type == EFMP_PKT_IPV4 ? efmp_frag_ipv4(first, last, limit)
                                            : efmp_frag_ipv6(first, last, limit);
    if (*count == 0 || *first == nullptr) {
        VXLAN_EF_TRACE(buff, TraceGate::Encap, "VXLAN-EF-ENCAP: [vsd %d %s] efmp_frag fail\n");
        return EF_Drop;
    }
    VXLAN_EF_TRACE(*first, TraceGate::Encap, "VXLAN-EF-ENCAP: [vsd %d %s] frag_cnt %d\n",
                   static_cast<int>(*count));
    return encap_fragments(vsd, tnl, mode, first, last, count);
}

namespace vxlan_ef {

void fill_tnl_addr(vxlan_ef_tnl_addr_t *tnl, const vxlan_ef_adj_t *adj, uint32_t vni)
{
    tnl->vni = vni;
    tnl->family = static_cast<uint8_t>(adj->dip.family);
    std::memcpy(tnl->sip, adj->sip.addr, sizeof tnl->sip);
    std::memcpy(tnl->dip, adj->dip.addr, sizeof tnl->dip);
    tnl->ifx = adj->ifx;
}

int encap_and_hand_off(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, const vxlan_ef_tnl_addr_t *tnl,
                       uint32_t mode, const char *func, FlowDir dir)
{
    VXLAN_EF_TRACE_AS(buff, TraceGate::Encap, func,
                      "VXLAN-EF-ENCAP: [vsd %d %s] pkt: %p will vxlan_ef_encap_header.\n",
                      static_cast<void *>(buff));
    efmp_buff_t *first = nullptr;
    efmp_buff_t *last = nullptr;
    uint32_t count = 0;
    // Trace lines after the call must not touch buff: it may be gone.
    const bool traced = trace_admit(buff, TraceGate::Encap);
    const uint32_t inner_bytes = buff->len;
    const int rc = vxlan_ef_encap_header(buff, vsd, tnl, mode, &first, &last, &count);
    if (rc == EF_Drop) {
        VXLAN_EF_DROP_TRACE_AS(EncapFailed, buff, TraceGate::Encap, func,
                          "VXLAN-EF-ENCAP: [vsd %d %s] vxlan_ef_encap_header failed.(Drop it!)\n");
        return EF_Drop;
    }
    if (rc == EF_Lost) {
        if (traced)
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2,
                              "VXLAN-EF-ENCAP: [vsd %d %s] vxlan_ef_encap_header failed and pkt "
                              "has been deleted.(Lost it!)\n",
                              vsd->id, func);
        return EF_Lost;
    }
    if (first == nullptr || count == 0) {
        if (traced)
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2,
                              "VXLAN-EF-ENCAP: [vsd %d %s] efmp_vxlan_skip_fw failed.(Drop it!)\n",
                              vsd->id, func);
        efmp_buff_chain_free_sw_user(EFMP_REASON_SW_USER, first, 0, count);
        return EF_Lost;
    }
    count_flow(dir, tnl->vni, tnl->ifx, inner_bytes);
    return l3_handoff(first, last, count, func);
}

}  // namespace vxlan_ef

uint32_t vxlan_ef_encap_frame(efmp_buff_t *buff, uint32_t mode)
{
    if (buff == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::NoInstance);
        return EF_Drop;
    }
    lsm_intfcb_t *dst = buff->dst_intf;
    if (dst == nullptr)
        return EF_Normal;
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (dst->type != LSM_IF_TYPE_OVERLAY_TUNNEL || vsd == nullptr) {
        vxlan_ef::count_drop(vsd == nullptr ? vxlan_ef::Drop::NoInstance : vxlan_ef::Drop::NotTunnel);
        return EF_Drop;
    }
    if (!dst->link_up) {
        VXLAN_EF_DROP_TRACE(LinkDown, buff, TraceGate::Encap,
                       "VXLAN-EF-ENCAP: [vsd %d %s] pkt %p: dst_intf %s link down, so needn't to "
                       "encap on this port (drop)\n",
                       static_cast<void *>(buff), dst->name);
        return EF_Drop;
    }
    if (vxlan_ef::load_relaxed(vsd->entry_count) == 0) {
        VXLAN_EF_DROP_TRACE(NoVniConfigured, buff, TraceGate::Encap,
                       "VXLAN-EF-ENCAP: [vsd %d %s] no vxlan create in this vsd\n");
        return EF_Drop;
    }
    vxlan_ef_tnl_addr_t tnl{};
    if (!tunnel_address(vsd, dst, efmp_buff_vni(buff), &tnl))
        return EF_Drop;
    efmp_buff_set_tag_vid(buff, 0);
    return static_cast<uint32_t>(
        vxlan_ef::encap_and_hand_off(buff, vsd, &tnl, mode, "vxlan_ef_encap_frame"));
}
