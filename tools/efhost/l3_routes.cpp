// Longest-prefix match over the underlay's few routes. The table is built
// once and only read afterwards, so a linear search without locking serves.
#include "l3_routes.h"

namespace efhost::l3 {

void RouteTable::add(const IpPrefix &prefix, std::optional<IpAddr> via, size_t port)
{
    routes_.push_back(Route{prefix, via, port});
}

const Route *RouteTable::lookup(const IpAddr &dst) const
{
    const Route *best = nullptr;
    for (const Route &r : routes_)
        if (prefix_contains(r.prefix, dst) && (best == nullptr || r.prefix.len > best->prefix.len))
            best = &r;
    return best;
}

}  // namespace efhost::l3
