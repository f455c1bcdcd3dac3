// The bridge module (module number 14): a MAC table keyed by bridge domain
// (VLAN id, or VNI with EF_BRIDGE_KEY_VNI) and MAC, with learned, configured,
// remote and filtering entries; learned entries age out on the platform
// clock; port VLANs and VLAN membership per interface; the layer-2 protocol
// frame test. It publishes its services in the efmp registry.
#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "ef_bridge.h"
#include "efrt.h"
#include "efrt_services.h"
#include "mac_table.h"
#include "published.h"
#include "spin_lock.h"

namespace {


// The MAC table is split into shards, each with its own lock, so that packet
// threads learning and looking up different MACs do not wait for each other.
// The shard comes from the hash's top bits, the slot within it from lower ones.
constexpr size_t kShards = 64;

struct alignas(64) Shard {
    efrt::SpinLock lock;
    efrt::MacTable macs;
};

uint64_t member_key(uint32_t ifindex, uint16_t vid) { return uint64_t{ifindex} << 16 | vid; }

// Port VLANs and VLAN membership: set by configuration, read per packet.
struct Ports {
    std::unordered_map<uint32_t, uint16_t> pvid;
    std::set<std::pair<uint32_t, uint16_t>> members;  // (ifindex, vid)
    std::unordered_set<uint64_t> member_keys;          // member_key(ifindex, vid)
    std::unordered_map<uint16_t, std::vector<uint32_t>> by_vlan;  // ascending ifindex

