// The broadcast engine: destination nodes for broadcast copies and
// efmp_bcast_proc. A copy carrying a node list is cloned once per node and
// each clone is handed to the VXLAN module's broadcast-packet callback (module
// 56, service 6, looked up in the service registry as a real platform does);
// a clone the callback leaves to the pipeline (EF_Normal) goes on through the
// pipeline's delivery to its destination interface. A single buffer without nodes
// is flooded to the member ports of the VLAN in its VLAN field, the source
// port excluded unless NOT_EX_SRC is set. Everything asked and sent is
// recorded for tests.

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "buff_metadata.h"
#include "ef_bridge.h"
#include "efrt.h"
#include "efrt_bcast.h"
#include "efrt_pipeline.h"
#include "efrt_services.h"
#include "published.h"
#include "sanitized_build.h"

namespace {

// Records and injections serve tests; a host turns recording off, and then
// a broadcast takes no lock: the switches and counters are atomics.
struct Engine {
    std::mutex lock;  // the records
    std::vector<efrt::BcastRequest> requests;
    std::vector<efrt::BcastNodeResult> node_results;
    std::vector<efrt::PortSend> sends;
    std::atomic<unsigned> fail_proc{0};
    std::atomic<unsigned> fail_alloc{0};
    std::atomic<long> nodes_live{0};
    std::atomic<bool> recording{true};
    // The port hook and its context, published together.
    struct PortHook {
        efrt::PortTx fn = nullptr;
        void *ctx = nullptr;
    };
    efrt::Published<PortHook> port_tx;
};

Engine g_engine;

Engine &engine() { return g_engine; }

// An armed injection is taken once; while none is armed this is one load.
bool take_injection(std::atomic<unsigned> &armed)
{
    unsigned n = armed.load(std::memory_order_relaxed);
    while (n != 0)
        if (armed.compare_exchange_weak(n, n - 1, std::memory_order_relaxed))
            return true;
    return false;
}

std::vector<uint8_t> frame_bytes(const efmp_buff_t *buff)
{
    if (buff->head == nullptr || static_cast<uint64_t>(buff->data_off) + buff->len > buff->size)
        return {};
    return std::vector<uint8_t>(buff->head + buff->data_off, buff->head + buff->data_off + buff->len);
}

uint32_t source_ifx(const efmp_buff_t *buff)
{
    return buff->src_intf != nullptr ? buff->src_intf->ifindex : buff->src_ifx;
}

efrt::BcastRequest describe(const efmp_buff_t *buff, uint32_t flags_arg, bool refused)
{
    efrt::BcastRequest r{};
    r.buff = buff;
    r.flags_arg = flags_arg;
    r.refused = refused;
    r.flags = buff->flags;
    r.priv_flags = buff->priv_flags;
    r.src_ifx = buff->src_intf != nullptr ? buff->src_intf->ifindex : 0;
    r.vni = efmp_buff_vni(buff);
    r.vni_flags = buff->vni_tag[0];
    r.vid = efmp_buff_tag_vid(buff);
    r.frame = frame_bytes(buff);
    for (const efmp_mcast_node_t *n = buff->mcast_nodes; n != nullptr; n = n->next) {
        efrt::BcastNodeInfo info{};
        info.kind = n->kind;
        info.vid = n->vid;
        info.ifindex = n->ifindex;
        info.family = n->family;
        std::memcpy(info.sip, n->sip, sizeof info.sip);
        std::memcpy(info.dip, n->dip, sizeof info.dip);
        std::memcpy(info.adj_words, n->adj_words, sizeof info.adj_words);
        r.nodes.push_back(info);
    }
    return r;
}

bool recording() { return engine().recording.load(std::memory_order_relaxed); }

}  // namespace

