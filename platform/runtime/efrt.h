// Control interface of the reference platform for the process that hosts it
// (tests and efhost): failure injection, the deterministic clock, channel
// delivery and captures. Modules never include this header.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ef_msg.h"
#include "lsm.h"

namespace efrt {

// Puts every service back to its initial state (captures, injections,
// interfaces, tasks, registrations). Live memory blocks stay counted; what
// the reset retires is freed after its grace period (rcu::barrier() waits
// for that).
void reset();

// ---- memory ----
// Live blocks and bytes of one platform memory type, and over all types.
long mem_live_blocks(uint32_t mem_type);
long mem_live_bytes(uint32_t mem_type);
long mem_live_blocks_total();
// Makes the nth allocation from now fail (1 = the next one); 0 cancels.
void mem_fail_nth(unsigned n);
// Total allocations attempted since start.
uint64_t mem_alloc_attempts();

// ---- clock and tasks ----
uint64_t clock_now_ms();
// Moves the clock forward and runs every task whose timeout falls due, in
// due order, on the calling thread.
void clock_advance(uint64_t ms);
// Runs due tasks without moving the clock.
void tasks_run_due();
struct TaskInfo {
    void *handle;
    std::string name;
    bool armed;
    int mode;
    uint64_t due_ms;
};
std::vector<TaskInfo> tasks();
// Makes the next n calls of ef_task_create fail.
void task_fail_create(unsigned n);
// Starts (or stops) a thread that advances the clock in real time.
void tasks_start_timer_thread();
void tasks_stop_timer_thread();
// Task runs completed so far; waiting for a count lets a host know that
// every message delivered before it was processed by the module's task.
uint64_t tasks_completed_runs();
// The completed-run count at which a task run that starts after this call
// has ended: what a host waits for so that a message delivered before the
// call has been taken by the module's task.
uint64_t tasks_next_full_run();
// Waits until at least target runs completed; false after timeout_ms.
bool tasks_wait_runs(uint64_t target, int timeout_ms);

// ---- EF message channel ----
struct SentMsg {
    uint32_t module_id;
    uint32_t len;
    std::vector<uint8_t> payload;
};
// Delivers a payload to the module's receive callback as the channel thread
// would: wrapped in an envelope whose module id is module. Returns the
// callback's result, or -1 when the module is not registered.
int msg_deliver(uint32_t module, const std::vector<uint8_t> &payload);
// Delivers an envelope as given (NULL included).
int msg_deliver_envelope(uint32_t module, void *envelope);
// Calls the module's connection callback. -1 when not registered.
int msg_connect(uint32_t module, bool connected);
bool msg_registered(uint32_t module);
ef_msg_callbacks_t msg_callbacks(uint32_t module);
// Messages sent so far, and taking them (the capture is emptied).
std::vector<SentMsg> msg_sent();
std::vector<SentMsg> msg_take_sent();
// ef_msg_send returns rc for its next n calls.
void msg_fail_send(unsigned n, int rc = EF_MSG_EAGAIN);
uint64_t msg_send_attempts();
// ef_msg_register returns rc (non-zero) for its next call.
void msg_fail_register(int rc);
// Where sent messages go instead of the capture (efhost's socket).
using MsgSink = int (*)(const ef_msg_t *msg, void *ctx);
void msg_set_sink(MsgSink sink, void *ctx);

// ---- syslog ----
struct LogRecord {
    int level;
    std::string module;
    std::string tag;
    int flag;
    std::string text;
};
std::vector<LogRecord> syslog_records();
std::vector<LogRecord> syslog_take();
// Texts only, in order.
std::vector<std::string> syslog_texts();
// Appends each record's text (with a newline added when it has none) to a file.
bool syslog_set_file(const std::string &path);
// A fixed time stamp for syslog_get_current_time; empty restores the clock.
void syslog_set_time_text(const std::string &text);
// Called with every record's text as it is written (efhost's show replies);
// nullptr for none.
using SyslogListener = void (*)(const std::string &text, void *ctx);
void syslog_set_listener(SyslogListener fn, void *ctx);
// Whether records are kept for syslog_records (a long-running host turns
// this off so that memory does not grow).
void syslog_set_keep(bool keep);

// ---- lsm ----
// Publishes a copy of the block as the interface's block, without events.
// Adding an index that exists publishes a new block (its hooks move with
// it) and retires the old one: modules that keep the old pointer learn of
// the new block only from a creation event (lsm_create).
void lsm_add(const lsm_intfcb_t &intf);
// Unpublishes the interface and retires its block, without events.
void lsm_remove(uint32_t ifindex);
void lsm_clear();
// Indexes of every interface, in ascending order.
std::vector<uint32_t> lsm_indexes();
// Interface blocks allocated and not yet freed: the published ones and
// those retired but still in their grace period.
long lsm_blocks_live();

}  // namespace efrt
