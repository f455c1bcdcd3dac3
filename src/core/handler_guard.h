// The opening that every configuration handler shares: no instance, no work;
// a null value pointer is logged under the handler's own name and refused;
// the write lock, once taken, is held until the handler returns. The tables'
// handlers (tables/) and the global switches (channel/) start from here, so
// their own files hold only what each handler does with its value, read by
// the field names of its TLV's row.
#pragma once

#include <cstdint>

#include "core_private.h"
#include "tlv_value.h"
#include "vxlan_ef_tables.h"

namespace vxlan_ef {

// The null-value lines. Handlers differ in which one they print; the text is
// part of each handler's output, so each keeps its own spelling.
inline constexpr const char kArgsNull[] = "VXLAN-EF-ERR: [vsd %d %s] args == NULL\n";
inline constexpr const char kArgsNullStop[] = "VXLAN-EF-ERR: [vsd %d %s] args == NULL.\n";
inline constexpr const char kArgsPointerNull[] =
    "VXLAN-EF-ERR: [vsd %d %s] the args pointer is NULL.\n";

// One handler call, whatever its TLV. After construction it is false when
// there is no instance or no value (the null-value line already printed):
// the handler returns -1. Otherwise vsd() is the instance. Lines it prints
// carry func as their function name, so a handler passes its own __func__
// and its output reads as if it had printed them.
class HandlerOpening {
public:
    HandlerOpening(const char *func, const uint8_t *value, const char *null_text)
        : func_(func), vsd_(g_vxlan_vsd)
    {
        if (vsd_ != nullptr && value == nullptr) {
            VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, func_, null_text);
            vsd_ = nullptr;
        }
    }
    HandlerOpening(const HandlerOpening &) = delete;
    HandlerOpening &operator=(const HandlerOpening &) = delete;

    explicit operator bool() const { return vsd_ != nullptr; }
    vxlan_ef_vsd_t *vsd() const { return vsd_; }
    const char *func() const { return func_; }

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

// The handler of TLV C: the shared opening, and get<"name">() reads the
// value's fields once the guard is true.
template <tlv::Code C>
class HandlerGuard : public HandlerOpening, public TlvValue<C> {
public:
    HandlerGuard(const char *func, const uint8_t *value, const char *null_text = kArgsNull)
        : HandlerOpening(func, value, null_text), TlvValue<C>(value)
    {
    }
};

// A handler of one VXLAN entry, whose value names the entry by its "vni":
// the shared opening, then the write lock for the rest of the handler and
// the entry's lookup. entry() is nullptr when any step failed, each failure
// logged; the handler then returns -1.
template <tlv::Code C>
class EntryGuard : public HandlerGuard<C> {
public:
    EntryGuard(const char *func, const uint8_t *value, const char *null_text = kArgsNull)
        : HandlerGuard<C>(func, value, null_text)
    {
        if (*this)
            entry_ = this->lock_entry(vni());
    }

    uint32_t vni() const { return this->template get<"vni">(); }
    vxlan_ef_entry_t *entry() const { return entry_; }

private:
    vxlan_ef_entry_t *entry_ = nullptr;
};

}  // namespace vxlan_ef
