// The underlay's routing table: configured routes and the subnets the
// ports' own addresses are connected to, searched by longest prefix.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "l3_wire.h"

namespace efhost::l3 {

struct Route {
    IpPrefix prefix;
    std::optional<IpAddr> via;  // gateway; none: the destination is on the link
    size_t port = 0;            // index into the engine's ports
};

class RouteTable {
public:
    // Adds a route; among equally long prefixes the first added wins.
    void add(const IpPrefix &prefix, std::optional<IpAddr> via, size_t port);
    // The route with the longest prefix holding dst, or nullptr.
    const Route *lookup(const IpAddr &dst) const;

private:
    std::vector<Route> routes_;
};

}  // namespace efhost::l3