    // Rebuilds the lookups from the membership set.
    bool index_members()
    {
        by_vlan.clear();
        member_keys.clear();
        for (const auto &[ifindex, vid] : members) {
            by_vlan[vid].push_back(ifindex);
            member_keys.insert(member_key(ifindex, vid));
        }
        return true;
    }
};

struct Bridge {
    std::array<Shard, kShards> shards;
    efrt::Published<Ports> ports;
    std::atomic<uint64_t> age_ms{efrt::kDefaultMacAgeMs};
    std::atomic<size_t> entries{0};
    std::atomic<size_t> capacity{efrt::kDefaultMacCapacity};
    std::atomic<uint64_t> refused{0};
    std::atomic<uint64_t> generation{0};
};

Bridge g_bridge;

Bridge &bridge() { return g_bridge; }

Shard &shard_of(uint64_t domain, uint64_t mac)
{
    return bridge().shards[efrt::MacTable::hash(domain, mac) >> 58];
}

// The MAC as a 48-bit number, first byte highest: two loads and a swap
// rather than six shifts, since every learned and looked-up frame needs it.
uint64_t mac_number(const uint8_t *mac)
{
    uint32_t high;
    uint16_t low;
    std::memcpy(&high, mac, sizeof high);
    std::memcpy(&low, mac + 4, sizeof low);
    if constexpr (std::endian::native == std::endian::little)
        return uint64_t{__builtin_bswap32(high)} << 16 | __builtin_bswap16(low);
    return uint64_t{high} << 16 | low;
}

void mac_bytes(uint64_t n, uint8_t *mac)
{
    for (int i = 5; i >= 0; --i) {
        mac[i] = static_cast<uint8_t>(n);
        n >>= 8;
    }
}

// Calls fn(map) for every shard under its lock.
template <class F>
void for_each_shard(F &&fn)
{
    for (Shard &sh : bridge().shards) {
        std::lock_guard<efrt::SpinLock> g(sh.lock);
        fn(sh.macs);
    }
}

// Takes a slot for a learned MAC unless the table is full.
bool reserve_entry()
{
    Bridge &b = bridge();
    if (b.entries.fetch_add(1, std::memory_order_relaxed) < b.capacity.load(std::memory_order_relaxed))
        return true;
    b.entries.fetch_sub(1, std::memory_order_relaxed);
    b.refused.fetch_add(1, std::memory_order_relaxed);
    return false;
}

void count_change() { bridge().generation.fetch_add(1, std::memory_order_relaxed); }

// A learned MAC never replaces a filtering entry; a MAC seen again where it
// was only has its time refreshed, and a configured or remote entry seen
// where it points stays as it is.
int add_mac(const ef_bridge_mac_req_t *req)
{
    if (req == nullptr)
        return -1;
    const uint64_t mac = mac_number(req->mac);
    const uint64_t now = efrt::clock_now_ms();
    Shard &sh = shard_of(req->key, mac);
    std::lock_guard<efrt::SpinLock> g(sh.lock);
    efrt::MacEntry *e = sh.macs.find(req->key, mac);
    if (e == nullptr) {
        if (!reserve_entry())
            return -1;
        e = &sh.macs.insert(req->key, mac);
        count_change();
    } else if (e->filter) {
        return -1;
    } else if (e->ifindex == req->ifindex && e->kind != efrt::MacKind::Learned) {
        return 0;
    } else if (e->ifindex != req->ifindex) {
        count_change();
    }
    *e = efrt::MacEntry{req->ifindex, req->vid, false, efrt::MacKind::Learned, now};
    return 0;
}

int mac_lookup(int32_t, uint64_t key, const uint8_t *mac, ef_bridge_mac_out_t *out)
{
    if (mac == nullptr)
        return EF_BRIDGE_MAC_NOT_FOUND;
    const uint64_t n = mac_number(mac);
    Shard &sh = shard_of(key, n);
    std::lock_guard<efrt::SpinLock> g(sh.lock);
    const efrt::MacEntry *e = sh.macs.find(key, n);
    if (e == nullptr)
        return EF_BRIDGE_MAC_NOT_FOUND;
    if (e->filter)
        return EF_BRIDGE_MAC_FILTER;
    if (out != nullptr) {
        out->ifindex = e->ifindex;
        out->vid = e->vid;
    }
    return EF_BRIDGE_MAC_FOUND;
}

int intf_vlan_check(uint32_t ifindex, uint16_t vid)
{
    return bridge().ports.read().member_keys.count(member_key(ifindex, vid)) != 0 ? 1 : 0;
}

int intf_pvid_get(uint32_t ifindex, uint16_t *pvid)
{
    const Ports &p = bridge().ports.read();
    auto it = p.pvid.find(ifindex);
    if (it == p.pvid.end() || pvid == nullptr)
        return -1;
    *pvid = it->second;
    return 0;
}

// Reserved bridge group addresses 01:80:C2:00:00:00-0F and the 01:00:0C:CC:CC:CC/CD
// protocol addresses carry layer-2 protocols.
int l2protocol_check(const efmp_buff_t *buff)
{
    if (buff == nullptr || buff->head == nullptr || buff->len < 6 ||
        static_cast<uint32_t>(buff->data_off) + 6 > buff->size)
        return 0;
    const uint64_t dst = mac_number(buff->head + buff->data_off);
    constexpr uint64_t kGroup = 0x0180C2000000;  // ..00 to ..0F
    constexpr uint64_t kCisco = 0x01000CCCCCCC;  // ..CC and ..CD
    if ((dst & ~uint64_t{0x0F}) == kGroup)
        return 1;
    if ((dst & ~uint64_t{0x01}) == kCisco)
        return 1;
    return 0;
}

struct BridgeService {
    uint32_t number;
    void *handler;
};

const std::array<BridgeService, 5> &bridge_services()
{
    static const std::array<BridgeService, 5> table{{
        {EF_BRIDGE_SERV_ADD_MAC, reinterpret_cast<void *>(&add_mac)},
        {EF_BRIDGE_SERV_MAC_LOOKUP, reinterpret_cast<void *>(&mac_lookup)},
        {EF_BRIDGE_SERV_INTF_VLAN_CHECK, reinterpret_cast<void *>(&intf_vlan_check)},
        {EF_BRIDGE_SERV_INTF_PVID_GET, reinterpret_cast<void *>(&intf_pvid_get)},
        {EF_BRIDGE_SERV_L2PROTOCOL_CHECK, reinterpret_cast<void *>(&l2protocol_check)},
    }};
    return table;
}

efmp_service_t descriptor(uint32_t service, void *handler)
{
    return efmp_service_t{handler, EFMP_MODULE_BRIDGE, service};
}

}  // namespace

