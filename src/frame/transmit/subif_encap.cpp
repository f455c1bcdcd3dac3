// Frames sent to a layer-2 sub-interface leave through its main interface,
// carrying the sub-interface's outer (and inner) 802.1Q tags.

#include <cstring>

#include "ef_bridge.h"
#include "ef_byteorder.h"
#include "ef_wire.h"
#include "frame/trace/packet_dump.h"
#include "frame/trace/packet_trace.h"
#include "frame/transmit/transmit_private.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_tables.h"

using vxlan_ef::TraceGate;

namespace {

// Whether the main interface's PVID makes a singly tagged frame leave
// untagged. Without the bridge's answer the frame is tagged.
bool sends_untagged(uint32_t main_ifx, uint16_t svid, uint16_t cvid)
{
    auto pvid_get = reinterpret_cast<ef_bridge_intf_pvid_get_fn>(vxlan_ef::load_relaxed(vxlan_ef_bridge_intf_pvid_get));
    if (cvid != 0 || pvid_get == nullptr)
        return false;
    uint16_t pvid = 0;
    return pvid_get(main_ifx, &pvid) == 0 && pvid == svid;
}

void put_tag(uint8_t *p, uint16_t vid)
{
    auto *tag = reinterpret_cast<ef_vlan_tag *>(p);
    ef_put_be16(tag->tpid, EF_ETHERTYPE_VLAN);
    ef_put_be16(tag->tci, vid);
}

}  // namespace

bool vxlan_ef_pkt_add_vlan_tag(uint32_t vsd_id, efmp_buff_t *buff, uint16_t svid, uint16_t cvid)
{
    const uint32_t n = cvid != 0 ? 2 * EF_VLAN_TAG_LEN : EF_VLAN_TAG_LEN;
    uint8_t *p = efmp_buff_push(buff, n);
    if (p == nullptr) {
        if (vxlan_ef::trace_admit(buff, TraceGate::Encap))
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2,
                              "VXLAN-EF-ENCAP: [vsd %d %s] pkt %p : efmp_buff_push for vlan tag "
                              "failed\n",
                              static_cast<int>(vsd_id), __func__, static_cast<void *>(buff));
        return false;
    }
    std::memmove(p, p + n, EF_ETH_ADDRS_LEN);
    put_tag(p + EF_ETH_ADDRS_LEN, svid);
    if (cvid != 0)
        put_tag(p + EF_ETH_ADDRS_LEN + EF_VLAN_TAG_LEN, cvid);
    return true;
}

uint32_t vxlan_ef_subif_encap_frame(efmp_buff_t *buff)
{
    if (buff == nullptr)
        return 1;
    lsm_intfcb_t *dst = buff->dst_intf;
    if (dst == nullptr)
        return 0;
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr) {
        VXLAN_EF_TRACE(buff, TraceGate::Encap, "VXLAN-EF-ENCAP: [vsd %d %s] vsd error.\n");
        return 1;
    }
    if (!vxlan_ef::is_l2_subif(dst)) {
        VXLAN_EF_TRACE(buff, TraceGate::Encap,
                       "VXLAN-EF-ENCAP: [vsd %d %s] NON-SUBIF-INTF used subif-encap service.\n");
        return 1;
    }
    vxlan_ef::ReadLock lock(vsd);
    const vxlan_ef_subif_t *subif = vxlan_ef_subif_lookup_by_subifx(vsd, dst->ifindex);
    if (subif == nullptr) {
        VXLAN_EF_TRACE(buff, TraceGate::Encap,
                       "VXLAN-EF-ENCAP: [vsd %d %s] SUB-INTF(%u) is not up.\n", dst->ifindex);
        return 1;
    }
    lsm_intfcb_t *main_intf = lsm_get_intfcb(subif->main_ifx);
    if (main_intf == nullptr) {
        VXLAN_EF_TRACE(buff, TraceGate::Encap,
                       "VXLAN-EF-ENCAP: [vsd %d %s] MAIN-INTF(%u) of SUB-INTF(%u) is not exist.\n",
                       subif->main_ifx, dst->ifindex);
        return 1;
    }
    const uint16_t svid = subif->svid;
    const uint16_t cvid = subif->cvid;
    buff->dst_intf = main_intf;
    efmp_buff_set_tag_vid(buff, svid);
    if (!sends_untagged(main_intf->ifindex, svid, cvid) &&
        !vxlan_ef_pkt_add_vlan_tag(0, buff, svid, cvid))
        return 1;
    buff->flags |= EFMP_F_SUBIF_TAGGED;
    VXLAN_EF_TRACE(buff, TraceGate::Encap,
                   "VXLAN-EF-ENCAP: [vsd %d %s] pkt %p : Success to encap SUB-INTF(%u) to "
                   "MAIN-INTF(%u) with svid %u, cvid %u.\n",
                   static_cast<void *>(buff), dst->ifindex, main_intf->ifindex,
                   static_cast<uint32_t>(svid), static_cast<uint32_t>(cvid));
    if (vxlan_ef::trace_admit(buff, TraceGate::Encap))
        vxlan_ef_pkt_dump(buff, "subif-encap");
    return 0;
}
