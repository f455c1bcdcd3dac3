// The efmp service registry: handlers published by modules under (module,
// service number), and the change handlers told of every publication and
// withdrawal. Handlers are called without the registry's lock held, so they
// may look services up themselves. Packet threads look handlers up in a
// published copy of the table, without the lock.
#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

#include "efmp.h"
#include "efrt_services.h"
#include "flat_map.h"
#include "published.h"
#include "rcu.h"

namespace {

using Key = std::pair<uint32_t, uint32_t>;
using Lookup = efrt::FlatMap<uint64_t, void *>;  // module << 32 | service

struct Registry {
    std::mutex lock;
    std::map<Key, void *> services;
    std::map<Key, int> fail_register;
    std::vector<efmp_serv_chg_fn> change_handlers;
    int fail_change_handler = 0;
    efrt::Published<Lookup> lookup;
};

Registry g_registry;

Registry &registry() { return g_registry; }

uint64_t lookup_key(uint32_t module, uint32_t service) { return uint64_t{module} << 32 | service; }

// Publishes one change of the table; the caller holds the lock.
void publish(Registry &r, uint32_t module, uint32_t service, void *handler)
{
    r.lookup.update([&](Lookup &l) {
        if (handler == nullptr)
            return l.erase(lookup_key(module, service));
        l.find_or_insert(lookup_key(module, service)) = handler;
        return true;
    });
}

std::vector<efmp_serv_chg_fn> change_handlers()
{
    std::lock_guard<std::mutex> g(registry().lock);
    return registry().change_handlers;
}

void notify(uint32_t change, const efmp_service_t &serv)
{
    for (efmp_serv_chg_fn fn : change_handlers()) {
        efmp_service_t copy = serv;
        fn(change, &copy);
    }
}

}  // namespace

// Publishing a number already published replaces its handler and is told as
// a new publication.
extern "C" int efmp_reg_service(efmp_service_t *serv)
{
    if (serv == nullptr || serv->handler == nullptr)
        return -1;
    Registry &r = registry();
    {
        std::lock_guard<std::mutex> g(r.lock);
        const Key key{serv->module, serv->service};
        auto fail = r.fail_register.find(key);
        if (fail != r.fail_register.end()) {
            int rc = fail->second;
            r.fail_register.erase(fail);
            return rc;
        }
        r.services[key] = serv->handler;
        publish(r, serv->module, serv->service, serv->handler);
    }
    notify(EFMP_SERV_PUBLISHED, *serv);
    return 0;
}

extern "C" int efmp_dereg_service(efmp_service_t *serv)
{
    if (serv == nullptr)
        return -1;
    efmp_service_t gone = *serv;
    {
        std::lock_guard<std::mutex> g(registry().lock);
        auto it = registry().services.find(Key{serv->module, serv->service});
        if (it == registry().services.end())
            return -1;
        gone.handler = it->second;
        registry().services.erase(it);
        publish(registry(), serv->module, serv->service, nullptr);
    }
    notify(EFMP_SERV_WITHDRAWN, gone);
    return 0;
}

// Any thread may ask (modules do from their change handlers); the section
// keeps the version it reads alive while it does.
extern "C" void *efmp_get_service(uint32_t module, uint32_t service)
{
    efrt::rcu::ReadSection reading;
    void *const *handler = registry().lookup.read().find(lookup_key(module, service));
    return handler == nullptr ? nullptr : *handler;
}

// A handler registered twice is kept once: a module that registers again
// after a restart of its pipeline is told of each change once.
extern "C" int efmp_reg_serv_change_handler(efmp_serv_chg_fn fn)
{
    if (fn == nullptr)
        return -1;
    Registry &r = registry();
    std::lock_guard<std::mutex> g(r.lock);
    if (r.fail_change_handler != 0) {
        int rc = r.fail_change_handler;
        r.fail_change_handler = 0;
        return rc;
    }
    if (std::find(r.change_handlers.begin(), r.change_handlers.end(), fn) ==
        r.change_handlers.end())
        r.change_handlers.push_back(fn);
    return 0;
}

namespace efrt {

std::vector<ServiceInfo> services()
{
    std::lock_guard<std::mutex> g(registry().lock);
    std::vector<ServiceInfo> out;
    for (const auto &[key, handler] : registry().services)
        out.push_back(ServiceInfo{key.first, key.second, handler});
    return out;
}

std::vector<ServiceInfo> services_of(uint32_t module)
{
    std::vector<ServiceInfo> out;
    for (const ServiceInfo &s : services())
        if (s.module == module)
            out.push_back(s);
    return out;
}

void serv_fail_register(uint32_t module, uint32_t service, int rc)
{
    std::lock_guard<std::mutex> g(registry().lock);
    registry().fail_register[Key{module, service}] = rc;
}

void serv_fail_change_handler(int rc)
{
    std::lock_guard<std::mutex> g(registry().lock);
    registry().fail_change_handler = rc;
}

std::vector<efmp_serv_chg_fn> serv_change_handlers() { return change_handlers(); }

void serv_notify(uint32_t change, const efmp_service_t &serv) { notify(change, serv); }

void services_reset()
{
    Registry &r = registry();
    std::lock_guard<std::mutex> g(r.lock);
    r.services.clear();
    r.fail_register.clear();
    r.change_handlers.clear();
    r.fail_change_handler = 0;
    r.lookup.clear();
}

}  // namespace efrt
