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

#include <cstdio>
#include <fstream>
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

namespace {

std::string mac_text(nl_addr *mac)
{
    if (mac == nullptr || nl_addr_get_len(mac) != 6)
        return {};
    const auto *b = static_cast<const uint8_t *>(nl_addr_get_binary_addr(mac));
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
    return text;
}

// The bridge port flag has no libnl accessor; sysfs shows it for the
// network namespace the follower runs in.
bool neigh_suppress_on(const std::string &device)
{
    std::ifstream in("/sys/class/net/" + device + "/brport/neigh_suppress");
    int value = 0;
    return in >> value && value != 0;
}

bool dump_links(nl_sock *sock, Cache &links, std::string &error)
{
    nl_cache *raw = nullptr;
    const int rc = rtnl_link_alloc_cache(sock, AF_UNSPEC, &raw);
    if (rc < 0) {
        error = std::string("netlink link dump: ") + nl_geterror(rc);
        return false;
    }
    links.reset(raw);
    return true;
}

// The VNI of each device a field of the VNIs names (bridge, local port).
std::map<int, uint32_t> vni_by(const KernelState &state, int KernelVni::*field)
{
    std::map<int, uint32_t> by;
    for (const auto &[vni, k] : state)
        if (k.*field != 0)
            by[k.*field] = vni;
    return by;
}

// The VXLAN devices that are up, with their bridge and its local port.
void read_devices(nl_cache *links, KernelState &out, std::map<int, uint32_t> &vni_by_device)
{
    for (nl_object *o = nl_cache_get_first(links); o != nullptr; o = nl_cache_get_next(o)) {
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
        k.suppress = neigh_suppress_on(k.device);
        k.bridge = rtnl_link_get_master(link);
        vni_by_device[rtnl_link_get_ifindex(link)] = vni;
        out[vni] = k;
    }
    const std::map<int, uint32_t> vni_by_bridge = vni_by(out, &KernelVni::bridge);
    for (nl_object *o = nl_cache_get_first(links); o != nullptr; o = nl_cache_get_next(o)) {
        auto *link = reinterpret_cast<rtnl_link *>(o);
        auto vni = vni_by_bridge.find(rtnl_link_get_master(link));
        if (vni != vni_by_bridge.end() && rtnl_link_get_name(link) == "local" + std::to_string(vni->second))
            out[vni->second].local_port = rtnl_link_get_ifindex(link);
    }
}

// The bridge FDB is dumped with family AF_BRIDGE only: libnl's neighbour
// dump of all families leaves the VXLAN devices' own entries out.
bool dump_neighbours(nl_sock *sock, int family, Cache &neighbours, std::string &error)
{
    nl_cache *raw = nullptr;
    int rc = 0;
    if (family == AF_BRIDGE) {
        rc = nl_cache_alloc_name("route/neigh", &raw);
        if (rc == 0)
            rc = request_fdb_dump(sock);
        if (rc >= 0)
            rc = nl_cache_pickup(sock, raw);
    } else {
        rc = rtnl_neigh_alloc_cache(sock, &raw);
    }
    if (rc < 0) {
        if (raw != nullptr)
            nl_cache_free(raw);
        error = std::string("netlink neighbour dump: ") + nl_geterror(rc);
        return false;
    }
    neighbours.reset(raw);
    return true;
}

// The static entries on a VNI's local port: the follower's own.
void read_own_fdb(rtnl_neigh *n, const std::map<int, uint32_t> &vni_by_port, KernelState &out)
{
    auto vni = vni_by_port.find(rtnl_neigh_get_ifindex(n));
    if (vni != vni_by_port.end() && (rtnl_neigh_get_state(n) & NUD_NOARP) != 0)
        out[vni->second].own_macs.insert(mac_text(rtnl_neigh_get_lladdr(n)));
}

// The flood list and the remote MACs zebra installed on the VXLAN devices.
void read_fdb(nl_cache *fdb, const std::map<int, uint32_t> &vni_by_device, KernelState &out)
{
    const std::map<int, uint32_t> vni_by_port = vni_by(out, &KernelVni::local_port);
    for (nl_object *o = nl_cache_get_first(fdb); o != nullptr; o = nl_cache_get_next(o)) {
        auto *n = reinterpret_cast<rtnl_neigh *>(o);
        if (rtnl_neigh_get_family(n) != AF_BRIDGE)
            continue;
        read_own_fdb(n, vni_by_port, out);
        auto vni = vni_by_device.find(rtnl_neigh_get_ifindex(n));
        if (vni == vni_by_device.end())
            continue;
        const std::string remote = address_text(rtnl_neigh_get_dst(n));
        if (remote.empty())
            continue;
        if (all_zero_mac(rtnl_neigh_get_lladdr(n)))
            out[vni->second].flood.insert(remote);
        else if ((rtnl_neigh_get_flags(n) & NTF_EXT_LEARNED) != 0)
            out[vni->second].remote_macs[mac_text(rtnl_neigh_get_lladdr(n))] = remote;
    }
}

// The kernel keeps group addresses as neighbours of their own; no host has them.
bool is_unicast(nl_addr *addr)
{
    const auto *b = static_cast<const uint8_t *>(nl_addr_get_binary_addr(addr));
    if (nl_addr_get_family(addr) == AF_INET6)
        return b[0] != 0xFF;
    return b[0] < 224;
}

// The remote IP bindings zebra installed on the VNIs' bridges, and the
// follower's own (never probed, not learned from outside).
void read_ip_bindings(nl_cache *neighbours, KernelState &out)
{
    const std::map<int, uint32_t> vni_by_bridge = vni_by(out, &KernelVni::bridge);
    for (nl_object *o = nl_cache_get_first(neighbours); o != nullptr; o = nl_cache_get_next(o)) {
        auto *n = reinterpret_cast<rtnl_neigh *>(o);
        const int family = rtnl_neigh_get_family(n);
        auto vni = vni_by_bridge.find(rtnl_neigh_get_ifindex(n));
        if ((family != AF_INET && family != AF_INET6) || vni == vni_by_bridge.end() ||
            rtnl_neigh_get_dst(n) == nullptr || !is_unicast(rtnl_neigh_get_dst(n)))
            continue;
        const std::string ip = address_text(rtnl_neigh_get_dst(n));
        const std::string mac = mac_text(rtnl_neigh_get_lladdr(n));
        if (ip.empty() || mac.empty())
            continue;
        if ((rtnl_neigh_get_flags(n) & NTF_EXT_LEARNED) != 0)
            out[vni->second].remote_ips[ip] = mac;
        else if ((rtnl_neigh_get_state(n) & NUD_NOARP) != 0)
            out[vni->second].own_ips[ip] = mac;
    }
}

}  // namespace

bool KernelReader::read(KernelState &out, std::string &error)
{
    out.clear();
    Cache links, fdb, neighbours;
    std::map<int, uint32_t> vni_by_device;
    if (!dump_links(dump_, links, error))
        return false;
    read_devices(links.get(), out, vni_by_device);
    if (!dump_neighbours(dump_, AF_BRIDGE, fdb, error) || !dump_neighbours(dump_, AF_UNSPEC, neighbours, error))
        return false;
    read_fdb(fdb.get(), vni_by_device, out);
    read_ip_bindings(neighbours.get(), out);
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
