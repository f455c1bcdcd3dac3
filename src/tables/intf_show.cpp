// The interface show (EF_SHOW id 4): routers, then tunnels, each kind with
// its count, a table of the records whose interface the platform knows, and
// a closing rule. Takes no lock of its own.
#include "lsm.h"
#include "tables_private.h"
#include "vxlan_ef_tables.h"

using namespace vxlan_ef;

namespace {

const char *state_word(const lsm_intfcb_t *cb) { return cb->link_up != 0 ? "up" : "down"; }
const char *true_word(uint8_t value) { return value != 0 ? "true" : "false"; }

void show_routers(const vxlan_ef_vsd_t *vsd)
{
    vxlan_ef_show_line("Total Router Interface Count: %d\n", static_cast<int>(vsd->router_count));
    vxlan_ef_show_line("Name               Index VNI      Sate\n");
    vxlan_ef_show_line("------------------ ----- -------- ----\n");
    const list_head *head = &vsd->router_list;
    for (const list_head *node = head->next; node != head; node = node->next) {
        const auto *router = ef_container_of(node, vxlan_ef_intf_t, list_node);
        const lsm_intfcb_t *cb = lsm_get_intfcb(router->ifx);
        if (cb == nullptr)
            continue;
        vxlan_ef_show_line("%-18s %-5u %-8u %-4s\n", cb->name, router->ifx, router->vni,
                           state_word(cb));
    }
    vxlan_ef_show_line("---------------------------------------\n");
}

void show_tunnels(const vxlan_ef_vsd_t *vsd)
{
    vxlan_ef_show_line("Total Tunnel Interface Count: %d\n", static_cast<int>(vsd->tunnel_count));
    vxlan_ef_show_line("Name               Index Source IP                                      "
                       "Destination IP                                 Outside Sate Rmt_route "
                       "Rmt_mac\n");
    vxlan_ef_show_line("------------------ ----- ---------------------------------------------- "
                       "---------------------------------------------- ------- ---- --------- "
                       "-------\n");
    const list_head *head = &vsd->tunnel_list;
    for (const list_head *node = head->next; node != head; node = node->next) {
        const auto *tunnel = ef_container_of(node, vxlan_ef_intf_t, list_node);
        const lsm_intfcb_t *cb = lsm_get_intfcb(tunnel->ifx);
        if (cb == nullptr)
            continue;
        char sip[kIpTextLen];
        char dip[kIpTextLen];
        vxlan_ef_show_line("%-18s %-5u %-46s %-46s %-7d %-4s %-9s %-7s\n", cb->name, tunnel->ifx,
                           ip_text(tunnel->sip, sip), ip_text(tunnel->dip, dip),
                           static_cast<int>(tunnel->outside_center), state_word(cb),
                           true_word(tunnel->rmt_route_learn), true_word(tunnel->rmt_mac_learn));
    }
    vxlan_ef_show_line(
        "-------------------------------------------------------------------------------\n");
}

}  // namespace

void vxlan_ef_intf_show(uint32_t)
{
    const vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    show_routers(vsd);
    show_tunnels(vsd);
}
