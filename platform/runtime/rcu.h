// Lifetimes of what packet threads read without a lock: interface blocks and
// the published versions of the platform's tables. A writer publishes a new
// version with one pointer store and retires the old one; a retired block is
// freed only after every reading thread has passed a quiescent state, a
// point where it holds no pointer into those tables. Built on userspace
// RCU's QSBR flavour: reading costs nothing, and each reading thread says
// where its quiescent states are.
//
// Reading threads come in two kinds:
// - packet workers hold a ReadSection for their whole life, call
//   quiescent() between receive batches and stay Offline while they wait
//   for frames;
// - every other thread that reads (the module's task, the control socket,
//   housekeeping) holds a ReadSection around each piece of work and is
//   offline in between.
// A thread is registered with the library on its first section and
// unregistered when it ends; a thread that never reads never registers.
//
// Rules: a pointer read from a published table stays valid until the
// reading thread's next quiescent state (the end of its outermost section,
// a quiescent() call or an Offline scope), never longer; no thread waits for
// another while inside a section, except for short locks; writers never wait
// for a grace period but retire, so that no reader can block a writer.
#pragma once

namespace efrt::rcu {

namespace detail {
// Whether the calling thread is inside a section. Every lookup a packet
// thread makes asks, so it is a plain thread_local in the process's initial
// TLS block (the platform is linked into the process, never loaded later):
// one load, inline.
extern thread_local bool t_online __attribute__((tls_model("initial-exec")));
void come_online();
void go_offline();
}  // namespace detail

// The calling thread reads published tables until the section ends.
// Sections nest; the one that brought the thread online takes it offline.
class ReadSection {
public:
    ReadSection() : brought_online_(!detail::t_online)
    {
        if (brought_online_)
            detail::come_online();
    }
    ~ReadSection()
    {
        if (brought_online_)
            detail::go_offline();
    }
    ReadSection(const ReadSection &) = delete;
    ReadSection &operator=(const ReadSection &) = delete;

private:
    bool brought_online_;
};

// The calling thread is offline for the scope (it waits for frames or for
// another thread), and online again after it, if it was before.
class Offline {
public:
    Offline();
    ~Offline();
    Offline(const Offline &) = delete;
    Offline &operator=(const Offline &) = delete;

private:
    bool was_online_;
};

// The calling thread, inside its outermost section, holds no pointer read
// from a published table: retired blocks it may have seen can go.
void quiescent();

// Whether the calling thread is inside a section (online).
bool reading();

// Calls free_fn(block) once every thread that may have seen the block has
// passed a quiescent state: at once when no thread is inside a section,
// else on the reclaimer thread after a grace period. The block must no
// longer be reachable from any published table. Never waits; any thread may
// call it.
void retire(void *block, void (*free_fn)(void *));

template <class T>
void retire(T *block)
{
    if (block != nullptr)
        retire(static_cast<void *>(block), [](void *p) { delete static_cast<T *>(p); });
}

// Waits until every block handed to the reclaimer before the call has been
// freed (a block a reading thread retired while it read alone is freed at
// that thread's next quiescent state instead). For resets and tests; the
// caller must not be inside a section.
void barrier();

// For a writer that may change tables faster than grace periods end: when
// more than max_pending blocks wait to be freed, waits until they are, so
// that what waits stays bounded. Outside any section, holding no lock.
void catch_up(long max_pending);

// Blocks handed to the reclaimer and not yet freed.
long pending();

}  // namespace efrt::rcu
