// The L3 engine: routes outer IP packets onto the underlay ports, resolves
// next hops through the neighbour table, answers ARP and neighbour
// solicitations for the ports' own addresses, and runs the worker that
// drains the platform's per-CPU hand-off queue.
#include "l3_engine.h"

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <mutex>
#include <thread>

#include "ef_byteorder.h"
#include "ef_wire.h"
#include "efmp.h"
#include "efrt_l3.h"
#include "l3_arp_nd.h"
#include "l3_clock.h"
#include "l3_neighbours.h"
#include "l3_routes.h"
#include "tx_batch.h"

namespace efhost {

using namespace l3;

namespace {

constexpr auto kWorkerPeriod = std::chrono::milliseconds(100);

// A frame built while the engine's lock was held, sent once it is released
// so that a port never runs under that lock.
struct Outgoing {
    size_t port;
    std::vector<uint8_t> frame;
};

std::optional<IpAddr> ip_destination(const uint8_t *packet, size_t len)
{
    IpAddr dst;
    const auto *v4 = reinterpret_cast<const ef_ipv4_hdr *>(packet);
    if (len >= EF_IPV4_HLEN && v4->ver_ihl >> 4 == EF_IPV4_VERSION) {
        dst.family = AF_INET;
        std::copy(std::begin(v4->dst), std::end(v4->dst), dst.addr.begin());
        return dst;
    }
    const auto *v6 = reinterpret_cast<const ef_ipv6_hdr *>(packet);
    if (len >= EF_IPV6_HLEN && v6->ver_tc_flow[0] >> 4 == EF_IPV6_VERSION) {
        dst.family = AF_INET6;
        std::copy(std::begin(v6->dst), std::end(v6->dst), dst.addr.begin());
        return dst;
    }
    return std::nullopt;
}

}  // namespace

struct L3Engine::Impl {
    std::vector<L3Port> ports;
    RouteTable routes;

    mutable std::mutex lock;
    NeighbourTable neighbours;  // under lock

    std::atomic<uint64_t> sent{0}, no_route{0}, unresolved{0}, replies{0}, queue_full{0}, taken{0};
    std::atomic<int> draining{0};

    std::mutex worker_lock;
    std::condition_variable worker_cv;
    // Set by wakes, cleared by the worker before each drain: a wake that
    // finds it set has nothing more to do, so only the first chain after a
    // drain pays for the lock and the notification.
    std::atomic<bool> pending{false};
    bool stopping = false;  // under worker_lock
    std::thread worker;

    Impl(std::vector<L3Port> p, const std::vector<RouteConfig> &rc,
         const std::vector<NeighbourConfig> &nc);
    std::optional<size_t> port_index(uint32_t ifindex) const;
    // The port's own address the neighbour at ip would answer to: the one
    // whose subnet holds ip, else the first of that family.
    IpAddr own_address_for(size_t port, const IpAddr &ip) const;
    bool is_own(size_t port, const IpAddr &ip) const;

