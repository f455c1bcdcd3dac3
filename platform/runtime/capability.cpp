// Capability service: boolean capabilities by path (a path never defined reads
// as off), subscriptions per path, and change messages sent to subscribers on
// the calling thread.
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>

#include "efrt_services.h"
#include "libtq_cap.h"

namespace {

struct Subscriber {
    libtq_cap_cb cb;
    void *ctx;
};

struct Caps {
    std::mutex lock;
    std::map<std::string, bool> values;
    std::map<std::string, std::vector<Subscriber>> subscribers;
    std::map<std::string, int> reads;
    std::map<std::string, int> fail_get;
    std::map<std::string, int> fail_subscribe;
    int fail_pmsg = 0;
    std::vector<int> last_results;
};

Caps &caps()
{
    static Caps c;
    return c;
}

// Returns and disarms the failure armed for path, 0 when none.
int take(std::map<std::string, int> &armed, const std::string &path)
{
    auto it = armed.find(path);
    if (it == armed.end())
        return 0;
    int rc = it->second;
    armed.erase(it);
    return rc;
}

std::vector<Subscriber> subscribers_of(const std::string &path)
{
    std::lock_guard<std::mutex> g(caps().lock);
    auto it = caps().subscribers.find(path);
    return it == caps().subscribers.end() ? std::vector<Subscriber>{} : it->second;
}

std::vector<int> send(const std::string &path, libtq_cap_msg_t *msg)
{
    std::vector<int> results;
    for (const Subscriber &s : subscribers_of(path))
        results.push_back(s.cb(s.ctx, msg));
    std::lock_guard<std::mutex> g(caps().lock);
    caps().last_results = results;
    return results;
}

libtq_cap_msg_t make_msg(const std::string &path, uint32_t type, int32_t error, bool value)
{
    libtq_cap_msg_t msg{};
    msg.type = type;
    msg.error = error;
    std::snprintf(msg.path, sizeof msg.path, "%s", path.c_str());
    msg.value = value ? 1 : 0;
    return msg;
}

}  // namespace

extern "C" int libtq_cap_ce_get_g_cap_bool(void *client, const char *path, bool *value)
{
    if (client == nullptr || path == nullptr || value == nullptr)
        return -1;
    Caps &c = caps();
    std::lock_guard<std::mutex> g(c.lock);
    c.reads[path]++;
    if (int rc = take(c.fail_get, path); rc != 0)
        return rc;
    auto it = c.values.find(path);
    *value = it != c.values.end() && it->second;
    return 0;
}

extern "C" int libtq_cap_ce_subscribe_g_cap_bool(void *client, const char *path,
                                                 libtq_cap_cb cb, void *ctx)
{
    if (client == nullptr || path == nullptr || cb == nullptr)
        return -1;
    Caps &c = caps();
    std::lock_guard<std::mutex> g(c.lock);
    if (int rc = take(c.fail_subscribe, path); rc != 0)
        return rc;
    c.subscribers[path].push_back(Subscriber{cb, ctx});
    return 0;
}

extern "C" int libtq_cap_ce_get_g_cap_bool_by_pmsg(libtq_cap_msg_t *msg, uint32_t path_len,
                                                   char *path, bool *value, uint32_t *length)
{
    {
        std::lock_guard<std::mutex> g(caps().lock);
        if (caps().fail_pmsg != 0) {
            int rc = caps().fail_pmsg;
            caps().fail_pmsg = 0;
            return rc;
        }
    }
    if (msg == nullptr || path == nullptr || path_len == 0 || value == nullptr ||
        length == nullptr)
        return -1;
    std::snprintf(path, path_len, "%s", msg->path);
    *length = static_cast<uint32_t>(std::strlen(path));
    *value = msg->value != 0;
    return 0;
}

namespace efrt {

void cap_define(const std::string &path, bool value)
{
    std::lock_guard<std::mutex> g(caps().lock);
    caps().values[path] = value;
}

int cap_change(const std::string &path, bool value)
{
    cap_define(path, value);
    libtq_cap_msg_t msg = make_msg(path, LIBTQ_CAP_MSG_VALUE_CHANGE, 0, value);
    return static_cast<int>(send(path, &msg).size());
}

int cap_notify(const std::string &path, uint32_t type, int32_t error)
{
    bool value;
    {
        std::lock_guard<std::mutex> g(caps().lock);
        auto it = caps().values.find(path);
        value = it != caps().values.end() && it->second;
    }
    libtq_cap_msg_t msg = make_msg(path, type, error, value);
    return static_cast<int>(send(path, &msg).size());
}

std::vector<int> cap_notify_null(const std::string &path) { return send(path, nullptr); }

std::vector<int> cap_last_results()
{
    std::lock_guard<std::mutex> g(caps().lock);
    return caps().last_results;
}

int cap_subscribers(const std::string &path)
{
    return static_cast<int>(subscribers_of(path).size());
}

int cap_reads(const std::string &path)
{
    std::lock_guard<std::mutex> g(caps().lock);
    auto it = caps().reads.find(path);
    return it == caps().reads.end() ? 0 : it->second;
}

void cap_fail_get(const std::string &path, int rc)
{
    std::lock_guard<std::mutex> g(caps().lock);
    caps().fail_get[path] = rc;
}

void cap_fail_subscribe(const std::string &path, int rc)
{
    std::lock_guard<std::mutex> g(caps().lock);
    caps().fail_subscribe[path] = rc;
}

void cap_fail_get_by_pmsg(int rc)
{
    std::lock_guard<std::mutex> g(caps().lock);
    caps().fail_pmsg = rc;
}

void caps_reset()
{
    Caps &c = caps();
    std::lock_guard<std::mutex> g(c.lock);
    c.values.clear();
    c.subscribers.clear();
    c.reads.clear();
    c.fail_get.clear();
    c.fail_subscribe.clear();
    c.fail_pmsg = 0;
    c.last_results.clear();
}

}  // namespace efrt
