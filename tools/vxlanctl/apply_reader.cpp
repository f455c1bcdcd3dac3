// Reads an apply file into an ApplyConfig and checks it whole: value ranges,
// address families, duplicates and references between sections. Sections
// are read in a fixed order (VNIs before the sections that name them), so a
// file may list them in any order.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <tuple>

#include "apply_config.h"
#include "read_file.h"
#include "yaml_fields.h"

namespace vxlanctl {

namespace {

constexpr uint64_t kMaxU32 = 0xFFFFFFFF;

// What has been defined so far, with the line of each definition, so that
// a duplicate can point at the first one.
struct Defined {
    std::map<uint32_t, int> vnis;
    std::map<uint16_t, std::pair<uint32_t, int>> vlan_owner;  // vid -> (vni, line)
    std::map<uint32_t, int> tunnels;
    std::map<int32_t, int> vrfs;
    std::map<uint32_t, int> subifs;
    std::map<std::tuple<uint32_t, uint16_t, uint16_t>, std::pair<uint32_t, int>> subif_keys;
};

std::string at_line(int line) { return " at line " + std::to_string(line); }

uint32_t read_vni(const YAML::Node &node, const std::string &path)
{
    return static_cast<uint32_t>(unsigned_in(node, path, 1, kLastVni, "VNI"));
}

uint32_t read_ifx(const YAML::Node &node, const std::string &path)
{
    return static_cast<uint32_t>(unsigned_in(node, path, 1, kMaxU32, "interface index"));
}

// A VNI that another section names must be one of the file's VNIs.
uint32_t read_known_vni(const YAML::Node &node, const std::string &path, const Defined &defined)
{
    const uint32_t vni = read_vni(node, path);
    if (!defined.vnis.contains(vni))
        fail(node, path, "VNI " + std::to_string(vni) + " is not defined under vnis");
    return vni;
}

std::optional<bool> optional_flag(const YAML::Node &map, const std::string &path, const char *key)
{
    const YAML::Node node = map[key];
    if (!node)
        return std::nullopt;
    return boolean(node, key_path(path, key));
}

void read_switches(const YAML::Node &node, ApplyConfig &config)
{
    check_map(node, "switches",
              {kSwitchDefs[0].key, kSwitchDefs[1].key, kSwitchDefs[2].key, kSwitchDefs[3].key, kSwitchDefs[4].key});
    for (size_t i = 0; i < kSwitchDefs.size(); ++i) {
        const YAML::Node value = node[std::string(kSwitchDefs[i].key)];
        if (value)
            config.switches[i] = boolean(value, key_path("switches", kSwitchDefs[i].key));
    }
}

void read_vlans(const YAML::Node &node, const std::string &path, VniConf &vni, Defined &defined)
{
    const auto list = items(node, path);
    for (size_t i = 0; i < list.size(); ++i) {
        const std::string p = item_path(path, i);
        std::string error;
        const auto range = parse_vlan_range(scalar(list[i], p, "a VLAN id or range"), error);
        if (!range)
            fail(list[i], p, error);
        for (unsigned vid = range->first; vid <= range->last; ++vid) {
            auto [it, fresh] = defined.vlan_owner.emplace(vid, std::make_pair(vni.vni, line_of(list[i])));
            if (!fresh)
                fail(list[i], p, "VLAN " + std::to_string(vid) + " is already extended into VNI " +
                                     std::to_string(it->second.first) + at_line(it->second.second));
            vni.vlans.push_back(static_cast<uint16_t>(vid));
        }
    }
    std::sort(vni.vlans.begin(), vni.vlans.end());
}

RouterConf read_router(const YAML::Node &node, const std::string &path)
{
    check_map(node, path, {"interface", "vrf", "anycast"});
    RouterConf r;
    r.interface = read_ifx(required(node, path, "interface"), key_path(path, "interface"));
    if (const YAML::Node vrf = node["vrf"])
        r.vrf = static_cast<uint32_t>(unsigned_in(vrf, key_path(path, "vrf"), 0, kMaxU32, "VRF id"));
    r.anycast = optional_flag(node, path, "anycast").value_or(false);
    return r;
}

VniConf read_vni_item(const YAML::Node &node, const std::string &path, Defined &defined)
{
    check_map(node, path, {"vni", "vlans", "router", "map_vni", "arp_suppress", "nd_suppress", "protected"});
    VniConf v;
    const YAML::Node vni = required(node, path, "vni");
    v.vni = read_vni(vni, key_path(path, "vni"));
    auto [it, fresh] = defined.vnis.emplace(v.vni, line_of(vni));
    if (!fresh)
        fail(vni, key_path(path, "vni"), "VNI " + std::to_string(v.vni) + " is already defined" + at_line(it->second));
    if (const YAML::Node vlans = node["vlans"])
        read_vlans(vlans, key_path(path, "vlans"), v, defined);
    if (const YAML::Node router = node["router"])
        v.router = read_router(router, key_path(path, "router"));
    v.arp_suppress = optional_flag(node, path, "arp_suppress");
    v.nd_suppress = optional_flag(node, path, "nd_suppress");
    v.protect = optional_flag(node, path, "protected");
    return v;
}

// Mappings are checked once every VNI is known, since either side may come first.
void read_vnis(const YAML::Node &node, ApplyConfig &config, Defined &defined)
{
    const auto list = items(node, "vnis");
    for (size_t i = 0; i < list.size(); ++i)
        config.vnis.push_back(read_vni_item(list[i], item_path("vnis", i), defined));
    for (size_t i = 0; i < list.size(); ++i) {
        const YAML::Node map = list[i]["map_vni"];
        if (!map)
            continue;
        const std::string p = key_path(item_path("vnis", i), "map_vni");
        const uint32_t target = read_known_vni(map, p, defined);
        if (target == config.vnis[i].vni)
            fail(map, p, "VNI " + std::to_string(target) + " cannot be mapped to itself");
        config.vnis[i].map_vni = target;
    }
}

void read_tunnel_vnis(const YAML::Node &node, const std::string &path, TunnelConf &t, const Defined &defined)
{
    const auto list = items(node, path);
    for (size_t i = 0; i < list.size(); ++i) {
        const std::string p = item_path(path, i);
        const uint32_t vni = read_known_vni(list[i], p, defined);
        for (uint32_t seen : t.vnis)
            if (seen == vni)
                fail(list[i], p, "VNI " + std::to_string(vni) + " is listed twice for this tunnel");
        t.vnis.push_back(vni);
    }
}

TunnelConf read_tunnel(const YAML::Node &node, const std::string &path, Defined &defined)
{
    check_map(node, path,
              {"interface", "source", "destination", "vnis", "outside_center", "mac_learn", "route_learn"});
    TunnelConf t;
    const YAML::Node ifx = required(node, path, "interface");
    t.interface = read_ifx(ifx, key_path(path, "interface"));
    t.line = line_of(ifx);
    auto [it, fresh] = defined.tunnels.emplace(t.interface, t.line);
    if (!fresh)
        fail(ifx, key_path(path, "interface"),
             "tunnel interface " + std::to_string(t.interface) + " is already defined" + at_line(it->second));
    t.source = address(required(node, path, "source"), key_path(path, "source"));
    const YAML::Node dip = required(node, path, "destination");
    t.destination = address(dip, key_path(path, "destination"));
    if (t.destination.family != t.source.family)
        fail(dip, key_path(path, "destination"),
             std::string(t.destination.family == kFamilyIpv4 ? "IPv4" : "IPv6") + " address but the source is " +
                 (t.source.family == kFamilyIpv4 ? "IPv4" : "IPv6") + "; both must be of the same family");
    if (const YAML::Node vnis = node["vnis"])
        read_tunnel_vnis(vnis, key_path(path, "vnis"), t, defined);
    t.outside_center = optional_flag(node, path, "outside_center");
    t.mac_learn = optional_flag(node, path, "mac_learn");
    t.route_learn = optional_flag(node, path, "route_learn");
    return t;
}

VrfConf read_vrf(const YAML::Node &node, const std::string &path, Defined &defined)
{
    check_map(node, path, {"id", "l3vni", "l3_interface"});
    VrfConf v;
    const YAML::Node id = required(node, path, "id");
    v.id = static_cast<int32_t>(signed_in(id, key_path(path, "id"), INT32_MIN, INT32_MAX, "VRF id"));
    auto [it, fresh] = defined.vrfs.emplace(v.id, line_of(id));
    if (!fresh)
        fail(id, key_path(path, "id"), "VRF " + std::to_string(v.id) + " is already defined" + at_line(it->second));
    v.l3vni = read_vni(required(node, path, "l3vni"), key_path(path, "l3vni"));
    v.l3_interface = read_ifx(required(node, path, "l3_interface"), key_path(path, "l3_interface"));
    return v;
}

SubifConf read_subif(const YAML::Node &node, const std::string &path, Defined &defined)
{
    check_map(node, path, {"interface", "parent", "vni", "svid", "cvid"});
    SubifConf s;
    const YAML::Node ifx = required(node, path, "interface");
    s.interface = read_ifx(ifx, key_path(path, "interface"));
    auto [it, fresh] = defined.subifs.emplace(s.interface, line_of(ifx));
    if (!fresh)
        fail(ifx, key_path(path, "interface"),
             "sub-interface " + std::to_string(s.interface) + " is already defined" + at_line(it->second));
    s.parent = read_ifx(required(node, path, "parent"), key_path(path, "parent"));
    s.vni = read_known_vni(required(node, path, "vni"), key_path(path, "vni"), defined);
    const YAML::Node svid = required(node, path, "svid");
    s.svid = static_cast<uint16_t>(unsigned_in(svid, key_path(path, "svid"), kFirstVlan, kLastVlan, "VLAN"));
    if (const YAML::Node cvid = node["cvid"])
        s.cvid = static_cast<uint16_t>(unsigned_in(cvid, key_path(path, "cvid"), 0, kLastVlan, "VLAN"));
    auto [kt, key_fresh] =
        defined.subif_keys.emplace(std::make_tuple(s.parent, s.svid, s.cvid), std::make_pair(s.interface, line_of(ifx)));
    if (!key_fresh)
        fail(svid, key_path(path, "svid"),
             "parent " + std::to_string(s.parent) + " with svid " + std::to_string(s.svid) + " and cvid " +
                 std::to_string(s.cvid) + " is already used by sub-interface " + std::to_string(kt->second.first) +
                 at_line(kt->second.second));
    return s;
}

template <typename T, typename Read>
void read_list(const YAML::Node &root, const char *key, std::vector<T> &out, Defined &defined, Read read)
{
    const YAML::Node node = root[key];
    if (!node)
        return;
    const auto list = items(node, key);
    for (size_t i = 0; i < list.size(); ++i)
        out.push_back(read(list[i], item_path(key, i), defined));
}

ApplyConfig read_config(const YAML::Node &root)
{
    ApplyConfig config;
    if (root.IsNull())
        return config;
    check_map(root, "",
              {"udp_port", "switches", "anycast_mac", "vnis", "tunnels", "vrfs", "subinterfaces"});
    Defined defined;
    if (const YAML::Node port = root["udp_port"])
        config.udp_port = static_cast<uint16_t>(unsigned_in(port, "udp_port", 1, 65535, "port"));
    if (const YAML::Node switches = root["switches"])
        read_switches(switches, config);
    if (const YAML::Node mac = root["anycast_mac"])
        config.anycast_mac = mac_address(mac, "anycast_mac");
    if (const YAML::Node vnis = root["vnis"])
        read_vnis(vnis, config, defined);
    read_list(root, "tunnels", config.tunnels, defined, read_tunnel);
    read_list(root, "vrfs", config.vrfs, defined, read_vrf);
    read_list(root, "subinterfaces", config.subinterfaces, defined, read_subif);
    return config;
}

std::string located(const std::string &file, int line, const std::string &path, const std::string &what)
{
    const std::string where = file + ":" + std::to_string(line) + ": ";
    return path.empty() ? where + what : where + "field '" + path + "': " + what;
}

}  // namespace

std::optional<ApplyConfig> read_apply_text(const std::string &text, const std::string &file_name,
                                           std::string &error)
{
    try {
        return read_config(YAML::Load(text));
    } catch (const FieldError &e) {
        error = located(file_name, e.line, e.path, e.what);
    } catch (const YAML::Exception &e) {
        error = located(file_name, e.mark.is_null() ? 1 : e.mark.line + 1, "", "not valid YAML: " + e.msg);
    }
    return std::nullopt;
}

std::optional<ApplyConfig> read_apply_file(const std::string &path, std::string &error)
{
    std::string text;
    if (!toolfiles::read_file(path, text)) {
        error = "vxlanctl: cannot read " + path + ": " + std::strerror(errno);
        return std::nullopt;
    }
    return read_apply_text(text, path, error);
}

}  // namespace vxlanctl
