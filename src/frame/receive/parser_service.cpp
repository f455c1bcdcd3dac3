// The Ethernet-level parser of interfaces that may carry VXLAN over IP: the
// frames it lets pass untouched, VXLAN decapsulation (vxlan_decap.cpp), and
// the local access path, which finds a frame's VLAN, the VNI mapped to it and
// a matching sub-interface.
#include "frame/counters/drop_count.h"
#include "ef_bridge.h"
#include "frame/receive/receive_private.h"
#include "frame/trace/packet_dump.h"
#include "vxlan_ef_parser.h"
#include "vxlan_ef_tables.h"

namespace vxlan_ef {

namespace {

#define PARSER_TRACE(buff, fmt, ...) \
    VXLAN_EF_TRACE_AS(buff, TraceGate::Parser, "vxlan_ef_parser_service", fmt, ##__VA_ARGS__)

// Frames that are not this parser's business.
bool skipped(efmp_buff_t *buff, const vxlan_ef_vsd_t *vsd)
{
    auto l2protocol =
        reinterpret_cast<ef_bridge_l2protocol_check_fn>(load_relaxed(vxlan_ef_l2protocol_pkt_check));
    if (l2protocol != nullptr && l2protocol(buff) != 0) {
        PARSER_TRACE(buff,
                     "VXLAN-EF-PARSER: [vsd %d %s] pkt: %p is l2protocol, skip vxlan parser\n",
                     static_cast<void *>(buff));
        return true;
    }
    if (buff->src_intf->status & LSM_IF_STATUS_AP_MEMBER) {
        PARSER_TRACE(buff,
                     "VXLAN-EF-PARSER: [vsd %d %s] pkt: %p from AP-MEMBER(ifx = %u), needn't to "
                     "handle.\n",
                     static_cast<void *>(buff), buff->src_intf->ifindex);
        return true;
    }
    if (load_relaxed(vsd->entry_count) == 0) {
        PARSER_TRACE(buff, "VXLAN-EF-PARSER: [vsd %d %s] pkt: %p no vxlan create in this vsd\n",
                     static_cast<void *>(buff));
        return true;
    }
    return false;
}

// The frame's VLAN: its outer tag's, else the receiving port's VLAN.
uint16_t access_vid(efmp_buff_t *buff)
{
    uint16_t vid = efmp_buff_tag_vid(buff);
    auto pvid_get = reinterpret_cast<ef_bridge_intf_pvid_get_fn>(load_relaxed(vxlan_ef_bridge_intf_pvid_get));
    if (vid != 0 || pvid_get == nullptr)
        return vid;
    uint16_t pvid = 0;
    pvid_get(buff->src_intf->ifindex, &pvid);
    PARSER_TRACE(buff,
                 "VXLAN-EF-PARSER: [vsd %d %s] VID of pkt: %p is zero, get the PVID: %d of "
                 "IFX: %u\n",
                 static_cast<void *>(buff), pvid, buff->src_intf->ifindex);
    return pvid & EFMP_TAG_VID_MASK;
}

uint32_t subif_key(const lsm_intfcb_t *intf)
{
    return intf->subif_key_ifx != 0 ? intf->subif_key_ifx : intf->ifindex;
}

uint32_t mapped_vni(const vxlan_ef_vsd_t *vsd, uint16_t vid)
{
    return vid >= 1 && vid <= kVidMax ? vsd->vid_vni[vid - 1] : 0;
}

// Without a sub-interface, in software forwarding mode, the port must be in
// the VLAN. Runs under the instance lock: the bridge's check is the one
// service called with it held.
bool port_in_vlan(efmp_buff_t *buff, uint16_t vid)
{
    auto vlan_check = reinterpret_cast<ef_bridge_intf_vlan_check_fn>(load_relaxed(vxlan_ef_intf_vlan_check));
    if (vlan_check == nullptr) {
        PARSER_TRACE(buff, "VXLAN-EF-PARSER: [vsd %d %s] pkt: %p vxlan_intf_vlan_check is NULL.\n",
                     static_cast<void *>(buff));
        return true;
    }
    if (vlan_check(buff->src_intf->ifindex, vid) != 0)
        return true;
    PARSER_TRACE(buff,
                 "VXLAN-EF-PARSER: [vsd %d %s] pkt: %p vsd decap is disable, pkt buff port can't "
                 "find vid[%d].\n",
                 static_cast<void *>(buff), vid);
    return false;
}

// Puts the VNI of the frame's VLAN (or sub-interface) into the buffer and
// makes the sub-interface the receiving interface; learns the source MAC.
void bind_vni(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, uint16_t vid, uint16_t inner_vid)
{
    efmp_buff_set_tag_vid(buff, vid);
    uint32_t vni = mapped_vni(vsd, vid);
    lsm_intfcb_t *subif = nullptr;
    bool found = false;
    {
        ReadLock lock(vsd);
        subif = vxlan_ef_sub_intf_parse(vsd, subif_key(buff->src_intf), vid, inner_vid, &vni);
        if (subif == nullptr && soft_forwarding() && !port_in_vlan(buff, vid))
            return;
        vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, vni);
        if (entry != nullptr) {
            efmp_buff_or_vni(buff, entry->vni);
            vni = entry->vni;
            found = true;
        } else {
            PARSER_TRACE(buff,
                         "VXLAN-EF-PARSER: [vsd %d %s] pkt: %p vsd decap is disable, pkt buff vid "
                         "can't find vni\n",
                         static_cast<void *>(buff));
        }
    }
    if (!found)
        return;
    if (subif != nullptr) {
        buff->src_intf = subif;
        buff->src_ifx = subif->ifindex;
    }
    if (soft_forwarding())
        vxlan_ef_learn_xmac(buff, vsd, vni, vid, buff->src_intf);
}

// A frame that is not VXLAN for this module.
int local_access(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd)
{
    efmp_buff_set_tag_vid(buff, 0);
    const RemovedTags tags = remove_tags(buff);
    const uint16_t vid = access_vid(buff);
    if (vid != 0) {
        bind_vni(buff, vsd, vid, tags.inner_tci & EFMP_TAG_VID_MASK);
    } else {
        PARSER_TRACE(buff,
                     "VXLAN-EF-PARSER: [vsd %d %s] pkt: %p vsd decap is disable, pkt buff VID is "
                     "still ZERO\n",
                     static_cast<void *>(buff));
    }
    set_tag_vsd(buff, vsd->id);
    if (trace_admit(buff, TraceGate::Parser))
        vxlan_ef_pkt_dump(buff, "patch-parser(eth)");
    return EF_Normal;
}

}  // namespace

}  // namespace vxlan_ef

int vxlan_ef_parser_service(efmp_buff_t *buff)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (buff == nullptr || buff->src_intf == nullptr || vsd == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::NoInstance);
        return EF_Drop;
    }
    if (vxlan_ef::skipped(buff, vsd))
        return EF_Normal;
    switch (vxlan_ef::vxlan_decap(buff, vsd)) {
    case vxlan_ef::DecapResult::Done:
        return EF_Normal;
    case vxlan_ef::DecapResult::Drop:
        return EF_Drop;
    case vxlan_ef::DecapResult::NotVxlan:
        break;
    }
    return vxlan_ef::local_access(buff, vsd);
}

lsm_intfcb_t *vxlan_ef_sub_intf_parse(vxlan_ef_vsd_t *vsd, uint32_t main_ifx, uint16_t svid,
                                      uint16_t cvid, uint32_t *vni)
{
    if (vsd == nullptr)
        return nullptr;
    vxlan_ef_subif_t *subif = vxlan_ef_subif_lookup_by_mainifx(vsd, main_ifx, svid, cvid);
    if (subif == nullptr)
        return nullptr;
    if (vni != nullptr)
        *vni = subif->vni;
    return lsm_get_intfcb(subif->ifx);
}
