// The entry show (EF_SHOW id 1): one VXLAN entry, or the totals and every
// entry, with its switches, mappings, VLANs, Super/Suber links, router
// interface and adjacencies. Takes no lock of its own.
#include <algorithm>
#include <vector>

#include "lsm.h"
#include "tables_private.h"
#include "vxlan_ef_tables.h"

using namespace vxlan_ef;

namespace {

constexpr const char *kTypeNames[] = {"Normal", "Super", "Suber"};

const char *type_name(uint32_t type)
{
    return type < std::size(kTypeNames) ? kTypeNames[type] : "";
}

const char *bool_word(uint8_t value) { return value != 0 ? "TRUE" : "FALSE"; }

void show_vlans(const vxlan_ef_entry_t *entry)
{
    std::vector<uint32_t> vids;
    const list_head *head = &entry->vid_list;
    for (const list_head *node = head->prev; node != head; node = node->prev)
        vids.push_back(ef_container_of(node, vxlan_ef_vid_t, node)->vid);  // list is descending
    if (vids.empty())
        vxlan_ef_show_line("  Extend Vlan            : NA\n");
    else
        show_range_lines("  Extend Vlan            : ", vids.data(),
                         static_cast<uint32_t>(vids.size()));
}

void show_super_links(const vxlan_ef_entry_t *entry)
{
    if (entry->type == VXLAN_EF_ENTRY_SUBER) {
        const vxlan_ef_entry_t *super = entry->super_entry;
        vxlan_ef_show_line("  Supervxlan             : %u\n", super != nullptr ? super->vni : 0);
        return;
    }
    if (entry->type != VXLAN_EF_ENTRY_SUPER)
        return;
    std::vector<uint32_t> subers;
    const list_head *head = &entry->suber_list;
    for (const list_head *node = head->next; node != head; node = node->next)
        subers.push_back(ef_container_of(node, vxlan_ef_entry_t, suber_list)->vni);
    std::sort(subers.begin(), subers.end());
    if (subers.empty())
        vxlan_ef_show_line("  Suber VNI              : NA\n");
    else
        show_range_lines("  Suber VNI              : ", subers.data(),
                         static_cast<uint32_t>(subers.size()));
}

void show_router(const vxlan_ef_entry_t *entry)
{
    if (entry->router_ifx == 0) {
        vxlan_ef_show_line("  Router Intf            : NA\n");
        return;
    }
    char name[LSM_IF_NAME_LEN] = {};
    lsm_if_get_name(entry->router_ifx, name, sizeof name);
    vxlan_ef_show_line("  Router Intf            : %s ifx: %u\n", name, entry->router_ifx);
}

void show_adjacencies(const vxlan_ef_entry_t *entry)
{
    vxlan_ef_show_line("  VTEP Adjacency Count   : %d\n", static_cast<int>(entry->adj_count));
    if (list_empty(&entry->adj_list))
        return;
    vxlan_ef_show_line("  VTEP Adjacency List    : \n");
    vxlan_ef_show_line("  Interface            Index Source IP                                      "
                       "Destination IP                                \n");
    vxlan_ef_show_line("  -------------------- ----- ---------------------------------------------- "
                       "----------------------------------------------\n");
    const list_head *head = &entry->adj_list;
    for (const list_head *node = head->next; node != head; node = node->next) {
        const auto *adj = ef_container_of(node, vxlan_ef_adj_t, entry_node);
        char name[LSM_IF_NAME_LEN] = {};
        char sip[kIpTextLen];
        char dip[kIpTextLen];
        lsm_if_get_name(adj->ifx, name, sizeof name);
        vxlan_ef_show_line("  %-20s %-5u %-46s %-46s\n", name, adj->ifx, ip_text(adj->sip, sip),
                           ip_text(adj->dip, dip));
    }
}

void show_entry(const vxlan_ef_entry_t *entry)
{
    vxlan_ef_show_line("VXLAN %u(%s)\n", entry->vni, type_name(entry->type));
    vxlan_ef_show_line("  Anycast Flags          : %s\n", bool_word(entry->anycast));
    vxlan_ef_show_line("  Dirty Flags            : 0x%08X\n", entry->dirty);
    vxlan_ef_show_line("  Switch Protected       : %s\n", bool_word(entry->switch_proteched));
    vxlan_ef_show_line("  Unallowed bcast        : %s\n", bool_word(entry->unallowed_bcast));
    vxlan_ef_show_line("  ARP Suppress           : %s\n", bool_word(entry->arp_suppress));
    vxlan_ef_show_line("  ND Suppress            : %s\n", bool_word(entry->nd_suppress));
    vxlan_ef_show_line("  L2MAPPING VNI_A        : %u\n", entry->map_vni_a);
    vxlan_ef_show_line("  L2MAPPING VNI_B        : %u\n", entry->map_vni_b);
    show_vlans(entry);
    show_super_links(entry);
    show_router(entry);
    show_adjacencies(entry);
    vxlan_ef_show_line("  ----------------------------------------------------------------\n");
}

}  // namespace

void vxlan_ef_entry_show(uint32_t, uint32_t vni)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return;
    if (vni != 0) {
        if (const vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, vni))
            show_entry(entry);
        else
            VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] can't find vxlan ef entry by vni %u\n", vni);
        return;
    }
    vxlan_ef_show_line("Total VXLAN Count: %d, Total VTEP Count: %d\n",
                       static_cast<int>(vsd->entry_count), static_cast<int>(vsd->adj_count));
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] Total VTEP Count: %d\n",
                   static_cast<int>(vsd->adj_count));
    const list_head *head = &vsd->entry_list;
    for (const list_head *node = head->next; node != head; node = node->next)
        show_entry(ef_container_of(node, vxlan_ef_entry_t, list_node));
}
