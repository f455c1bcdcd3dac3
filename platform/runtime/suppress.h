// ARP and ND suppression on the platform's side of the module: per VNI, the
// switches that say whether the platform answers ARP or neighbour discovery
// itself, and the IP-to-MAC bindings it answers from. Remote bindings come
// from the control plane (a remote host's MAC/IP route) and stay until
// withdrawn; local ones are snooped from the hosts on efhost's own ports and
// age on the platform clock. The pipeline (pipeline.cpp) hands ARP and ND
// frames to suppress_frame (suppress_frame.cpp), which answers what the
// table knows and marks the rest as local frames, so that the module floods
// them instead of dropping them; the module's own suppression is unchanged.
//
// The table is read only for ARP and ND frames and by control requests, so
// one mutex guards it; nothing of it is read without that lock.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "efmp.h"

namespace efrt {

using MacAddr = std::array<uint8_t, 6>;

// The address a binding is for: IPv4 in the first 4 bytes (the rest zero),
// or IPv6. IPv4 orders before IPv6.
struct NeighbourIp {
    bool v6 = false;
    std::array<uint8_t, 16> bytes{};
    auto operator<=>(const NeighbourIp &) const = default;
};

enum class BindingKind : uint8_t { Remote, Local };

struct SuppressBinding {
    uint32_t vni = 0;
    NeighbourIp ip;
    MacAddr mac{};
    BindingKind kind = BindingKind::Remote;
    uint64_t seen_ms = 0;  // platform clock when a local binding was last seen; 0 for remote
};

enum class SuppressProto : uint8_t { Arp, Nd };

struct SuppressSwitches {
    uint32_t vni;
    bool arp;
    bool nd;
};

struct SuppressCounters {
    uint64_t arp_answered;
    uint64_t arp_handed_on;  // well-formed requests left to the module
    uint64_t nd_answered;
    uint64_t nd_handed_on;   // well-formed solicitations left to the module
    uint64_t local_learned;  // local bindings created or moved to another MAC
    uint64_t local_refused;  // not learnt: the table held its most local bindings
};

// ---- switches ----
void suppress_set_switch(uint32_t vni, SuppressProto proto, bool on);
bool suppress_switch_on(uint32_t vni, SuppressProto proto);
// The VNIs with any switch on, ascending.
std::vector<SuppressSwitches> suppress_switches();

// ---- bindings ----
// A remote binding; it replaces a local one of the same address (the host
// moved away). Returns the binding it replaced, if any.
std::optional<SuppressBinding> suppress_add_remote(uint32_t vni, const NeighbourIp &ip, const MacAddr &mac);
// Removes the address's binding if it is remote; a local one stays. True
// when one was removed.
bool suppress_remove_remote(uint32_t vni, const NeighbourIp &ip);
// A local binding seen now, replacing a remote one (the host moved here);
// seeing it again only refreshes its time. False when it was not learnt
// because the table already holds its most local bindings.
bool suppress_learn_local(uint32_t vni, const NeighbourIp &ip, const MacAddr &mac);
// The MAC the address is bound to in the VNI, of either kind.
std::optional<MacAddr> suppress_lookup(uint32_t vni, const NeighbourIp &ip);
// Every binding, ordered by VNI then address.
std::vector<SuppressBinding> suppress_bindings();
// The local bindings, ordered as above, and the generation they belong to,
// read together.
std::vector<SuppressBinding> suppress_local_bindings(uint64_t &generation);
// Changes whenever the set of local bindings changes (one added, moved to
// another MAC, aged out, replaced by a remote one). It starts at an
// arbitrary number at every reset, so that a number remembered from an
// earlier run does not pass for the current one.
uint64_t suppress_generation();

// Local bindings not seen for the age time (300 s after reset) are removed
// by an ageing run; returns how many went.
void suppress_set_age_time(uint64_t ms);
size_t suppress_age_run();
// Local bindings are learnt up to the capacity (65536 after reset).
void suppress_set_local_capacity(size_t bindings);

// ---- counters ----
enum class SuppressEvent : uint8_t { ArpAnswered, ArpHandedOn, NdAnswered, NdHandedOn };
void suppress_count(SuppressEvent event);
SuppressCounters suppress_counters();

// ---- the pipeline's step ----
enum class SuppressVerdict : uint8_t {
    Untouched,  // not ARP or ND, or its switch is off
    HandedOn,   // marked as a local frame (perhaps snooped) for the module
    Answered,   // answered from the table; the request goes no further
};

// The packet types suppress_frame may act on, tested with one bit test per
// frame: ARP (2) and IPv6 (27). Other types that share their low five bits
// pass here and are told apart by suppress_frame.
inline bool suppress_may_concern(uint8_t pkt_type)
{
    constexpr uint32_t kTypes = 1u << EFMP_PKT_ARP | 1u << EFMP_PKT_IPV6;
    return (kTypes >> (pkt_type & 31u) & 1u) != 0;
}

// An ARP or ND frame of a VNI, parsed by the receive parsers (untagged, its
// VLAN in the tag word): snooped, answered through the receiving interface,
// or marked as a local frame, as its VNI's switch says. The buffer stays the
// caller's in every case; an Answered one is not to be forwarded.
SuppressVerdict suppress_frame(efmp_buff_t *buff);

// Empties the table, switches and counters; the age time and capacity go
// back to their defaults and the generation starts anew.
void suppress_reset();

}  // namespace efrt
