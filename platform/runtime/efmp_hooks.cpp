// Per-interface hooks of the pipeline: Ethernet-level parsers by (interface
// index, slot), efmp parser descriptors and encapsulation descriptors by
// interface. The pipeline runs them; this file only keeps them. Registration
// works on the tables under a mutex and then publishes the changed key in a
// lookup index that packet threads read without a lock.
#include <map>
#include <mutex>
#include <utility>

#include "efmp.h"
#include "efrt_services.h"
#include "flat_map.h"
#include "published.h"

namespace {

struct EthParser {
    void *handler;
    uint32_t arg;
};

// What the pipeline asks per packet: the first hook of each kind per key.
// Interfaces come and go with a fabric, so their hooks are published by
// shard.
struct IntfHooks {
    efmp_parser_fn parser;
    efmp_encap_fn encap;
};
using EthIndex = efrt::FlatMap<uint64_t, void *>;  // ifindex << 32 | slot
using IntfIndex = efrt::FlatMap<const lsm_intfcb_t *, IntfHooks>;

struct HookIndex {
    efrt::Published<EthIndex> eth;
    efrt::PublishedShards<IntfIndex> intf;

    const IntfHooks *of(const lsm_intfcb_t *intf) const { return this->intf.read(efrt::MixHash{}(intf)).find(intf); }
};

struct Hooks {
    std::mutex lock;
    std::map<std::pair<uint32_t, uint32_t>, EthParser> eth;  // (ifindex, slot)
    std::vector<efmp_parser_t> parsers;
    std::map<lsm_intfcb_t *, efmp_encap_t> encaps;
    int fail_eth = 0;
    int fail_parser_reg = 0;
    int fail_parser_dereg = 0;
    int fail_encap = 0;
    HookIndex index;
};

Hooks g_hooks;

Hooks &hooks() { return g_hooks; }

uint64_t eth_key(uint32_t ifindex, uint32_t slot) { return uint64_t{ifindex} << 32 | slot; }

// Publishes the Ethernet parser of one (interface, slot); the caller holds
// the lock.
void publish_eth(Hooks &h, uint32_t ifindex, uint32_t slot)
{
    auto it = h.eth.find({ifindex, slot});
    void *handler = it == h.eth.end() ? nullptr : it->second.handler;
    h.index.eth.update([&](EthIndex &idx) {
        if (handler != nullptr)
            idx.find_or_insert(eth_key(ifindex, slot)) = handler;
        else
            idx.erase(eth_key(ifindex, slot));
        return true;
    });
}

// Publishes the first parser and the encapsulation hook of one interface;
// the caller holds the lock.
void publish_intf(Hooks &h, const lsm_intfcb_t *intf)
{
    IntfHooks hooks{nullptr, nullptr};
    for (const efmp_parser_t &p : h.parsers) {
        if (p.intf == intf) {
            hooks.parser = p.handler;
            break;
        }
    }
    if (auto it = h.encaps.find(const_cast<lsm_intfcb_t *>(intf)); it != h.encaps.end())
        hooks.encap = it->second.handler;
    h.index.intf.update(efrt::MixHash{}(intf), [&](IntfIndex &idx) {
        if (hooks.parser != nullptr || hooks.encap != nullptr)
            idx.find_or_insert(intf) = hooks;
        else
            idx.erase(intf);
        return true;
    });
}

// Returns the armed failure code, disarming it.
int take(int &armed)
{
    int rc = armed;
    armed = 0;
    return rc;
}

bool same_parser(const efmp_parser_t &a, const efmp_parser_t &b)
{
    return a.handler == b.handler && a.intf == b.intf;
}

}  // namespace

// One parser per (interface, slot): attaching again replaces it.
extern "C" int ef_eth_reg_parser(uint32_t ifindex, void *fn, uint32_t arg, uint32_t slot)
{
    Hooks &h = hooks();
    std::lock_guard<std::mutex> g(h.lock);
    if (int rc = take(h.fail_eth); rc != 0)
        return rc;
    if (fn == nullptr)
        return -1;
    h.eth[{ifindex, slot}] = EthParser{fn, arg};
    publish_eth(h, ifindex, slot);
    return 0;
}

extern "C" int ef_eth_dereg_parser(uint32_t ifindex, uint32_t slot)
{
    Hooks &h = hooks();
    std::lock_guard<std::mutex> g(h.lock);
    if (h.eth.erase({ifindex, slot}) == 0)
        return -1;
    publish_eth(h, ifindex, slot);
    return 0;
}

// The same handler on the same interface is attached once; again is an error.
extern "C" int efmp_reg_parser(efmp_parser_t *parser)
{
    Hooks &h = hooks();
    std::lock_guard<std::mutex> g(h.lock);
    if (int rc = take(h.fail_parser_reg); rc != 0)
        return rc;
    if (parser == nullptr || parser->handler == nullptr || parser->intf == nullptr)
        return -1;
    for (const efmp_parser_t &p : h.parsers)
        if (same_parser(p, *parser))
            return -1;
    h.parsers.push_back(*parser);
    publish_intf(h, parser->intf);
    return 0;
}

