// The send verb against a running efhost: one TLV, and for a VLAN extension
// what became of it. The module keeps a VLAN with the VNI that already
// holds it and says nothing, so vxlanctl reads the owners back and names
// every VLAN of the message that stayed elsewhere.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "apply_config.h"
#include "tlv_writer.h"

namespace vxlanctl {

// The VLANs a SET_VLAN add asked for that another VNI holds in owners, as
// one line each ("vxlanctl: send: VLAN 10 stays with VNI 1000, ..."); none
// for any other TLV.
std::vector<std::string> vlans_left_elsewhere(const Tlv &tlv, const VlanOwners &owners);

// Returns an exit code of request.h.
int run_send_verb(const std::string &socket_path, const std::string &type, const std::vector<std::string> &fields,
                  double timeout_s, std::ostream &out, std::ostream &err);

}  // namespace vxlanctl
