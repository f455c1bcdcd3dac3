// efhost's own hosts into the kernel's EVPN state; see local_mirror.h.
#include "local_mirror.h"

#include <chrono>
#include <sstream>

#include "ctl_wire.h"
#include "follower_log.h"
#include "interface_request.h"

namespace evpn {

namespace {

// "ok generation G ..." or "ok unchanged generation G": G, or nothing.
std::optional<uint64_t> generation_of(const std::string &status, bool &unchanged)
{
    std::istringstream in(status);
    std::string ok, word;
    uint64_t g = 0;
    in >> ok >> word;
    unchanged = word == "unchanged";
    if (unchanged)
        in >> word;
    if (ok != "ok" || word != "generation" || !(in >> g))
        return std::nullopt;
    return g;
}

std::string since(const std::optional<uint64_t> &generation)
{
    return generation ? " since " + std::to_string(*generation) : "";
}

}  // namespace

bool LocalMirror::start(std::string &error)
{
    if (!writer_.open(error))
        return false;
    thread_ = std::thread([this] { run(); });
    return true;
}

void LocalMirror::stop()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
}

void LocalMirror::follow(const KernelState &kernel)
{
    std::lock_guard<std::mutex> g(kernel_lock_);
    kernel_ = kernel;
    kernel_read_ = true;
}

void LocalMirror::run()
{
    while (!stop_.load()) {
        round();
        std::this_thread::sleep_for(std::chrono::milliseconds(poll_ms_));
    }
}

// A new efhost starts its generations again: what the last one said is void.
void LocalMirror::forget_efhost_if_new()
{
    const SocketIdentity::Seen seen = socket_.look(socket_path_);
    if (seen != SocketIdentity::Seen::First && seen != SocketIdentity::Seen::Replaced)
        return;
    mac_generation_.reset();
    binding_generation_.reset();
}

LocalMirror::LocalAnswer LocalMirror::ask(uint32_t module, std::optional<uint64_t> &generation) const
{
    const auto answer = vxlanctl::interface_request(socket_path_, "local" + since(generation), timeout_s_, module);
    LocalAnswer out;
    bool unchanged = false;
    const auto now = answer.ok ? generation_of(answer.status, unchanged) : std::nullopt;
    if (!now)
        return out;
    out.ok = true;
    out.changed = !unchanged;
    if (out.changed) {
        out.lines = answer.lines;
        generation = now;
    }
    return out;
}

bool LocalMirror::refresh_macs()
{
    const LocalAnswer a = ask(ctl::kModuleMacRequest, mac_generation_);
    if (!a.changed)
        return a.ok;
    local_macs_.clear();
    for (const std::string &line : a.lines) {
        std::istringstream in(line);
        uint32_t vni = 0;
        std::string mac;
        if (in >> vni >> mac)
            local_macs_.insert({vni, mac});
    }
    return true;
}

bool LocalMirror::refresh_bindings()
{
    const LocalAnswer a = ask(ctl::kModuleNeighbourRequest, binding_generation_);
    if (!a.changed)
        return a.ok;
    local_ips_.clear();
    for (const std::string &line : a.lines) {
        std::istringstream in(line);
        uint32_t vni = 0;
        std::string ip, mac;
        if (in >> vni >> ip >> mac)
            local_ips_[{vni, ip}] = mac;
    }
    return true;
}

LocalMirror::Installed LocalMirror::wanted_fdb(const KernelState &kernel) const
{
    Installed wanted;
    for (const VniKey &key : local_macs_) {
        auto k = kernel.find(key.first);
        if (k != kernel.end() && k->second.local_port != 0)
            wanted[key] = Where{k->second.local_port, {}};
    }
    return wanted;
}

// A binding is advertised while its MAC is one of efhost's own: a host that
// moved behind another VTEP takes its IP along.
LocalMirror::Installed LocalMirror::wanted_neighbours(const KernelState &kernel) const
{
    Installed wanted;
    for (const auto &[key, mac] : local_ips_) {
        auto k = kernel.find(key.first);
        if (k != kernel.end() && k->second.bridge != 0 && local_macs_.contains({key.first, mac}))
            wanted[key] = Where{k->second.bridge, mac};
    }
    return wanted;
}

void LocalMirror::apply(Installed &held, const Installed &wanted, bool macs)
{
    const std::string what = macs ? "local MAC " : "local IP ";
    std::string error;
    for (const auto &[key, where] : wanted) {
        auto old = held.find(key);
        if (old != held.end() && old->second == where)
            continue;
        const bool ok = macs ? writer_.add_fdb(where.ifindex, key.second, error)
                             : writer_.add_neighbour(where.ifindex, key.second, where.mac, error);
        if (!ok) {
            follower_log("kernel: " + error, tools::Priority::Error);
            continue;
        }
        held[key] = where;
        follower_log(what + key.second + (macs ? "" : " (" + where.mac + ")") + " of VNI " +
                     std::to_string(key.first) + " advertised");
    }
    for (auto it = held.begin(); it != held.end();) {
        if (wanted.contains(it->first)) {
            ++it;
            continue;
        }
        // Gone already (zebra moved it to a remote VTEP, or the device went):
        // nothing is left to withdraw.
        if (macs)
            writer_.remove_fdb(it->second.ifindex, it->first.second, error);
        else
            writer_.remove_neighbour(it->second.ifindex, it->first.second, error);
        follower_log(what + it->first.second + " of VNI " + std::to_string(it->first.first) + " withdrawn");
        it = held.erase(it);
    }
}

void LocalMirror::adopt(const KernelState &kernel)
{
    for (const auto &[vni, k] : kernel) {
        for (const std::string &mac : k.own_macs)
            fdb_[{vni, mac}] = Where{k.local_port, {}};
        for (const auto &[ip, mac] : k.own_ips)
            neighbours_[{vni, ip}] = Where{k.bridge, mac};
    }
    adopted_ = true;
}

void LocalMirror::round()
{
    forget_efhost_if_new();
    KernelState kernel;
    {
        std::lock_guard<std::mutex> g(kernel_lock_);
        if (!kernel_read_)
            return;
        kernel = kernel_;
    }
    if (!adopted_)
        adopt(kernel);
    if (!refresh_macs() || !refresh_bindings())
        return;
    apply(fdb_, wanted_fdb(kernel), true);
    apply(neighbours_, wanted_neighbours(kernel), false);
}

}  // namespace evpn