namespace efrt {

void *bridge_handler(uint32_t service)
{
    for (const BridgeService &s : bridge_services())
        if (s.number == service)
            return s.handler;
    return nullptr;
}

bool bridge_publish(uint32_t service)
{
    void *handler = bridge_handler(service);
    if (handler == nullptr)
        return false;
    efmp_service_t serv = descriptor(service, handler);
    return efmp_reg_service(&serv) == 0;
}

bool bridge_withdraw(uint32_t service)
{
    if (bridge_handler(service) == nullptr)
        return false;
    efmp_service_t serv = descriptor(service, nullptr);
    return efmp_dereg_service(&serv) == 0;
}

void bridge_publish_all()
{
    for (const BridgeService &s : bridge_services())
        bridge_publish(s.number);
}

void bridge_withdraw_all()
{
    for (const BridgeService &s : bridge_services())
        bridge_withdraw(s.number);
}

std::vector<BridgeMac> bridge_macs()
{
    std::vector<BridgeMac> out;
    for_each_shard([&out](const MacTable &macs) {
        macs.for_each([&out](uint64_t domain, uint64_t mac, const MacEntry &e) {
            BridgeMac m{domain, {}, e.ifindex, e.vid, e.filter, e.kind, e.seen_ms};
            mac_bytes(mac, m.mac);
            out.push_back(m);
        });
    });
    std::sort(out.begin(), out.end(), [](const BridgeMac &a, const BridgeMac &b) {
        return std::make_pair(a.key, mac_number(a.mac)) < std::make_pair(b.key, mac_number(b.mac));
    });
    return out;
}

size_t bridge_mac_count()
{
    size_t n = 0;
    for_each_shard([&n](const MacTable &macs) { n += macs.size(); });
    return n;
}

uint64_t bridge_mac_refused() { return bridge().refused.load(std::memory_order_relaxed); }

uint64_t bridge_mac_generation() { return bridge().generation.load(std::memory_order_relaxed); }

void bridge_set_mac_capacity(size_t entries) { bridge().capacity.store(entries); }

namespace {

// Configured entries are always taken; only learning is bounded.
void set_configured(uint64_t domain, const uint8_t *mac, const MacEntry &entry)
{
    const uint64_t n = mac_number(mac);
    Shard &sh = shard_of(domain, n);
    std::lock_guard<efrt::SpinLock> g(sh.lock);
    MacEntry *e = sh.macs.find(domain, n);
    if (e == nullptr) {
        bridge().entries.fetch_add(1, std::memory_order_relaxed);
        e = &sh.macs.insert(domain, n);
        count_change();
    } else if (e->ifindex != entry.ifindex || e->kind != entry.kind || e->filter != entry.filter) {
        count_change();
    }
    *e = entry;
}

}  // namespace

void bridge_add_mac(uint64_t key, const uint8_t *mac, uint32_t ifindex, uint16_t vid)
{
    set_configured(key, mac, MacEntry{ifindex, vid, false, MacKind::Configured, 0});
}

void bridge_add_filter(uint64_t key, const uint8_t *mac)
{
    set_configured(key, mac, MacEntry{0, 0, true, MacKind::Configured, 0});
}

void bridge_add_remote(uint64_t key, const uint8_t *mac, uint32_t ifindex)
{
    set_configured(key, mac, MacEntry{ifindex, 0, false, MacKind::Remote, 0});
}

bool bridge_remove_remote(uint64_t key, const uint8_t *mac, uint32_t ifindex)
{
    const uint64_t n = mac_number(mac);
    Shard &sh = shard_of(key, n);
    std::lock_guard<efrt::SpinLock> g(sh.lock);
    const MacEntry *e = sh.macs.find(key, n);
    if (e == nullptr || e->kind != MacKind::Remote || e->ifindex != ifindex)
        return false;
    sh.macs.erase(key, n);
    bridge().entries.fetch_sub(1, std::memory_order_relaxed);
    count_change();
    return true;
}

void bridge_set_age_time(uint64_t ms) { bridge().age_ms.store(ms); }

size_t bridge_age_run()
{
    const uint64_t now = clock_now_ms();
    const uint64_t age = bridge().age_ms.load();
    size_t removed = 0;
    for_each_shard([&](MacTable &macs) {
        removed += macs.erase_if(
            [&](const MacEntry &e) { return e.kind == MacKind::Learned && now - e.seen_ms >= age; });
    });
    bridge().entries.fetch_sub(removed, std::memory_order_relaxed);
    if (removed != 0)
        count_change();
    return removed;
}

void bridge_set_pvid(uint32_t ifindex, uint16_t pvid)
{
    bridge().ports.update([&](Ports &p) { return p.pvid[ifindex] = pvid; });
}

void bridge_add_vlan(uint32_t ifindex, uint16_t vid)
{
    bridge().ports.update([&](Ports &p) {
        p.members.insert({ifindex, vid});
        return p.index_members();
    });
}

void bridge_remove_vlan(uint32_t ifindex, uint16_t vid)
{
    bridge().ports.update([&](Ports &p) {
        p.members.erase({ifindex, vid});
        return p.index_members();
    });
}

const std::vector<uint32_t> &bridge_vlan_members(uint16_t vid)
{
    static const std::vector<uint32_t> none;
    const Ports &p = bridge().ports.read();
    auto it = p.by_vlan.find(vid);
    return it == p.by_vlan.end() ? none : it->second;
}

// Empties the tables and publishes every service again; run after the
// service registry has been reset.
void bridge_reset()
{
    for_each_shard([](MacTable &macs) { macs.clear(); });
    bridge().entries.store(0);
    bridge().refused.store(0);
    bridge().generation.store(0);
    bridge().capacity.store(efrt::kDefaultMacCapacity);
    bridge().ports.clear();
    bridge().age_ms.store(efrt::kDefaultMacAgeMs);
    bridge_publish_all();
}

}  // namespace efrt
