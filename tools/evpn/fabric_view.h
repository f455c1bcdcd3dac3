// What the EVPN follower knows: the EVPN state zebra keeps in the kernel
// (VXLAN devices with their VNI, local address and VLAN, the flood list of
// remote VTEPs per VNI, remote MAC entries), the module configuration that
// follows from it (VNIs with their VLAN, one tunnel per local and remote VTEP
// pair with the VNIs it carries), and the TLVs that take the module from one
// such configuration to another. Pure data and functions: no netlink, no
// socket, so that tests check them directly.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "apply_config.h"
#include "interface_request.h"
#include "tlv_writer.h"

namespace evpn {

// One VNI as the kernel shows it.
struct KernelVni {
    std::string device;             // the VXLAN device
    std::string local;              // its local (VTEP) address, as text
    std::optional<uint16_t> vlan;   // from the device's alias "vlan=N"
    std::set<std::string> flood;    // remote VTEPs: all-zero-MAC FDB entries
    std::map<std::string, std::string> remote_macs;  // MAC -> remote VTEP (type-2)
    std::map<std::string, std::string> remote_ips;   // IP -> MAC (type-2 MAC/IP)
    bool suppress = false;          // the device's neigh_suppress
    int bridge = 0;                 // interface index of the VNI's bridge
    int local_port = 0;             // of its port "localVNI", where efhost's MACs go
    // What the follower itself wrote there for efhost's hosts: static FDB
    // entries on the local port, never-probed neighbours on the bridge.
    std::set<std::string> own_macs;
    std::map<std::string, std::string> own_ips;  // IP -> MAC
    bool operator==(const KernelVni &) const = default;
};
using KernelState = std::map<uint32_t, KernelVni>;

// The VLAN named by a device alias such as "vlan=10" (1..4094), if any.
std::optional<uint16_t> vlan_from_alias(const std::string &alias);

// A tunnel of the module: from the local VTEP to a remote one.
using TunnelKey = std::pair<std::string, std::string>;  // local, remote

struct ModuleView {
    std::map<uint32_t, std::optional<uint16_t>> vnis;    // VNI -> its VLAN
    std::set<uint32_t> suppressed;                       // VNIs with ARP and ND suppression on
    std::map<TunnelKey, std::set<uint32_t>> tunnels;     // tunnel -> VNIs it carries
    bool operator==(const ModuleView &) const = default;
};

// The module configuration the kernel state calls for. A VNI without a
// local address carries no tunnel.
ModuleView module_view(const KernelState &kernel);

// Interface indexes of the tunnels: stable while a tunnel lives, the lowest
// free index from the base for a new one. Names are the follower's prefix
// and the remote address.
class TunnelIndexes {
public:
    explicit TunnelIndexes(uint32_t base) : base_(base) {}
    // Index of a tunnel, allocated when new.
    uint32_t index(const TunnelKey &key);
    // Index of a tunnel that has one, without allocating.
    std::optional<uint32_t> find(const TunnelKey &key) const
    {
        auto it = by_key_.find(key);
        return it == by_key_.end() ? std::nullopt : std::optional<uint32_t>(it->second);
    }
    // Takes over an interface that efhost already has (from its list):
    // remembered for the next tunnel to that remote VTEP.
    void adopt(uint32_t ifx, const std::string &name);
    // Forgets tunnels that are not in the view, and adopted indexes never
    // used; returns the indexes dropped.
    std::vector<uint32_t> keep_only(const ModuleView &view);
    static std::string name(const TunnelKey &key) { return std::string(vxlanctl::kFollowerTunnelPrefix) + key.second; }
    static bool is_ours(const std::string &name) { return name.rfind(vxlanctl::kFollowerTunnelPrefix, 0) == 0; }

private:
    uint32_t base_;
    std::map<TunnelKey, uint32_t> by_key_;
    std::map<std::string, uint32_t> adopted_;  // by name
};

// The apply configuration of a full resynchronisation to the view: every
// VNI with its VLAN and suppression, every tunnel with remote MAC learning on (the module
// learns remote MACs from the packets it decapsulates).
vxlanctl::ApplyConfig apply_config(const ModuleView &view, TunnelIndexes &indexes);

// The incremental change from one view to another: what to create in efhost
// first, the TLVs in an order the module accepts (VNIs and tunnels before
// their associations, associations removed before their tunnels and VNIs),
// what to remove from efhost after, and one log line per change.
struct Change {
    std::vector<std::pair<uint32_t, std::string>> create_interfaces;
    std::vector<vxlanctl::Tlv> tlvs;
    std::vector<uint32_t> remove_interfaces;
    std::vector<std::string> log;
    bool empty() const { return tlvs.empty() && create_interfaces.empty() && remove_interfaces.empty(); }
};
Change change(const ModuleView &from, const ModuleView &to, TunnelIndexes &indexes);

// The log lines of what changed in the kernel state: one per VNI that is
// new or changed, one per VNI gone.
std::vector<std::string> describe_change(const KernelState &from, const KernelState &to);

}  // namespace evpn