    void send_ip(const uint8_t *packet, size_t len);
    void emit(size_t port, const uint8_t *frame, size_t len);
    void emit_ip(size_t port, const Mac &mac, const IpAddr &dst, const uint8_t *packet, size_t len);
    void emit_all(std::vector<Outgoing> &out);
    Outgoing question(const NeighbourKey &key) const;
    void release(const NeighbourKey &key, std::vector<Packet> packets);
    bool handle_arp(size_t port, const uint8_t *frame, size_t len);
    bool handle_nd(size_t port, const uint8_t *frame, size_t len);
    void send_chain(efmp_buff_t *chain);
    void drain();
    void service_resolutions();
    void run_worker();
    static void wake(uint32_t cpu, void *ctx);
};

L3Engine::Impl::Impl(std::vector<L3Port> p, const std::vector<RouteConfig> &rc,
                     const std::vector<NeighbourConfig> &nc)
    : ports(std::move(p))
{
    // Connected subnets come first so that a configured route of the same
    // length never hides the link itself.
    for (size_t i = 0; i < ports.size(); ++i)
        for (const IpPrefix &a : ports[i].addresses)
            routes.add(a, std::nullopt, i);
    for (const RouteConfig &r : rc)
        if (const auto i = port_index(r.interface))
            routes.add(r.prefix, r.via ? std::optional(host_of(*r.via)) : std::nullopt, *i);
    for (const NeighbourConfig &n : nc)
        for (size_t i = 0; i < ports.size(); ++i)
            if (n.interface == 0 || ports[i].ifindex == n.interface)
                neighbours.add_static(NeighbourKey{i, host_of(n.ip)}, n.mac);
}

std::optional<size_t> L3Engine::Impl::port_index(uint32_t ifindex) const
{
    for (size_t i = 0; i < ports.size(); ++i)
        if (ports[i].ifindex == ifindex)
            return i;
    return std::nullopt;
}

IpAddr L3Engine::Impl::own_address_for(size_t port, const IpAddr &ip) const
{
    std::optional<IpAddr> first;
    for (const IpPrefix &a : ports[port].addresses) {
        if (a.family != ip.family)
            continue;
        if (prefix_contains(a, ip))
            return host_of(a);
        if (!first)
            first = host_of(a);
    }
    if (first)
        return *first;
    IpAddr none;
    none.family = ip.family;
    return none;
}

bool L3Engine::Impl::is_own(size_t port, const IpAddr &ip) const
{
    for (const IpPrefix &a : ports[port].addresses)
        if (host_of(a) == ip)
            return true;
    return false;
}

void L3Engine::Impl::emit(size_t port, const uint8_t *frame, size_t len)
{
    Port *p = ports[port].port;
    if (p != nullptr)
        p->send(frame, len);
}

void L3Engine::Impl::emit_ip(size_t port, const Mac &mac, const IpAddr &dst,
                             const uint8_t *packet, size_t len)
{
    thread_local std::vector<uint8_t> frame;
    build_ip_frame(frame, mac, ports[port].mac, dst.family == AF_INET ? EF_ETHERTYPE_IPV4 : EF_ETHERTYPE_IPV6,
                   packet, len);
    Port *p = ports[port].port;
    if (p != nullptr && p->send(frame.data(), frame.size()))
        sent++;
}

void L3Engine::Impl::emit_all(std::vector<Outgoing> &out)
{
    for (const Outgoing &o : out)
        emit(o.port, o.frame.data(), o.frame.size());
}

Outgoing L3Engine::Impl::question(const NeighbourKey &key) const
{
    Outgoing o{key.port, {}};
    const IpAddr src = own_address_for(key.port, key.ip);
    if (key.ip.family == AF_INET)
        build_arp_request(o.frame, ports[key.port].mac, src, key.ip);
    else
        build_ns(o.frame, ports[key.port].mac, src, key.ip);
    return o;
}

void L3Engine::Impl::send_ip(const uint8_t *packet, size_t len)
{
    const std::optional<IpAddr> dst = ip_destination(packet, len);
    const Route *route = dst ? routes.lookup(*dst) : nullptr;
    if (route == nullptr || (route->via && route->via->family != dst->family)) {
        no_route++;
        return;
    }
    const NeighbourKey key{route->port, route->via.value_or(*dst)};
    std::unique_lock<std::mutex> g(lock);
    const uint64_t now = now_ms();
    if (const std::optional<Mac> mac = neighbours.find(key, now)) {
        g.unlock();
        emit_ip(key.port, *mac, *dst, packet, len);
        return;
    }
    std::optional<Outgoing> ask;
    switch (neighbours.wait(key, Packet(packet, packet + len), now)) {
    case NeighbourTable::Wait::Asking: ask = question(key); break;
    case NeighbourTable::Wait::Queued: break;
    case NeighbourTable::Wait::Full: queue_full++; break;
    }
    g.unlock();
    if (ask)
        emit(ask->port, ask->frame.data(), ask->frame.size());
}

// Sends what waited for key, in arrival order, now that its MAC is known.
void L3Engine::Impl::release(const NeighbourKey &key, std::vector<Packet> packets)
{
    if (packets.empty())
        return;
    std::optional<Mac> mac;
    {
        std::lock_guard<std::mutex> g(lock);
        mac = neighbours.find(key, now_ms());
    }
    if (!mac)
        return;
    for (const Packet &p : packets)
        emit_ip(key.port, *mac, *ip_destination(p.data(), p.size()), p.data(), p.size());
}

bool L3Engine::Impl::handle_arp(size_t port, const uint8_t *frame, size_t len)
{
    const std::optional<ArpMessage> m = parse_arp(frame, len);
    if (!m)
        return false;
    const bool ours = is_own(port, m->target_ip);
    const NeighbourKey asker{port, m->sender_ip};
    std::vector<Packet> waiting;
    if (!m->sender_ip.unspecified()) {
        std::lock_guard<std::mutex> g(lock);
        waiting = neighbours.learn(asker, m->sender_mac, now_ms(), ours);
    }
    if (ours && m->op == EF_ARP_REQUEST) {
        std::vector<uint8_t> reply;
        build_arp_reply(reply, ports[port].mac, m->target_ip, m->sender_mac, m->sender_ip);
        emit(port, reply.data(), reply.size());
        replies++;
    }
    release(asker, std::move(waiting));
    return ours;
}

bool L3Engine::Impl::handle_nd(size_t port, const uint8_t *frame, size_t len)
{
    const std::optional<NdMessage> m = parse_nd(frame, len);
    if (!m)
        return false;
    const bool solicit = m->type == EF_ND_NEIGHBOUR_SOLICIT;
    const bool ours = is_own(port, solicit ? m->target : m->dst);
    // A solicitation teaches the asker's address, an advertisement the target's.
    const NeighbourKey learnt{port, solicit ? m->src : m->target};
    std::vector<Packet> waiting;
    if (m->link_addr && !learnt.ip.unspecified()) {
        std::lock_guard<std::mutex> g(lock);
        waiting = neighbours.learn(learnt, *m->link_addr, now_ms(), ours);
    }
    if (ours && solicit) {
        // An asker without an address yet can only hear a multicast answer,
        // and that answer is not a solicited one.
        const bool anonymous = m->src.unspecified();
        IpAddr all_nodes;
        all_nodes.family = AF_INET6;
        all_nodes.addr = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
        const Mac eth_dst = anonymous ? kAllNodesMac : m->link_addr.value_or(m->eth_src);
        const uint32_t flags = anonymous ? kNaOverride : kNaSolicited | kNaOverride;
        std::vector<uint8_t> na;
        build_na(na, ports[port].mac, eth_dst, m->target, anonymous ? all_nodes : m->src, flags);
        emit(port, na.data(), na.size());
        replies++;
    }
    release(learnt, std::move(waiting));
    return ours;
}

void L3Engine::Impl::send_chain(efmp_buff_t *b)
{
    while (b != nullptr) {
        efmp_buff_t *next = b->next;
        taken.fetch_add(1, std::memory_order_relaxed);
        if (b->head != nullptr && size_t{b->data_off} + b->len <= b->size)
            send_ip(b->head + b->data_off, b->len);
        else
            no_route++;
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
        TxBatch::flush_full();
        b = next;
    }
}

void L3Engine::Impl::drain()
{
    // Counted before the take so that idle() never sees an empty queue
    // while taken buffers are still being sent.
    draining++;
    {
        TxBatch batch;  // what one drain sends leaves together
        for (uint32_t cpu = 0; cpu < efmp_skip_top.cpu_count; ++cpu)
            send_chain(efrt::l3_take_chain(cpu));
    }
    draining--;
}

void L3Engine::Impl::service_resolutions()
{
    std::vector<Outgoing> out;
    {
        std::lock_guard<std::mutex> g(lock);
        const NeighbourTable::Due due = neighbours.expire(now_ms());
        unresolved += due.dropped;
        for (const NeighbourKey &key : due.ask_again)
            out.push_back(question(key));
    }
    emit_all(out);
}

void L3Engine::Impl::run_worker()
{
    std::unique_lock<std::mutex> lk(worker_lock);
    while (!stopping) {
        worker_cv.wait_for(lk, kWorkerPeriod, [this] { return pending.load() || stopping; });
        lk.unlock();
        pending.store(false);
        drain();
        service_resolutions();
        lk.lock();
    }
    lk.unlock();
    drain();
}

namespace {

// The engine a platform wake reaches. A wake may still be running when its
// hook is removed: stop() clears the target and then waits until no wake is
// in flight before the engine can go away.
std::atomic<const void *> g_wake_target{nullptr};
std::atomic<int> g_wakes_in_flight{0};

void retire_wake_target(const void *impl)
{
    const void *expected = impl;
    g_wake_target.compare_exchange_strong(expected, nullptr);
    while (g_wakes_in_flight.load() != 0)
        std::this_thread::yield();
}

}  // namespace

// Set on a packet worker once it sends its own queue: a wake from its
// module calls needs no other thread.
thread_local bool t_sends_own_queue = false;

void L3Engine::Impl::wake(uint32_t, void *ctx)
{
    if (t_sends_own_queue)
        return;
    g_wakes_in_flight.fetch_add(1);
    if (ctx == g_wake_target.load()) {
        auto *impl = static_cast<Impl *>(ctx);
        if (!impl->pending.exchange(true)) {
            std::lock_guard<std::mutex> w(impl->worker_lock);
            impl->worker_cv.notify_one();
        }
    }
    g_wakes_in_flight.fetch_sub(1);
}

L3Engine::L3Engine(std::vector<L3Port> ports, std::vector<RouteConfig> routes,
                   std::vector<NeighbourConfig> neighbours)
    : impl_(std::make_unique<Impl>(std::move(ports), routes, neighbours))
{
}

L3Engine::~L3Engine() { stop(); }

void L3Engine::send_ip(const uint8_t *packet, size_t len) { impl_->send_ip(packet, len); }

bool L3Engine::handle_rx(uint32_t ifindex, const uint8_t *frame, size_t len)
{
    const std::optional<size_t> port = impl_->port_index(ifindex);
    if (!port || len < EF_ETH_HLEN)
        return false;
    switch (ef_get_be16(reinterpret_cast<const ef_eth_hdr *>(frame)->type)) {
    case EF_ETHERTYPE_ARP: return impl_->handle_arp(*port, frame, len);
    case EF_ETHERTYPE_IPV6: return impl_->handle_nd(*port, frame, len);
    default: return false;
    }
}

void L3Engine::start()
{
    if (impl_->worker.joinable())
        return;
    {
        std::lock_guard<std::mutex> w(impl_->worker_lock);
        impl_->stopping = false;
    }
    g_wake_target.store(impl_.get());
    efrt::l3_set_wake(&Impl::wake, impl_.get());
    impl_->worker = std::thread([this] { impl_->run_worker(); });
}

void L3Engine::stop()
{
    if (!impl_->worker.joinable())
        return;
    efrt::l3_set_wake(nullptr, nullptr);
    retire_wake_target(impl_.get());
    {
        std::lock_guard<std::mutex> w(impl_->worker_lock);
        impl_->stopping = true;
        impl_->worker_cv.notify_one();
    }
    impl_->worker.join();
}

void L3Engine::poll()
{
    impl_->drain();
    impl_->service_resolutions();
}

void L3Engine::send_own_queue()
{
    t_sends_own_queue = true;
    impl_->draining++;
    impl_->send_chain(efrt::l3_take_chain(g_efmp_cpu_num));
    impl_->draining--;
}

bool L3Engine::idle() const
{
    for (uint32_t cpu = 0; cpu < efmp_skip_top.cpu_count; ++cpu)
        if (efrt::l3_queued(cpu) != 0)
            return false;
    if (impl_->draining.load() != 0)
        return false;
    std::lock_guard<std::mutex> g(impl_->lock);
    return impl_->neighbours.waiting() == 0;
}

L3Stats L3Engine::stats() const
{
    L3Stats s;
    s.sent = impl_->sent.load();
    s.no_route = impl_->no_route.load();
    s.unresolved = impl_->unresolved.load();
    s.arp_replies = impl_->replies.load();
    s.queue_full = impl_->queue_full.load();
    s.taken = impl_->taken.load();
    std::lock_guard<std::mutex> g(impl_->lock);
    s.queued = impl_->neighbours.waiting();
    s.neighbours = impl_->neighbours.size();
    s.neighbours_refused = impl_->neighbours.refused();
    return s;
}

}  // namespace efhost
