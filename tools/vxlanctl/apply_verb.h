// The apply verb against a running efhost. The file is read and checked
// first; then against efhost (a tunnel on an interface efhost lacks would
// lose every packet sent to it) and the module (which VNI holds each VLAN
// now, so that VLANs that move are moved); then sent as one full
// resynchronisation. efhost's start-up overlay goes the same way.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "apply_config.h"
#include "module_state.h"
#include "request.h"

namespace vxlanctl {

// The full resynchronisation to config, given who holds each VLAN now.
std::optional<Request> resync_request(const ApplyConfig &config, const VlanOwners &owners, std::string &error);

// The first tunnel whose interface is not among efhost's tunnel
// interfaces, as "FILE:LINE: field 'tunnels[I].interface': ..."; empty
// when every one is there.
std::string missing_tunnel_interface(const ApplyConfig &config, const TunnelInterfaces &tunnels,
                                     const std::string &file);

// A warning when the EVPN follower drives this efhost (it has the
// follower's tunnel interfaces): an apply replaces the follower's
// configuration, which it does not notice until its next change. Empty
// when there is none of them.
std::string follower_warning(const TunnelInterfaces &tunnels);

// Returns an exit code of request.h; status lines and failures go to err.
int run_apply_verb(const std::string &socket_path, const std::string &file, double timeout_s, std::ostream &out,
                   std::ostream &err);

}  // namespace vxlanctl
