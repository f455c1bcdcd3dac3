// The VXLAN message format: type names, the framing walk and the append rule
// shared by the receiver and the send buffers.
#include <array>
#include <cstring>
#include <string_view>

#include "channel_private.h"

namespace {

// Names by type code; codes 90 and 91 have none, nor has anything from 96 up.
constexpr std::array<const char *, vxlan_ef::kTlvNameCount> kTlvNames{
    "SYNC_DATA_REQ", "SYNC_DATA_BEGIN", "SYNC_DATA_OVER", "SYNC_VNI_REQ", "SYNC_VNI_CLR",
    "SYNC_TUNNEL_ROUTE_REQ", "SYNC_TUNNEL_ROUTE_BEGIN", "SYNC_TUNNEL_ROUTE_OVER", "SET_ENTRY",
    "SET_VLAN", "SET_MCAST", "SET_TUNNEL", "SET_UDP_PORT", "SET_ROUTER", "SET_VTEP",
    "ASSO_VTEP", "SET_CTRL", "SET_CTRL_PLANE_MODE", "SET_ANYCAST_MAC", "SET_LOCAL_L3MAC",
    "SET_VTEP_IP", "SET_PREFIX_GATEWAY_IP", "SET_LOCAL_HOST_MAC", "SET_REMOTE_HOST_MAC",
    "SET_LOCAL_HOST_ROUTE", "SET_REMOTE_HOST_ROUTE", "SET_LOCAL_PREFIX_ROUTE",
    "SET_REMOTE_PREFIX_ROUTE", "SET_SUPPRESS_ARP", "SET_COPY_DSCP", "SET_VNI_IFX_MAP",
    "SET_INPUT_RATE_LIMIT", "SET_OUTPUT_RATE_LIMIT", "SET_MSG_BLOCK", "SET_STOP_MAC_LEARNING",
    "SET_ARP_SDN_REPLY", "SET_DYN_MAC_FLUSH", "SET_OUTSIDE_CENTER_TUNNEL",
    "SET_FORWARD_PLANE_MODE", "SET_SUPERVXLAN", "SET_SUBVXLAN", "SET_ARPPROXY",
    "SET_SWITCH_PROTECTED", "SET_UNALLOWED_BCAST", "SET_TUNNEL_ROUTE", "SET_FAST_SWITCH",
    "SET_VXLAN_SUB_INTF", "REQ_CAPA", "NOTIFY_MAC", "NOTIFY_CAPA", "NOTIFY_CTRL",
    "NOTIFY_VTEP_IP", "NOTIFY_LOCAL_HOST_MAC", "NOTIFY_REMOTE_HOST_MAC",
    "NOTIFY_REMOTE_HOST_ROUTE", "NOTIFY_LOCAL_PREFIX_ROUTE", "NOTIFY_REMOTE_PREFIX_ROUTE",
    "NOTIFY_UNALLOWED_BCAST", "NOTIFY_MAC_CONFLICT", "NOTIFY_ARP_CONFLICT", "CLIENT_REG",
    "CLIENT_DBG", "CLIENT_SHOW", "CLIENT_TYPE_REG", "EF_DBG", "EF_SHOW", "EF_CTRL",
    "SET_REMOTE_LEARN", "EF_DATA_READY", "SET_CAPA", "SET_CLEAR_ENTRY_BEGIN",
    "SET_CLEAR_ENTRY_END", "SET_EVPN_RT_2_ADVERTISE_DISABLE", "SET_EVPN_MAC_ADVERTISE_DISABLE",
    "SET_EVPN_MAC_INACTIVE", "SET_EVPN_ARP_MAC_LEARN", "SET_ROUTER_MAC", "SET_VNI_MAP",
    "SET_VRF", "SET_VNI_ARP_SUPPRESS", "SET_TUNNEL_MAC_LEARN", "SET_TUNNEL_ROUTE_LEARN",
    "SET_VNI_PROXY_VLAN_CHECK", "NOTIFY_VTEP_NBR_RT5", "SET_TUNNEL_COUNTING", "SET_L3VNI_MAP",
    "SET_REMOTE_ND_LEARN", "SET_SUPPRESS_ND", "SET_VNI_ND_SUPPRESS", "SET_EVPN_ND_MAC_LEARN",
    nullptr, nullptr, "SET_VNI_ARP_SPRS", "SET_VNI_ARP_PROXY", "SET_VNI_ND_SPRS",
    "SET_VNI_ND_PROXY",
};

constexpr bool names_in_place()
{
    return std::string_view(kTlvNames[8]) == "SET_ENTRY" &&
           std::string_view(kTlvNames[17]) == "SET_CTRL_PLANE_MODE" &&
           std::string_view(kTlvNames[38]) == "SET_FORWARD_PLANE_MODE" &&
           std::string_view(kTlvNames[46]) == "SET_VXLAN_SUB_INTF" &&
           std::string_view(kTlvNames[64]) == "EF_DBG" &&
           std::string_view(kTlvNames[67]) == "SET_REMOTE_LEARN" &&
           std::string_view(kTlvNames[68]) == "EF_DATA_READY" &&
           std::string_view(kTlvNames[84]) == "SET_TUNNEL_COUNTING" &&
           std::string_view(kTlvNames[89]) == "SET_EVPN_ND_MAC_LEARN" &&
           kTlvNames[90] == nullptr && kTlvNames[91] == nullptr &&
           std::string_view(kTlvNames[95]) == "SET_VNI_ND_PROXY";
}
static_assert(names_in_place(), "TLV names out of step with their codes");

}  // namespace

