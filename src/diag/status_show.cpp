// The status show: the instance's debug flags, switches, state bits, counts,
// local interfaces, send buffers and peer-link in one block, then the
// capability show.
#include <array>

#include "channel/channel_private.h"
#include "core/core_private.h"
#include "lsm.h"
#include "vxlan_ef.h"

namespace {

struct FlagName {
    uint32_t bit;
    const char *name;
};

constexpr std::array<FlagName, 5> kDebugNames{{
    {VXLAN_EF_DBG_EVENT, "event "},
    {VXLAN_EF_DBG_ERR, "error "},
    {VXLAN_EF_DBG_FORWARD, "forward "},
    {VXLAN_EF_DBG_ENCAP, "encap "},
    {VXLAN_EF_DBG_PARSER, "parser "},
}};

constexpr std::array<const char *, 16> kStateNames{
    "nl-conn ",      "sync-start ",   "sync-end ",         "learn-mac ",
    "learn-vtep ",   "serv-parser ",  "serv-encap ",       "serv-forward ",
    "serv-get-or ",  "serv-get-vni ", "tech-dump ",        "bridge-fwd ",
    "router's-mac-fwd ", "bcast-pkt-encap ", "cap-init ", "serv-or-no-icmp ",
};

const char *debug_name(uint32_t mask, std::size_t i)
{
    return (mask & kDebugNames[i].bit) ? kDebugNames[i].name : "";
}

const char *state_name(uint32_t flags, unsigned bit)
{
    return (flags & (1u << bit)) ? kStateNames[bit] : "";
}

const char *enable_word(uint8_t value) { return value ? "enable" : "disable"; }

const char *intf_name(const lsm_intfcb_t *intf) { return intf ? intf->name : "NULL"; }

void show_buffer(const char *fmt, const vxlan_ef_send_buf_t &buf)
{
    vxlan_ef_show_line(fmt, buf.data[0], vxlan_ef::msg_len(buf.data), buf.data[3]);
}

}  // namespace

void vxlan_ef_show_status(uint32_t vsd_id)
{
    const vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    const uint32_t mask = vxlan_ef::load_relaxed(vsd->debug_mask);
    vxlan_ef_show_line("Debug Status         : %s%s%s%s%s\n", debug_name(mask, 0),
                       debug_name(mask, 1), debug_name(mask, 2), debug_name(mask, 3),
                       debug_name(mask, 4));
    vxlan_ef_show_line("ANYCAST-MAC-SET      : %s\n", vsd->anycast_mac_valid ? "TRUE" : "FALSE");
    const uint8_t *mac = vsd->anycast_mac;
    vxlan_ef_show_line("ANYCAST-MAC          : %02x%02x.%02x%02x.%02x%02x.\n", mac[0], mac[1],
                       mac[2], mac[3], mac[4], mac[5]);
    vxlan_ef_show_line("ARP-SUPPRESS         : %s\n", enable_word(vsd->arp_suppress));
    vxlan_ef_show_line("REMOTE-ARP-LEARN     : %s\n", enable_word(vsd->remote_arp_learn));
    vxlan_ef_show_line("ND-SUPPRESS          : %s\n", enable_word(vsd->nd_suppress));
    vxlan_ef_show_line("REMOTE-ND-LEARN      : %s\n", enable_word(vsd->remote_nd_learn));
    vxlan_ef_show_line("COPY-DSCP            : %s\n", enable_word(vsd->copy_dscp));
    const uint32_t f = vsd->flags;
    vxlan_ef_show_line("Global Status        : %s%s%s%s%s%s%s%s%s%s%s%s%s%s%s%s\n",
                       state_name(f, 0), state_name(f, 1), state_name(f, 2), state_name(f, 3),
                       state_name(f, 4), state_name(f, 5), state_name(f, 6), state_name(f, 7),
                       state_name(f, 8), state_name(f, 9), state_name(f, 10), state_name(f, 11),
                       state_name(f, 12), state_name(f, 13), state_name(f, 14),
                       state_name(f, 15));
    vxlan_ef_show_line("User Pid             : %d\n", static_cast<int>(vsd->user_pid));
    vxlan_ef_show_line("Entry Count          : %u\n", vsd->entry_count);
    vxlan_ef_show_line("VTEP Adjacency Count : %u\n", vsd->adj_count);
    vxlan_ef_show_line("UDP Port Number      : %d, dirty %s\n", vsd->udp_port,
                       vsd->udp_port_dirty ? "True" : "False");
    vxlan_ef_show_line("L2 Local Intf        : %s\n", intf_name(vxlan_ef::load_relaxed(vsd->intf_slot_4094)));
    vxlan_ef_show_line("L3 Local Intf        : %s\n", intf_name(vxlan_ef::load_relaxed(vsd->intf_slot_other)));
    show_buffer("RTime Send Buffer    : ver %d, len %d, tlv_num %d\n", vsd->rtime_buf);
    show_buffer("Batch Send Buffer    : ver %d, len %d, tlv_num %d\n", vsd->batch_buf);
    vxlan_ef_show_line("Peer-link            : ifx %d\n", static_cast<int>(vsd->peerlink_ifx));
    vxlan_ef_show_cap(vsd_id);
}
