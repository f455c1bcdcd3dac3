// One client of efhost's control socket, served on a thread of its own so
// that no client can hold another up. The thread reads the client's
// envelopes and hands them to the server's handler; whatever is sent to the
// client, from any thread, goes through an outbox that never blocks the
// sender. The thread closes the connection when the client stays idle, stops
// reading what it is sent, sends something that is not an envelope, hangs
// up, or when the server stops.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ctl_wire.h"

namespace efhost {

struct ControlLimits {
    // Clients served at once; one more is answered with an error and closed.
    size_t max_clients = 32;
    // A client with no request under way that sends nothing for this long.
    std::chrono::milliseconds idle_timeout{10000};
    // A client whose outbox has not moved for this long (it stopped reading).
    std::chrono::milliseconds stall_timeout{10000};
    // What may wait in one client's outbox before it counts as not reading.
    size_t outbox_bytes = 16u << 20;
};

class ControlClient : public std::enable_shared_from_this<ControlClient> {
public:
    using Handler = std::function<void(ControlClient &client, const ctl::Envelope &env)>;

    ControlClient(int fd, uint64_t id, const ControlLimits &limits);
    ~ControlClient();
    ControlClient(const ControlClient &) = delete;
    ControlClient &operator=(const ControlClient &) = delete;

    // Starts the client's thread; handler runs on it for every envelope.
    void start(Handler handler);
    // Queues one envelope for the client and returns at once; false when the
    // connection is closed (the envelope is dropped).
    bool send(const ctl::Envelope &env);
    // A request of the client's is waiting for an answer from elsewhere (the
    // module): the client is not idle meanwhile.
    void request_started();
    void request_finished();
    // Asks the thread to close the connection and end.
    void close();
    bool finished() const { return finished_.load(); }
    void join();

private:
    using Clock = std::chrono::steady_clock;

    void run(const Handler &handler);
    bool poll_once(bool &readable, bool &writable);
    bool receive(const Handler &handler);
    bool flush();
    bool timed_out(Clock::time_point now);
    void say_closed(const std::string &why);
    bool wake();

    int fd_;
    int wake_fd_;
    const uint64_t id_;
    const ControlLimits limits_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> finished_{false};
    std::atomic<int> requests_under_way_{0};
    std::vector<uint8_t> receive_buffer_;  // the thread's own

    std::mutex out_lock_;  // the outbox, the descriptor's life and the clocks below
    std::deque<std::vector<uint8_t>> outbox_;
    size_t outbox_bytes_ = 0;
    bool closed_ = false;
    bool overflowed_ = false;
    Clock::time_point last_progress_;  // the outbox last moved
    Clock::time_point last_heard_;     // the client last sent, or was last answered
};

}  // namespace efhost
