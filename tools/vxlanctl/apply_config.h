// The configuration an apply file describes (udp port, global switches,
// anycast MAC, VNIs, tunnels, VRFs, sub-interfaces), how it is read and
// checked from YAML (apply_reader.cpp) and the TLV sequence of the full
// resynchronisation it becomes (apply_tlvs.cpp). The file format is
// documented in docs/vxlanctl.md.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "field_text.h"
#include "tlv_writer.h"

namespace vxlanctl {

// The global switches in the order they are sent, with their TLV types.
struct SwitchDef {
    std::string_view key;
    uint16_t code;
};
inline constexpr std::array<SwitchDef, 5> kSwitchDefs = {{
    {"suppress_arp", kSetSuppressArp},
    {"suppress_nd", kSetSuppressNd},
    {"copy_dscp", kSetCopyDscp},
    {"remote_arp_learn", kSetRemoteLearn},
    {"remote_nd_learn", kSetRemoteNdLearn},
}};

struct RouterConf {
    uint32_t interface = 0;
    uint32_t vrf = 0;
    bool anycast = false;
};

struct VniConf {
    uint32_t vni = 0;
    std::vector<uint16_t> vlans;  // ascending, no repeats
    std::optional<RouterConf> router;
    std::optional<uint32_t> map_vni;
    std::optional<bool> arp_suppress;
    std::optional<bool> nd_suppress;
    std::optional<bool> protect;
};

struct TunnelConf {
    uint32_t interface = 0;
    int line = 0;  // of the interface field, to point at it
    IpAddr source;
    IpAddr destination;
    std::vector<uint32_t> vnis;
    std::optional<bool> outside_center;
    std::optional<bool> mac_learn;
    std::optional<bool> route_learn;
};

struct VrfConf {
    int32_t id = 0;
    uint32_t l3vni = 0;
    uint32_t l3_interface = 0;
};

struct SubifConf {
    uint32_t interface = 0;
    uint32_t parent = 0;
    uint32_t vni = 0;
    uint16_t svid = 0;
    uint16_t cvid = 0;
};

struct ApplyConfig {
    std::optional<uint16_t> udp_port;
    std::array<std::optional<bool>, kSwitchDefs.size()> switches;
    std::optional<Mac> anycast_mac;
    std::vector<VniConf> vnis;
    std::vector<TunnelConf> tunnels;
    std::vector<VrfConf> vrfs;
    std::vector<SubifConf> subinterfaces;
};

// Reads and checks a whole apply text. On the first fault returns nothing
// and sets error to "FILE:LINE: field 'PATH': what was wrong", FILE being
// file_name.
std::optional<ApplyConfig> read_apply_text(const std::string &text, const std::string &file_name,
                                           std::string &error);
// The same for a file on disk (an unreadable file is an error too).
std::optional<ApplyConfig> read_apply_file(const std::string &path, std::string &error);

// Which VNI holds each VLAN in the module now, by VLAN id.
using VlanOwners = std::map<uint16_t, uint32_t>;

// The TLVs of a full resynchronisation to this configuration, from
// SYNC_DATA_BEGIN to SYNC_DATA_OVER. The module keeps a VLAN with the VNI
// that holds it, so a VLAN that owners puts with another VNI is deleted
// right before the SET_VLAN that extends it into its new one.
std::vector<Tlv> apply_tlvs(const ApplyConfig &config, const VlanOwners &owners = {});

}  // namespace vxlanctl
