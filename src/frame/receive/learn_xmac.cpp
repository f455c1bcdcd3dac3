// MAC learning of received frames: the inner source MAC, in its VNI, on the
// interface it came from, through the bridge's add-MAC service.
#include <cstring>

#include "ef_bridge.h"
#include "ef_wire.h"
#include "frame/receive/receive_private.h"
#include "vxlan_ef_parser.h"

namespace {

constexpr uint8_t kEntryKind[2] = {47, 2};
// The bridge's answer when it offers no add-MAC service.
constexpr int kNoService = 4;

ef_bridge_mac_req_t mac_request(efmp_buff_t *buff, uint32_t vni, uint16_t vid,
                                const lsm_intfcb_t *intf)
{
    ef_bridge_mac_req_t req{};
    std::memcpy(req.mac, vxlan_ef::frame_of(buff) + EF_ETH_SRC_OFFSET, sizeof req.mac);
    req.vid = vid;
    req.key = EF_BRIDGE_KEY_VNI | vni;
    req.ifindex = intf != nullptr ? intf->ifindex : 0;
    std::memcpy(req.kind, kEntryKind, sizeof req.kind);
    return req;
}

}  // namespace

int vxlan_ef_learn_xmac(efmp_buff_t *buff, vxlan_ef_vsd_t *vsd, uint32_t vni, uint16_t vid,
                        lsm_intfcb_t *intf)
{
    if (buff == nullptr || vsd == nullptr || buff->len < EF_ETH_SRC_OFFSET + EF_ETH_ALEN)
        return kNoService;
    const ef_bridge_mac_req_t req = mac_request(buff, vni, vid, intf);
    auto add_mac = reinterpret_cast<ef_bridge_add_mac_fn>(vxlan_ef::load_relaxed(vxlan_ef_add_mac_entry));
    const int ret = add_mac != nullptr ? add_mac(&req) : kNoService;
    VXLAN_EF_TRACE(buff, vxlan_ef::TraceGate::Parser,
                   "VXLAN-EF-PARSER: [vsd %d %s] pkt: %p add xmac(vni %u, mac "
                   "%02x%02x.%02x%02x.%02x%02x) %s, ret: %u\n",
                   static_cast<void *>(buff), vni, req.mac[0], req.mac[1], req.mac[2], req.mac[3],
                   req.mac[4], req.mac[5], ret == 0 ? "success" : "failed",
                   static_cast<unsigned>(ret));
    return ret;
}
