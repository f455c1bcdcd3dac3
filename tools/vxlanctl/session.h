// Runs a request over a connected control socket: sends its messages as
// module-31 envelopes (the last one asking efhost to report when done), then
// prints what efhost sends back (show lines, TLVs of the module) until the
// awaited answer comes or the time is up.
#pragma once

#include <ostream>
#include <string>

#include "request.h"

namespace vxlanctl {

// Returns the exit code: kExitOk, kExitConnection when the socket fails or
// efhost closes it, kExitTimeout when no answer came within timeout_s,
// kExitModuleError when the module logged errors while it processed the
// request (each printed), kExitNotFound for a show of something missing.
// Data (show lines, the module's TLVs) goes to out; status lines and
// failures to err.
int run_request(int fd, const Request &request, double timeout_s, std::ostream &out, std::ostream &err);

// Connects to efhost's socket and runs the request; kExitConnection with
// "vxlanctl: cannot connect to PATH: ..." on err when the socket refuses.
int connect_and_run(const std::string &socket_path, const Request &request, double timeout_s, std::ostream &out,
                    std::ostream &err);

}  // namespace vxlanctl
