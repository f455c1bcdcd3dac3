// The EVPN follower's loop: keeps the module of one efhost equal to the
// EVPN state in the kernel. At start, and whenever efhost is new (its control
// socket was created again) or a change could not be completed, a full
// resynchronisation; otherwise the incremental messages of each change.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "fabric_view.h"
#include "host_tables.h"
#include "kernel_reader.h"
#include "local_mirror.h"
#include "service_manager.h"
#include "socket_identity.h"

namespace evpn {

struct FollowerOptions {
    std::string socket;          // efhost's control socket
    uint32_t tunnel_base = 1000; // first interface index of the tunnels
    double timeout_s = 10;       // efhost's answer
    int poll_ms = 1000;          // re-read the kernel at least this often
    int local_poll_ms = 200;     // ask efhost for its own hosts this often
};

class Follower {
public:
    explicit Follower(FollowerOptions options)
        : options_(std::move(options)), indexes_(options_.tunnel_base),
          mirror_(options_.socket, options_.timeout_s, options_.local_poll_ms)
    {
    }
    // Runs until stop becomes true; 0, or 1 when netlink cannot be opened.
    int run(const std::atomic<bool> &stop);

private:
    bool full_resync(const ModuleView &view);
    bool incremental(const ModuleView &view);
    // Brings efhost's remote MACs, remote bindings and suppression switches
    // to what the kernel holds; false when efhost could not be told.
    bool sync_host_tables(const KernelState &kernel);
    bool read_host_tables(HostTables &out);
    bool send_text(uint32_t module, const std::string &text);
    bool send_tlvs(const std::vector<vxlanctl::Tlv> &tlvs, bool until_data_ready);
    bool create_interface(uint32_t ifx, const std::string &name);
    void remove_interface(uint32_t ifx);
    // True when the control socket is another one than the last seen (efhost
    // restarted); false, with efhost_gone_ set, when there is none.
    bool efhost_changed();
    // Whether efhost applies an overlay file of its own, which owns the
    // module's configuration as the follower would: then the follower
    // leaves the module alone (said once per efhost).
    bool efhost_has_overlay();
    void log(const std::string &line, tools::Priority priority = tools::Priority::Info) const;

    FollowerOptions options_;
    KernelReader kernel_;
    TunnelIndexes indexes_;
    KernelState last_kernel_;
    std::optional<ModuleView> applied_;  // what the module holds; none = unknown
    std::optional<HostTables> applied_host_;  // what efhost's tables hold; none = unknown
    LocalMirror mirror_;
    SocketIdentity socket_;
    bool efhost_gone_ = false;
    bool overlay_told_ = false;
};

}  // namespace evpn
