// Neighbour suppression as a control client asks for it: the suppress verb
// of vxlanctl and the EVPN follower send these request texts over the
// control socket (docs/efhost-config.md has the forms and their answers):
//   list [vni V]                  every binding, or those of one VNI
//   remote add VNI IP MAC         a remote host's IP binding (MAC/IP route)
//   remote remove VNI IP          withdrawn
//   local [since G]               bindings snooped from efhost's own hosts,
//                                 unless the table's generation is still G
//   switch VNI arp|nd on|off      answer ARP or ND of the VNI locally
//   switches                      the VNIs whose switches are on
// Safe to call from the control socket's threads while packets flow.
#pragma once

#include <string>

#include "request_reply.h"

namespace efhost {

RequestReply neighbour_request(const std::string &request);

}  // namespace efhost
