// The bridge MAC table as a control client asks for it: the mac verb of
// vxlanctl and the EVPN follower send these request texts over the control
// socket (docs/efhost-config.md has the forms and their answers):
//   list [vni V] [mac M]        every entry, or those of one VNI or MAC
//   remote add VNI MAC IFX      a remote host's MAC toward a tunnel interface
//   remote remove VNI MAC IFX   withdrawn; kept if it has moved since
//   local [since G]             MACs learned on efhost's own ports, unless
//                               the table's generation is still G
// Safe to call from the control socket's threads while packets flow.
#pragma once

#include <string>

#include "request_reply.h"

namespace efhost {

RequestReply mac_request(const std::string &request);

}  // namespace efhost
