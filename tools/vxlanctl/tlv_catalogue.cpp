// The TLV layouts and the type-name table behind tlv_catalogue.h.
#include "tlv_catalogue.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>

namespace vxlanctl {

namespace {

using K = FieldKind;

constexpr FieldDef kSetEntryFields[] = {{"vni", 0, K::U32}, {"oper", 4, K::U8}};
constexpr FieldDef kSetVlanFields[] = {{"vni", 0, K::U32}, {"oper", 6, K::U8}, {"vlans", 16, K::VlanBitmap}};
constexpr FieldDef kSetUdpPortFields[] = {{"port", 0, K::U16}};
constexpr FieldDef kSetRouterFields[] = {{"vni", 0, K::U32},     {"router_ifx", 4, K::U32}, {"vrf_id", 8, K::U32},
                                   {"anycast", 20, K::U8}, {"oper", 21, K::U8}};
constexpr FieldDef kSetVtepFields[] = {{"ifx", 4, K::U32}, {"sip", 8, K::Ip}, {"dip", 28, K::Ip}, {"oper", 68, K::U8}};
constexpr FieldDef kAssoVtepFields[] = {{"vni", 0, K::U32}, {"ifx", 4, K::U32}, {"oper", 16, K::U8}};
constexpr FieldDef kAnycastMacFields[] = {{"mac", 0, K::Mac}, {"oper", 6, K::U8}};
constexpr FieldDef kSwitchFields[] = {{"enable", 0, K::U8}};
constexpr FieldDef kTunnelByteFields[] = {{"ifx", 0, K::U32}, {"value", 4, K::U8}};
constexpr FieldDef kVniByteFields[] = {{"vni", 0, K::U32}, {"value", 4, K::U8}};
constexpr FieldDef kVniEnableFields[] = {{"vni", 0, K::U32}, {"enable", 4, K::U8}};
constexpr FieldDef kEfDbgFields[] = {{"mask", 0, K::U16}, {"trace_ifx", 4, K::U32}, {"budget", 8, K::U32}};
constexpr FieldDef kEfShowFields[] = {{"show_id", 0, K::U16}, {"vni", 4, K::U32}};
constexpr FieldDef kEfCtrlFields[] = {{"ctrl", 0, K::U32}, {"oper", 4, K::U8}};
constexpr FieldDef kVniMapFields[] = {{"vni", 0, K::U32}, {"map_vni", 4, K::U32}, {"oper", 8, K::U8}};
constexpr FieldDef kSetVrfFields[] = {{"vrf_id", 0, K::I32}, {"l3vni", 4, K::U32}, {"l3ifx", 8, K::U32},
                                {"oper", 12, K::U8}};
constexpr FieldDef kTunnelLearnFields[] = {{"ifx", 0, K::U32}, {"value", 24, K::U8}};
constexpr FieldDef kSubInterfaceFields[] = {{"ifx", 0, K::U32},   {"main_ifx", 4, K::U32}, {"vni", 8, K::U32},
                                      {"svid", 12, K::U16}, {"cvid", 14, K::U16},    {"oper", 17, K::U8}};

constexpr TlvDef kCatalogue[] = {
    {kSyncDataReq, "SYNC_DATA_REQ", 0, {}},
    {kSyncDataBegin, "SYNC_DATA_BEGIN", 0, {}},
    {kSyncDataOver, "SYNC_DATA_OVER", 0, {}},
    {kSetEntry, "SET_ENTRY", 5, kSetEntryFields},
    {kSetVlan, "SET_VLAN", 528, kSetVlanFields},
    {kSetUdpPort, "SET_UDP_PORT", 2, kSetUdpPortFields},
    {kSetRouter, "SET_ROUTER", 22, kSetRouterFields},
    {kSetVtep, "SET_VTEP", 69, kSetVtepFields},
    {kAssoVtep, "ASSO_VTEP", 17, kAssoVtepFields},
    {kSetAnycastMac, "SET_ANYCAST_MAC", 7, kAnycastMacFields},
    {kSetSuppressArp, "SET_SUPPRESS_ARP", 1, kSwitchFields},
    {kSetCopyDscp, "SET_COPY_DSCP", 1, kSwitchFields},
    {kSetOutsideCenterTunnel, "SET_OUTSIDE_CENTER_TUNNEL", 5, kTunnelByteFields},
    {kSetSwitchProtected, "SET_SWITCH_PROTECTED", 5, kVniByteFields},
    {kEfDbg, "EF_DBG", 12, kEfDbgFields},
    {kEfShow, "EF_SHOW", 8, kEfShowFields},
    {kEfCtrl, "EF_CTRL", 5, kEfCtrlFields},
    {kSetRemoteLearn, "SET_REMOTE_LEARN", 1, kSwitchFields},
    {kSetVniMap, "SET_VNI_MAP", 9, kVniMapFields},
    {kSetVrf, "SET_VRF", 13, kSetVrfFields},
    {kSetVniArpSuppress, "SET_VNI_ARP_SUPPRESS", 5, kVniEnableFields},
    {kSetTunnelMacLearn, "SET_TUNNEL_MAC_LEARN", 25, kTunnelLearnFields},
    {kSetTunnelRouteLearn, "SET_TUNNEL_ROUTE_LEARN", 25, kTunnelLearnFields},
    {kSetRemoteNdLearn, "SET_REMOTE_ND_LEARN", 1, kSwitchFields},
    {kSetSuppressNd, "SET_SUPPRESS_ND", 1, kSwitchFields},
    {kSetVniNdSuppress, "SET_VNI_ND_SUPPRESS", 5, kVniEnableFields},
    // The sub-interface message has no name of its own in the system's table.
    {kSubInterface, "SET_VXLAN_SUB_INTF_90", 18, kSubInterfaceFields},
};

// Every field lies inside its type's value.
consteval bool layouts_fit()
{
    for (const TlvDef &def : kCatalogue)
        for (const FieldDef &f : def.fields)
            if (f.offset + field_width(f.kind) > def.length)
                return false;
    return true;
}
static_assert(layouts_fit(), "a catalogued field runs past its value");

// Names of codes 0..95 as the system prints them; empty = no name.
constexpr std::array<std::string_view, 96> kCodeNames = {
    "SYNC_DATA_REQ", "SYNC_DATA_BEGIN", "SYNC_DATA_OVER", "SYNC_VNI_REQ", "SYNC_VNI_CLR",
    "SYNC_TUNNEL_ROUTE_REQ", "SYNC_TUNNEL_ROUTE_BEGIN", "SYNC_TUNNEL_ROUTE_OVER", "SET_ENTRY", "SET_VLAN",
    "SET_MCAST", "SET_TUNNEL", "SET_UDP_PORT", "SET_ROUTER", "SET_VTEP",
    "ASSO_VTEP", "SET_CTRL", "SET_CTRL_PLANE_MODE", "SET_ANYCAST_MAC", "SET_LOCAL_L3MAC",
    "SET_VTEP_IP", "SET_PREFIX_GATEWAY_IP", "SET_LOCAL_HOST_MAC", "SET_REMOTE_HOST_MAC", "SET_LOCAL_HOST_ROUTE",
    "SET_REMOTE_HOST_ROUTE", "SET_LOCAL_PREFIX_ROUTE", "SET_REMOTE_PREFIX_ROUTE", "SET_SUPPRESS_ARP", "SET_COPY_DSCP",
    "SET_VNI_IFX_MAP", "SET_INPUT_RATE_LIMIT", "SET_OUTPUT_RATE_LIMIT", "SET_MSG_BLOCK", "SET_STOP_MAC_LEARNING",
    "SET_ARP_SDN_REPLY", "SET_DYN_MAC_FLUSH", "SET_OUTSIDE_CENTER_TUNNEL", "SET_FORWARD_PLANE_MODE", "SET_SUPERVXLAN",
    "SET_SUBVXLAN", "SET_ARPPROXY", "SET_SWITCH_PROTECTED", "SET_UNALLOWED_BCAST", "SET_TUNNEL_ROUTE",
    "SET_FAST_SWITCH", "SET_VXLAN_SUB_INTF", "REQ_CAPA", "NOTIFY_MAC", "NOTIFY_CAPA",
    "NOTIFY_CTRL", "NOTIFY_VTEP_IP", "NOTIFY_LOCAL_HOST_MAC", "NOTIFY_REMOTE_HOST_MAC", "NOTIFY_REMOTE_HOST_ROUTE",
    "NOTIFY_LOCAL_PREFIX_ROUTE", "NOTIFY_REMOTE_PREFIX_ROUTE", "NOTIFY_UNALLOWED_BCAST", "NOTIFY_MAC_CONFLICT",
    "NOTIFY_ARP_CONFLICT",
    "CLIENT_REG", "CLIENT_DBG", "CLIENT_SHOW", "CLIENT_TYPE_REG", "EF_DBG",
    "EF_SHOW", "EF_CTRL", "SET_REMOTE_LEARN", "EF_DATA_READY", "SET_CAPA",
    "SET_CLEAR_ENTRY_BEGIN", "SET_CLEAR_ENTRY_END", "SET_EVPN_RT_2_ADVERTISE_DISABLE",
    "SET_EVPN_MAC_ADVERTISE_DISABLE", "SET_EVPN_MAC_INACTIVE",
    "SET_EVPN_ARP_MAC_LEARN", "SET_ROUTER_MAC", "SET_VNI_MAP", "SET_VRF", "SET_VNI_ARP_SUPPRESS",
    "SET_TUNNEL_MAC_LEARN", "SET_TUNNEL_ROUTE_LEARN", "SET_VNI_PROXY_VLAN_CHECK", "NOTIFY_VTEP_NBR_RT5",
    "SET_TUNNEL_COUNTING",
    "SET_L3VNI_MAP", "SET_REMOTE_ND_LEARN", "SET_SUPPRESS_ND", "SET_VNI_ND_SUPPRESS", "SET_EVPN_ND_MAC_LEARN",
    "", "", "SET_VNI_ARP_SPRS", "SET_VNI_ARP_PROXY", "SET_VNI_ND_SPRS",
    "SET_VNI_ND_PROXY",
};

static_assert(kCodeNames[68] == "EF_DATA_READY" && kCodeNames[89] == "SET_EVPN_ND_MAC_LEARN" &&
                  kCodeNames[90].empty() && kCodeNames[91].empty() && kCodeNames[95] == "SET_VNI_ND_PROXY",
              "type-name table out of step with the codes");

bool same_name(std::string_view a, std::string_view b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y));
    });
}

}  // namespace

