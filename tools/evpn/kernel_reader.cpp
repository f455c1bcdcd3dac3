// The follower's netlink side; see kernel_reader.h.
#include "kernel_reader.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/netlink.h>
#include <netlink/cache.h>
#include <netlink/msg.h>
#include <netlink/utils.h>
#include <netlink/route/link.h>
#include <netlink/route/link/vxlan.h>
#include <netlink/route/neighbour.h>
#include <poll.h>

#include <map>
#include <memory>

namespace evpn {

namespace {

constexpr int kSettleMs = 20;
constexpr int kMaxSettleRounds = 25;  // at most about half a second

struct CacheFree {
    void operator()(nl_cache *c) const { nl_cache_free(c); }
};
using Cache = std::unique_ptr<nl_cache, CacheFree>;

std::string address_text(nl_addr *addr)
{
    if (addr == nullptr)
        return {};
    const int family = nl_addr_get_family(addr);
    if ((family != AF_INET && family != AF_INET6) || nl_addr_iszero(addr))
        return {};
    char buf[INET6_ADDRSTRLEN] = {};
    inet_ntop(family, nl_addr_get_binary_addr(addr), buf, sizeof buf);
    return buf;
}

bool all_zero_mac(nl_addr *mac)
{
    return mac != nullptr && nl_addr_get_len(mac) == 6 && nl_addr_iszero(mac);
}

// RTM_GETNEIGH with an ndmsg header of family AF_BRIDGE, as the kernel's
// FDB dump expects it (a bare rtgenmsg header is answered with nothing).
int request_fdb_dump(nl_sock *sock)
{
    nl_msg *msg = nlmsg_alloc_simple(RTM_GETNEIGH, NLM_F_DUMP);
    if (msg == nullptr)
        return -NLE_NOMEM;
    ndmsg header{};
    header.ndm_family = AF_BRIDGE;
    int rc = nlmsg_append(msg, &header, sizeof header, NLMSG_ALIGNTO);
    if (rc == 0)
        rc = nl_send_auto(sock, msg);
    nlmsg_free(msg);
    return rc;
}

int drain_event(nl_msg *, void *arg)
{
    *static_cast<bool *>(arg) = true;
    return NL_OK;
}

}  // namespace

KernelReader::~KernelReader()
{
    if (dump_ != nullptr)
        nl_socket_free(dump_);
    if (events_ != nullptr)
        nl_socket_free(events_);
}

bool KernelReader::open(std::string &error)
{
    dump_ = nl_socket_alloc();
    events_ = nl_socket_alloc();
    if (dump_ == nullptr || events_ == nullptr) {
        error = "cannot allocate netlink sockets";
        return false;
    }
    int rc = nl_connect(dump_, NETLINK_ROUTE);
    if (rc == 0) {
        nl_socket_disable_seq_check(events_);
        rc = nl_connect(events_, NETLINK_ROUTE);
    }
    if (rc == 0)
        rc = nl_socket_add_memberships(events_, RTNLGRP_LINK, RTNLGRP_NEIGH, 0);
    if (rc == 0)
        rc = nl_socket_set_nonblocking(events_);
    if (rc < 0) {
        error = std::string("netlink: ") + nl_geterror(rc);
        return false;
    }
    return true;
}

bool KernelReader::read(KernelState &out, std::string &error)
{
    out.clear();
    nl_cache *raw = nullptr;
    int rc = rtnl_link_alloc_cache(dump_, AF_UNSPEC, &raw);
    if (rc < 0) {
        error = std::string("netlink link dump: ") + nl_geterror(rc);
        return false;
    }
    Cache links(raw);
    std::map<int, uint32_t> vni_by_ifindex;
    for (nl_object *o = nl_cache_get_first(links.get()); o != nullptr; o = nl_cache_get_next(o)) {
        auto *link = reinterpret_cast<rtnl_link *>(o);
        uint32_t vni = 0;
        if (!rtnl_link_is_vxlan(link) || rtnl_link_vxlan_get_id(link, &vni) < 0)
            continue;
        // zebra follows only devices that are up; so does the follower.
        if ((rtnl_link_get_flags(link) & IFF_UP) == 0)
            continue;
        KernelVni k;
        k.device = rtnl_link_get_name(link);
        nl_addr *local = nullptr;
        if (rtnl_link_vxlan_get_local(link, &local) == 0) {
            k.local = address_text(local);
            nl_addr_put(local);
        }
        if (const char *alias = rtnl_link_get_ifalias(link))
            k.vlan = vlan_from_alias(alias);
        vni_by_ifindex[rtnl_link_get_ifindex(link)] = vni;
        out[vni] = k;
    }

    // The bridge FDB is dumped with family AF_BRIDGE only: libnl's neighbour
    // dump of all families leaves the VXLAN devices' own entries out.
    raw = nullptr;
    rc = nl_cache_alloc_name("route/neigh", &raw);
    if (rc == 0)
        rc = request_fdb_dump(dump_);
    if (rc >= 0)
        rc = nl_cache_pickup(dump_, raw);
    if (rc < 0) {
        if (raw != nullptr)
            nl_cache_free(raw);
        error = std::string("netlink neighbour dump: ") + nl_geterror(rc);
        return false;
    }
    Cache neighbours(raw);
    for (nl_object *o = nl_cache_get_first(neighbours.get()); o != nullptr; o = nl_cache_get_next(o)) {
        auto *n = reinterpret_cast<rtnl_neigh *>(o);
        if (rtnl_neigh_get_family(n) != AF_BRIDGE)
            continue;
        auto vni = vni_by_ifindex.find(rtnl_neigh_get_ifindex(n));
        if (vni == vni_by_ifindex.end())
            continue;
        const std::string remote = address_text(rtnl_neigh_get_dst(n));
        if (remote.empty())
            continue;
        if (all_zero_mac(rtnl_neigh_get_lladdr(n)))
            out[vni->second].flood.insert(remote);
        else
            ++out[vni->second].remote_macs;
    }
    return true;
}

bool KernelReader::wait_event(int timeout_ms)
{
    pollfd p{nl_socket_get_fd(events_), POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0)
        return false;
    bool changed = false;
    nl_socket_modify_cb(events_, NL_CB_VALID, NL_CB_CUSTOM, drain_event, &changed);
    // zebra installs a VTEP's entries for every VNI in one burst: events are
    // drained until none came for kSettleMs, so that one round follows the
    // whole burst. The socket is non-blocking; an overrun (ENOBUFS) also
    // means that something changed, and the full dump that follows covers it.
    pollfd again{nl_socket_get_fd(events_), POLLIN, 0};
    for (int rounds = 0; rounds < kMaxSettleRounds; ++rounds) {
        do {
            if (nl_recvmsgs_default(events_) < 0)
                break;
        } while (poll(&again, 1, 0) > 0);
        if (poll(&again, 1, kSettleMs) <= 0)
            break;
    }
    return true;
}

}  // namespace evpn
