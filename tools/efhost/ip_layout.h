// Where the IP packet and its L4 header lie in an Ethernet frame (behind any
// number of VLAN tags and IPv6 extension headers), and the checksum pieces
// both the receive fix-ups and the transmit joining of TCP segments need.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace efhost {

struct IpLayout {
    size_t l3 = 0;   // IP header
    size_t l4 = 0;   // L4 header, after any IPv6 extension headers
    size_t end = 0;  // one past the IP packet; Ethernet padding excluded
    bool v6 = false;
    uint8_t proto = 0;
};

// Length of the Ethernet header with every VLAN tag it carries, or 0 when
// the frame is too short to hold it.
size_t ethernet_header_length(const uint8_t *frame, size_t len);

// The IP packet of an unfragmented IPv4 or IPv6 frame; nothing for anything
// else or for lengths the frame does not hold.
std::optional<IpLayout> locate_ip(const uint8_t *frame, size_t len);

// The folded sum of the pseudo-header: addresses, protocol and L4 length (a
// large GSO frame's length may not fit in 16 bits, so both halves count).
uint16_t pseudo_header_sum(const uint8_t *frame, const IpLayout &ip, size_t l4_length);

// Recomputes the IPv4 header checksum in place.
void write_ipv4_header_checksum(uint8_t *frame, const IpLayout &ip);

}  // namespace efhost
