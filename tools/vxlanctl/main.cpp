// vxlanctl: the control-process side of the VXLAN module. Reads one verb from
// the command line, builds everything it will send before connecting (so a
// bad argument or file sends nothing), then talks to efhost over its control
// socket.
#include <iostream>

#include "apply_verb.h"
#include "command_line.h"
#include "send_verb.h"
#include "interface_request.h"
#include "request.h"
#include "session.h"
#include "tool_paths.h"

namespace {

using namespace vxlanctl;

std::optional<Request> build(const CommandLine &line, std::string &error)
{
    if (line.verb == "raw")
        return raw_request(line.words, error);
    if (line.verb == "show")
        return show_request(line.words, error);
    if (line.verb == "debug")
        return debug_request(line.words, error);
    return techdump_request();
}

int run(int argc, char **argv)
{
    CommandLine line;
    line.socket = tools::default_control_socket();
    if (const auto done = read_command_line(std::vector<std::string>(argv + 1, argv + argc), line, std::cout, std::cerr))
        return *done;
    if (line.verb == "counters")
        return run_counters_verb(line.socket, line.timeout, std::cout, std::cerr);
    if (line.verb == "mac")
        return run_table_verb(line.socket, ctl::kModuleMacRequest, line.words, line.timeout, std::cout, std::cerr);
    if (line.verb == "suppress")
        return run_table_verb(line.socket, ctl::kModuleNeighbourRequest, line.words, line.timeout, std::cout,
                              std::cerr);
    if (line.verb == "send")
        return run_send_verb(line.socket, line.type, line.words, line.timeout, std::cout, std::cerr);
    if (line.verb == "apply")
        return run_apply_verb(line.socket, line.file, line.timeout, std::cout, std::cerr);
    if (line.verb == "tunnel-intf")
        return run_interface_verb(line.socket, line.words, line.timeout, std::cout, std::cerr);
    std::string error;
    const auto request = build(line, error);
    if (!request) {
        std::cerr << error << '\n';
        return kExitUsage;
    }
    return connect_and_run(line.socket, *request, line.timeout, std::cout, std::cerr);
}

}  // namespace

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {
        std::cerr << "vxlanctl: internal error: " << e.what() << '\n';
        return kExitConnection;
    }
}
