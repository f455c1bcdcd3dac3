// The EVPN follower's loop; see follower.h.
#include "follower.h"

#include <chrono>
#include <sstream>
#include <thread>

#include "ctl_wire.h"
#include "follower_log.h"
#include "interface_request.h"
#include "request.h"
#include "session.h"
#include "tlv_message.h"

namespace evpn {

namespace {

constexpr int kRetryMs = 500;

}  // namespace

void Follower::log(const std::string &line, tools::Priority priority) const { follower_log(line, priority); }

bool Follower::efhost_changed()
{
    const SocketIdentity::Seen seen = socket_.look(options_.socket);
    if (seen == SocketIdentity::Seen::Gone) {
        if (!efhost_gone_)
            log("efhost: no control socket at " + options_.socket + "; waiting for it", tools::Priority::Warning);
        efhost_gone_ = true;
        applied_.reset();
        return false;
    }
    if (seen == SocketIdentity::Seen::Replaced)
        log("efhost: control socket created anew (efhost restarted)");
    efhost_gone_ = false;
    return seen != SocketIdentity::Seen::Same;
}

bool Follower::send_tlvs(const std::vector<vxlanctl::Tlv> &tlvs, bool until_data_ready)
{
    std::string error;
    auto messages = vxlanctl::pack_messages(tlvs, error);
    if (!messages) {
        log("cannot pack the messages: " + error, tools::Priority::Error);
        return false;
    }
    vxlanctl::Request request;
    request.messages = std::move(*messages);
    request.tlv_count = tlvs.size();
    request.until_data_ready = until_data_ready;
    std::ostringstream out, err;
    const int code = vxlanctl::connect_and_run(options_.socket, request, options_.timeout_s, out, err);
    std::string text = err.str();
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    // What the module refused was delivered all the same: sending it again
    // would be refused again, so it is logged and the round goes on.
    if (code == vxlanctl::kExitModuleError)
        log("the module refused part of a change:\n" + text, tools::Priority::Warning);
    else if (code != vxlanctl::kExitOk)
        log("efhost: sending failed: " + text, tools::Priority::Error);
    return code == vxlanctl::kExitOk || code == vxlanctl::kExitModuleError;
}

bool Follower::create_interface(uint32_t ifx, const std::string &name)
{
    const auto answer =
        vxlanctl::interface_request(options_.socket, "create " + std::to_string(ifx) + " " + name, options_.timeout_s);
    if (!answer.ok) {
        log("efhost: cannot create tunnel interface " + std::to_string(ifx) + ": " +
            (answer.status.empty() ? answer.error : answer.status), tools::Priority::Error);
        return false;
    }
    return true;
}

void Follower::remove_interface(uint32_t ifx)
{
    const auto answer = vxlanctl::interface_request(options_.socket, "remove " + std::to_string(ifx), options_.timeout_s);
    if (!answer.ok)
        log("efhost: cannot remove tunnel interface " + std::to_string(ifx) + ": " +
            (answer.status.empty() ? answer.error : answer.status), tools::Priority::Error);
}

bool Follower::efhost_has_overlay()
{
    const auto answer =
        vxlanctl::interface_request(options_.socket, "overlay", options_.timeout_s, ctl::kModuleHostRequest);
    const std::string prefix = "ok overlay ";
    if (answer.status.rfind(prefix, 0) != 0) {
        overlay_told_ = false;
        return false;
    }
    if (!overlay_told_)
        log("efhost applies its own overlay file " + answer.status.substr(prefix.size()) +
            " (its `overlay` key), which owns the module's configuration; the follower leaves the module alone "
            "until efhost runs without one");
    overlay_told_ = true;
    return true;
}

// The interfaces first (a tunnel's interface must exist before the module
// hears of the tunnel), then SYNC_DATA_BEGIN .. SYNC_DATA_OVER, then the
// interfaces of tunnels that the resynchronisation swept away.
bool Follower::full_resync(const ModuleView &view)
{
    if (efhost_has_overlay())
        return false;
    const auto listed = vxlanctl::interface_request(options_.socket, "list", options_.timeout_s);
    if (!listed.ok) {
        log("efhost: cannot list tunnel interfaces: " + (listed.status.empty() ? listed.error : listed.status), tools::Priority::Error);
        return false;
    }
    indexes_ = TunnelIndexes(options_.tunnel_base);
    for (const std::string &line : listed.lines) {
        std::istringstream in(line);
        uint32_t ifx = 0;
        std::string name;
        if (in >> ifx >> name && TunnelIndexes::is_ours(name))
            indexes_.adopt(ifx, name);
    }
    const vxlanctl::ApplyConfig config = apply_config(view, indexes_);
    for (const auto &[key, vnis] : view.tunnels)
        if (!create_interface(indexes_.index(key), TunnelIndexes::name(key)))
            return false;
    const auto tlvs = vxlanctl::apply_tlvs(config);
    if (!send_tlvs(tlvs, true))
        return false;
    for (uint32_t ifx : indexes_.keep_only(view))
        remove_interface(ifx);
    log("full resynchronisation: " + std::to_string(view.vnis.size()) + " VNIs, " +
        std::to_string(view.tunnels.size()) + " tunnels, " + std::to_string(tlvs.size()) + " TLVs; data ready");
    for (const auto &[key, vnis] : view.tunnels) {
        std::string line = "  tunnel " + std::to_string(indexes_.index(key)) + " (" + key.first + " -> " +
                           key.second + ") carries VNI";
        for (uint32_t vni : vnis)
            line.append(" ").append(std::to_string(vni));
        log(line);
    }
    return true;
}

bool Follower::incremental(const ModuleView &view)
{
    const Change c = change(*applied_, view, indexes_);
    for (const auto &[ifx, name] : c.create_interfaces)
        if (!create_interface(ifx, name))
            return false;
    if (!c.tlvs.empty() && !send_tlvs(c.tlvs, false))
        return false;
    for (uint32_t ifx : c.remove_interfaces)
        remove_interface(ifx);
    indexes_.keep_only(view);
    for (const std::string &line : c.log)
        log(line);
    return true;
}

bool Follower::send_text(uint32_t module, const std::string &text)
{
    const auto answer = vxlanctl::interface_request(options_.socket, text, options_.timeout_s, module);
    if (!answer.ok)
        log("efhost: '" + text + "' failed: " + (answer.status.empty() ? answer.error : answer.status), tools::Priority::Error);
    return answer.ok;
}

bool Follower::read_host_tables(HostTables &out)
{
    const auto macs = vxlanctl::interface_request(options_.socket, "list", options_.timeout_s, ctl::kModuleMacRequest);
    const auto bindings =
        vxlanctl::interface_request(options_.socket, "list", options_.timeout_s, ctl::kModuleNeighbourRequest);
    const auto switches =
        vxlanctl::interface_request(options_.socket, "switches", options_.timeout_s, ctl::kModuleNeighbourRequest);
    if (!macs.ok || !bindings.ok || !switches.ok) {
        log("efhost: cannot list its MAC and suppression tables", tools::Priority::Error);
        return false;
    }
    out = host_tables_from_listing(macs.lines, bindings.lines, switches.lines);
    return true;
}

bool Follower::sync_host_tables(const KernelState &kernel)
{
    const HostTables wanted = host_tables(kernel, indexes_);
    HostTables held;
    if (applied_host_)
        held = *applied_host_;
    else if (!read_host_tables(held))
        return false;
    const HostChange c = host_change(held, wanted);
    applied_host_.reset();
    for (const std::string &text : c.mac)
        if (!send_text(ctl::kModuleMacRequest, text))
            return false;
    for (const std::string &text : c.neighbour)
        if (!send_text(ctl::kModuleNeighbourRequest, text))
            return false;
    for (const std::string &line : c.log)
        log(line);
    applied_host_ = wanted;
    return true;
}

int Follower::run(const std::atomic<bool> &stop)
{
    std::string error;
    if (!kernel_.open(error)) {
        log(error, tools::Priority::Error);
        return 1;
    }
    log("following the kernel's EVPN state for efhost at " + options_.socket);
    if (!mirror_.start(error)) {
        log(error, tools::Priority::Error);
        return 1;
    }
    bool first_read = true;
    while (!stop.load()) {
        KernelState kernel;
        if (!kernel_.read(kernel, error)) {
            log(error, tools::Priority::Error);
            std::this_thread::sleep_for(std::chrono::milliseconds(kRetryMs));
            continue;
        }
        if (first_read || kernel != last_kernel_) {
            for (const std::string &line : describe_change(last_kernel_, kernel))
                log(line);
            if (kernel.empty() && (first_read || !last_kernel_.empty()))
                log("kernel: no VXLAN device is up");
            last_kernel_ = kernel;
            first_read = false;
        }
        const ModuleView view = module_view(kernel);
        const bool restarted = efhost_changed();
        bool done = true;
        if (!efhost_gone_) {
            if (restarted || !applied_)
                done = full_resync(view);
            else if (view != *applied_)
                done = incremental(view);
            if (done)
                applied_ = view;
            else
                applied_.reset();  // unknown: the next round resynchronises in full
            if (restarted || !done)
                applied_host_.reset();
            if (done)
                done = sync_host_tables(kernel);
        }
        mirror_.follow(kernel);
        kernel_.wait_event(done && !efhost_gone_ ? options_.poll_ms : kRetryMs);
    }
    mirror_.stop();
    log("stopping; the module keeps its configuration");
    return 0;
}

}  // namespace evpn
