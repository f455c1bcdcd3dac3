// The bridge forwarding decision: for one bridged frame of a VXLAN segment,
// encapsulate it towards the tunnel the bridge chose, flood it to its VNI's
// members, bridge it to one port, hand it to the switch engine or drop it.
// The unicast branch (ucast.cpp), flooding (flood.cpp) and encapsulation are
// its callees. The incoming buffer is consumed only when encapsulation says
// so (EF_Lost); flooding always works on copies.
#include <cstring>

#include "ef_wire.h"
#include "frame/counters/drop_count.h"
#include "frame/forward/forward_private.h"
#include "frame/trace/packet_dump.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_forward.h"
#include "vxlan_ef_tables.h"

using vxlan_ef::ReadLock;
using vxlan_ef::TraceGate;
using namespace vxlan_ef::fwd;

#define FWD_TRACE(buff, fmt, ...) \
    VXLAN_EF_TRACE_AS(buff, TraceGate::Forward, "vxlan_ef_forward", fmt, ##__VA_ARGS__)
// The same line for a drop, counted under its reason.
#define FWD_DROP(reason, buff, fmt, ...) \
    VXLAN_EF_DROP_TRACE_AS(reason, buff, TraceGate::Forward, "vxlan_ef_forward", fmt, ##__VA_ARGS__)

namespace {

constexpr int kContinue = -1;
constexpr int kRefusedLearning = -2;  // dropped without the closing trace line

bool group_mac(const uint8_t *mac) { return (mac[0] & 0x01) != 0; }

// Destination then source MAC of the frame; zeros for a frame too short to
// hold them.
void frame_macs(const efmp_buff_t *buff, uint8_t (&macs)[EF_ETH_ADDRS_LEN])
{
    std::memset(macs, 0, sizeof macs);
    if (buff->head != nullptr && buff->len >= EF_ETH_ADDRS_LEN)
        std::memcpy(macs, frame_start(buff), sizeof macs);
}

void trace_receive(efmp_buff_t *buff, uint32_t vni)
{
    // The addresses are copied out only for a line that is printed.
    const bool traced = vxlan_ef::trace_admit(buff, TraceGate::Forward);
    if (traced) {
        uint8_t m[EF_ETH_ADDRS_LEN];
        frame_macs(buff, m);
        const uint8_t *s = m + EF_ETH_SRC_OFFSET;
        VXLAN_EF_TRACE_DECIDED(
            traced, "vxlan_ef_forward",
            "VXLAN-EF-FORWARD: [vsd %d %s] Rcv pkt: %p, src intf: %s\n src mac: "
            "%02x%02x.%02x%02x.%02x%02x dst mac: %02x%02x.%02x%02x.%02x%02x VNI: %u\n",
            static_cast<void *>(buff), name_of(buff->src_intf).text, s[0], s[1], s[2], s[3], s[4],
            s[5], m[0], m[1], m[2], m[3], m[4], m[5], vni);
    }
    if (buff->flags & EFMP_F_TRACE)
        vxlan_ef_pkt_dump(buff, "patch-forward start");
}

// A destination the bridge already set: an overlay tunnel is encapsulated at
// once (unless bit 35 asks to forward again), anything else goes on as it is.
// kContinue lets the decision go on.
int forward_to_set_destination(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, uint32_t vni)
{
    lsm_intfcb_t *dst = buff->dst_intf;
    if (dst == nullptr)
        return EF_Normal;
    if (!is_tunnel(dst)) {
        FWD_TRACE(buff,
                  "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, dest intf is set: %s return Normal\n",
                  static_cast<void *>(buff), name_of(dst).text);
        return EF_Normal;
    }
    if (buff->flags & EFMP_F_TUNNEL_DST) {
        FWD_TRACE(buff,
                  "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, dest intf is set: %s and flag is set "
                  "overlaytunnel so continue forward.\n",
                  static_cast<void *>(buff), name_of(dst).text);
        return kContinue;
    }
    FWD_TRACE(buff,
              "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, dest intf is set: %s. so vxlan encap "
              "frame.\n",
              static_cast<void *>(buff), name_of(dst).text);
    if (vxlan_ef::load_relaxed(g_vxlan_ef_master.l2vni_mapping)) {
        ReadLock lock(vsd);
        if (uint32_t mapped = mapped_vni(vxlan_ef_entry_get(vsd, vni)))
            efmp_buff_or_vni(buff, mapped);
    }
    // Encapsulation may consume the buffer: its last line is decided first.
    const bool traced = vxlan_ef::trace_admit(buff, TraceGate::Forward);
    const int r = static_cast<int>(vxlan_ef_encap_frame(buff, VXLAN_EF_ENCAP_MODE_TUNNEL));
    VXLAN_EF_TRACE_DECIDED(traced, "vxlan_ef_forward",
                           "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, vxlan encap return: %s.\n",
                           static_cast<void *>(buff), result_name(r));
    return r;
}

// The bridge asked for a flood: the copies carry the frame, the original is
// always dropped.
int forward_bridge_flood(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, uint32_t vni)
{
    buff->flags &= ~EFMP_F_BRDG_FLOOD;
    FWD_TRACE(buff, "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, efmp buff flags BRDG_FLOOD\n",
              static_cast<void *>(buff));
    {
        ReadLock lock(vsd);
        // A copy refused in flood_in_vni was counted there under its reason.
        if (flood_in_vni(buff, vsd, vni) != EF_Drop)
            vxlan_ef::count_drop(vxlan_ef::Drop::Flooded);
    }
    FWD_TRACE(buff,
              "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, set BRDG_FLOOD after Broadcast return "
              "Drop\n",
              static_cast<void *>(buff));
    return EF_Drop;
}

// A copy of the frame in the mapped VNI, flooded there by flood and freed;
// no buffer left skips it.
template <typename Flood>
void flood_mapped_copy(const efmp_buff_t *buff, uint32_t mapped, Flood flood)
{
    efmp_buff_t *copy = copy_frame(buff);
    if (copy == nullptr)
        return;
    efmp_buff_set_vni(copy, mapped);
    flood(copy);
    efmp_buff_free_sw_user(EFMP_REASON_SW_USER, copy);
}

// Broadcast and other group destinations: flooded in the frame's VNI (and in
// the mapped one), the device included.
int forward_group(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, uint32_t vni, uint32_t mapped)
{
    if (mapped != 0)
        flood_mapped_copy(buff, mapped, [&](efmp_buff_t *copy) {
            vxlan_ef_bcast(copy, mapped, vsd, 1);
        });
    return vxlan_ef_bcast(buff, vni, vsd, 1);
}

// Unicast destinations: the unicast decision in the frame's VNI, then in the
// mapped VNI; a MAC unknown in both is flooded in both.
int forward_unicast(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, const uint8_t *dmac, uint32_t vni,
                    uint32_t mapped)
{
    int r = vxlan_ef_ucast(buff, dmac, vni, vsd);
    if (r == EF_Broadcast && mapped != 0) {
        const int r2 = vxlan_ef_ucast(buff, dmac, mapped, vsd);
        if (r2 != EF_Broadcast) {
            efmp_buff_or_vni(buff, mapped);
            return r2;
        }
        flood_mapped_copy(buff, mapped,
                          [&](efmp_buff_t *copy) { flood_in_vni(copy, vsd, mapped); });
    }
    if (r == EF_Broadcast && buff->src_intf != nullptr)
        r = flood_in_vni(buff, vsd, vni);
    return r;
}

// Makes the 4094 slot's interface the destination and hands the frame to the
// switch engine. Returns that interface: the slot may change meanwhile, and
// the trace names the one the frame got.
lsm_intfcb_t *hand_to_switch(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd)
{
    buff->flags |= EFMP_F_SWITCH_ENGINE;
    buff->dst_intf = vxlan_ef::load_relaxed(vsd->intf_slot_4094);
    return buff->dst_intf;
}

int result_without_not_fwd(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, int r)
{
    if (r == EF_Reserve) {
        const lsm_intfcb_t *local = hand_to_switch(buff, vsd);
        if (local == nullptr)
            FWD_TRACE(buff,
                      "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p no BRG_NOT_FWD but ret is "
                      "EF_Reserve, set L2LOCAL, ENGINE SWITCH and return EF_Normal\n",
                      static_cast<void *>(buff));
        else
            FWD_TRACE(buff,
                      "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p no BRG_NOT_FWD but ret is "
                      "EF_Reserve, set dest_intf %s, ENGINE SWITCH and return EF_Normal\n",
                      static_cast<void *>(buff), name_of(local).text);
        return EF_Normal;
    }
    if (r == EF_Broadcast) {
        FWD_DROP(Flooded, buff,
                  "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p no BRG_NOT_FWD but ret is "
                  "EF_Broadcast, org pkt return EF_Drop\n",
                  static_cast<void *>(buff));
        return EF_Drop;
    }
    FWD_TRACE(buff, "VXLAN-EF-FORWARD: [vsd %d %s] no BRG_NOT_FWD %p, ret: %s.\n",
              static_cast<void *>(buff), result_name(r));
    return r;
}

// The bridge must not forward the frame itself: only a hand-off to the
// device survives.
int result_with_not_fwd(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, int r)
{
    buff->flags &= ~EFMP_F_BRG_NOT_FWD;
    const lsm_intfcb_t *dst = buff->dst_intf;
    if (dst != nullptr && dst->type == LSM_IF_TYPE_OVERLAY_ROUTER) {
        FWD_TRACE(buff,
                  "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p BRG_NOT_FWD be set but hit OR, return "
                  "EF_Normal\n",
                  static_cast<void *>(buff));
        return EF_Normal;
    }
    if (dst != nullptr && dst == vxlan_ef::load_relaxed(vsd->intf_slot_4094)) {
        FWD_TRACE(buff,
                  "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p BRG_NOT_FWD be set but assign dest intf "
                  "L2LOCAL, return EF_Normal\n",
                  static_cast<void *>(buff));
        return EF_Normal;
    }
    if (r != EF_Reserve) {
        // A drop decided earlier was counted where it was decided.
        if (r != EF_Drop)
            vxlan_ef::count_drop(vxlan_ef::Drop::NotForwarded);
        FWD_TRACE(buff, "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p BRG_NOT_FWD be set, return EF_Drop\n",
                  static_cast<void *>(buff));
        return EF_Drop;
    }
    const lsm_intfcb_t *local = hand_to_switch(buff, vsd);
    // These two lines name EF_Resv_Bcast although the test is on EF_Reserve.
    if (local == nullptr)
        FWD_TRACE(buff,
                  "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p BRG_NOT_FWD be set but ret is "
                  "EF_Resv_Bcast, set L2LOCAL, ENGINE SWITCH and return EF_Normal\n",
                  static_cast<void *>(buff));
    else
        FWD_TRACE(buff,
                  "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p BRG_NOT_FWD be set but ret is "
                  "EF_Resv_Bcast, set dest_intf %s, ENGINE SWITCH and return EF_Normal\n",
                  static_cast<void *>(buff), name_of(local).text);
    return EF_Normal;
}

// ARP and ND frames from a tunnel without route learning are not handed to
// the switch engine while remote learning of their kind is off.
bool remote_learning_refused(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd)
{
    const lsm_intfcb_t *src = buff->src_intf;
    if (!is_tunnel(src) || !(buff->flags & EFMP_F_SWITCH_ENGINE) ||
        vxlan_ef_check_tnl_route_learn(vsd, src->ifindex))
        return false;
    const char *what = nullptr;
    if (is_arp(buff) && !vsd->remote_arp_learn)
        what = "remote-arp-pkt";
    else if (is_nd(buff) && !vsd->remote_nd_learn)
        what = "remote-nd-pkt";
    if (what == nullptr)
        return false;
    FWD_TRACE(buff,
              "VXLAN-EF-FORWARD: [vsd %d %s] pkt %p: Needn't to handle %s while "
              "remote-arp-learning is disabled. Drop it.\n",
              static_cast<void *>(buff), what);
    return true;
}

// Steps under the read lock: the decision by destination MAC, the result
// handling and the remote learning gate.
int forward_bridged(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, uint32_t vni)
{
    ReadLock lock(vsd);
    const uint32_t mapped =
        vxlan_ef::load_relaxed(g_vxlan_ef_master.l2vni_mapping) ? mapped_vni(vxlan_ef_entry_get(vsd, vni)) : 0;
    uint8_t macs[EF_ETH_ADDRS_LEN];
    frame_macs(buff, macs);
    int r = group_mac(macs) ? forward_group(buff, vsd, vni, mapped)
                            : forward_unicast(buff, vsd, macs, vni, mapped);
    r = (buff->flags & EFMP_F_BRG_NOT_FWD) ? result_with_not_fwd(buff, vsd, r)
                                           : result_without_not_fwd(buff, vsd, r);
    if (remote_learning_refused(buff, vsd)) {
        if (r != EF_Drop)
            vxlan_ef::count_drop(vxlan_ef::Drop::RemoteLearningOff);
        return kRefusedLearning;
    }
    return r;
}

}  // namespace

namespace vxlan_ef::fwd {

int flood_in_vni(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, uint32_t vni)
{
    vxlan_ef_entry_t *entry = vxlan_ef_manage_vxlan_get(vsd, vni);
    if (entry == nullptr) {
        FWD_DROP(UnknownVni, buff, "VXLAN-EF-FORWARD: [vsd %d %s] pkt %p: vxlan entry is not exist, vni: %u\n",
                  static_cast<void *>(buff), vni);
        return EF_Drop;
    }
    if (arp_suppressed(buff, vsd, entry)) {
        FWD_DROP(ArpSuppressed, buff,
                  "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, is arp pkt and arp_suppress enable so "
                  "return Drop\n",
                  static_cast<void *>(buff));
        return EF_Drop;
    }
    if (nd_suppressed(buff, vsd, entry)) {
        FWD_DROP(NdSuppressed, buff,
                  "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, is nd pkt and nd_suppress enable so "
                  "return Drop\n",
                  static_cast<void *>(buff));
        return EF_Drop;
    }
    FWD_TRACE(buff,
              "VXLAN-EF-FORWARD: [vsd %d %s] pkt:%p Broadcast or multicast dst mac, broadcast the "
              "packet.\n",
              static_cast<void *>(buff));
    return vxlan_ef_vni_bcast(buff, vsd);
}

}  // namespace vxlan_ef::fwd

int vxlan_ef_forward(efmp_buff_t *buff)
{
    if (buff == nullptr || buff->src_intf == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::NoInstance);
        return EF_Drop;
    }
    clear_tag_vsd(buff);
    const uint32_t vni = efmp_buff_vni(buff);
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr) {
        vxlan_ef::count_drop(vxlan_ef::Drop::NoInstance);
        return EF_Drop;
    }
    trace_receive(buff, vni);
    if (buff->flags & EFMP_F_DST_SET) {
        const int r = forward_to_set_destination(buff, vsd, vni);
        if (r != kContinue)
            return r;
    }
    if (buff->flags & EFMP_F_BRDG_FLOOD)
        return forward_bridge_flood(buff, vsd, vni);
    const int r = forward_bridged(buff, vsd, vni);
    if (r == kRefusedLearning)
        return EF_Drop;
    FWD_TRACE(buff, "VXLAN-EF-FORWARD: [vsd %d %s] pkt: %p, ret: %s.\n", static_cast<void *>(buff),
              result_name(r));
    return r;
}
