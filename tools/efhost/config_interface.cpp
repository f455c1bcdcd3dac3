// Reading one interface of efhost's configuration: its control block
// fields, bridge VLANs, own addresses and attachment.
#include "config_sections.h"

#include <algorithm>
#include <string_view>

#include "config_addr.h"

namespace efhost::config_detail {

namespace {

constexpr size_t kNameLimit = 64;  // the control block's name arrays
const std::string kNameAllowed = "a name shorter than 64 bytes";
const std::string kVlanAllowed = "a VLAN from 1 to 4094, or a range such as 20-22";
const std::string kAddressAllowed =
    "an IPv4 or IPv6 address with its subnet length, such as 192.0.2.1/24 or 2001:db8::1/64";
const std::string kAttachAllowed = "either device, or pcap_in with pcap_out";
const std::string kStackAllowed = "raw, bridge, tcpip, or 0, 5, 6";

struct StackName {
    std::string_view name;
    uint8_t value;
};
constexpr StackName kStacks[] = {{"raw", 0}, {"bridge", 5}, {"tcpip", 6}};

uint8_t read_stack(const Field &f)
{
    const std::string text = read_scalar(f, "a protocol stack", kStackAllowed);
    for (const StackName &s : kStacks)
        if (text == s.name || text == std::to_string(s.value))
            return s.value;
    f.fail(f.found() + " is not a protocol stack", kStackAllowed);
}

std::vector<uint16_t> read_vlans(const Field &f)
{
    std::vector<uint16_t> vlans;
    for (const Field &item : list_items(f, "a list of VLANs from 1 to 4094 or ranges such as 20-22")) {
        const std::string text = read_scalar(item, "a VLAN or a range", kVlanAllowed);
        const std::optional<VlanRange> r = parse_vlan_range(text);
        if (!r)
            item.fail_not("a VLAN or a range", kVlanAllowed);
        if (r->first < 1 || r->last > 4094)
            item.fail(item.found() + " is out of range", kVlanAllowed);
        if (r->first > r->last)
            item.fail(item.found() + " is not an ascending range", kVlanAllowed);
        for (long v = r->first; v <= r->last; ++v) {
            if (std::find(vlans.begin(), vlans.end(), v) != vlans.end())
                item.fail("VLAN " + std::to_string(v) + " is already in the list", "each VLAN once");
            vlans.push_back(static_cast<uint16_t>(v));
        }
    }
    return vlans;
}

std::vector<IpPrefix> read_addresses(const Field &f)
{
    std::vector<IpPrefix> out;
    for (const Field &item : list_items(f, "a list of addresses such as 192.0.2.1/24")) {
        const std::string text = read_scalar(item, "an address with its subnet length", kAddressAllowed);
        const std::optional<IpPrefix> p = parse_prefix(text, false);
        if (!p)
            item.fail_not("an address with its subnet length", kAddressAllowed);
        out.push_back(*p);
    }
    return out;
}

Attachment read_attach(const Field &f)
{
    const MapReader m(f, {"device", "pcap_in", "pcap_out"}, kAttachAllowed);
    Attachment a;
    const std::string path_allowed = "a file or device name";
    if (const Field *d = m.find("device"))
        a.device = read_string(*d, 0, "a Linux network device name");
    if (const Field *in = m.find("pcap_in"))
        a.pcap_in = read_string(*in, 0, path_allowed);
    if (const Field *out = m.find("pcap_out"))
        a.pcap_out = read_string(*out, 0, path_allowed);
    const bool pcap = !a.pcap_in.empty() || !a.pcap_out.empty();
    if (!a.device.empty() && pcap)
        f.fail("both a device and captures are given", kAttachAllowed);
    if (pcap && a.pcap_out.empty())
        f.fail("pcap_in is given without pcap_out", kAttachAllowed);
    if (pcap && a.pcap_in.empty())
        f.fail("pcap_out is given without pcap_in", kAttachAllowed);
    if (!a.present())
        f.fail("nothing is given", kAttachAllowed);
    return a;
}

// The locally administered MAC derived from an interface index.
std::array<uint8_t, 6> default_mac(uint32_t index)
{
    return {0x02, 0, 0, 0, static_cast<uint8_t>(index >> 8), static_cast<uint8_t>(index)};
}

// The optional fields that are plain integers or booleans.
void read_scalars(const MapReader &m, InterfaceConfig &ic)
{
    if (const Field *f = m.find("type"))
        ic.type = static_cast<uint32_t>(read_int(*f, 0, 255, "an integer from 0 to 255"));
    if (const Field *f = m.find("mtu"))
        ic.mtu = static_cast<uint32_t>(read_int(*f, 68, 65535, "an integer from 68 to 65535"));
    if (const Field *f = m.find("link_up"))
        ic.link_up = read_bool(*f);
    if (const Field *f = m.find("pvid"))
        ic.pvid = static_cast<uint16_t>(read_int(*f, 0, 4094, "an integer from 0 to 4094"));
    if (const Field *f = m.find("subif_mode"))
        ic.subif_mode = static_cast<uint8_t>(read_int(*f, 0, 255, "an integer from 0 to 255"));
}

}  // namespace

std::array<uint8_t, 6> read_mac(const Field &f)
{
    const std::string allowed = "six hex pairs such as 02:00:00:00:00:01";
    const std::string text = read_scalar(f, "a MAC address", allowed);
    const auto mac = parse_mac(text);
    if (!mac)
        f.fail_not("a MAC address", allowed);
    return *mac;
}

InterfaceRead read_interface(const Field &item)
{
    const MapReader m(item,
                      {"index", "name", "short_name", "type", "stack", "mac", "mtu", "link_up", "pvid",
                       "vlans", "parent", "subif_mode", "addresses", "attach"},
                      "a map with at least index and name");
    const Field &index = m.require("index", "an integer from 1 to 4294967295");
    const Field &name = m.require("name", kNameAllowed);
    InterfaceRead r{InterfaceConfig{}, index, name, std::nullopt};
    InterfaceConfig &ic = r.config;
    ic.index = static_cast<uint32_t>(read_int(index, 1, 4294967295, "an integer from 1 to 4294967295"));
    ic.name = read_string(name, kNameLimit, kNameAllowed);
    const Field *short_name = m.find("short_name");
    ic.short_name = short_name ? read_string(*short_name, kNameLimit, kNameAllowed) : ic.name;
    read_scalars(m, ic);
    if (const Field *f = m.find("stack"))
        ic.stack = read_stack(*f);
    const Field *mac = m.find("mac");
    ic.mac = mac ? read_mac(*mac) : default_mac(ic.index);
    if (const Field *f = m.find("vlans"))
        ic.vlans = read_vlans(*f);
    if (const Field *f = m.find("parent")) {
        ic.parent = static_cast<uint32_t>(
            read_int(*f, 0, 4294967295, "0 for none, or the index of another interface in this file"));
        r.parent = *f;
    }
    if (const Field *f = m.find("addresses"))
        ic.addresses = read_addresses(*f);
    if (const Field *f = m.find("attach"))
        ic.attach = read_attach(*f);
    return r;
}

}  // namespace efhost::config_detail
