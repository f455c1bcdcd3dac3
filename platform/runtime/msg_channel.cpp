// EF message channel: module registrations with their callbacks, delivery of
// inbound envelopes, and sent messages captured (or handed to a sink).
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "ef_msg.h"
#include "efrt.h"

namespace {

struct Channel {
    std::mutex lock;
    std::map<uint32_t, ef_msg_callbacks_t> modules;
    std::vector<efrt::SentMsg> sent;
    unsigned fail_send = 0;
    int fail_send_rc = EF_MSG_EAGAIN;
    int fail_register_rc = 0;
    uint64_t send_attempts = 0;
    efrt::MsgSink sink = nullptr;
    void *sink_ctx = nullptr;
};

Channel &chan()
{
    static Channel c;
    return c;
}

bool lookup(uint32_t module, ef_msg_callbacks_t &out)
{
    std::lock_guard<std::mutex> g(chan().lock);
    auto it = chan().modules.find(module);
    if (it == chan().modules.end())
        return false;
    out = it->second;
    return true;
}

}  // namespace

extern "C" int ef_msg_register(uint32_t module, const ef_msg_callbacks_t *cbs)
{
    Channel &c = chan();
    std::lock_guard<std::mutex> g(c.lock);
    if (c.fail_register_rc != 0) {
        int rc = c.fail_register_rc;
        c.fail_register_rc = 0;
        return rc;
    }
    if (cbs == nullptr || c.modules.count(module) != 0)
        return -1;
    c.modules[module] = *cbs;
    return 0;
}

extern "C" int ef_msg_unregister(uint32_t module)
{
    std::lock_guard<std::mutex> g(chan().lock);
    return chan().modules.erase(module) != 0 ? 0 : -1;
}

extern "C" int ef_msg_send(void *msg)
{
    Channel &c = chan();
    if (msg == nullptr)
        return -1;
    const auto *m = static_cast<const ef_msg_t *>(msg);
    efrt::MsgSink sink;
    void *ctx;
    {
        std::lock_guard<std::mutex> g(c.lock);
        c.send_attempts++;
        if (c.fail_send != 0) {
            c.fail_send--;
            return c.fail_send_rc;
        }
        sink = c.sink;
        ctx = c.sink_ctx;
        if (sink == nullptr) {
            c.sent.push_back(efrt::SentMsg{m->module_id, m->len,
                                           std::vector<uint8_t>(m->data, m->data + m->len)});
            return 0;
        }
    }
    return sink(m, ctx);
}

namespace efrt {

int msg_deliver(uint32_t module, const std::vector<uint8_t> &payload)
{
    auto *env = static_cast<ef_msg_t *>(std::calloc(1, EF_MSG_HDR_LEN + payload.size()));
    env->module_id = module;
    env->len = static_cast<uint32_t>(payload.size());
    if (!payload.empty())
        std::memcpy(env->data, payload.data(), payload.size());
    int rc = msg_deliver_envelope(module, env);
    std::free(env);
    return rc;
}

int msg_deliver_envelope(uint32_t module, void *envelope)
{
    ef_msg_callbacks_t cbs;
    if (!lookup(module, cbs) || cbs.recv == nullptr)
        return -1;
    return cbs.recv(envelope);
}

int msg_connect(uint32_t module, bool connected)
{
    ef_msg_callbacks_t cbs;
    if (!lookup(module, cbs) || cbs.connect == nullptr)
        return -1;
    return cbs.connect(nullptr, connected ? 1 : 0);
}

bool msg_registered(uint32_t module)
{
    ef_msg_callbacks_t cbs;
    return lookup(module, cbs);
}

ef_msg_callbacks_t msg_callbacks(uint32_t module)
{
    ef_msg_callbacks_t cbs{};
    lookup(module, cbs);
    return cbs;
}

std::vector<SentMsg> msg_sent()
{
    std::lock_guard<std::mutex> g(chan().lock);
    return chan().sent;
}

std::vector<SentMsg> msg_take_sent()
{
    std::lock_guard<std::mutex> g(chan().lock);
    std::vector<SentMsg> out;
    out.swap(chan().sent);
    return out;
}

void msg_fail_send(unsigned n, int rc)
{
    std::lock_guard<std::mutex> g(chan().lock);
    chan().fail_send = n;
    chan().fail_send_rc = rc;
}

uint64_t msg_send_attempts()
{
    std::lock_guard<std::mutex> g(chan().lock);
    return chan().send_attempts;
}

void msg_fail_register(int rc)
{
    std::lock_guard<std::mutex> g(chan().lock);
    chan().fail_register_rc = rc;
}

void msg_set_sink(MsgSink sink, void *ctx)
{
    std::lock_guard<std::mutex> g(chan().lock);
    chan().sink = sink;
    chan().sink_ctx = ctx;
}

void msg_reset()
{
    Channel &c = chan();
    std::lock_guard<std::mutex> g(c.lock);
    c.modules.clear();
    c.sent.clear();
    c.fail_send = 0;
    c.fail_register_rc = 0;
    c.send_attempts = 0;
    c.sink = nullptr;
    c.sink_ctx = nullptr;
}

}  // namespace efrt
