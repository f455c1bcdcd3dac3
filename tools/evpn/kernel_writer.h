// Writes what efhost's own hosts are into the kernel's EVPN state, where
// zebra reads local MACs and IP bindings: static FDB entries on the VNI
// bridge's local port and neighbour entries on the bridge, over rtnetlink
// (libnl-route-3).
#pragma once

#include <string>

struct nl_sock;

namespace evpn {

class KernelWriter {
public:
    KernelWriter() = default;
    KernelWriter(const KernelWriter &) = delete;
    KernelWriter &operator=(const KernelWriter &) = delete;
    ~KernelWriter();

    bool open(std::string &error);
    // A MAC (aa:bb:cc:dd:ee:ff) on a bridge port, replacing what the bridge
    // had for it; false with error set on failure.
    bool add_fdb(int port, const std::string &mac, std::string &error);
    bool remove_fdb(int port, const std::string &mac, std::string &error);
    // An IPv4 or IPv6 binding on a bridge, never probed by the kernel.
    bool add_neighbour(int bridge, const std::string &ip, const std::string &mac, std::string &error);
    bool remove_neighbour(int bridge, const std::string &ip, std::string &error);

private:
    nl_sock *sock_ = nullptr;
};

}  // namespace evpn
