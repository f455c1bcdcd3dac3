// One efhost run, from configuration to clean exit.
#include "host.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <thread>

#include "ctl_wire.h"
#include "efrt.h"
#include "efrt_l3.h"
#include "counters.h"
#include "counters_json.h"
#include "metrics_text.h"
#include "rcu.h"
#include "runtime_interfaces.h"
#include "service_manager.h"
#include "vxlan_ef_msg_frame.h"
#include "vxlan_ef_tlv_catalogue.h"

namespace efhost {

namespace {

constexpr int kWithdrawTimeoutMs = 5000;
constexpr unsigned kMaxAutoWorkers = 4;

// A resynchronisation to empty tables: SYNC_DATA_BEGIN and SYNC_DATA_OVER,
// no values, in one message.
std::vector<uint8_t> empty_resync()
{
    uint8_t msg[VXLAN_EF_MSG_HDR_LEN + 2 * VXLAN_EF_TLV_HDR_LEN];
    vxlan_ef::frame::msg_reset(msg);
    vxlan_ef::frame::tlv_append(msg, vxlan_ef::tlv::kSyncDataBegin, 0, nullptr);
    vxlan_ef::frame::tlv_append(msg, vxlan_ef::tlv::kSyncDataOver, 0, nullptr);
    return {msg, msg + sizeof msg};
}

void say(const std::string &text) { std::fprintf(stderr, "efhost: %s\n", text.c_str()); }

}  // namespace

Host::~Host() { shutdown(); }

int Host::run(const sigset_t &signals)
{
    std::string error;
    if (!start(error)) {
        say(error);
        shutdown();
        return 1;
    }
    say("forwarding; control socket " + cfg_.control_socket);
    tools::notify_service_manager("READY=1");
    wait(signals);
    shutdown();
    report();
    return 0;
}

// Receive workers per device port: as configured, else the CPUs shared
// among the device ports, at least one and at most four each.
unsigned Host::packet_workers() const
{
    if (cfg_.packet_workers != 0)
        return cfg_.packet_workers;
    unsigned devices = 0;
    for (const InterfaceConfig &ic : cfg_.interfaces)
        devices += ic.attach.present() && !ic.attach.is_pcap() ? 1 : 0;
    const unsigned cpus = std::max(1u, std::thread::hardware_concurrency());
    return std::clamp(cpus / std::max(1u, devices), 1u, kMaxAutoWorkers);
}

bool Host::open_ports(std::string &error)
{
    const unsigned workers = packet_workers();
    for (const InterfaceConfig &ic : cfg_.interfaces) {
        if (!ic.attach.present())
            continue;
        std::unique_ptr<Port> port = ic.attach.is_pcap()
                                         ? make_pcap_port(ic.attach.pcap_in, ic.attach.pcap_out)
                                         : make_afpacket_port(ic.attach.device, workers);
        if (!port->open(error)) {
            error = "interface " + ic.name + ": " + error;
            return false;
        }
        ports_[ic.index] = std::move(port);
    }
    return true;
}

bool Host::start(std::string &error)
{
    // A second efhost given a running one's socket stops before it touches
    // that one's log, directories or ports.
    if (!ctl::socket_path_free(cfg_.control_socket, error))
        return false;
    if (!prepare_platform(cfg_, error) || !open_ports(error))
        return false;
    const std::string path = module_path(cfg_.module_path);
    if (!module_.load(path, error))
        return false;
    create_interfaces(cfg_);
    efrt::tasks_start_timer_thread();
    connect_appdb(cfg_);
    housekeeper_.start();
    platform_threads_ = true;

    std::vector<L3Port> l3_ports;
    std::map<uint32_t, Port *> raw_ports;
    for (const InterfaceConfig &ic : cfg_.interfaces) {
        auto it = ports_.find(ic.index);
        if (it == ports_.end())
            continue;
        raw_ports[ic.index] = it->second.get();
        l3_ports.push_back(L3Port{ic.index, it->second.get(), ic.mac, ic.mtu, ic.addresses});
    }
    l3_ = std::make_unique<L3Engine>(l3_ports, cfg_.routes, cfg_.neighbours);
    l3_->start();
    pipeline_ = std::make_unique<Pipeline>(cfg_, raw_ports, l3_.get());
    pipeline_->attach_to_platform();
    control_.set_counters([this] { return counter_lines(counter_sources()); });
    control_.set_counters_json([this] { return counters_json(counter_sources()).dump(); });
    control_.bind(module_.instance());
    control_.set_overlay(cfg_.overlay);
    if (!control_.start(cfg_.control_socket, error))
        return false;
    if (cfg_.metrics_port != 0 &&
        !metrics_.start(cfg_.metrics_host, cfg_.metrics_port,
                        [this] { return metrics_text(counters_json(counter_sources())); }, error))
        return false;
    start_ports(false);
    if (!cfg_.overlay.empty())
        overlay_.start(cfg_.control_socket, cfg_.overlay);
    return true;
}

void Host::start_ports(bool capture_ports)
{
    for (const InterfaceConfig &ic : cfg_.interfaces) {
        auto it = ports_.find(ic.index);
        if (it == ports_.end() || ic.attach.is_pcap() != capture_ports)
            continue;
        const uint32_t ifindex = ic.index;
        Pipeline *pipeline = pipeline_.get();
        it->second->start([pipeline, ifindex](const uint8_t *frame, size_t len) {
            pipeline->receive(ifindex, frame, len);
        });
    }
}

bool Host::has_capture_ports() const
{
    for (const InterfaceConfig &ic : cfg_.interfaces)
        if (ic.attach.is_pcap())
            return true;
    return false;
}

bool Host::captures_done() const
{
    for (const InterfaceConfig &ic : cfg_.interfaces) {
        auto it = ports_.find(ic.index);
        if (ic.attach.is_pcap() && it != ports_.end() && !it->second->input_done())
            return false;
    }
    return l3_->idle();
}

// Until a stop signal; with capture ports, inputs are read only once the
// first resynchronisation is complete, and the run ends when all were
// processed and nothing waits in the L3 engine.
void Host::wait(const sigset_t &signals)
{
    const bool captures = has_capture_ports();
    bool captures_started = false;
    for (;;) {
        timespec tick{0, 50 * 1000 * 1000};
        const int sig = sigtimedwait(&signals, nullptr, &tick);
        if (sig == SIGHUP) {
            reload();
        } else if (sig > 0) {
            tools::notify_service_manager("STOPPING=1");
            say(std::string("stopping on ") + (sig == SIGINT ? "SIGINT" : "SIGTERM"));
            return;
        }
        if (!captures)
            continue;
        if (!captures_started && control_.data_ready()) {
            say("data ready: reading the input captures");
            start_ports(true);
            captures_started = true;
        }
        if (captures_started && captures_done()) {
            say("every input capture processed");
            return;
        }
    }
}

void Host::reload()
{
    if (cfg_.overlay.empty()) {
        say("SIGHUP: no overlay file to re-apply");
        return;
    }
    // The re-application runs on the overlay thread and logs its outcome;
    // systemctl reload returns once it has been asked for.
    tools::notify_service_manager("RELOADING=1");
    say("SIGHUP: re-applying the overlay " + cfg_.overlay);
    overlay_.reapply();
    tools::notify_service_manager("READY=1");
}

// The module keeps what it was given until it is told otherwise; an empty
// resynchronisation before exit hands every record back, sub-interfaces
// included, so that nothing outlives the instance.
void Host::withdraw_configuration()
{
    const uint64_t processed = efrt::tasks_completed_runs() + 2;
    efrt::msg_deliver(EF_MSG_MODULE_VXLAN, empty_resync());
    efrt::tasks_wait_runs(processed, kWithdrawTimeoutMs);
}

// The counters are read once everything that counts has stopped and before
// anything is reset, so that the report at exit shows the same figures a
// counters request would have shown at that moment.
void Host::shutdown()
{
    if (stopping_.exchange(true))
        return;
    for (auto &[ifx, port] : ports_)
        port->stop();
    metrics_.stop();
    control_.stop();
    overlay_.stop();  // an application under way has just lost its socket
    if (module_.loaded() && platform_threads_)
        withdraw_configuration();
    if (l3_)
        l3_->stop();
    if (pipeline_)
        pipeline_->detach_from_platform();
    housekeeper_.stop();
    efrt::tasks_stop_timer_thread();
    if (pipeline_)
        final_counters_ = counter_lines(counter_sources());
    module_.unload();
    runtime_interfaces_reset();
    efrt::l3_reset();
    efrt::reset();
    efrt::rcu::barrier();  // every retired block is given back before exit
}

void Host::report() const
{
    for (const std::string &line : final_counters_)
        std::fprintf(stderr, "efhost: %s\n", line.c_str());
}

CounterSources Host::counter_sources() const
{
    return CounterSources{&cfg_, pipeline_.get(), &ports_, l3_.get(), &module_};
}

}  // namespace efhost
