// Private declarations of the module core: the debug gate, the show path,
// store barriers, unaligned access helpers and the instance lock guards.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "ef_syslog.h"
#include "vxlan_ef.h"

namespace vxlan_ef {

// Store barrier before a pointer that other threads read without a lock.
// ThreadSanitizer models no fences and g++ rejects them under it, so those
// builds keep the compiler barrier only.
inline void store_barrier()
{
#ifdef __SANITIZE_THREAD__
    std::atomic_signal_fence(std::memory_order_release);
#else
    std::atomic_thread_fence(std::memory_order_release);
#endif
}

// Unaligned host-order reads and writes of wire fields.
template <typename T>
inline T load_unaligned(const void *p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <typename T>
inline void store_unaligned(void *p, T v)
{
    std::memcpy(p, &v, sizeof v);
}

// A word that packet threads read without the instance lock while the
// task changes it (or that packet threads update among themselves without
// one): relaxed atomic accesses keep each read and write whole without
// ordering anything else.
template <typename T>
inline T load_relaxed(const T &word)
{
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

template <typename T>
inline void store_relaxed(T &word, std::type_identity_t<T> value)
{
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

// Moves on whenever the tables may change: at every write-locked section and
// when the instance record comes or goes. A packet thread that kept a copy
// of what it found under the read lock may use the copy again while the
// count has not moved: nothing it read can have changed meanwhile.
extern std::atomic<uint64_t> g_vxlan_ef_table_gen;

inline uint64_t table_generation() { return g_vxlan_ef_table_gen.load(std::memory_order_acquire); }
inline void tables_changing() { g_vxlan_ef_table_gen.fetch_add(1, std::memory_order_acq_rel); }

// Read or write lock of the instance record for one scope.
class ReadLock {
public:
    explicit ReadLock(vxlan_ef_vsd_t *vsd) : vsd_(vsd) { pthread_rwlock_rdlock(&vsd_->rwlock); }
    ~ReadLock() { pthread_rwlock_unlock(&vsd_->rwlock); }
    ReadLock(const ReadLock &) = delete;
    ReadLock &operator=(const ReadLock &) = delete;

private:
    vxlan_ef_vsd_t *vsd_;
};

class WriteLock {
public:
    explicit WriteLock(vxlan_ef_vsd_t *vsd) : vsd_(vsd)
    {
        pthread_rwlock_wrlock(&vsd_->rwlock);
        tables_changing();
    }
    ~WriteLock() { pthread_rwlock_unlock(&vsd_->rwlock); }
    WriteLock(const WriteLock &) = delete;
    WriteLock &operator=(const WriteLock &) = delete;

private:
    vxlan_ef_vsd_t *vsd_;
};

inline bool debug_on(uint32_t bit)
{
    const vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    return vsd != nullptr && (load_relaxed(vsd->debug_mask) & bit) != 0;
}

}  // namespace vxlan_ef

// A gated log line: printed only while an instance exists and the category's
// bit is set in its debug mask. The mask is tested before anything is
// formatted. fmt carries the whole text including "[vsd %d %s]".
#define VXLAN_EF_LOG_AS(bit, id, func, fmt, ...)                                          \
    do {                                                                                  \
        const vxlan_ef_vsd_t *vsd_log_ = g_vxlan_vsd;                                     \
        if (vsd_log_ != nullptr && (vxlan_ef::load_relaxed(vsd_log_->debug_mask) & (bit)) != 0) \
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2, fmt, (int)(id), func,        \
                              ##__VA_ARGS__);                                             \
    } while (0)

#define VXLAN_EF_LOG(bit, fmt, ...) \
    VXLAN_EF_LOG_AS(bit, vsd_log_->id, __func__, fmt, ##__VA_ARGS__)

#define VXLAN_EF_EVENT(fmt, ...) VXLAN_EF_LOG(VXLAN_EF_DBG_EVENT, fmt, ##__VA_ARGS__)
#define VXLAN_EF_ERR(fmt, ...) VXLAN_EF_LOG(VXLAN_EF_DBG_ERR, fmt, ##__VA_ARGS__)