std::string_view field_kind_name(FieldKind kind)
{
    switch (kind) {
    case FieldKind::U8: return "u8";
    case FieldKind::U16: return "u16";
    case FieldKind::U32: return "u32";
    case FieldKind::I32: return "i32";
    case FieldKind::Ip: return "ip";
    case FieldKind::Mac: return "mac";
    case FieldKind::VlanBitmap: return "vlan bitmap";
    }
    return "?";
}

std::span<const TlvDef> catalogue() { return kCatalogue; }

const TlvDef *find_tlv(uint16_t code)
{
    for (const TlvDef &def : kCatalogue)
        if (def.code == code)
            return &def;
    return nullptr;
}

const TlvDef *find_tlv(std::string_view name_or_code)
{
    unsigned code = 0;
    const char *end = name_or_code.data() + name_or_code.size();
    auto [p, ec] = std::from_chars(name_or_code.data(), end, code);
    if (!name_or_code.empty() && ec == std::errc() && p == end)
        return code <= 0xFFFF ? find_tlv(static_cast<uint16_t>(code)) : nullptr;
    for (const TlvDef &def : kCatalogue)
        if (same_name(def.name, name_or_code))
            return &def;
    return nullptr;
}

const FieldDef *find_field(const TlvDef &def, std::string_view name)
{
    for (const FieldDef &f : def.fields)
        if (f.name == name)
            return &f;
    return nullptr;
}

std::string_view tlv_code_name(uint16_t code)
{
    if (code < kCodeNames.size() && !kCodeNames[code].empty())
        return kCodeNames[code];
    return "unknown";
}

}  // namespace vxlanctl