// Defined beside the records it adds to.
void efrt::port_send(uint32_t ifindex, const efmp_buff_t *buff, bool vlan_flood)
{
    const Engine::PortHook &tx = engine().port_tx.read();
    if (tx.fn != nullptr)
        tx.fn(ifindex, buff, tx.ctx);
    if (!recording())
        return;
    efrt::PortSend s{ifindex, efmp_buff_tag_vid(buff), buff->flags, vlan_flood, frame_bytes(buff)};
    std::lock_guard<std::mutex> g(engine().lock);
    engine().sends.push_back(std::move(s));
}

namespace {

// Sends the buffer on every member port of its VLAN that exists, in
// ascending interface order, leaving out the source port unless NOT_EX_SRC
// is set.
void flood_vlan(const efmp_buff_t *buff)
{
    if (efrt::bridge_handler(EF_BRIDGE_SERV_INTF_VLAN_CHECK) == nullptr)
        return;
    const uint16_t vid = efmp_buff_tag_vid(buff);
    const bool keep_src = (buff->flags & EFMP_F_NOT_EX_SRC) != 0;
    const uint32_t src = source_ifx(buff);
    for (uint32_t ifx : efrt::bridge_vlan_members(vid)) {
        if (lsm_get_intfcb(ifx) == nullptr)
            continue;
        if (ifx == src && !keep_src)
            continue;
        efrt::port_send(ifx, buff, true);
    }
}

// A platform copy of a broadcast copy: metadata, frame and room around it;
// no node list.
efmp_buff_t *clone(const efmp_buff_t *src)
{
    efmp_buff_t *c = efrt::alloc_with_metadata(EFMP_REASON_SW_USER, src, src->len);
    if (c == nullptr)
        return nullptr;
    uint8_t *head = c->head;
    const uint16_t data_off = c->data_off;
    c->l3_off = static_cast<uint16_t>(src->l3_off - src->data_off + data_off);
    if (src->l4_off != 0)
        c->l4_off = static_cast<uint16_t>(src->l4_off - src->data_off + data_off);
    if (src->len != 0)
        std::memcpy(head + data_off, src->head + src->data_off, src->len);
    return c;
}

// The VXLAN module's per-node callback as it is declared; the registry hands
// it out type-erased, and a call must go through the type it has.
using NodeEncapFn = int (*)(efmp_buff_t **slot, efmp_mcast_node_t *node);

void send_to_nodes(efmp_buff_t *copy, NodeEncapFn encap)
{
    for (efmp_mcast_node_t *n = copy->mcast_nodes; n != nullptr; n = n->next) {
        efmp_buff_t *slot = clone(copy);
        if (slot == nullptr)
            continue;
        const int r = encap(&slot, n);
        if (recording()) {
            std::lock_guard<std::mutex> g(engine().lock);
            engine().node_results.push_back(efrt::BcastNodeResult{n->kind, n->vid, n->ifindex, r});
        }
        if (r == EF_Lost || slot == nullptr)
            continue;
        // A clone the callback handed back goes on through the pipeline.
        if (r == EF_Normal && efrt::pipeline_deliver(slot) == efrt::PipeOutcome::Consumed)
            continue;
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, slot);
    }
}

}  // namespace

namespace {

#if EFRT_SANITIZED_BUILD
constexpr size_t kNodeCacheMax = 0;  // every node back to the allocator: a use after free shows
#else
constexpr size_t kNodeCacheMax = 256;
#endif

// Freed nodes a thread keeps for its next floods, linked through next; the
// rest go back to the allocator, also when the thread ends.
struct NodeCache {
    efmp_mcast_node_t *head = nullptr;
    size_t count = 0;

    ~NodeCache()
    {
        while (head != nullptr) {
            efmp_mcast_node_t *next = head->next;
            std::free(head);
            head = next;
        }
    }
};

thread_local NodeCache t_nodes;

}  // namespace

extern "C" efmp_mcast_node_t *efmp_mcast_alloc_nodes(uint32_t count)
{
    if (count != 1 || take_injection(engine().fail_alloc))
        return nullptr;
    NodeCache &cache = t_nodes;
    efmp_mcast_node_t *node = cache.head;
    if (node != nullptr) {
        cache.head = node->next;
        cache.count--;
        *node = efmp_mcast_node_t{};
    } else {
        node = static_cast<efmp_mcast_node_t *>(std::calloc(1, sizeof(efmp_mcast_node_t)));
        if (node == nullptr)
            return nullptr;
    }
    engine().nodes_live.fetch_add(1, std::memory_order_relaxed);
    return node;
}

