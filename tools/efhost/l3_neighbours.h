// The L3 engine's neighbour table: next-hop MACs per (port, address),
// static or learnt with a lifetime, and the packets waiting for the
// addresses being resolved. Not locked: the engine holds its lock around
// every call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "l3_wire.h"

namespace efhost::l3 {

constexpr uint64_t kNeighbourLifetimeMs = 300000;
constexpr uint64_t kResolveRetryMs = 1000;
constexpr uint64_t kResolveGiveUpMs = 3000;
constexpr size_t kMaxWaitingPerHop = 16;
// Anyone on a link can send ARP or neighbour discovery for our addresses
// from invented senders; past these the table learns no one new and
// resolves no further next hop, so such a flood cannot grow efhost.
constexpr size_t kMaxNeighbours = 4096;
constexpr size_t kMaxResolving = 1024;

struct NeighbourKey {
    size_t port = 0;
    IpAddr ip;
    auto operator<=>(const NeighbourKey &) const = default;
};

using Packet = std::vector<uint8_t>;

class NeighbourTable {
public:
    enum class Wait { Asking, Queued, Full };
    struct Due {
        std::vector<NeighbourKey> ask_again;
        uint64_t dropped = 0;  // packets of the resolutions given up
    };

    void add_static(const NeighbourKey &key, const Mac &mac);
    // The MAC of a live entry.
    std::optional<Mac> find(const NeighbourKey &key, uint64_t now) const;
    // Learns key at mac for the lifetime: creates the entry when create is
    // set or the address is being resolved, else only refreshes a known
    // one; static entries stay as configured. A new entry that is not being
    // resolved is refused while the table is full. Returns the packets that
    // were waiting for it, in arrival order.
    std::vector<Packet> learn(const NeighbourKey &key, const Mac &mac, uint64_t now, bool create);
    // Queues a packet for an unresolved next hop. Asking: the first one, the
    // caller sends the question; Full: the packet was not kept (too many
    // wait for this next hop, or too many next hops are being resolved).
    Wait wait(const NeighbourKey &key, Packet packet, uint64_t now);
    // Resolutions to ask again (a retry period passed) and those given up.
    Due expire(uint64_t now);
    // Packets waiting for resolution.
    size_t waiting() const { return waiting_; }
    // Entries held, and new neighbours not learnt because the table was full.
    size_t size() const { return entries_.size(); }
    uint64_t refused() const { return refused_; }

private:
    struct Entry {
        Mac mac{};
        bool is_static = false;
        uint64_t expires = 0;
    };
    struct Pending {
        uint64_t started = 0;
        uint64_t asked = 0;
        std::deque<Packet> packets;
    };
    std::map<NeighbourKey, Entry> entries_;
    std::map<NeighbourKey, Pending> pending_;
    size_t waiting_ = 0;
    uint64_t refused_ = 0;
};

}  // namespace efhost::l3
