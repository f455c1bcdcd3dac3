// A port of efhost: where frames of one interface come from and go to, a
// Linux network device through AF_PACKET or a pair of capture files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace efhost {

// Called on the port's receive thread for every complete Ethernet frame
// (offloads resolved: checksums filled in, no frame above the device MTU
// plus its Ethernet header and tags, stripped VLAN tags put back).
using RxHandler = std::function<void(const uint8_t *frame, size_t len)>;

// What a port counted so far; a dropped frame is one the port lost, not one
// the pipeline decided to drop.
struct PortCounters {
    uint64_t rx = 0;
    uint64_t tx = 0;
    uint64_t rx_dropped = 0;  // did not fit, malformed offload, or no room in the kernel
    uint64_t tx_dropped = 0;  // the device refused it or stayed full
};

class Port {
public:
    virtual ~Port() = default;
    // Opens the device or files; false with a message on failure.
    virtual bool open(std::string &error) = 0;
    // Starts the receive thread, which calls rx for each frame.
    virtual void start(RxHandler rx) = 0;
    // Sends one frame; safe from any thread. False when it could not be sent.
    virtual bool send(const uint8_t *frame, size_t len) = 0;
    // Stops the receive thread and flushes what was sent (idempotent).
    virtual void stop() = 0;
    // Capture ports: true once every input frame has been handed to rx.
    virtual bool input_done() const = 0;
    // Frames received and sent so far.
    virtual uint64_t rx_frames() const = 0;
    virtual uint64_t tx_frames() const = 0;
    virtual PortCounters counters() const = 0;
};

// workers receive threads share the device's frames, flow by flow.
std::unique_ptr<Port> make_afpacket_port(const std::string &device, unsigned workers = 1);
std::unique_ptr<Port> make_pcap_port(const std::string &pcap_in, const std::string &pcap_out);

}  // namespace efhost