extern "C" void efmp_mcast_free_nodes(efmp_mcast_node_t *list)
{
    NodeCache &cache = t_nodes;
    long freed = 0;
    while (list != nullptr) {
        efmp_mcast_node_t *next = list->next;
        if (cache.count < kNodeCacheMax) {
            list->next = cache.head;
            cache.head = list;
            cache.count++;
        } else {
            std::free(list);
        }
        list = next;
        freed++;
    }
    engine().nodes_live.fetch_sub(freed, std::memory_order_relaxed);
}

// 1 (nothing taken) on refusal or when no broadcast-packet callback is
// published for a copy with nodes; otherwise 0 and the buffer, with its
// nodes, belongs to the engine.
extern "C" int efmp_bcast_proc(efmp_buff_t *copy, uint32_t flags)
{
    if (copy == nullptr)
        return 1;
    const bool refused = take_injection(engine().fail_proc);
    if (recording()) {
        efrt::BcastRequest r = describe(copy, flags, refused);
        std::lock_guard<std::mutex> g(engine().lock);
        engine().requests.push_back(std::move(r));
    }
    if (refused)
        return 1;
    if (copy->mcast_nodes == nullptr) {
        flood_vlan(copy);
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, copy);
        return 0;
    }
    auto encap = reinterpret_cast<NodeEncapFn>(
        efmp_get_service(EFMP_MODULE_VXLAN, EFMP_VXLAN_SERV_BCAST_PKT_ENCAP));
    if (encap == nullptr)
        return 1;
    send_to_nodes(copy, encap);
    efmp_mcast_free_nodes(copy->mcast_nodes);
    copy->mcast_nodes = nullptr;
    efmp_buff_free_sw_user(EFMP_REASON_SW_USER, copy);
    return 0;
}

namespace efrt {

std::vector<BcastRequest> bcast_requests()
{
    std::lock_guard<std::mutex> g(engine().lock);
    return engine().requests;
}

std::vector<BcastRequest> bcast_take_requests()
{
    std::lock_guard<std::mutex> g(engine().lock);
    std::vector<BcastRequest> out;
    out.swap(engine().requests);
    return out;
}

std::vector<BcastNodeResult> bcast_node_results()
{
    std::lock_guard<std::mutex> g(engine().lock);
    return engine().node_results;
}

std::vector<PortSend> port_sends()
{
    std::lock_guard<std::mutex> g(engine().lock);
    return engine().sends;
}

std::vector<PortSend> port_take_sends()
{
    std::lock_guard<std::mutex> g(engine().lock);
    std::vector<PortSend> out;
    out.swap(engine().sends);
    return out;
}

void set_port_tx(PortTx fn, void *ctx)
{
    engine().port_tx.update([fn, ctx](Engine::PortHook &hook) {
        hook = Engine::PortHook{fn, ctx};
        return true;
    });
}

void bcast_set_recording(bool on) { engine().recording.store(on, std::memory_order_relaxed); }

void bcast_fail_proc(unsigned n) { engine().fail_proc.store(n, std::memory_order_relaxed); }

void mcast_fail_alloc(unsigned n) { engine().fail_alloc.store(n, std::memory_order_relaxed); }

long mcast_nodes_live() { return engine().nodes_live.load(std::memory_order_relaxed); }

void bcast_reset()
{
    {
        std::lock_guard<std::mutex> g(engine().lock);
        engine().requests.clear();
        engine().node_results.clear();
        engine().sends.clear();
    }
    bcast_fail_proc(0);
    mcast_fail_alloc(0);
    set_port_tx(nullptr, nullptr);
    bcast_set_recording(true);
}

}  // namespace efrt
