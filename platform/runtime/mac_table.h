// One shard of the bridge's MAC table: open addressing with linear probing,
// so that a lookup is one hash, one masked index and, almost always, one
// slot compared. The caller holds the shard's lock; the table itself knows
// nothing of threads or capacity limits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace efrt {

struct MacEntry {
    uint32_t ifindex;
    uint16_t vid;
    bool filter;
    bool learned;      // learned entries age, configured ones do not
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

    // The slot holding (domain, mac), or null.
    MacEntry *find(uint64_t domain, uint64_t mac)
    {
        if (count_ == 0)
            return nullptr;
        for (size_t i = index_of(domain, mac);; i = next(i)) {
            Slot &s = slots_[i];
            if (!s.used)
                return nullptr;
            if (s.mac == mac && s.domain == domain)
                return &s.entry;
        }
    }

    // A new slot for a key that find() did not return; its entry is for the
    // caller to fill.
    MacEntry &insert(uint64_t domain, uint64_t mac)
    {
        if ((count_ + 1) * 2 > slots_.size())
            grow();
        size_t i = index_of(domain, mac);
        while (slots_[i].used)
            i = next(i);
        slots_[i] = Slot{domain, mac, true, {}};
        count_++;
        return slots_[i].entry;
    }

    MacEntry &find_or_insert(uint64_t domain, uint64_t mac)
    {
        MacEntry *e = find(domain, mac);
        return e != nullptr ? *e : insert(domain, mac);
    }

    // Calls fn(domain, mac, entry) for every entry.
    template <class F>
    void for_each(F &&fn) const
    {
        for (const Slot &s : slots_)
            if (s.used)
                fn(s.domain, s.mac, s.entry);
    }

    // Removes every entry for which drop(entry) is true; returns how many.
    template <class F>
    size_t erase_if(F &&drop)
    {
        size_t removed = 0;
        for (size_t i = 0; i < slots_.size();) {
            if (slots_[i].used && drop(slots_[i].entry)) {
                erase_at(i);  // a later entry may have moved into i: look again
                removed++;
            } else {
                i++;
            }
        }
        return removed;
    }

    size_t size() const { return count_; }

    void clear()
    {
        slots_.clear();
        count_ = 0;
    }

private:
    struct Slot {
        uint64_t domain;
        uint64_t mac;
        bool used;
        MacEntry entry;
    };

    static constexpr size_t kFirstSize = 16;

    // The high bits of the product are the well-mixed ones.
    size_t index_of(uint64_t domain, uint64_t mac) const
    {
        return static_cast<size_t>(hash(domain, mac) >> 40) & (slots_.size() - 1);
    }

    size_t next(size_t i) const { return (i + 1) & (slots_.size() - 1); }

    void grow()
    {
        std::vector<Slot> old;
        old.swap(slots_);
        slots_.assign(old.empty() ? kFirstSize : old.size() * 2, Slot{});
        count_ = 0;
        for (const Slot &s : old)
            if (s.used)
                insert(s.domain, s.mac) = s.entry;
    }

    // Backward-shift deletion: entries after the hole that could live in it
    // move up, so probing never needs markers for removed slots.
    void erase_at(size_t hole)
    {
        slots_[hole].used = false;
        count_--;
        for (size_t j = next(hole); slots_[j].used; j = next(j)) {
            const size_t home = index_of(slots_[j].domain, slots_[j].mac);
            // j's entry may fill the hole unless its home lies cyclically
            // in (hole, j].
            const bool stays = hole <= j ? (home > hole && home <= j) : (home > hole || home <= j);
            if (stays)
                continue;
            slots_[hole] = slots_[j];
            slots_[j].used = false;
            hole = j;
        }
    }

    std::vector<Slot> slots_;
    size_t count_ = 0;
};

}  // namespace efrt
