// The table consistency check (table_check.h). Plain walks over the records
// as the module lays them out; nothing here calls into the module except the
// sub-interface comparison and lookups, whose answers are what is checked.
#include "table_check.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include "lsm.h"
#include "vxlan_ef_tables.h"

namespace vxtest {

namespace {

// No table of a fuzzed or tested instance comes near this many nodes; a walk
// that gets there is going round a list that does not close.
constexpr size_t kMaxWalk = 1u << 20;
constexpr uint32_t kVniMax = 0xFFFFFFu;

class Report {
public:
    void add(const char *format, ...) __attribute__((format(printf, 2, 3)))
    {
        char line[512];
        va_list ap;
        va_start(ap, format);
        std::vsnprintf(line, sizeof line, format, ap);
        va_end(ap);
        lines_.emplace_back(line);
    }
    std::vector<std::string> take() { return std::move(lines_); }

private:
    std::vector<std::string> lines_;
};

std::string text(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string text(const char *format, ...)
{
    char line[160];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    return line;
}

// The nodes of a circular list in order, checking every back link; stops at
// the first broken link or when the list does not close.
// what() names the list, and is only asked when something is wrong.
template <typename Name>
std::vector<const list_head *> walk(const list_head *head, Name what, Report &r)
{
    std::vector<const list_head *> nodes;
    const list_head *prev = head;
    for (const list_head *node = head->next; node != head; node = node->next) {
        if (node == nullptr || node == EF_LIST_POISON1 || node == EF_LIST_POISON2) {
            r.add("%s: a link holds %p (unlinked node still in the list)", what().c_str(),
                  static_cast<const void *>(node));
            return nodes;
        }
        if (node->prev != prev) {
            r.add("%s: node %zu's back link does not point at its predecessor", what().c_str(),
                  nodes.size());
            return nodes;
        }
        if (nodes.size() == kMaxWalk) {
            r.add("%s: the list does not close", what().c_str());
            return nodes;
        }
        nodes.push_back(node);
        prev = node;
    }
    if (head->prev != prev)
        r.add("%s: the head's back link does not point at the last node", what().c_str());
    return nodes;
}

bool self_linked(const list_head *node) { return node->next == node && node->prev == node; }

// Equal as the module compares addresses: the same family, then only the
// bytes that family uses (4 for IPv4, 16 for IPv6). The module copies a
// tunnel's destination into its adjacencies only when the two differ by that
// measure, so when an update changes only bytes 4..15 of a tunnel's IPv4
// destination, its adjacencies keep the bytes they had; those bytes mean
// nothing for an IPv4 address and must not count. An address of any other
// family equals nothing in the module and is therefore always copied whole,
// so all 16 of its bytes must agree.
bool same_ip(const vxlan_ef_ip_addr_t &a, const vxlan_ef_ip_addr_t &b)
{
    if (a.family != b.family)
        return false;
    const size_t used = a.family == VXLAN_EF_AF_INET ? 4 : sizeof a.addr;
    return std::memcmp(a.addr, b.addr, used) == 0;
}

// The adjacency hash's bucket of a destination address, as the module's
// layout defines it (first byte for IPv4, four bytes summed for IPv6).
uint32_t dip_bucket(const vxlan_ef_ip_addr_t &dip)
{
    const uint8_t *a = dip.addr;
    if (dip.family == VXLAN_EF_AF_INET)
        return a[0];
    if (dip.family == VXLAN_EF_AF_INET6)
        return (a[0] + a[4] + a[8] + a[12]) & (VXLAN_EF_ENTRY_HASH_SIZE - 1);
    return 0;
}

// ---- entries, adjacencies, VLANs ----

struct Tables {
    std::vector<const vxlan_ef_entry_t *> entries;
    std::map<uint32_t, const vxlan_ef_intf_t *> tunnels;  // by ifx
    std::set<const vxlan_ef_adj_t *> adjs;
    std::set<const vxlan_ef_subif_t *> subifs;            // from the ifx tree
};

void check_entries(const vxlan_ef_vsd_t *vsd, Tables &t, Report &r)
{
    for (const list_head *n : walk(&vsd->entry_list, [] { return std::string("entry list"); }, r))
        t.entries.push_back(ef_container_of(n, vxlan_ef_entry_t, list_node));
    if (vsd->entry_count != t.entries.size())
        r.add("entry count %u, entry list holds %zu", vsd->entry_count, t.entries.size());

    const std::set<const vxlan_ef_entry_t *> listed(t.entries.begin(), t.entries.end());
    if (listed.size() != t.entries.size())
        r.add("an entry is in the entry list twice");
    std::set<uint32_t> vnis;
    for (const vxlan_ef_entry_t *e : t.entries) {
        if (e->vni < 1 || e->vni > kVniMax)
            r.add("entry with VNI %u outside 1..16777215", e->vni);
        if (!vnis.insert(e->vni).second)
            r.add("two entries of VNI %u", e->vni);
    }
    size_t hashed = 0;
    for (uint32_t b = 0; b < VXLAN_EF_HASH_SIZE; ++b) {
        const auto what = [&] { return text("entry hash bucket %u", b); };
        for (const list_head *n : walk(&vsd->entry_hash[b], what, r)) {
            const auto *e = ef_container_of(n, vxlan_ef_entry_t, hash_node);
            hashed++;
            if (listed.count(e) == 0)
                r.add("entry hash bucket %u holds a record that is not in the entry list", b);
            else if ((e->vni & (VXLAN_EF_HASH_SIZE - 1)) != b)
                r.add("entry of VNI %u hashed into bucket %u", e->vni, b);
        }
    }
    if (hashed != t.entries.size())
        r.add("entry hash holds %zu records, entry list %zu", hashed, t.entries.size());
}

void check_tunnels(const vxlan_ef_vsd_t *vsd, uint32_t kind, Tables &t, Report &r)
{
    const bool router = kind == LSM_IF_TYPE_OVERLAY_ROUTER;
    const char *name = router ? "router" : "tunnel";
    const list_head *list = router ? &vsd->router_list : &vsd->tunnel_list;
    const list_head *hash = router ? vsd->router_hash : vsd->tunnel_hash;
    const uint32_t count = router ? vsd->router_count : vsd->tunnel_count;

    std::set<const vxlan_ef_intf_t *> listed;
    std::set<uint32_t> ifxs;
    const auto what = [&] { return text("%s list", name); };
    for (const list_head *n : walk(list, what, r)) {
        const auto *intf = ef_container_of(n, vxlan_ef_intf_t, list_node);
        listed.insert(intf);
        if (intf->kind != kind)
            r.add("%s %u has kind %u", name, intf->ifx, intf->kind);
        if (!ifxs.insert(intf->ifx).second)
            r.add("two %s records of ifx %u", name, intf->ifx);
        if (!router)
            t.tunnels[intf->ifx] = intf;
        else if (!list_empty(&intf->adj_list))
            r.add("router %u has adjacencies", intf->ifx);
    }
    if (count != listed.size())
        r.add("%s count %u, %s list holds %zu", name, count, name, listed.size());
    size_t hashed = 0;
    for (uint32_t b = 0; b < VXLAN_EF_HASH_SIZE; ++b) {
        const auto bucket = [&] { return text("%s hash bucket %u", name, b); };
        for (const list_head *n : walk(&hash[b], bucket, r)) {
            const auto *intf = ef_container_of(n, vxlan_ef_intf_t, hash_node);
            hashed++;
            if (listed.count(intf) == 0)
                r.add("%s hash bucket %u holds a record that is not in the %s list", name, b, name);
            else if ((intf->ifx & (VXLAN_EF_HASH_SIZE - 1)) != b)
                r.add("%s %u hashed into bucket %u", name, intf->ifx, b);
        }
    }
    if (hashed != listed.size())
        r.add("%s hash holds %zu records, %s list %zu", name, hashed, name, listed.size());
}

void check_adjacencies(const vxlan_ef_vsd_t *vsd, Tables &t, Report &r)
{
    constexpr uint32_t kMask = VXLAN_EF_ENTRY_HASH_SIZE - 1;
    size_t total = 0;
    for (const vxlan_ef_entry_t *e : t.entries) {
        const auto what = [&] { return text("adjacency list of VNI %u", e->vni); };
        std::set<const vxlan_ef_adj_t *> own;
        std::set<uint32_t> ifxs;
        for (const list_head *n : walk(&e->adj_list, what, r)) {
            const auto *adj = ef_container_of(n, vxlan_ef_adj_t, entry_node);
            own.insert(adj);
            if (adj->entry != e)
                r.add("adjacency (VNI %u, ifx %u) names another entry", e->vni, adj->ifx);
            if (!ifxs.insert(adj->ifx).second)
                r.add("two adjacencies of VNI %u on ifx %u", e->vni, adj->ifx);
            auto tunnel = t.tunnels.find(adj->ifx);
            if (tunnel == t.tunnels.end()) {
                r.add("adjacency (VNI %u, ifx %u) has no tunnel", e->vni, adj->ifx);
            } else if (!same_ip(adj->sip, tunnel->second->sip) ||
                       !same_ip(adj->dip, tunnel->second->dip)) {
                r.add("adjacency (VNI %u, ifx %u) disagrees with its tunnel's addresses", e->vni,
                      adj->ifx);
            }
        }
        if (e->adj_count != own.size())
            r.add("VNI %u counts %u adjacencies, its list holds %zu", e->vni, e->adj_count,
                  own.size());
        total += own.size();
        t.adjs.insert(own.begin(), own.end());

        size_t by_ifx = 0, by_dip = 0;
        for (uint32_t b = 0; b < VXLAN_EF_ENTRY_HASH_SIZE; ++b) {
            const auto ifx_bucket = [&] { return text("adjacency ifx bucket %u of VNI %u", b, e->vni); };
            for (const list_head *n : walk(&e->adj_by_ifx[b], ifx_bucket, r)) {
                const auto *adj = ef_container_of(n, vxlan_ef_adj_t, ifx_node);
                by_ifx++;
                if (own.count(adj) == 0)
                    r.add("%s holds an adjacency not in the VNI's list", ifx_bucket().c_str());
                else if ((adj->ifx & kMask) != b)
                    r.add("adjacency (VNI %u, ifx %u) in ifx bucket %u", e->vni, adj->ifx, b);
            }
            const auto dip_bucket_name = [&] { return text("adjacency dip bucket %u of VNI %u", b, e->vni); };
            for (const list_head *n : walk(&e->adj_by_dip[b], dip_bucket_name, r)) {
                const auto *adj = ef_container_of(n, vxlan_ef_adj_t, dip_node);
                by_dip++;
                if (own.count(adj) == 0)
                    r.add("%s holds an adjacency not in the VNI's list", dip_bucket_name().c_str());
                else if (dip_bucket(adj->dip) != b)
                    r.add("adjacency (VNI %u, ifx %u) in dip bucket %u instead of %u", e->vni,
                          adj->ifx, b, dip_bucket(adj->dip));
            }
        }
        if (by_ifx != own.size() || by_dip != own.size())
            r.add("VNI %u: %zu adjacencies listed, %zu in the ifx hash, %zu in the dip hash",
                  e->vni, own.size(), by_ifx, by_dip);
    }
    if (vsd->adj_count != total)
        r.add("adjacency count %u, entries hold %zu", vsd->adj_count, total);

    size_t chained = 0;
    for (const auto &entry : t.tunnels) {
        const uint32_t ifx = entry.first;
        const vxlan_ef_intf_t *tunnel = entry.second;
        const auto what = [&] { return text("adjacency chain of tunnel %u", ifx); };
        for (const list_head *n : walk(&tunnel->adj_list, what, r)) {
            const auto *adj = ef_container_of(n, vxlan_ef_adj_t, tunnel_node);
            chained++;
            if (t.adjs.count(adj) == 0)
                r.add("tunnel %u chains an adjacency that no entry holds", ifx);
            else if (adj->ifx != ifx)
                r.add("tunnel %u chains the adjacency of ifx %u", ifx, adj->ifx);
        }
    }
    if (chained != t.adjs.size())
        r.add("tunnels chain %zu adjacencies, entries hold %zu", chained, t.adjs.size());
}

void check_vlans(const vxlan_ef_vsd_t *vsd, const Tables &t, Report &r)
{
    size_t nodes = 0;
    for (const vxlan_ef_entry_t *e : t.entries) {
        const auto what = [&] { return text("VLAN list of VNI %u", e->vni); };
        uint32_t previous = VXLAN_EF_VLAN_COUNT + 1;
        for (const list_head *n : walk(&e->vid_list, what, r)) {
            const auto *node = ef_container_of(n, vxlan_ef_vid_t, node);
            nodes++;
            const uint32_t vid = node->vid;
            if (vid < 1 || vid > VXLAN_EF_VLAN_COUNT) {
                r.add("VNI %u holds VLAN %u", e->vni, vid);
                continue;
            }
            if (vid >= previous)
                r.add("VLAN list of VNI %u is not descending at VLAN %u", e->vni, vid);
            previous = vid;
            if (vsd->vid_node[vid - 1] != node)
                r.add("VLAN %u of VNI %u is not the node its array slot points at", vid, e->vni);
            if (vsd->vid_vni[vid - 1] != e->vni)
                r.add("VLAN %u is listed under VNI %u but mapped to VNI %u", vid, e->vni,
                      vsd->vid_vni[vid - 1]);
        }
    }
    size_t slots = 0;
    for (uint32_t v = 1; v <= VXLAN_EF_VLAN_COUNT; ++v) {
        const bool has_node = vsd->vid_node[v - 1] != nullptr;
        const bool has_vni = vsd->vid_vni[v - 1] != 0;
        if (has_node != has_vni)
            r.add("VLAN %u: node %s but VNI %u", v, has_node ? "set" : "unset",
                  vsd->vid_vni[v - 1]);
        slots += has_node ? 1 : 0;
    }
    if (slots != nodes)
        r.add("%zu VLAN slots are set, entries list %zu VLAN nodes", slots, nodes);
}

void check_super_links(const Tables &t, Report &r)
{
    for (const vxlan_ef_entry_t *e : t.entries) {
        if (e->type == VXLAN_EF_ENTRY_SUBER)
            continue;
        const auto what = [&] { return text("suber list of VNI %u", e->vni); };
        for (const list_head *n : walk(&e->suber_list, what, r)) {
            const auto *suber = ef_container_of(n, vxlan_ef_entry_t, suber_list);
            if (suber->super_entry != e)
                r.add("a suber entry of VNI %u names another super entry", e->vni);
        }
    }
}

void check_vrfs(const vxlan_ef_vsd_t *vsd, Report &r)
{
    std::set<const vxlan_ef_vrf_t *> listed;
    std::set<int32_t> ids;
    for (const list_head *n : walk(&vsd->vrf_list, [] { return std::string("vrf list"); }, r)) {
        const auto *vrf = ef_container_of(n, vxlan_ef_vrf_t, list_node);
        listed.insert(vrf);
        if (!ids.insert(vrf->vrf_id).second)
            r.add("two VRF records of id %d", vrf->vrf_id);
    }
    if (vsd->vrf_count != listed.size())
        r.add("vrf count %u, vrf list holds %zu", vsd->vrf_count, listed.size());
    size_t hashed = 0;
    for (uint32_t b = 0; b < VXLAN_EF_HASH_SIZE; ++b) {
        const auto what = [&] { return text("vrf hash bucket %u", b); };
        for (const list_head *n : walk(&vsd->vrf_hash[b], what, r)) {
            const auto *vrf = ef_container_of(n, vxlan_ef_vrf_t, hash_node);
            hashed++;
            if (listed.count(vrf) == 0)
                r.add("vrf hash bucket %u holds a record that is not in the vrf list", b);
            else if ((static_cast<uint32_t>(vrf->vrf_id) & (VXLAN_EF_HASH_SIZE - 1)) != b)
                r.add("vrf %d hashed into bucket %u", vrf->vrf_id, b);
        }
    }
    if (hashed != listed.size())
        r.add("vrf hash holds %zu records, vrf list %zu", hashed, listed.size());
}

// ---- sub-interface trees ----

bool black(const rb_node *n) { return n == nullptr || (n->rb_parent_color & 1u) != 0; }

struct TreeWalk {
    const char *name;
    size_t node_offset;
    uint32_t mode;
    std::vector<const vxlan_ef_subif_t *> in_order;
    bool sound = true;
};

const vxlan_ef_subif_t *owner(const rb_node *n, size_t offset)
{
    return reinterpret_cast<const vxlan_ef_subif_t *>(reinterpret_cast<const char *>(n) - offset);
}

// Black height of the subtree, or -1 after reporting a broken rule.
int walk_tree(const rb_node *n, const rb_node *parent, int depth, TreeWalk &w, Report &r)
{
    if (n == nullptr)
        return 1;
    if (depth > 128 || w.in_order.size() >= kMaxWalk) {
        r.add("%s tree: deeper than any balanced tree (a cycle?)", w.name);
        w.sound = false;
        return -1;
    }
    if (rb_parent(n) != parent) {
        r.add("%s tree: a node's parent link is wrong", w.name);
        w.sound = false;
    }
    if (!black(n) && (!black(n->rb_left) || !black(n->rb_right))) {
        r.add("%s tree: a red node has a red child", w.name);
        w.sound = false;
    }
    const int left = walk_tree(n->rb_left, n, depth + 1, w, r);
    w.in_order.push_back(owner(n, w.node_offset));
    const int right = walk_tree(n->rb_right, n, depth + 1, w, r);
    if (left < 0 || right < 0)
        return -1;
    if (left != right) {
        r.add("%s tree: black heights %d and %d below one node", w.name, left, right);
        w.sound = false;
        return -1;
    }
    return left + (black(n) ? 1 : 0);
}

void check_tree(const vxlan_ef_subif_tree_t &tree, TreeWalk &w, Report &r)
{
    if (tree.cmp != vxlan_ef_subif_compare)
        r.add("%s tree: comparison function is not the module's", w.name);
    if (tree.root.rb_node != nullptr && !black(tree.root.rb_node)) {
        r.add("%s tree: the root is red", w.name);
        w.sound = false;
    }
    walk_tree(tree.root.rb_node, nullptr, 0, w, r);
    if (tree.count != w.in_order.size())
        r.add("%s tree: count %llu, %zu nodes", w.name,
              static_cast<unsigned long long>(tree.count), w.in_order.size());
    const rb_node *first = tree.root.rb_node;
    while (first != nullptr && first->rb_left != nullptr)
        first = first->rb_left;
    if (tree.leftmost != first)
        r.add("%s tree: the leftmost cache is not the first node", w.name);
}

// Keys are compared by their 32-bit wrapped difference, which orders keys
// more than 2^31 apart the other way about; only when every key lies in one
// half of the range is that a total order, in which the tree is sorted, each
// key is found again and none is held twice.
bool one_half(const std::vector<uint32_t> &keys)
{
    size_t low = 0;
    for (uint32_t k : keys)
        low += k < 0x80000000u ? 1 : 0;
    return low == 0 || low == keys.size();
}

void check_order(const TreeWalk &w, Report &r)
{
    for (size_t i = 1; i < w.in_order.size(); ++i) {
        if (vxlan_ef_subif_compare(w.in_order[i - 1], w.in_order[i], w.mode) > 0)
            r.add("%s tree: node %zu orders before its predecessor", w.name, i);
    }
}

void check_subifs(const vxlan_ef_vsd_t *vsd, Tables &t, Report &r)
{
    TreeWalk by_ifx{"subif ifx", offsetof(vxlan_ef_subif_t, ifx_node), VXLAN_EF_SUBIF_BY_IFX, {}};
    TreeWalk by_mifx{"subif main-ifx", offsetof(vxlan_ef_subif_t, mifx_node),
                     VXLAN_EF_SUBIF_BY_MIFX, {}};
    check_tree(vsd->subif_by_ifx, by_ifx, r);
    check_tree(vsd->subif_by_mifx, by_mifx, r);
    if (vsd->subif_by_ifx.count != vsd->subif_by_mifx.count)
        r.add("subif trees differ in size: %llu by ifx, %llu by main ifx",
              static_cast<unsigned long long>(vsd->subif_by_ifx.count),
              static_cast<unsigned long long>(vsd->subif_by_mifx.count));
    t.subifs.insert(by_ifx.in_order.begin(), by_ifx.in_order.end());
    const std::set<const vxlan_ef_subif_t *> in_mifx(by_mifx.in_order.begin(),
                                                     by_mifx.in_order.end());
    if (t.subifs != in_mifx)
        r.add("subif trees hold different records");
    if (t.subifs.size() != by_ifx.in_order.size())
        r.add("a subif record is twice in the ifx tree");
    if (!by_ifx.sound || !by_mifx.sound)
        return;

    auto *mutable_vsd = const_cast<vxlan_ef_vsd_t *>(vsd);
    std::vector<uint32_t> ifxs, mifxs;
    for (const vxlan_ef_subif_t *s : by_ifx.in_order) {
        ifxs.push_back(s->ifx);
        mifxs.push_back(s->main_ifx);
    }
    if (one_half(ifxs)) {
        check_order(by_ifx, r);
        for (size_t i = 0; i < by_ifx.in_order.size(); ++i) {
            const vxlan_ef_subif_t *s = by_ifx.in_order[i];
            if (i > 0 && by_ifx.in_order[i - 1]->ifx == s->ifx)
                r.add("two subif records of ifx %u", s->ifx);
            if (vxlan_ef_subif_lookup_by_subifx(mutable_vsd, s->ifx) != s)
                r.add("subif %u is not found by its ifx", s->ifx);
        }
    }
    if (one_half(mifxs)) {
        check_order(by_mifx, r);
        for (size_t i = 0; i < by_mifx.in_order.size(); ++i) {
            const vxlan_ef_subif_t *s = by_mifx.in_order[i];
            const vxlan_ef_subif_t *p = i > 0 ? by_mifx.in_order[i - 1] : nullptr;
            if (p != nullptr && p->main_ifx == s->main_ifx && p->svid == s->svid &&
                p->cvid == s->cvid)
                r.add("two subif records of (main ifx %u, svid %u, cvid %u)", s->main_ifx,
                      static_cast<unsigned>(s->svid), static_cast<unsigned>(s->cvid));
            if (vxlan_ef_subif_lookup_by_mainifx(mutable_vsd, s->main_ifx, s->svid, s->cvid) != s)
                r.add("subif %u is not found by (main ifx %u, svid %u, cvid %u)", s->ifx,
                      s->main_ifx, static_cast<unsigned>(s->svid), static_cast<unsigned>(s->cvid));
        }
    }
}

// A sub-interface is in the flooding list of the entry of its VNI, or in none.
void check_subif_lists(const Tables &t, Report &r)
{
    std::set<const vxlan_ef_subif_t *> listed;
    for (const vxlan_ef_entry_t *e : t.entries) {
        const auto what = [&] { return text("subif list of VNI %u", e->vni); };
        for (const list_head *n : walk(&e->subif_list, what, r)) {
            const auto *s = ef_container_of(n, vxlan_ef_subif_t, vni_node);
            if (t.subifs.count(s) == 0) {
                r.add("VNI %u lists a subif that is in no tree", e->vni);
                continue;
            }
            if (!listed.insert(s).second)
                r.add("subif %u is listed twice", s->ifx);
            if (s->vni != e->vni)
                r.add("subif %u of VNI %u is listed under VNI %u", s->ifx, s->vni, e->vni);
        }
    }
    for (const vxlan_ef_subif_t *s : t.subifs) {
        if (listed.count(s) == 0 && !self_linked(&s->vni_node))
            r.add("subif %u is linked into no entry's list yet not self-linked", s->ifx);
    }
}

}  // namespace

std::vector<std::string> table_problems(const vxlan_ef_vsd_t *vsd)
{
    Report r;
    if (vsd == nullptr)
        return {};
    Tables t;
    check_entries(vsd, t, r);
    check_tunnels(vsd, LSM_IF_TYPE_OVERLAY_TUNNEL, t, r);
    check_tunnels(vsd, LSM_IF_TYPE_OVERLAY_ROUTER, t, r);
    check_adjacencies(vsd, t, r);
    check_vlans(vsd, t, r);
    check_super_links(t, r);
    check_vrfs(vsd, r);
    check_subifs(vsd, t, r);
    check_subif_lists(t, r);
    return r.take();
}

std::string table_problems_text(const vxlan_ef_vsd_t *vsd)
{
    std::ostringstream out;
    for (const std::string &line : table_problems(vsd))
        out << line << "\n";
    return out.str();
}

}  // namespace vxtest
