// One efhost run: brings the platform, the module, the ports, the L3
// engine and the control socket up in order, forwards until a signal (or,
// with capture ports, until every input was processed), and takes
// everything down again in reverse order.
#pragma once

#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "config.h"
#include "control_server.h"
#include "counters.h"
#include "host_platform.h"
#include "l3_engine.h"
#include "metrics_server.h"
#include "module_loader.h"
#include "overlay.h"
#include "pipeline.h"
#include "port.h"

namespace efhost {

class Host {
public:
    explicit Host(Config cfg) : cfg_(std::move(cfg)) {}
    ~Host();
    // Exit status: 0 clean stop, 1 start-up failure. The signals are
    // blocked in every thread: SIGINT and SIGTERM stop efhost, SIGHUP
    // re-applies its overlay file.
    int run(const sigset_t &signals);

private:
    bool start(std::string &error);
    unsigned packet_workers() const;
    bool open_ports(std::string &error);
    void start_ports(bool capture_ports);
    bool has_capture_ports() const;
    bool captures_done() const;
    void wait(const sigset_t &signals);
    void reload();
    void withdraw_configuration();
    void shutdown();
    void report() const;
    CounterSources counter_sources() const;

    Config cfg_;
    std::map<uint32_t, std::unique_ptr<Port>> ports_;
    std::unique_ptr<L3Engine> l3_;
    std::unique_ptr<Pipeline> pipeline_;
    ControlServer control_;
    MetricsServer metrics_;
    ModuleLoader module_;
    Housekeeper housekeeper_;
    OverlayApplier overlay_;
    std::atomic<bool> stopping_{false};
    bool platform_threads_ = false;
    std::vector<std::string> final_counters_;  // read at shutdown, printed by report()
};

}  // namespace efhost
