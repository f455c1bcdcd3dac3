// The frames the L3 engine reads and writes on the underlay: ARP requests
// and replies, IPv6 neighbour solicitations and advertisements, and IP
// packets behind an Ethernet header. Builders fill a caller's vector;
// parsers check every length before reading and refuse malformed frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "l3_wire.h"

namespace efhost::l3 {

struct ArpMessage {
    uint16_t op = 0;
    Mac sender_mac{};
    IpAddr sender_ip;
    Mac target_mac{};
    IpAddr target_ip;
};

struct NdMessage {
    uint8_t type = 0;             // solicitation or advertisement
    Mac eth_src{};
    IpAddr src;
    IpAddr dst;
    uint32_t flags = 0;           // advertisement flags word
    IpAddr target;
    std::optional<Mac> link_addr; // source (solicitation) or target (advertisement) option
};

// An untagged Ethernet/IPv4 ARP frame; nothing for anything else.
std::optional<ArpMessage> parse_arp(const uint8_t *frame, size_t len);
// An untagged neighbour solicitation or advertisement with hop limit 255,
// no extension headers and a correct checksum; nothing for anything else.
std::optional<NdMessage> parse_nd(const uint8_t *frame, size_t len);

// Ethernet header (dst, src, type) followed by the packet.
void build_ip_frame(std::vector<uint8_t> &out, const Mac &dst, const Mac &src, uint16_t type,
                    const uint8_t *packet, size_t len);
// Broadcast request for target from (own_mac, sender).
void build_arp_request(std::vector<uint8_t> &out, const Mac &own_mac, const IpAddr &sender,
                       const IpAddr &target);
// Reply to the asker, telling own_ip is at own_mac.
void build_arp_reply(std::vector<uint8_t> &out, const Mac &own_mac, const IpAddr &own_ip,
                     const Mac &asker_mac, const IpAddr &asker_ip);
// Solicitation for target to its solicited-node group, with the source
// link-layer option unless src is unspecified.
void build_ns(std::vector<uint8_t> &out, const Mac &own_mac, const IpAddr &src,
              const IpAddr &target);
// Advertisement of target at own_mac with the target link-layer option.
void build_na(std::vector<uint8_t> &out, const Mac &own_mac, const Mac &eth_dst,
              const IpAddr &target, const IpAddr &dst, uint32_t flags);

}  // namespace efhost::l3
