// Interface events of the interface manager: message handlers subscribed per
// protocol stack, creation and destruction events of an interface sent to the
// handlers of its stack, and the walk over every interface.
#include <algorithm>
#include <cstdio>
#include <map>
#include <mutex>

#include "efrt.h"
#include "efrt_services.h"
#include "lsm.h"
#include "rcu.h"

namespace {

struct Events {
    std::mutex lock;
    std::map<uint32_t, std::vector<lsm_msg_handler_fn>> handlers;  // by stack
    std::map<uint32_t, int> fail_register;
};

Events &events()
{
    static Events e;
    return e;
}

void send(uint32_t stack, uint32_t event, const lsm_if_event_msg_t &msg)
{
    for (lsm_msg_handler_fn fn : efrt::lsm_handlers(stack)) {
        lsm_if_event_msg_t copy = msg;
        fn(event, &copy);
    }
}

lsm_if_event_msg_t make_msg(uint32_t ifindex, const char *name)
{
    lsm_if_event_msg_t msg{};
    msg.ifindex = ifindex;
    std::snprintf(msg.name, sizeof msg.name, "%s", name);
    return msg;
}

}  // namespace

// Subscribing the same handler to a stack twice keeps one subscription.
extern "C" int lsm_reg_msg_handler_ex(uint32_t stack, lsm_msg_handler_fn handler)
{
    Events &e = events();
    std::lock_guard<std::mutex> g(e.lock);
    auto fail = e.fail_register.find(stack);
    if (fail != e.fail_register.end()) {
        int rc = fail->second;
        e.fail_register.erase(fail);
        return rc;
    }
    if (handler == nullptr)
        return -1;
    auto &list = e.handlers[stack];
    if (std::find(list.begin(), list.end(), handler) == list.end())
        list.push_back(handler);
    return 0;
}

extern "C" int lsm_unreg_msg_handler_ex(uint32_t stack, lsm_msg_handler_fn handler)
{
    std::lock_guard<std::mutex> g(events().lock);
    auto &list = events().handlers[stack];
    auto it = std::find(list.begin(), list.end(), handler);
    if (it == list.end())
        return -1;
    list.erase(it);
    return 0;
}

extern "C" int lsm_walk_through_ex(lsm_walk_fn fn, uint32_t, uint32_t)
{
    if (fn == nullptr)
        return 0;
    efrt::rcu::ReadSection reading;
    for (uint32_t ifindex : efrt::lsm_indexes()) {
        if (lsm_intfcb_t *intf = lsm_get_intfcb(ifindex))
            fn(intf);
    }
    return 0;
}

namespace efrt {

void lsm_create(const lsm_intfcb_t &intf)
{
    lsm_add(intf);
    send(intf.stack, LSM_IF_EVENT_CREATE, make_msg(intf.ifindex, intf.name));
}

void lsm_destroy(uint32_t ifindex)
{
    {
        rcu::ReadSection reading;
        if (lsm_intfcb_t *intf = lsm_get_intfcb(ifindex))
            send(intf->stack, LSM_IF_EVENT_DESTROY, make_msg(ifindex, intf->name));
    }
    lsm_remove(ifindex);
}

void lsm_event(uint32_t stack, uint32_t event, uint32_t ifindex, const std::string &name)
{
    send(stack, event, make_msg(ifindex, name.c_str()));
}

std::vector<lsm_msg_handler_fn> lsm_handlers(uint32_t stack)
{
    std::lock_guard<std::mutex> g(events().lock);
    auto it = events().handlers.find(stack);
    return it == events().handlers.end() ? std::vector<lsm_msg_handler_fn>{} : it->second;
}

void lsm_fail_register(uint32_t stack, int rc)
{
    std::lock_guard<std::mutex> g(events().lock);
    events().fail_register[stack] = rc;
}

lsm_intfcb_t make_intf(uint32_t ifindex, uint32_t type, uint8_t stack, const std::string &name)
{
    lsm_intfcb_t intf{};
    intf.ifindex = ifindex;
    intf.type = type;
    intf.stack = stack;
    intf.link_up = 1;
    intf.mtu = 1500;
    std::snprintf(intf.name, sizeof intf.name, "%s", name.c_str());
    std::snprintf(intf.sname, sizeof intf.sname, "%s", name.c_str());
    return intf;
}

void lsm_events_reset()
{
    std::lock_guard<std::mutex> g(events().lock);
    events().handlers.clear();
    events().fail_register.clear();
}

}  // namespace efrt
