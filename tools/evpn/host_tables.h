// The part of the kernel's EVPN state that lives in efhost's own tables
// rather than in the module: remote MACs (type-2 routes) as remote bridge
// entries toward the remote VTEP's tunnel interface, remote MAC/IP bindings
// in efhost's suppression table, and each VNI's suppression switches; and
// the control requests that take efhost from one such state to another.
// Pure data and functions, like fabric_view.h.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fabric_view.h"

namespace evpn {

using VniKey = std::pair<uint32_t, std::string>;  // VNI and a MAC or IP, as text

struct HostTables {
    std::map<VniKey, uint32_t> remote_macs;    // (VNI, MAC) -> tunnel interface
    std::map<VniKey, std::string> remote_ips;  // (VNI, IP) -> MAC
    std::set<uint32_t> suppressed;             // VNIs answering ARP and ND locally
    bool operator==(const HostTables &) const = default;
};

// What the kernel state calls for, given the tunnels the module has: a
// remote MAC whose VTEP has no tunnel (yet) waits for it.
HostTables host_tables(const KernelState &kernel, const TunnelIndexes &indexes);

// Requests to efhost's MAC table (mac) and suppression table (neighbour)
// in the order they are to be sent, and one log line per change. New and
// moved entries come before removals, so that a moved host is never absent.
struct HostChange {
    std::vector<std::string> mac;
    std::vector<std::string> neighbour;
    std::vector<std::string> log;
    bool empty() const { return mac.empty() && neighbour.empty(); }
};
HostChange host_change(const HostTables &from, const HostTables &to);

// efhost's tables as its listings show them (mac list, suppress list and
// suppress switches): what a follower that starts beside a running efhost
// has to change. Lines that do not parse are ignored.
HostTables host_tables_from_listing(const std::vector<std::string> &mac_lines,
                                    const std::vector<std::string> &binding_lines,
                                    const std::vector<std::string> &switch_lines);

}  // namespace evpn
