// The suppression table: switches, bindings, their generation and ageing,
// and the counters; see suppress.h. Every function takes the table's lock
// for what it reads or writes, except the counters, which are relaxed
// atomics.
#include "suppress.h"

#include <atomic>
#include <map>
#include <mutex>
#include <random>
#include <utility>

#include "efrt.h"
#include "efrt_services.h"

namespace efrt {

namespace {

using Key = std::pair<uint32_t, NeighbourIp>;  // (VNI, address): the listing order

struct Switch {
    bool arp = false;
    bool nd = false;
};

uint64_t fresh_generation()
{
    std::random_device rd;
    return uint64_t{rd()} << 32 | rd();
}

struct Table {
    std::mutex lock;
    std::map<Key, SuppressBinding> bindings;
    std::map<uint32_t, Switch> switches;  // only VNIs with a switch on
    size_t locals = 0;
    uint64_t generation = fresh_generation();
    uint64_t age_ms = kDefaultMacAgeMs;
    size_t local_capacity = kDefaultMacCapacity;
};

struct Counters {
    std::atomic<uint64_t> arp_answered{0}, arp_handed_on{0}, nd_answered{0}, nd_handed_on{0},
        local_learned{0}, local_refused{0};
};

Table &table()
{
    static Table t;
    return t;
}

Counters &counters()
{
    static Counters c;
    return c;
}

// Any switch on anywhere: while none is, ARP and ND frames cost one load.
std::atomic<size_t> g_vnis_switched_on{0};

void bump(std::atomic<uint64_t> &counter) { counter.fetch_add(1, std::memory_order_relaxed); }

// Caller holds the table's lock.
void drop_binding(Table &t, std::map<Key, SuppressBinding>::iterator it)
{
    if (it->second.kind == BindingKind::Local) {
        --t.locals;
        ++t.generation;
    }
    t.bindings.erase(it);
}

}  // namespace

void suppress_set_switch(uint32_t vni, SuppressProto proto, bool on)
{
    Table &t = table();
    std::lock_guard<std::mutex> g(t.lock);
    Switch sw{};
    if (auto it = t.switches.find(vni); it != t.switches.end())
        sw = it->second;
    (proto == SuppressProto::Arp ? sw.arp : sw.nd) = on;
    if (sw.arp || sw.nd)
        t.switches[vni] = sw;
    else
        t.switches.erase(vni);
    g_vnis_switched_on.store(t.switches.size(), std::memory_order_relaxed);
}

bool suppress_switch_on(uint32_t vni, SuppressProto proto)
{
    if (g_vnis_switched_on.load(std::memory_order_relaxed) == 0)
        return false;
    Table &t = table();
    std::lock_guard<std::mutex> g(t.lock);
    auto it = t.switches.find(vni);
    if (it == t.switches.end())
        return false;
    return proto == SuppressProto::Arp ? it->second.arp : it->second.nd;
}

std::vector<SuppressSwitches> suppress_switches()
{
    Table &t = table();
    std::lock_guard<std::mutex> g(t.lock);
    std::vector<SuppressSwitches> out;
    for (const auto &[vni, sw] : t.switches)
        out.push_back(SuppressSwitches{vni, sw.arp, sw.nd});
    return out;
}

std::optional<SuppressBinding> suppress_add_remote(uint32_t vni, const NeighbourIp &ip, const MacAddr &mac)
{
    Table &t = table();
    std::lock_guard<std::mutex> g(t.lock);
    std::optional<SuppressBinding> previous;
    auto it = t.bindings.find(Key{vni, ip});
    if (it != t.bindings.end()) {
        previous = it->second;
        drop_binding(t, it);
    }
    t.bindings.emplace(Key{vni, ip}, SuppressBinding{vni, ip, mac, BindingKind::Remote, 0});
    return previous;
}

bool suppress_remove_remote(uint32_t vni, const NeighbourIp &ip)
{
    Table &t = table();
    std::lock_guard<std::mutex> g(t.lock);
    auto it = t.bindings.find(Key{vni, ip});
    if (it == t.bindings.end() || it->second.kind != BindingKind::Remote)
        return false;
    drop_binding(t, it);
    return true;
}

bool suppress_learn_local(uint32_t vni, const NeighbourIp &ip, const MacAddr &mac)
{
    const uint64_t now = clock_now_ms();
    Table &t = table();
    std::lock_guard<std::mutex> g(t.lock);
    auto it = t.bindings.find(Key{vni, ip});
    if (it != t.bindings.end() && it->second.kind == BindingKind::Local) {
        it->second.seen_ms = now;
        if (it->second.mac == mac)
            return true;
        it->second.mac = mac;
        ++t.generation;
        bump(counters().local_learned);
        return true;
    }
    if (t.locals >= t.local_capacity) {
        bump(counters().local_refused);
        return false;
    }
    if (it != t.bindings.end())
        t.bindings.erase(it);
    t.bindings.emplace(Key{vni, ip}, SuppressBinding{vni, ip, mac, BindingKind::Local, now});
    ++t.locals;
    ++t.generation;
    bump(counters().local_learned);
    return true;
}

std::optional<MacAddr> suppress_lookup(uint32_t vni, const NeighbourIp &ip)
{
    Table &t = table();
    std::lock_guard<std::mutex> g(t.lock);
    auto it = t.bindings.find(Key{vni, ip});
    if (it == t.bindings.end())
        return std::nullopt;
    return it->second.mac;
}

std::vector<SuppressBinding> suppress_bindings()
{
    Table &t = table();
    std::lock_guard<std::mutex> g(t.lock);
    std::vector<SuppressBinding> out;
    out.reserve(t.bindings.size());
    for (const auto &[key, b] : t.bindings)
        out.push_back(b);
    return out;
}

std::vector<SuppressBinding> suppress_local_bindings(uint64_t &generation)
{
    Table &t = table();
    std::lock_guard<std::mutex> g(t.lock);
    std::vector<SuppressBinding> out;
    out.reserve(t.locals);
    for (const auto &[key, b] : t.bindings)
        if (b.kind == BindingKind::Local)
            out.push_back(b);
    generation = t.generation;
    return out;
}

uint64_t suppress_generation()
{
    Table &t = table();
    std::lock_guard<std::mutex> g(t.lock);
    return t.generation;
}

void suppress_set_age_time(uint64_t ms)
{
    Table &t = table();
    std::lock_guard<std::mutex> g(t.lock);
    t.age_ms = ms;
}

size_t suppress_age_run()
{
    const uint64_t now = clock_now_ms();
    Table &t = table();
    std::lock_guard<std::mutex> g(t.lock);
    size_t removed = 0;
    for (auto it = t.bindings.begin(); it != t.bindings.end();) {
        const SuppressBinding &b = it->second;
        if (b.kind == BindingKind::Local && now - b.seen_ms >= t.age_ms) {
            drop_binding(t, it++);
            ++removed;
        } else {
            ++it;
        }
    }
    return removed;
}

void suppress_set_local_capacity(size_t bindings)
{
    Table &t = table();
    std::lock_guard<std::mutex> g(t.lock);
    t.local_capacity = bindings;
}

void suppress_count(SuppressEvent event)
{
    Counters &c = counters();
    switch (event) {
    case SuppressEvent::ArpAnswered:
        return bump(c.arp_answered);
    case SuppressEvent::ArpHandedOn:
        return bump(c.arp_handed_on);
    case SuppressEvent::NdAnswered:
        return bump(c.nd_answered);
    case SuppressEvent::NdHandedOn:
        return bump(c.nd_handed_on);
    }
}

SuppressCounters suppress_counters()
{
    const Counters &c = counters();
    constexpr auto r = std::memory_order_relaxed;
    return SuppressCounters{c.arp_answered.load(r), c.arp_handed_on.load(r), c.nd_answered.load(r),
                            c.nd_handed_on.load(r),  c.local_learned.load(r), c.local_refused.load(r)};
}

void suppress_reset()
{
    {
        Table &t = table();
        std::lock_guard<std::mutex> g(t.lock);
        t.bindings.clear();
        t.switches.clear();
        t.locals = 0;
        t.generation = fresh_generation();
        t.age_ms = kDefaultMacAgeMs;
        t.local_capacity = kDefaultMacCapacity;
        g_vnis_switched_on.store(0, std::memory_order_relaxed);
    }
    Counters &c = counters();
    for (std::atomic<uint64_t> *n : {&c.arp_answered, &c.arp_handed_on, &c.nd_answered, &c.nd_handed_on,
                                     &c.local_learned, &c.local_refused})
        n->store(0, std::memory_order_relaxed);
}

}  // namespace efrt
