// The module's one message channel, shared by every control client, and the
// channel's thread. Clients' VXLAN messages reach the module in the order
// they arrived, one client's run of messages at a time; what the module
// answers while it processes a client's messages (its own messages, the show
// lines it prints) goes to that client alone. A client's run ends once the
// module has processed it and another client's message waits, so the module
// never holds two clients' messages at once and no answer can reach the
// wrong client. The module hears of its channel going up or down on the same
// thread, in order with the messages. What the module refused while it
// processed a client's run, and whether a tech-support dump it was asked for
// was written, go to that client too (run_effects.h).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "control_client.h"
#include "ctl_wire.h"
#include "ef_msg.h"
#include "run_effects.h"

namespace efhost {

class ChannelDispatcher {
public:
    ~ChannelDispatcher() { stop(); }
    // Takes the platform's channel sink and syslog listener and starts the
    // dispatching thread.
    void start();
    // Ends the thread at once; what still waits is not delivered.
    void stop();
    // Queues one VXLAN message of a client. With kFlagReplyWhenDone the
    // client is sent the show lines the module printed and a done envelope
    // (with env.seq) once the module has processed it.
    void submit(const std::shared_ptr<ControlClient> &client, ctl::Envelope env);
    // Tells the module that its channel went up or down, in order with the
    // messages queued before; at once when the dispatcher has stopped.
    void connection(bool up);
    // Whether the module has announced data ready (end of its first full
    // resynchronisation), and waiting for it; false when stop_flag came first.
    bool data_ready() const { return data_ready_.load(); }
    bool wait_data_ready(const std::atomic<bool> &stop_flag);
    // The module's instance, for its error flag and its tech-support dump;
    // set before start().
    void bind(vxlan_ef_vsd_t *instance);

private:
    // A client's message, or (without a client) a change of the channel.
    struct Item {
        std::shared_ptr<ControlClient> client;
        ctl::Envelope env;
        bool up = false;
    };

    static int sink(const ef_msg_t *msg, void *ctx);
    static void on_syslog(const std::string &text, void *ctx);
    void run();
    bool take_next(Item &item);
    void deliver(const Item &item);
    bool wait_processed();
    void answer(uint32_t seq, bool processed);
    void end_run();
    void note_data_ready(const uint8_t *payload, uint32_t len);

    std::mutex lock_;  // the queue
    std::condition_variable queued_;
    std::deque<Item> queue_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    // Completed task runs after which the module has processed the last
    // message delivered; the dispatching thread's own.
    uint64_t processed_at_ = 0;

    // The client whose messages the module holds, and what it printed for
    // them; written by the dispatching thread, read by the module's task.
    std::mutex out_lock_;
    std::shared_ptr<ControlClient> current_;
    std::vector<std::string> lines_;
    std::vector<std::string> errors_;
    // The dispatching thread's own.
    ModuleErrorFlag error_flag_;
    TechDumpCheck tech_dump_;

    std::mutex ready_lock_;
    std::condition_variable ready_cv_;
    std::atomic<bool> data_ready_{false};
};

}  // namespace efhost
