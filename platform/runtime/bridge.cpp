// The bridge module (module number 14): a MAC table keyed by bridge domain
// (VLAN id, or VNI with EF_BRIDGE_KEY_VNI) and MAC, with learned and filtering
// entries; learned entries age out on the platform clock; port VLANs and VLAN
// membership per interface; the layer-2 protocol frame test. It publishes its
// services in the efmp registry.
#include <algorithm>
#include <array>
#include <atomic>
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
#include "published.h"
#include "spin_lock.h"

namespace {

using MacKey = std::pair<uint64_t, uint64_t>;  // (domain key, MAC as a number)

constexpr uint64_t kDefaultAgeMs = 300000;

struct Entry {
    uint32_t ifindex;
    uint16_t vid;
    bool filter;
    bool learned;      // learned entries age, configured ones do not
    uint64_t seen_ms;  // platform clock when last learned
};

struct MacKeyHash {
    size_t operator()(const MacKey &k) const
    {
        // MAC bits spread by a multiplicative hash, the domain mixed in.
        return static_cast<size_t>((k.second ^ (k.first * 0x9E3779B97F4A7C15ull)) *
                                   0xFF51AFD7ED558CCDull >> 16);
    }
};

// The MAC table is split into shards, each with its own lock, so that packet
// threads learning and looking up different MACs do not wait for each other.
constexpr size_t kShards = 64;

struct alignas(64) Shard {
    efrt::SpinLock lock;
    std::unordered_map<MacKey, Entry, MacKeyHash> macs;
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
    std::atomic<uint64_t> age_ms{kDefaultAgeMs};
};

Bridge g_bridge;

Bridge &bridge() { return g_bridge; }

Shard &shard_of(const MacKey &key) { return bridge().shards[MacKeyHash{}(key) % kShards]; }

uint64_t mac_number(const uint8_t *mac)
{
    uint64_t n = 0;
    for (int i = 0; i < 6; ++i)
        n = (n << 8) | mac[i];
    return n;
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

// A learned MAC never replaces a filtering entry.
int add_mac(const ef_bridge_mac_req_t *req)
{
    if (req == nullptr)
        return -1;
    const MacKey key{req->key, mac_number(req->mac)};
    const uint64_t now = efrt::clock_now_ms();
    Shard &sh = shard_of(key);
    std::lock_guard<efrt::SpinLock> g(sh.lock);
    Entry &e = sh.macs[key];
    if (e.filter)
        return -1;
    e = Entry{req->ifindex, req->vid, false, true, now};
    return 0;
}

int mac_lookup(int32_t, uint64_t key, const uint8_t *mac, ef_bridge_mac_out_t *out)
{
    if (mac == nullptr)
        return EF_BRIDGE_MAC_NOT_FOUND;
    const MacKey k{key, mac_number(mac)};
    Shard &sh = shard_of(k);
    std::lock_guard<efrt::SpinLock> g(sh.lock);
    auto it = sh.macs.find(k);
    if (it == sh.macs.end())
        return EF_BRIDGE_MAC_NOT_FOUND;
    if (it->second.filter)
        return EF_BRIDGE_MAC_FILTER;
    if (out != nullptr) {
        out->ifindex = it->second.ifindex;
        out->vid = it->second.vid;
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
    const uint8_t *dst = buff->head + buff->data_off;
    static constexpr uint8_t kGroup[5] = {0x01, 0x80, 0xC2, 0x00, 0x00};
    static constexpr uint8_t kCisco[5] = {0x01, 0x00, 0x0C, 0xCC, 0xCC};
    if (std::memcmp(dst, kGroup, 5) == 0 && dst[5] <= 0x0F)
        return 1;
    if (std::memcmp(dst, kCisco, 5) == 0 && (dst[5] == 0xCC || dst[5] == 0xCD))
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
    for_each_shard([&out](const auto &macs) {
        for (const auto &[key, e] : macs) {
            BridgeMac m{key.first, {}, e.ifindex, e.vid, e.filter};
            mac_bytes(key.second, m.mac);
            out.push_back(m);
        }
    });
    std::sort(out.begin(), out.end(), [](const BridgeMac &a, const BridgeMac &b) {
        return std::make_pair(a.key, mac_number(a.mac)) < std::make_pair(b.key, mac_number(b.mac));
    });
    return out;
}

size_t bridge_mac_count()
{
    size_t n = 0;
    for_each_shard([&n](const auto &macs) { n += macs.size(); });
    return n;
}

void bridge_add_mac(uint64_t key, const uint8_t *mac, uint32_t ifindex, uint16_t vid)
{
    const MacKey k{key, mac_number(mac)};
    Shard &sh = shard_of(k);
    std::lock_guard<efrt::SpinLock> g(sh.lock);
    sh.macs[k] = Entry{ifindex, vid, false, false, 0};
}

void bridge_add_filter(uint64_t key, const uint8_t *mac)
{
    const MacKey k{key, mac_number(mac)};
    Shard &sh = shard_of(k);
    std::lock_guard<efrt::SpinLock> g(sh.lock);
    sh.macs[k] = Entry{0, 0, true, false, 0};
}

void bridge_set_age_time(uint64_t ms) { bridge().age_ms.store(ms); }

size_t bridge_age_run()
{
    const uint64_t now = clock_now_ms();
    const uint64_t age = bridge().age_ms.load();
    size_t removed = 0;
    for_each_shard([&](auto &macs) {
        for (auto it = macs.begin(); it != macs.end();) {
            const Entry &e = it->second;
            if (e.learned && now - e.seen_ms >= age) {
                it = macs.erase(it);
                removed++;
            } else {
                ++it;
            }
        }
    });
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
    for_each_shard([](auto &macs) { macs.clear(); });
    bridge().ports.clear();
    bridge().age_ms.store(kDefaultAgeMs);
    bridge_publish_all();
}

}  // namespace efrt
