// What vxlanctl reads back from the module before it changes it: the VLAN
// owners from the entry show (the module's only account of them) and the
// tunnel interfaces efhost has.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <map>
#include <string>

#include "apply_config.h"

namespace vxlanctl {

// The VLANs of each VNI in the text of an entry show of every VNI, with or
// without efhost's "VXLAN-EF-SHOW: [vsd N] " in front of each line.
VlanOwners vlan_owners_from_show(const std::string &text);

// Asks efhost's module for its entry show and reads the owners from it;
// nothing, with the reason on err and code set, when efhost did not answer.
std::optional<VlanOwners> read_vlan_owners(const std::string &socket_path, double timeout_s, std::ostream &err,
                                           int &code);

// efhost's tunnel interfaces: names by index.
using TunnelInterfaces = std::map<uint32_t, std::string>;

// efhost's tunnel interfaces; nothing, as above, when it did not answer.
std::optional<TunnelInterfaces> read_tunnel_interfaces(const std::string &socket_path, double timeout_s,
                                                       std::ostream &err, int &code);

}  // namespace vxlanctl
