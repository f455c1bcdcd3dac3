// efhost's run-time tunnel interfaces as a client asks for them: the
// tunnel-intf verb of vxlanctl and the EVPN follower send the same request
// text (create IFX NAME, remove IFX, list) over the control socket.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "ctl_wire.h"

namespace vxlanctl {

// The names the EVPN follower gives the tunnel interfaces it creates begin
// with this, so that efhost's lists tell them apart from everyone else's.
inline constexpr std::string_view kFollowerTunnelPrefix = "evpn-";

struct InterfaceAnswer {
    int code = 0;                    // an ExitCode of request.h
    bool ok = false;                 // efhost carried it out
    std::string status;              // efhost's "ok ..." or "error: ..." line
    std::vector<std::string> lines;  // list: "IFX NAME" per interface
    std::string error;               // connection or timeout failure
};

// The request text of tunnel-intf's arguments, checked before anything is
// sent; nothing with error set to the line to print.
std::optional<std::string> interface_request_text(const std::vector<std::string> &args, std::string &error);

// Connects, sends the request text to efhost's own request module (an
// interface request unless said otherwise) and waits for efhost's answer.
InterfaceAnswer interface_request(const std::string &socket_path, const std::string &text, double timeout_s,
                                  uint32_t module = ctl::kModuleInterfaceRequest);

// The tunnel-intf verb: prints the listed interfaces and efhost's status
// line; exit code 4 when efhost refused the request.
int run_interface_verb(const std::string &socket_path, const std::vector<std::string> &args, double timeout_s,
                       std::ostream &out, std::ostream &err);

// The mac and suppress verbs: sends the words as one request text to
// efhost's table request module and prints the listed lines and its status.
int run_table_verb(const std::string &socket_path, uint32_t module, const std::vector<std::string> &words,
                   double timeout_s, std::ostream &out, std::ostream &err);

// The counters verb: prints efhost's counters as they are now.
int run_counters_verb(const std::string &socket_path, double timeout_s, std::ostream &out, std::ostream &err);

}  // namespace vxlanctl