extern "C" int efmp_dereg_parser(efmp_parser_t *parser)
{
    Hooks &h = hooks();
    std::lock_guard<std::mutex> g(h.lock);
    if (int rc = take(h.fail_parser_dereg); rc != 0)
        return rc;
    if (parser == nullptr)
        return -1;
    for (auto it = h.parsers.begin(); it != h.parsers.end(); ++it) {
        if (same_parser(*it, *parser)) {
            h.parsers.erase(it);
            publish_intf(h, parser->intf);
            return 0;
        }
    }
    return -1;
}

// One encapsulation hook per interface: attaching again replaces it.
extern "C" int efmp_reg_encap(efmp_encap_t *encap)
{
    Hooks &h = hooks();
    std::lock_guard<std::mutex> g(h.lock);
    if (int rc = take(h.fail_encap); rc != 0)
        return rc;
    if (encap == nullptr || encap->handler == nullptr || encap->intf == nullptr)
        return -1;
    h.encaps[encap->intf] = *encap;
    publish_intf(h, encap->intf);
    return 0;
}

extern "C" int efmp_dereg_encap(efmp_encap_t *encap)
{
    if (encap == nullptr)
        return -1;
    Hooks &h = hooks();
    std::lock_guard<std::mutex> g(h.lock);
    if (h.encaps.erase(encap->intf) == 0)
        return -1;
    publish_intf(h, encap->intf);
    return 0;
}

namespace efrt {

std::vector<EthParserInfo> eth_parsers()
{
    std::lock_guard<std::mutex> g(hooks().lock);
    std::vector<EthParserInfo> out;
    for (const auto &[key, p] : hooks().eth)
        out.push_back(EthParserInfo{key.first, key.second, p.handler, p.arg});
    return out;
}

void eth_parser_fail_register(int rc)
{
    std::lock_guard<std::mutex> g(hooks().lock);
    hooks().fail_eth = rc;
}

std::vector<efmp_parser_t> efmp_parsers()
{
    std::lock_guard<std::mutex> g(hooks().lock);
    return hooks().parsers;
}

void efmp_parser_fail_register(int rc)
{
    std::lock_guard<std::mutex> g(hooks().lock);
    hooks().fail_parser_reg = rc;
}

void efmp_parser_fail_deregister(int rc)
{
    std::lock_guard<std::mutex> g(hooks().lock);
    hooks().fail_parser_dereg = rc;
}

std::vector<efmp_encap_t> efmp_encaps()
{
    std::lock_guard<std::mutex> g(hooks().lock);
    std::vector<efmp_encap_t> out;
    for (const auto &[intf, e] : hooks().encaps)
        out.push_back(e);
    return out;
}

void *eth_parser_of(uint32_t ifindex, uint32_t slot)
{
    void *const *handler = hooks().index.eth.read().find(eth_key(ifindex, slot));
    return handler == nullptr ? nullptr : *handler;
}

efmp_parser_fn efmp_parser_of(const lsm_intfcb_t *intf)
{
    const IntfHooks *hooks_of = hooks().index.of(intf);
    return hooks_of == nullptr ? nullptr : hooks_of->parser;
}

efmp_encap_fn efmp_encap_of(const lsm_intfcb_t *intf)
{
    const IntfHooks *hooks_of = hooks().index.of(intf);
    return hooks_of == nullptr ? nullptr : hooks_of->encap;
}

void efmp_encap_fail_register(int rc)
{
    std::lock_guard<std::mutex> g(hooks().lock);
    hooks().fail_encap = rc;
}

void hooks_move_intf(lsm_intfcb_t *from, lsm_intfcb_t *to)
{
    Hooks &h = hooks();
    std::lock_guard<std::mutex> g(h.lock);
    for (efmp_parser_t &p : h.parsers)
        if (p.intf == from)
            p.intf = to;
    if (auto it = h.encaps.find(from); it != h.encaps.end()) {
        efmp_encap_t e = it->second;
        e.intf = to;
        h.encaps.erase(it);
        h.encaps[to] = e;
    }
    publish_intf(h, to);
}

void hooks_forget_intf(const lsm_intfcb_t *intf)
{
    Hooks &h = hooks();
    std::lock_guard<std::mutex> g(h.lock);
    publish_intf(h, intf);
}

void hooks_reset()
{
    Hooks &h = hooks();
    std::lock_guard<std::mutex> g(h.lock);
    h.eth.clear();
    h.parsers.clear();
    h.encaps.clear();
    h.fail_eth = h.fail_parser_reg = h.fail_parser_dereg = h.fail_encap = 0;
    h.index.eth.clear();
    h.index.intf.clear();
}

}  // namespace efrt
