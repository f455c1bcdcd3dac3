// vxlanctl: the control-process side of the VXLAN module. Reads one verb from
// the command line, builds everything it will send before connecting (so a
// bad argument or file sends nothing), then talks to efhost over its control
// socket.
#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>

#include "interface_request.h"
#include "request.h"
#include "session.h"

namespace {

using namespace vxlanctl;

struct Args {
    std::string socket;
    double timeout = 10;
    std::string file;
    std::string type;
    std::vector<std::string> words;
};

std::string default_socket()
{
    const char *env = std::getenv("EFHOST_SOCKET");
    return env != nullptr && *env != '\0' ? env : "/tmp/efhost.sock";
}

std::optional<Request> build(const CLI::App &app, const Args &args, std::string &error)
{
    const std::string verb = app.get_subcommands().front()->get_name();
    if (verb == "apply")
        return apply_request(args.file, error);
    if (verb == "send")
        return send_request(args.type, args.words, error);
    if (verb == "raw")
        return raw_request(args.words, error);
    if (verb == "show")
        return show_request(args.words, error);
    if (verb == "debug")
        return debug_request(args.words, error);
    return techdump_request();
}

int run(int argc, char **argv)
{
    Args args;
    args.socket = default_socket();
    CLI::App app{"vxlanctl: configures and queries the VXLAN module of a running efhost"};
    app.add_option("--socket", args.socket, "efhost's control socket (default: $EFHOST_SOCKET, else /tmp/efhost.sock)");
    app.add_option("--timeout", args.timeout, "seconds to wait for efhost's answer (default 10)")
        ->check(CLI::Validator(
            [](std::string &text) {
                const auto v = std::strtod(text.c_str(), nullptr);
                return v > 0 ? std::string() : "the timeout must be a number of seconds above 0, got '" + text + "'";
            },
            "SECONDS>0"));
    app.require_subcommand(1, 1);
    app.fallthrough();
    app.add_subcommand("apply", "full resynchronisation from a YAML file")->add_option("FILE", args.file)->required();
    auto *send = app.add_subcommand("send", "send one TLV: send TYPE field=value ...");
    send->add_option("TYPE", args.type, "type name or number")->required();
    send->add_option("FIELDS", args.words, "field=value, unset fields are 0");
    app.add_subcommand("raw", "send a whole VXLAN message given in hex")->add_option("HEX", args.words)->required();
    app.add_subcommand("show", "show status|entry [VNI]|intf|vrf|subif")->add_option("TABLE", args.words)->required();
    app.add_subcommand("debug", "set the debug mask: debug MASK [IFX BUDGET]")
        ->add_option("ARGS", args.words)
        ->required();
    app.add_subcommand("techdump", "write the tech-support dump");
    app.add_subcommand("tunnel-intf", "efhost's run-time tunnel interfaces: create IFX NAME | remove IFX | list")
        ->add_option("ARGS", args.words)
        ->required();
    app.add_subcommand("counters", "efhost's counters: ports, pipeline, L3 engine, MAC table");
    app.add_subcommand("mac", "efhost's MAC table: list [vni V] [mac M] | remote add VNI MAC IFX | "
                              "remote remove VNI MAC IFX | local [since G]")
        ->add_option("ARGS", args.words)
        ->required();
    app.add_subcommand("suppress", "efhost's neighbour suppression: list [vni V] | remote add VNI IP MAC | "
                                   "remote remove VNI IP | local [since G] | switch VNI arp|nd on|off | switches")
        ->add_option("ARGS", args.words)
        ->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e) == 0 ? kExitOk : kExitUsage;
    }
    if (app.got_subcommand("counters"))
        return run_counters_verb(args.socket, args.timeout, std::cout, std::cerr);
    if (app.got_subcommand("mac"))
        return run_table_verb(args.socket, ctl::kModuleMacRequest, args.words, args.timeout, std::cout, std::cerr);
    if (app.got_subcommand("suppress"))
        return run_table_verb(args.socket, ctl::kModuleNeighbourRequest, args.words, args.timeout, std::cout,
                              std::cerr);
    if (app.got_subcommand("tunnel-intf"))
        return run_interface_verb(args.socket, args.words, args.timeout, std::cout, std::cerr);
    std::string error;
    const auto request = build(app, args, error);
    if (!request) {
        std::cerr << error << '\n';
        return kExitUsage;
    }
    return connect_and_run(args.socket, *request, args.timeout, std::cout, std::cerr);
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
