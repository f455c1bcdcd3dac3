// Reads the EVPN state that zebra keeps in the kernel, over rtnetlink
// (libnl-route-3): the VXLAN devices that are up, with VNI, local address
// and alias, and the bridge FDB entries of those devices; and wakes the
// follower when links or neighbours change.
#pragma once

#include <string>

#include "fabric_view.h"

struct nl_sock;

namespace evpn {

class KernelReader {
public:
    KernelReader() = default;
    KernelReader(const KernelReader &) = delete;
    KernelReader &operator=(const KernelReader &) = delete;
    ~KernelReader();

    // Opens the dump socket and the event socket (link and neighbour
    // groups); false with error set on failure.
    bool open(std::string &error);
    // A full dump of the devices and FDB; false with error set on failure.
    bool read(KernelState &out, std::string &error);
    // Waits up to timeout_ms for a link or neighbour event and drains every
    // pending one; true when something changed.
    bool wait_event(int timeout_ms);

private:
    nl_sock *dump_ = nullptr;
    nl_sock *events_ = nullptr;
};

}  // namespace evpn
