// Control messages of the benchmarks: VXLAN message images built from TLVs,
// one builder per table message in its value layout.
#pragma once

#include <cstdint>
#include <vector>

#include "vxlan_ef.h"
#include "vxlan_ef_tables.h"

namespace vxbench {

using Bytes = std::vector<uint8_t>;

struct Tlv {
    uint16_t type;
    Bytes value;
};

// A message image: version 1, total length, TLV count, then the TLVs.
// A message holds at most 255 TLVs.
Bytes make_msg(const std::vector<Tlv> &tlvs);

vxlan_ef_ip_addr_t ip4(const char *text);
vxlan_ef_ip_addr_t ip6(const char *text);

// oper 1 adds or updates, 0 removes.
Tlv sync_begin();
Tlv sync_over();
Tlv set_entry(uint32_t vni, uint8_t oper = 1);
Tlv set_vlan(uint32_t vni, const std::vector<uint16_t> &vids, uint8_t oper = 1);
Tlv set_vtep(uint32_t ifx, const vxlan_ef_ip_addr_t &sip, const vxlan_ef_ip_addr_t &dip,
             uint8_t oper = 1);
Tlv asso_vtep(uint32_t vni, uint32_t ifx, uint8_t oper = 1);

}  // namespace vxbench
