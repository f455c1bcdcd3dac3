// The packet dump of traced packets: metadata, the first 64 bytes in hex and,
// for IP over Ethernet, the addresses. Each line is its own log call.
#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>

#include "core/core_private.h"
#include "ef_byteorder.h"
#include "ef_wire.h"
#include "frame/trace/packet_dump.h"

namespace {

constexpr uint32_t kDumpBytes = 64;
constexpr uint32_t kBytesPerLine = 16;

#define DUMP_LINE(fmt, ...) printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", 2, fmt, ##__VA_ARGS__)

void dump_intf(const char *fmt, const lsm_intfcb_t *intf)
{
    DUMP_LINE(fmt, intf != nullptr ? intf->name : "NULL", intf != nullptr ? intf->ifindex : 0u,
              static_cast<const void *>(intf), intf != nullptr ? intf->vrf_id : 0);
}

void dump_bytes(const uint8_t *data, uint32_t len)
{
    DUMP_LINE("01 02 03 04 05 06 07 08 09 10 11 12 13 14 15 16\n");
    DUMP_LINE("-----------------------------------------------\n");
    const uint32_t shown = std::min(len, kDumpBytes);
    char line[kBytesPerLine * 3 + 1];
    uint32_t used = 0;
    for (uint32_t i = 0; i < shown; ++i) {
        std::snprintf(line + used * 3, 4, "%02X ", data[i]);
        if (++used == kBytesPerLine) {
            DUMP_LINE("%s\n", line);
            used = 0;
        }
    }
    if (used != 0)
        DUMP_LINE("%s\n\n", line);
}

void dump_addresses(const uint8_t *frame, uint32_t len)
{
    if (len < EF_ETH_HLEN)
        return;
    const auto *eth = reinterpret_cast<const ef_eth_hdr *>(frame);
    const uint16_t type = ef_get_be16(eth->type);
    const uint8_t *ip = frame + EF_ETH_HLEN;
    char src[INET6_ADDRSTRLEN] = "-";
    char dst[INET6_ADDRSTRLEN] = "-";
    unsigned proto;
    if (type == EF_ETHERTYPE_IPV4 && len >= EF_ETH_HLEN + EF_IPV4_HLEN) {
        const auto *v4 = reinterpret_cast<const ef_ipv4_hdr *>(ip);
        inet_ntop(AF_INET, v4->src, src, sizeof src);
        inet_ntop(AF_INET, v4->dst, dst, sizeof dst);
        proto = v4->proto;
    } else if (type == EF_ETHERTYPE_IPV6 && len >= EF_ETH_HLEN + EF_IPV6_HLEN) {
        const auto *v6 = reinterpret_cast<const ef_ipv6_hdr *>(ip);
        inet_ntop(AF_INET6, v6->src, src, sizeof src);
        inet_ntop(AF_INET6, v6->dst, dst, sizeof dst);
        proto = v6->next_hdr;
    } else {
        return;
    }
    const uint8_t *d = eth->dst;
    const uint8_t *s = eth->src;
    DUMP_LINE("src_mac: %02x%02x.%02x%02x.%02x%02x, dst_mac: %02x%02x.%02x%02x.%02x%02x, "
              "eth_type: %04x\n",
              s[0], s[1], s[2], s[3], s[4], s[5], d[0], d[1], d[2], d[3], d[4], d[5], type);
    DUMP_LINE("src_ip: %s, dst_ip: %s, ip protocol: %x\n", src, dst, proto);
}

}  // namespace

void vxlan_ef_pkt_dump(efmp_buff_t *buff, const char *position)
{
    if (buff == nullptr)
        return;
    const uint32_t tag = efmp_buff_tag_word(buff);
    const uint8_t *data = buff->head + buff->data_off;
    DUMP_LINE("\n******** VXLAN EF Packet %p Dump ********\n", static_cast<void *>(buff));
    DUMP_LINE("Packet position: %s\n", position);
    DUMP_LINE("Packet len     : %d, l2_len: %d\n", static_cast<int>(buff->len), buff->l2_len);
    DUMP_LINE("Packet offset  : l2_offset: %d, ip_offset: %d\n", buff->data_off, buff->l3_off);
    DUMP_LINE("Packet VSD     : %d\n", static_cast<int>(tag >> EFMP_TAG_VSD_SHIFT));
    DUMP_LINE("Packet vrf     : %d\n", buff->vrf);
    DUMP_LINE("Packet VID     : %d\n", static_cast<int>(tag & EFMP_TAG_VID_MASK));
    DUMP_LINE("Packet vni     : %u (flags 0x%x)\n", static_cast<unsigned>(efmp_buff_vni(buff)),
              buff->vni_tag[0]);
    DUMP_LINE("Packet pid     : %u \n", buff->pid);
    DUMP_LINE("Packet flags   : 0x%x, priv_flags: 0x%x\n", static_cast<unsigned>(buff->flags),
              static_cast<unsigned>(buff->priv_flags));
    dump_intf("Src_intf       : %s (sifx: %u, %p, vrf: %d)\n", buff->src_intf);
    dump_intf("Dst_intf       : %s (difx: %u, %p, vrf: %d)\n", buff->dst_intf);
    DUMP_LINE("Engine         : %d, module: %d, pktType: %d\n", buff->outer_family,
              buff->module_code, buff->pkt_type);
    dump_bytes(data, buff->len);
    dump_addresses(data, buff->len);
}
