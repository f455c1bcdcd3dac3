// efhost's side of the control socket: every client is served at once, on a
// thread of its own (control_client.h), up to a cap; one more is told so and
// closed. A client's VXLAN messages go to the module through the one channel
// they share (channel_dispatcher.h), in arrival order, and the module's
// answers come back to that client alone; requests about efhost itself (its
// counters, its run-time tunnel interfaces) are answered on the client's own
// thread. The module sees its channel connected while at least one client
// is connected, and disconnected when the last one has gone.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "channel_dispatcher.h"
#include "control_client.h"
#include "ctl_wire.h"

namespace efhost {

class ControlServer {
public:
    explicit ControlServer(ControlLimits limits = {}) : limits_(limits) {}
    ~ControlServer() { stop(); }
    // Listens on the socket path and starts serving.
    bool start(const std::string &path, std::string &error);
    // Closes every client (the module sees the channel go down) and stops
    // at once, whatever the clients are doing.
    void stop();
    bool wait_data_ready(const std::atomic<bool> &stop_flag) { return channel_.wait_data_ready(stop_flag); }
    bool data_ready() const { return channel_.data_ready(); }
    // The module's instance (see ChannelDispatcher::bind); set before start().
    void bind(vxlan_ef_vsd_t *instance) { channel_.bind(instance); }
    // The overlay file efhost applies itself, told to clients that ask;
    // set before start().
    void set_overlay(std::string path) { overlay_ = std::move(path); }
    // What answers a counters request; set before start().
    void set_counters(std::function<std::vector<std::string>()> lines) { counters_ = std::move(lines); }
    // What answers a counters request asking for JSON ("counters json"):
    // one line, the document; set before start().
    void set_counters_json(std::function<std::string()> document) { counters_json_ = std::move(document); }
    // Clients connected now.
    size_t clients() const;

private:
    void accept_loop();
    void admit(int fd);
    void reap(bool all);
    void handle(ControlClient &client, const ctl::Envelope &env);
    void answer_host_request(ControlClient &client, const ctl::Envelope &env) const;

    const ControlLimits limits_;
    std::string path_;
    int listen_fd_ = -1;
    int wake_fd_ = -1;
    std::atomic<bool> run_{false};
    std::thread thread_;
    uint64_t next_id_ = 1;

    mutable std::mutex clients_lock_;
    std::vector<std::shared_ptr<ControlClient>> clients_;

    ChannelDispatcher channel_;
    std::function<std::vector<std::string>()> counters_;
    std::function<std::string()> counters_json_;
    std::string overlay_;
};

}  // namespace efhost
