// Private declarations of the configuration tables, grouped by the file that
// defines them. Each states the lock its caller must hold; "write lock" means
// the instance record's rwlock held for writing by the caller.
#pragma once

#include <cstdint>
#include <type_traits>

#include "core/core_private.h"
#include "vxlan_ef_tables.h"

namespace vxlan_ef {

// ---- list helpers (inline) ----

// Calls fn(node) for every node of head; fn may unlink or free the node it
// is given, since the next one is taken first.
template <typename Fn>
inline void list_walk_safe(list_head *head, Fn fn)
{
    for (list_head *node = head->next, *next = node->next; node != head;
         node = next, next = node->next) {
        __builtin_prefetch(next);
        fn(node);
    }
}

// Unlinks node, leaves the poison values, and publishes the change.
inline void list_unlink(list_head *node)
{
    list_del(node);
    store_barrier();
}

// Links node at the tail of head, then publishes it.
inline void list_link_tail(list_head *node, list_head *head)
{
    list_add_tail(node, head);
    store_barrier();
}

// ---- ip_addr.cpp (no lock) ----

// True when both are IPv4 (4 bytes) or both IPv6 (16 bytes) with equal bytes;
// an address of another family equals nothing. Inline and a word at a time:
// the tunnel lookup of every decapsulated packet runs it, and a call to
// memcmp for 4 or 16 bytes costs more than the comparison itself.
inline bool ip_equal(const vxlan_ef_ip_addr_t &a, const vxlan_ef_ip_addr_t &b)
{
    if (a.family != b.family)
        return false;
    if (a.family == VXLAN_EF_AF_INET)
        return load_unaligned<uint32_t>(a.addr) == load_unaligned<uint32_t>(b.addr);
    if (a.family != VXLAN_EF_AF_INET6)
        return false;
    return load_unaligned<uint64_t>(a.addr) == load_unaligned<uint64_t>(b.addr) &&
           load_unaligned<uint64_t>(a.addr + 8) == load_unaligned<uint64_t>(b.addr + 8);
}

// True for an IPv4 or IPv6 address with a non-zero byte.
bool ip_nonzero(const vxlan_ef_ip_addr_t &a);
// inet_ntop text of the address, "-" for another family. buf holds 46 bytes.
const char *ip_text(const vxlan_ef_ip_addr_t &a, char *buf);
inline constexpr unsigned kIpTextLen = 46;

// ---- adjacency.cpp (write lock) ----

// Bucket of adj_by_dip for an address.
uint32_t adj_dip_bucket(const vxlan_ef_ip_addr_t &dip);
// Unlinks adj from its four lists, forgets its entry and counts it out of the
// entry; the caller counts it out of the instance and frees it.
void adj_unlink(vxlan_ef_adj_t *adj);
// adj_unlink, the instance's count, and the free.
void adj_destroy(vxlan_ef_vsd_t *vsd, vxlan_ef_adj_t *adj);

// ---- entry_table.cpp (write lock) ----

// Frees the adjacencies of entry (only the marked ones when only_dirty),
// logging each with fmt under func unless fmt is nullptr.
void entry_free_adjs(vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry, bool only_dirty,
                     const char *fmt, const char *func);
// Removes entry from the table whole: adjacencies, VLANs, router binding,
// links from sub-interfaces and Suber entries, then the record.
// adj_fmt/vid_fmt: the free lines, nullptr for none.
void entry_destroy(vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry, const char *adj_fmt,
                   const char *vid_fmt, const char *func);
vxlan_ef_entry_t *entry_of_list_node(list_head *node);

// ---- vlan_ext.cpp (write lock) ----

// Frees the VLAN nodes of entry (only the marked ones when only_dirty),
// clearing the VLAN tables, logging each with fmt under func unless nullptr.
void entry_free_vids(vxlan_ef_vsd_t *vsd, vxlan_ef_entry_t *entry, bool only_dirty,
                     const char *fmt, const char *func);

// ---- intf_table.cpp (write lock) ----

// Unlinks and frees an interface record, counting it out of its kind.
void intf_remove(vxlan_ef_vsd_t *vsd, vxlan_ef_intf_t *intf);
vxlan_ef_intf_t *intf_of_list_node(list_head *node);

// ---- subif_table.cpp (write lock) ----

// Removes a sub-interface from its VNI list and both trees and frees it.
void subif_remove(vxlan_ef_vsd_t *vsd, vxlan_ef_subif_t *subif);
vxlan_ef_subif_t *subif_of_ifx_node(rb_node *node);
// Leftmost sub-interface by ifx, or nullptr (caller holds the instance lock).
vxlan_ef_subif_t *subif_first(vxlan_ef_vsd_t *vsd);
vxlan_ef_subif_t *subif_next(vxlan_ef_subif_t *subif);

// ---- vrf_table.cpp (write lock) ----

void vrf_remove(vxlan_ef_vsd_t *vsd, vxlan_ef_vrf_t *vrf);
vxlan_ef_vrf_t *vrf_of_list_node(list_head *node);

// ---- range_line.cpp (no lock) ----

// Puts out sorted values as "label" + items "%u" or "%u-%u" joined by ",",
// breaking before a line would reach 256 characters.
void show_range_lines(const char *label, const uint32_t *values, uint32_t count);

}  // namespace vxlan_ef

// The records are plain C layouts shared with the packet plane; the list and
// tree helpers find a record from its embedded node by offset.
static_assert(std::is_standard_layout_v<vxlan_ef_entry_t>);
static_assert(std::is_standard_layout_v<vxlan_ef_vid_t>);
static_assert(std::is_standard_layout_v<vxlan_ef_adj_t>);
static_assert(std::is_standard_layout_v<vxlan_ef_intf_t>);
static_assert(std::is_standard_layout_v<vxlan_ef_subif_t>);
static_assert(std::is_standard_layout_v<vxlan_ef_vrf_t>);
static_assert(sizeof(vxlan_ef_ip_addr_t) == 20);
