// evpn-follower: runs beside FRR on a node whose data plane is efhost, and
// keeps the VXLAN module's configuration equal to the EVPN state that zebra
// keeps in the kernel (docs/evpn.md).
#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <thread>

#include "follower.h"
#include "tool_paths.h"
#include "tool_version.h"

namespace {

std::atomic<bool> g_stop{false};

void on_signal(int) { g_stop = true; }

}  // namespace

int main(int argc, char **argv)
{
    evpn::FollowerOptions options;
    options.socket = tools::default_control_socket();
    CLI::App app{"evpn-follower: keeps efhost's VXLAN module equal to the kernel's EVPN state (FRR's zebra)"};
    app.set_version_flag("--version", tools::version_line("evpn-follower"));
    app.add_option("--socket", options.socket,
                   std::string("efhost's control socket (default: $EFHOST_SOCKET, else ") + tools::kDefaultControlSocket + ")");
    app.add_option("--tunnel-base", options.tunnel_base, "interface index of the first tunnel (default 1000)")
        ->check(CLI::Range(1u, 0xFFFF0000u));
    app.add_option("--timeout", options.timeout_s, "seconds to wait for efhost's answer (default 10)")
        ->check(CLI::Range(0.1, 3600.0));
    app.add_option("--poll-ms", options.poll_ms, "re-read the kernel at least this often (default 1000)")
        ->check(CLI::Range(50, 60000));
    app.add_option("--local-poll-ms", options.local_poll_ms,
                   "ask efhost this often whether its own hosts changed (default 200)")
        ->check(CLI::Range(20, 60000));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    struct sigaction sa{};
    sa.sa_handler = on_signal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    evpn::Follower follower(options);
    return follower.run(g_stop);
}
