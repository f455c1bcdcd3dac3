// efhost's side of the control socket: one vxlanctl at a time. Its
// messages reach the module's channel as the platform's channel thread
// would deliver them; the module's own messages go back to it; a request
// that asks for it is answered, once the module's task has processed it,
// with the show lines it produced and a done envelope.
#pragma once

#include <atomic>
#include <functional>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ctl_wire.h"
#include "ef_msg.h"

namespace efhost {

class ControlServer {
public:
    ~ControlServer() { stop(); }
    // Listens on the socket path and starts the channel thread.
    bool start(const std::string &path, std::string &error);
    // Disconnects the client (the module sees it leave) and ends the thread.
    void stop();
    // Waits until the module has announced data ready (end of the first
    // full resynchronisation); false when stop_flag became true first.
    bool wait_data_ready(const std::atomic<bool> &stop_flag);
    bool data_ready() const { return data_ready_.load(); }
    // What answers a counters request; set before start().
    void set_counters(std::function<std::vector<std::string>()> lines) { counters_ = std::move(lines); }

private:
    static int sink(const ef_msg_t *msg, void *ctx);
    static void on_syslog(const std::string &text, void *ctx);
    void serve();
    void serve_client(int fd);
    void handle(int fd, const ctl::Envelope &env);
    void note_data_ready(const uint8_t *payload, uint32_t len);

    std::string path_;
    int listen_fd_ = -1;
    std::atomic<bool> run_{false};
    std::thread thread_;

    std::mutex client_lock_;  // the client fd, written by the module's sends
    int client_fd_ = -1;

    std::mutex show_lock_;
    bool collecting_ = false;
    std::vector<std::string> show_lines_;

    std::mutex ready_lock_;
    std::condition_variable ready_cv_;
    std::atomic<bool> data_ready_{false};
    std::function<std::vector<std::string>()> counters_;
};

}  // namespace efhost
