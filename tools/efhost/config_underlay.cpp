// Reading the underlay of efhost's configuration: the routes and the static
// neighbours its L3 engine starts with.
#include "config_sections.h"

#include "config_addr.h"

namespace efhost::config_detail {

namespace {

const std::string kNetworkAllowed = "a network such as 192.0.2.0/24 or 2001:db8::/32";
const std::string kAddressAllowed = "an IPv4 or IPv6 address without a length, such as 192.0.2.254";

std::string index_list(const std::set<uint32_t> &indexes)
{
    std::string out;
    for (uint32_t i : indexes)
        out += (out.empty() ? "" : ", ") + std::to_string(i);
    return out;
}

IpPrefix read_network(const Field &f)
{
    const std::string text = read_scalar(f, "a network", kNetworkAllowed);
    const std::optional<IpPrefix> p = parse_prefix(text, false);
    if (!p)
        f.fail_not("a network", kNetworkAllowed);
    const IpPrefix net = network_of(*p);
    if (net.addr != p->addr)
        f.fail(f.found() + " has bits set beyond its length", "a network such as " + format_prefix(net));
    return *p;
}

IpPrefix read_address(const Field &f)
{
    const std::string text = read_scalar(f, "an IP address", kAddressAllowed);
    const std::optional<IpPrefix> p = parse_ip(text);
    if (!p)
        f.fail_not("an IP address", kAddressAllowed);
    return *p;
}

RouteConfig read_route(const Field &item, const std::set<uint32_t> &indexes)
{
    const MapReader m(item, {"prefix", "via", "interface"}, "a map with prefix, interface and optionally via");
    RouteConfig r;
    r.prefix = read_network(m.require("prefix", kNetworkAllowed));
    if (const Field *via = m.find("via")) {
        r.via = read_address(*via);
        if (r.via->family != r.prefix.family)
            via->fail(via->found() + " is " + family_name(r.via->family) + " but the prefix is " +
                          family_name(r.prefix.family),
                      std::string("an ") + family_name(r.prefix.family) + " gateway");
    }
    r.interface = read_interface_ref(m.require("interface", "the index of an interface in this file"),
                                     indexes, false);
    return r;
}

NeighbourConfig read_neighbour(const Field &item, const std::set<uint32_t> &indexes)
{
    const MapReader m(item, {"ip", "mac", "interface"}, "a map with ip, mac and interface");
    NeighbourConfig n;
    n.ip = read_address(m.require("ip", kAddressAllowed));
    n.mac = read_mac(m.require("mac", "six hex pairs such as 02:00:00:00:00:01"));
    n.interface = read_interface_ref(m.require("interface", "the index of an interface in this file"),
                                     indexes, false);
    return n;
}

}  // namespace

uint32_t read_interface_ref(const Field &f, const std::set<uint32_t> &indexes, bool zero_allowed)
{
    const std::string allowed =
        (zero_allowed ? "0 for none, or one of: " : "one of: ") + index_list(indexes);
    const auto index = static_cast<uint32_t>(read_int(f, 0, 4294967295, allowed));
    if ((index != 0 || !zero_allowed) && !indexes.count(index))
        f.fail(f.found() + " is not the index of an interface in this file", allowed);
    return index;
}

std::vector<RouteConfig> read_routes(const Field &list, const std::set<uint32_t> &indexes)
{
    std::vector<RouteConfig> out;
    for (const Field &item : list_items(list, "a list of routes"))
        out.push_back(read_route(item, indexes));
    return out;
}

std::vector<NeighbourConfig> read_neighbours(const Field &list, const std::set<uint32_t> &indexes)
{
    std::vector<NeighbourConfig> out;
    for (const Field &item : list_items(list, "a list of neighbours"))
        out.push_back(read_neighbour(item, indexes));
    return out;
}

}  // namespace efhost::config_detail
