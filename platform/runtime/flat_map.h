// A hash map in one array: open addressing with linear probing, so that a
// lookup is one hash, one masked index and, almost always, one slot compared,
// and a copy of the whole map is one allocation. The tables packet threads
// read are published as copies (published.h) at every change, which is why
// both matter. Not thread-safe; Hash maps a key to 64 well-mixed bits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace efrt {

// Hashes of integer and pointer keys: a multiplication spreads the key's
// bits into the high ones, which the map uses.
struct MixHash {
    uint64_t operator()(uint64_t key) const { return key * 0x9E3779B97F4A7C15ull; }
    uint64_t operator()(const void *key) const { return (*this)(reinterpret_cast<uintptr_t>(key)); }
};

template <class K, class V, class Hash = MixHash>
class FlatMap {
public:
    // The packet paths' lookup, written out rather than through slot_of():
    // a pointer from the loop saves the test of a second result per call.
    V *find(const K &key)
    {
        if (count_ == 0)
            return nullptr;
        for (size_t i = index_of(key);; i = next(i)) {
            Slot &s = slots_[i];
            if (!s.used)
                return nullptr;
            if (s.key == key)
                return &s.value;
        }
    }

    const V *find(const K &key) const { return const_cast<FlatMap *>(this)->find(key); }

    // A new slot for a key that find() did not return, its value
    // default-constructed for the caller to fill.
    V &insert(const K &key)
    {
        if ((count_ + 1) * 2 > slots_.size())
            grow();
        size_t i = index_of(key);
        while (slots_[i].used)
            i = next(i);
        slots_[i] = Slot{key, true, V{}};
        count_++;
        return slots_[i].value;
    }

    V &find_or_insert(const K &key)
    {
        V *v = find(key);
        return v != nullptr ? *v : insert(key);
    }

    bool erase(const K &key)
    {
        const size_t i = slot_of(key);
        if (i == kNone)
            return false;
        erase_at(i);
        return true;
    }

    // Removes every entry for which drop(key, value) is true; returns how many.
    template <class F>
    size_t erase_if(F &&drop)
    {
        size_t removed = 0;
        for (size_t i = 0; i < slots_.size();) {
            if (slots_[i].used && drop(slots_[i].key, slots_[i].value)) {
                erase_at(i);  // a later entry may have moved into i: look again
                removed++;
            } else {
                i++;
            }
        }
        return removed;
    }

    // Calls fn(key, value) for every entry.
    template <class F>
    void for_each(F &&fn) const
    {
        for (const Slot &s : slots_)
            if (s.used)
                fn(s.key, s.value);
    }

    size_t size() const { return count_; }

    void clear()
    {
        slots_.clear();
        count_ = 0;
    }

private:
    struct Slot {
        K key;
        bool used;
        V value;
    };

    static constexpr size_t kFirstSize = 16;
    static constexpr size_t kNone = SIZE_MAX;

    // The slot holding key, or kNone.
    size_t slot_of(const K &key) const
    {
        if (count_ == 0)
            return kNone;
        for (size_t i = index_of(key);; i = next(i)) {
            const Slot &s = slots_[i];
            if (!s.used)
                return kNone;
            if (s.key == key)
                return i;
        }
    }

    // The high bits of the hash are the well-mixed ones.
    size_t index_of(const K &key) const { return static_cast<size_t>(Hash{}(key) >> 40) & (slots_.size() - 1); }

    size_t next(size_t i) const { return (i + 1) & (slots_.size() - 1); }

    void grow()
    {
        std::vector<Slot> old;
        old.swap(slots_);
        slots_.assign(old.empty() ? kFirstSize : old.size() * 2, Slot{});
        count_ = 0;
        for (const Slot &s : old)
            if (s.used)
                insert(s.key) = s.value;
    }

    // Backward-shift deletion: entries after the hole that could live in it
    // move up, so probing never needs markers for removed slots.
    void erase_at(size_t hole)
    {
        slots_[hole].used = false;
        count_--;
        for (size_t j = next(hole); slots_[j].used; j = next(j)) {
            const size_t home = index_of(slots_[j].key);
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
