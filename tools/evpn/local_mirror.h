// The other direction of the follower: the MACs efhost learned on its own
// ports and the IP bindings it snooped from its hosts go into the kernel's
// EVPN state (the VNI bridge's local port and the bridge's neighbours),
// where zebra finds them and has bgpd advertise them as type-2 routes; and
// they are withdrawn when efhost forgets them. Runs on its own thread,
// asking efhost only whether its tables changed since the last answer.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fabric_view.h"
#include "host_tables.h"
#include "kernel_writer.h"
#include "socket_identity.h"

namespace evpn {

class LocalMirror {
public:
    LocalMirror(std::string socket, double timeout_s, int poll_ms)
        : socket_path_(std::move(socket)), timeout_s_(timeout_s), poll_ms_(poll_ms)
    {
    }
    ~LocalMirror() { stop(); }

    bool start(std::string &error);
    void stop();
    // The kernel's VNIs as last read: where their bridge and local port are.
    void follow(const KernelState &kernel);

private:
    struct Where {
        int ifindex = 0;  // the local port (MACs) or the bridge (IPs)
        std::string mac;  // IPs: the MAC they are bound to
        bool operator==(const Where &) const = default;
    };
    using Installed = std::map<VniKey, Where>;

    // What efhost answered to "local since G": its lines when the table
    // changed (generation then moves on), none when it did not.
    struct LocalAnswer {
        bool ok = false;
        bool changed = false;
        std::vector<std::string> lines;
    };
    LocalAnswer ask(uint32_t module, std::optional<uint64_t> &generation) const;

    void run();
    void round();
    // Reads efhost's local MACs and bindings when they changed; false when
    // efhost did not answer.
    bool refresh_macs();
    bool refresh_bindings();
    void forget_efhost_if_new();
    Installed wanted_fdb(const KernelState &kernel) const;
    Installed wanted_neighbours(const KernelState &kernel) const;
    void apply(Installed &held, const Installed &wanted, bool macs);
    // What an earlier run of the follower left in the kernel becomes ours.
    void adopt(const KernelState &kernel);

    std::string socket_path_;
    double timeout_s_;
    int poll_ms_;
    KernelWriter writer_;
    std::thread thread_;
    std::atomic<bool> stop_{false};

    std::mutex kernel_lock_;
    KernelState kernel_;
    bool kernel_read_ = false;

    std::optional<uint64_t> mac_generation_, binding_generation_;
    std::set<VniKey> local_macs_;                // (VNI, MAC) learned on efhost's ports
    std::map<VniKey, std::string> local_ips_;    // (VNI, IP) -> MAC snooped from its hosts
    Installed fdb_, neighbours_;                 // what this mirror put into the kernel
    bool adopted_ = false;
    SocketIdentity socket_;
};

}  // namespace evpn
