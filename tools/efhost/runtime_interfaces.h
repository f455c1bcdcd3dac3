// Tunnel interfaces (type 45) that a control process creates and removes
// while efhost runs, through the control socket's interface request: their
// creation and destruction reach the module as the interface events of the
// YAML file's interfaces do at start. Interfaces of the YAML file are never
// touched. The request's text form is documented in docs/efhost-config.md.
#pragma once

#include <string>
#include <vector>

#include "request_reply.h"

namespace efhost {

// Carries out one request text:
//   create IFX NAME   a tunnel interface; repeating an existing run-time
//                     creation with the same name is accepted (idempotent)
//   remove IFX        a tunnel interface made by create; an unknown index is
//                     accepted, one of the YAML file is refused
//   list              the run-time tunnel interfaces, by index
//   tunnels           every tunnel interface, the YAML file's included
// Safe to call from the control socket's thread while packets flow.
RequestReply runtime_interface_request(const std::string &request);

// Forgets the run-time interfaces (efhost's shut-down destroys every
// interface with the platform).
void runtime_interfaces_reset();

}  // namespace efhost
