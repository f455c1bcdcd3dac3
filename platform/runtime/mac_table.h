// One shard of the bridge's MAC table: a flat map (flat_map.h) keyed by
// bridge domain and MAC. The caller holds the shard's lock; the table itself
// knows nothing of threads or capacity limits.
#pragma once

#include <cstddef>
#include <cstdint>

#include "flat_map.h"

namespace efrt {

// How an entry came to be: learned entries age; configured ones (the
// platform's own) and remote ones (a control process's, toward a tunnel) do
// not, and traffic seen where they point leaves them as they are.
enum class MacKind : uint8_t { Learned, Configured, Remote };

struct MacEntry {
    uint32_t ifindex;
    uint16_t vid;
    bool filter;
    MacKind kind;
    uint64_t seen_ms;  // platform clock when last learned
};

class MacTable {
public:
    // The bridge picks a shard from the top bits; a shard's slot comes from
    // lower ones, so the two choices do not follow each other.
    static uint64_t hash(uint64_t domain, uint64_t mac)
    {
        return (mac ^ (domain * 0x9E3779B97F4A7C15ull)) * 0xFF51AFD7ED558CCDull;
    }

    // The entry of (domain, mac), or null.
    MacEntry *find(uint64_t domain, uint64_t mac) { return table_.find(Key{domain, mac}); }

    // A new entry for a key that find() did not return, for the caller to fill.
    MacEntry &insert(uint64_t domain, uint64_t mac) { return table_.insert(Key{domain, mac}); }

    MacEntry &find_or_insert(uint64_t domain, uint64_t mac) { return table_.find_or_insert(Key{domain, mac}); }

    // Calls fn(domain, mac, entry) for every entry.
    template <class F>
    void for_each(F &&fn) const
    {
        table_.for_each([&fn](const Key &k, const MacEntry &e) { fn(k.domain, k.mac, e); });
    }

    // Removes every entry for which drop(entry) is true; returns how many.
    template <class F>
    size_t erase_if(F &&drop)
    {
        return table_.erase_if([&drop](const Key &, const MacEntry &e) { return drop(e); });
    }

    bool erase(uint64_t domain, uint64_t mac) { return table_.erase(Key{domain, mac}); }

    size_t size() const { return table_.size(); }
    void clear() { table_.clear(); }

private:
    struct Key {
        uint64_t domain;
        uint64_t mac;
        bool operator==(const Key &) const = default;
    };
    struct KeyHash {
        uint64_t operator()(const Key &k) const { return hash(k.domain, k.mac); }
    };

    FlatMap<Key, MacEntry, KeyHash> table_;
};

}  // namespace efrt
