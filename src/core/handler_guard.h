// The opening that every configuration handler shares: no instance, no work;
// a null value pointer is logged under the handler's own name and refused;
// the write lock, once taken, is held until the handler returns. The tables'
// handlers (tables/) and the global switches (channel/) start from here, so
// their own files hold only what each handler does with its value.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core_private.h"

namespace vxlan_ef {

// The null-value lines. Handlers differ in which one they print; the text is
// part of each handler's output, so each keeps its own spelling.
inline constexpr const char kArgsNull[] = "VXLAN-EF-ERR: [vsd %d %s] args == NULL\n";
inline constexpr const char kArgsNullStop[] = "VXLAN-EF-ERR: [vsd %d %s] args == NULL.\n";
inline constexpr const char kArgsPointerNull[] =
    "VXLAN-EF-ERR: [vsd %d %s] the args pointer is NULL.\n";

// One handler call. After construction the guard is false when there is no
// instance or no value (the null-value line already printed): the handler
// returns -1. Otherwise vsd() is the instance and field() reads the value.
// Lines the guard prints carry func as their function name, so a handler
// passes its own __func__ and its output reads as if it had printed them.
class HandlerGuard {
public:
    HandlerGuard(const char *func, const uint8_t *value, const char *null_text = kArgsNull)
        : func_(func), value_(value), vsd_(g_vxlan_vsd)
    {
        if (vsd_ != nullptr && value_ == nullptr) {
            VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, func_, null_text);
            vsd_ = nullptr;
        }
    }
    HandlerGuard(const HandlerGuard &) = delete;
    HandlerGuard &operator=(const HandlerGuard &) = delete;

    explicit operator bool() const { return vsd_ != nullptr; }
    vxlan_ef_vsd_t *vsd() const { return vsd_; }
    const char *func() const { return func_; }

    // The value's field of type T at byte offset (host order, unaligned).
    template <typename T>
    T field(std::size_t offset) const
    {
        return load_unaligned<T>(value_ + offset);
    }
    uint8_t byte(std::size_t offset) const { return value_[offset]; }

    // Takes the instance's write lock, as WriteLock does; it is released
    // when the guard goes, that is when the handler returns.
    void lock()
    {
        pthread_rwlock_wrlock(&vsd_->rwlock);
        tables_changing();
        held_.vsd = vsd_;
    }

    // Takes the write lock, then finds the entry of vni; nullptr (with the
    // "entry is not exist" line) when there is none.
    vxlan_ef_entry_t *lock_entry(uint32_t vni)
    {
        lock();
        vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd_, vni);
        if (entry == nullptr)
            VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, func_,
                            "VXLAN-EF-ERR: [vsd %d %s] entry is not exist, vni: %u\n", vni);
        return entry;
    }

private:
    const char *func_;
    const uint8_t *value_;
    vxlan_ef_vsd_t *vsd_;
    // The lock taken by lock(), if any. (A std::optional<WriteLock> here
    // trips g++'s maybe-uninitialized warning in sanitizer builds.)
    struct Held {
        vxlan_ef_vsd_t *vsd = nullptr;
        Held() = default;
        Held(const Held &) = delete;
        Held &operator=(const Held &) = delete;
        ~Held()
        {
            if (vsd != nullptr)
                pthread_rwlock_unlock(&vsd->rwlock);
        }
    } held_;
};

// A handler of one VXLAN entry, whose value opens with the entry's VNI (u32
// at byte 0): the shared opening, then the write lock for the rest of the
// handler and the entry's lookup. entry() is nullptr when any step failed,
// each failure logged; the handler then returns -1.
class EntryGuard : public HandlerGuard {
public:
    EntryGuard(const char *func, const uint8_t *value, const char *null_text = kArgsNull)
        : HandlerGuard(func, value, null_text)
    {
        if (*this)
            entry_ = lock_entry(vni());
    }

    uint32_t vni() const { return field<uint32_t>(0); }
    vxlan_ef_entry_t *entry() const { return entry_; }

private:
    vxlan_ef_entry_t *entry_ = nullptr;
};

}  // namespace vxlan_ef
