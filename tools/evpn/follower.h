// The EVPN follower's loop: keeps the module of one efhost equal to the
// EVPN state in the kernel. At start, and whenever efhost is new (its control
// socket was created again) or a change could not be completed, a full
// resynchronisation; otherwise the incremental messages of each change.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

#include "fabric_view.h"
#include "kernel_reader.h"

namespace evpn {

struct FollowerOptions {
    std::string socket;          // efhost's control socket
    uint32_t tunnel_base = 1000; // first interface index of the tunnels
    double timeout_s = 10;       // efhost's answer
    int poll_ms = 1000;          // re-read the kernel at least this often
};

class Follower {
public:
    explicit Follower(FollowerOptions options) : options_(std::move(options)), indexes_(options_.tunnel_base) {}
    // Runs until stop becomes true; 0, or 1 when netlink cannot be opened.
    int run(const std::atomic<bool> &stop);

private:
    bool full_resync(const ModuleView &view);
    bool incremental(const ModuleView &view);
    bool send_tlvs(const std::vector<vxlanctl::Tlv> &tlvs, bool until_data_ready);
    bool create_interface(uint32_t ifx, const std::string &name);
    void remove_interface(uint32_t ifx);
    // True when the control socket is another one than the last seen (efhost
    // restarted); false, with efhost_gone_ set, when there is none.
    bool efhost_changed();
    void log(const std::string &line) const;

    FollowerOptions options_;
    KernelReader kernel_;
    TunnelIndexes indexes_;
    KernelState last_kernel_;
    std::optional<ModuleView> applied_;  // what the module holds; none = unknown
    ino_t socket_inode_ = 0;
    int64_t socket_ctime_ns_ = 0;
    bool efhost_gone_ = false;
};

}  // namespace evpn