const char *vxlan_ef_tlv_name(uint32_t type)
{
    if (type >= kTlvNames.size() || kTlvNames[type] == nullptr)
        return "unknown";
    return kTlvNames[type];
}

namespace vxlan_ef {

bool tlv_area_well_formed(std::span<const uint8_t> area, uint8_t tlv_num)
{
    const uint32_t size = static_cast<uint32_t>(area.size());
    uint16_t offset = 0;  // the running sum is kept in 16 bits, as the peer does
    uint32_t count = 0;
    while (static_cast<uint32_t>(offset) + VXLAN_EF_TLV_HDR_LEN <= size) {
        uint16_t len = load_unaligned<uint16_t>(area.data() + offset + 2);
        offset = static_cast<uint16_t>(offset + len + VXLAN_EF_TLV_HDR_LEN);
        // A length that wraps the 16-bit offset back onto itself would walk
        // forever; past 255 TLVs the count can no longer match tlv_num anyway.
        if (++count > VXLAN_EF_MSG_MAX_TLVS)
            return false;
    }
    return offset == size && count == tlv_num;
}

bool tlv_fits(const uint8_t *msg, uint32_t len)
{
    return len + VXLAN_EF_TLV_HDR_LEN <= VXLAN_EF_MSG_MAX_LEN - msg_len(msg) &&
           msg[3] < VXLAN_EF_MSG_MAX_TLVS;
}

void tlv_append(uint8_t *msg, uint16_t type, uint16_t len, const uint8_t *value)
{
    uint16_t at = msg_len(msg);
    store_unaligned(msg + at, type);
    store_unaligned(msg + at + 2, len);
    if (value != nullptr && len != 0)
        std::memcpy(msg + at + VXLAN_EF_TLV_HDR_LEN, value, len);
    set_msg_len(msg, static_cast<uint16_t>(at + len + VXLAN_EF_TLV_HDR_LEN));
    msg[3]++;
}

void send_buf_reset(vxlan_ef_send_buf_t *buf)
{
    buf->data[0] = VXLAN_EF_MSG_VER;
    set_msg_len(buf->data, VXLAN_EF_MSG_HDR_LEN);
    buf->data[3] = 0;
}

}  // namespace vxlan_ef
