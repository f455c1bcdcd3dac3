// efhost: the forwarding process that loads the VXLAN module and runs it on
// Linux network devices or capture files.
#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>

#include "config.h"
#include "host.h"
#include "overlay.h"
#include "service_manager.h"
#include "startup_checks.h"
#include "tool_version.h"

int main(int argc, char **argv)
{
    CLI::App app{"efhost: runs the VXLAN module (libtq_vxlan_ef.so) on Linux ports"};
    app.set_version_flag("--version", tools::version_line("efhost"));
    std::string config_path;
    app.add_option("-c,--config", config_path, "YAML configuration file (see docs/efhost-config.md)")
        ->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e) == 0 ? 0 : 2;
    }

    efhost::Config cfg;
    std::string error;
    if (!efhost::load_config(config_path, cfg, error)) {
        std::fprintf(stderr, "%sefhost: %s\n", tools::error_priority_prefix(), error.c_str());
        return 2;
    }
    if (!efhost::check_startup(cfg, error) || !efhost::check_overlay(cfg.overlay, error)) {
        std::fprintf(stderr, "%sefhost: %s\n", tools::error_priority_prefix(), error.c_str());
        return 2;
    }
    // Every thread started from here on inherits the blocked signals, so
    // only the main thread's wait receives them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    try {
        efhost::Host host(std::move(cfg));
        return host.run(signals);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "%sefhost: %s\n", tools::error_priority_prefix(), e.what());
        return 1;
    }
}
