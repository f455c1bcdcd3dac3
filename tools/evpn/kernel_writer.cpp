// The follower's netlink writes; see kernel_writer.h.
#include "kernel_writer.h"

#include <linux/neighbour.h>
#include <netlink/netlink.h>
#include <netlink/route/neighbour.h>

#include <memory>

namespace evpn {

namespace {

struct NeighFree {
    void operator()(rtnl_neigh *n) const { rtnl_neigh_put(n); }
};
using Neigh = std::unique_ptr<rtnl_neigh, NeighFree>;

// Sets an address attribute from its text; false when it does not parse.
template <class Set>
bool set_address(rtnl_neigh *n, const std::string &text, int family, Set set)
{
    nl_addr *addr = nullptr;
    if (nl_addr_parse(text.c_str(), family, &addr) < 0)
        return false;
    set(n, addr);
    nl_addr_put(addr);
    return true;
}

Neigh fdb_entry(int port, const std::string &mac)
{
    Neigh n(rtnl_neigh_alloc());
    rtnl_neigh_set_family(n.get(), AF_BRIDGE);
    rtnl_neigh_set_ifindex(n.get(), port);
    rtnl_neigh_set_flags(n.get(), NTF_MASTER);
    rtnl_neigh_set_state(n.get(), NUD_NOARP);
    if (!set_address(n.get(), mac, AF_LLC, rtnl_neigh_set_lladdr))
        return nullptr;
    return n;
}

Neigh ip_entry(int bridge, const std::string &ip)
{
    Neigh n(rtnl_neigh_alloc());
    rtnl_neigh_set_ifindex(n.get(), bridge);
    nl_addr *addr = nullptr;
    if (nl_addr_parse(ip.c_str(), AF_UNSPEC, &addr) < 0)
        return nullptr;
    rtnl_neigh_set_family(n.get(), nl_addr_get_family(addr));
    rtnl_neigh_set_dst(n.get(), addr);
    nl_addr_put(addr);
    return n;
}

bool result(int rc, const std::string &what, std::string &error)
{
    if (rc >= 0)
        return true;
    error = what + ": " + nl_geterror(rc);
    return false;
}

}  // namespace

KernelWriter::~KernelWriter()
{
    if (sock_ != nullptr)
        nl_socket_free(sock_);
}

bool KernelWriter::open(std::string &error)
{
    sock_ = nl_socket_alloc();
    if (sock_ == nullptr) {
        error = "cannot allocate a netlink socket";
        return false;
    }
    return result(nl_connect(sock_, NETLINK_ROUTE), "netlink", error);
}

bool KernelWriter::add_fdb(int port, const std::string &mac, std::string &error)
{
    Neigh n = fdb_entry(port, mac);
    if (!n)
        return result(-NLE_INVAL, "MAC " + mac, error);
    return result(rtnl_neigh_add(sock_, n.get(), NLM_F_CREATE | NLM_F_REPLACE), "adding FDB entry " + mac, error);
}

bool KernelWriter::remove_fdb(int port, const std::string &mac, std::string &error)
{
    Neigh n = fdb_entry(port, mac);
    if (!n)
        return result(-NLE_INVAL, "MAC " + mac, error);
    return result(rtnl_neigh_delete(sock_, n.get(), 0), "removing FDB entry " + mac, error);
}

bool KernelWriter::add_neighbour(int bridge, const std::string &ip, const std::string &mac, std::string &error)
{
    Neigh n = ip_entry(bridge, ip);
    if (!n || !set_address(n.get(), mac, AF_LLC, rtnl_neigh_set_lladdr))
        return result(-NLE_INVAL, "binding " + ip + " " + mac, error);
    rtnl_neigh_set_state(n.get(), NUD_NOARP);
    return result(rtnl_neigh_add(sock_, n.get(), NLM_F_CREATE | NLM_F_REPLACE), "adding neighbour " + ip, error);
}

bool KernelWriter::remove_neighbour(int bridge, const std::string &ip, std::string &error)
{
    Neigh n = ip_entry(bridge, ip);
    if (!n)
        return result(-NLE_INVAL, "address " + ip, error);
    return result(rtnl_neigh_delete(sock_, n.get(), 0), "removing neighbour " + ip, error);
}

}  // namespace evpn
