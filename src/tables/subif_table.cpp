// The sub-interface table: records in two red-black trees of the instance,
// one by sub-interface index and one by (main ifx, svid, cvid), each with a
// cached leftmost node and a count; a record is also linked into its VNI's
// entry (for flooding) when that entry existed when the VNI was set. A newer
// record with the same (main ifx, svid, cvid) replaces an older one.
#include <cstddef>
#include <cstring>

#include "core/handler_guard.h"
#include "tables_private.h"
#include "vxlan_ef_tables.h"

using namespace vxlan_ef;

namespace {

// One of the two trees: where it sits in the instance, which node of the
// record it links, and the comparison mode it orders by.
struct TreeRef {
    vxlan_ef_subif_tree_t vxlan_ef_vsd_t::*tree;
    std::size_t node_offset;
    uint32_t mode;
};

constexpr TreeRef kByIfx{&vxlan_ef_vsd_t::subif_by_ifx, offsetof(vxlan_ef_subif_t, ifx_node),
                         VXLAN_EF_SUBIF_BY_IFX};
constexpr TreeRef kByMifx{&vxlan_ef_vsd_t::subif_by_mifx, offsetof(vxlan_ef_subif_t, mifx_node),
                          VXLAN_EF_SUBIF_BY_MIFX};

vxlan_ef_subif_t *owner(rb_node *node, const TreeRef &t)
{
    return reinterpret_cast<vxlan_ef_subif_t *>(reinterpret_cast<char *>(node) - t.node_offset);
}

rb_node *node_of(vxlan_ef_subif_t *subif, const TreeRef &t)
{
    return reinterpret_cast<rb_node *>(reinterpret_cast<char *>(subif) + t.node_offset);
}

// Sign of the 32-bit wrapped difference a - b: keys more than 2^31 apart
// order the other way about, as the control process expects.
int wrapped_sign(uint32_t a, uint32_t b)
{
    const auto d = static_cast<int32_t>(a - b);
    return (d > 0) - (d < 0);
}

// Links subif into a tree; the leftmost cache follows a node that went left
// all the way down.
void tree_insert(vxlan_ef_vsd_t *vsd, const TreeRef &t, vxlan_ef_subif_t *subif)
{
    vxlan_ef_subif_tree_t &tree = vsd->*t.tree;
    rb_node **link = &tree.root.rb_node;
    rb_node *parent = nullptr;
    bool leftmost = true;
    while (*link != nullptr) {
        parent = *link;
        if (tree.cmp(owner(parent, t), subif, t.mode) > 0) {
            link = &parent->rb_left;
        } else {
            link = &parent->rb_right;
            leftmost = false;
        }
    }
    rb_node *node = node_of(subif, t);
    rb_link_node(node, parent, link);
    rb_insert_color(node, &tree.root);
    if (leftmost)
        tree.leftmost = node;
    tree.count++;
}

void tree_erase(vxlan_ef_vsd_t *vsd, const TreeRef &t, vxlan_ef_subif_t *subif)
{
    vxlan_ef_subif_tree_t &tree = vsd->*t.tree;
    rb_node *node = node_of(subif, t);
    if (tree.leftmost == node)
        tree.leftmost = rb_next(node);
    rb_erase(node, &tree.root);
    tree.count--;
}

vxlan_ef_subif_t *tree_find(vxlan_ef_vsd_t *vsd, const TreeRef &t, const vxlan_ef_subif_t &key)
{
    // A caller left with the instance pointer after exit holds no tree.
    if (vsd == nullptr)
        return nullptr;
    const vxlan_ef_subif_tree_t &tree = vsd->*t.tree;
    rb_node *node = tree.root.rb_node;
    while (node != nullptr) {
        vxlan_ef_subif_t *subif = owner(node, t);
        const int c = tree.cmp(&key, subif, t.mode);
        if (c == 0)
            return subif;
        node = c < 0 ? node->rb_left : node->rb_right;
    }
    return nullptr;
}

void tree_init(vxlan_ef_subif_tree_t &tree)
{
    tree.root.rb_node = nullptr;
    tree.leftmost = nullptr;
    tree.count = 0;
    tree.cmp = vxlan_ef_subif_compare;
}

vxlan_ef_subif_t *vxlan_ef_subif_alloc(uint32_t ifx)
{
    auto *subif = static_cast<vxlan_ef_subif_t *>(
        vxlan_ef_kmalloc(VXLAN_EF_MEM_SUBIF, sizeof(vxlan_ef_subif_t), 0));
    if (subif == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] kmalloc sub-intf memory failed, sub_ifx: %u\n",
                     ifx);
        return nullptr;
    }
    std::memset(static_cast<void *>(subif), 0, sizeof *subif);
    INIT_LIST_HEAD(&subif->vni_node);
    return subif;
}

// The fields of a type-90 value.
struct SubifValue {
    uint32_t ifx;
    uint32_t main_ifx;
    uint32_t vni;
    uint16_t svid;
    uint16_t cvid;
    uint8_t oper;
};

SubifValue read_value(const TlvValue<tlv::kSubInterface> &v)
{
    return SubifValue{v.get<"ifx">(), v.get<"main_ifx">(), v.get<"vni">(),
                      v.get<"svid">(), v.get<"cvid">(), v.get<"oper">()};
}

void set_vni(vxlan_ef_subif_t *subif, uint32_t vni)
{
    list_del_init(&subif->vni_node);
    subif->vni = vni;
}

void link_to_entry(vxlan_ef_subif_t *subif, vxlan_ef_entry_t *entry)
{
    if (entry != nullptr)
        list_link_tail(&subif->vni_node, &entry->subif_list);
}

}  // namespace

namespace vxlan_ef {

void subif_remove(vxlan_ef_vsd_t *vsd, vxlan_ef_subif_t *subif)
{
    list_del_init(&subif->vni_node);
    tree_erase(vsd, kByMifx, subif);
    tree_erase(vsd, kByIfx, subif);
    store_barrier();
    vxlan_ef_kfree(VXLAN_EF_MEM_SUBIF, subif);
}

vxlan_ef_subif_t *subif_of_ifx_node(rb_node *node) { return owner(node, kByIfx); }

vxlan_ef_subif_t *subif_first(vxlan_ef_vsd_t *vsd)
{
    rb_node *node = vsd->subif_by_ifx.leftmost;
    return node != nullptr ? subif_of_ifx_node(node) : nullptr;
}

vxlan_ef_subif_t *subif_next(vxlan_ef_subif_t *subif)
{
    rb_node *node = rb_next(&subif->ifx_node);
    return node != nullptr ? subif_of_ifx_node(node) : nullptr;
}

}  // namespace vxlan_ef

int vxlan_ef_subif_compare(const void *a, const void *b, uint32_t mode)
{
    const auto *x = static_cast<const vxlan_ef_subif_t *>(a);
    const auto *y = static_cast<const vxlan_ef_subif_t *>(b);
    if (mode == VXLAN_EF_SUBIF_BY_IFX)
        return wrapped_sign(x->ifx, y->ifx);
    if (int c = wrapped_sign(x->main_ifx, y->main_ifx))
        return c;
    if (int c = wrapped_sign(x->svid, y->svid))
        return c;
    return wrapped_sign(x->cvid, y->cvid);
}

uint32_t vxlan_ef_subif_init(uint32_t)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return 0xFFFFFFFFu;
    tree_init(vsd->subif_by_ifx);
    tree_init(vsd->subif_by_mifx);
    return 0;
}

vxlan_ef_subif_t *vxlan_ef_subif_lookup_by_subifx(vxlan_ef_vsd_t *vsd, uint32_t ifx)
{
    vxlan_ef_subif_t key{};
    key.ifx = ifx;
    return tree_find(vsd, kByIfx, key);
}

vxlan_ef_subif_t *vxlan_ef_subif_lookup_by_mainifx(vxlan_ef_vsd_t *vsd, uint32_t main_ifx,
                                                   uint16_t svid, uint16_t cvid)
{
    // Every access frame asks, and most segments have no sub-interface: an
    // empty tree is answered before the key record is built.
    if (vsd == nullptr || vsd->subif_by_mifx.root.rb_node == nullptr)
        return nullptr;
    vxlan_ef_subif_t key{};
    key.main_ifx = main_ifx;
    key.svid = svid;
    key.cvid = cvid;
    return tree_find(vsd, kByMifx, key);
}

int vxlan_ef_subif_update(vxlan_ef_vsd_t *vsd, const uint8_t *value)
{
    if (vsd == nullptr || value == nullptr)
        return -1;
    const SubifValue v = read_value(TlvValue<tlv::kSubInterface>(value));
    vxlan_ef_entry_t *entry = vxlan_ef_entry_get(vsd, v.vni);
    vxlan_ef_subif_t *subif = vxlan_ef_subif_lookup_by_subifx(vsd, v.ifx);
    bool relink = false;
    if (subif == nullptr) {
        subif = vxlan_ef_subif_alloc(v.ifx);
        if (subif == nullptr)
            return -1;
        subif->ifx = v.ifx;
        subif->vni = v.vni;
        subif->main_ifx = v.main_ifx;
        subif->svid = v.svid;
        subif->cvid = v.cvid;
        tree_insert(vsd, kByIfx, subif);
        relink = true;
    } else {
        subif->dirty = 0;
        const bool same_key =
            subif->main_ifx == v.main_ifx && subif->svid == v.svid && subif->cvid == v.cvid;
        if (same_key) {
            if (subif->vni != v.vni) {
                set_vni(subif, v.vni);
                link_to_entry(subif, entry);
            }
            return 0;
        }
        tree_erase(vsd, kByMifx, subif);
        subif->main_ifx = v.main_ifx;
        subif->svid = v.svid;
        subif->cvid = v.cvid;
        if (subif->vni != v.vni) {
            set_vni(subif, v.vni);
            relink = true;
        }
    }
    // The newer configuration of a (main ifx, svid, cvid) wins.
    vxlan_ef_subif_t *older = vxlan_ef_subif_lookup_by_mainifx(vsd, v.main_ifx, v.svid, v.cvid);
    if (older != nullptr && older->ifx != subif->ifx)
        subif_remove(vsd, older);
    tree_insert(vsd, kByMifx, subif);
    if (relink)
        link_to_entry(subif, entry);
    return 0;
}

int vxlan_ef_subif_delete(vxlan_ef_vsd_t *vsd, uint32_t ifx)
{
    vxlan_ef_subif_t *subif = vxlan_ef_subif_lookup_by_subifx(vsd, ifx);
    if (subif == nullptr)
        return -1;
    subif_remove(vsd, subif);
    return 0;
}

int vxlan_ef_subif_deal(uint32_t, const uint8_t *value)
{
    HandlerGuard<tlv::kSubInterface> guard(__func__, value, kArgsNullStop);
    if (!guard)
        return -1;
    vxlan_ef_vsd_t *vsd = guard.vsd();
    const SubifValue v = read_value(guard);
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] try to %s sub-intf: (ifx %u, vni %u, main-ifx %u, "
                   "svid %u, cvid %u)\n",
                   v.oper != 0 ? "add" : "delete", v.ifx, v.vni, v.main_ifx,
                   static_cast<unsigned>(v.svid), static_cast<unsigned>(v.cvid));
    guard.lock();
    if (v.oper != 0)
        vxlan_ef_subif_update(vsd, value);
    else
        vxlan_ef_subif_delete(vsd, v.ifx);
    store_barrier();
    return 0;
}

int vxlan_ef_subif_check(uint32_t ifx, uint32_t *main_ifx, uint16_t *svid, uint16_t *cvid,
                         uint32_t *vni)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return 0;
    {
        ReadLock lock(vsd);
        if (const vxlan_ef_subif_t *subif = vxlan_ef_subif_lookup_by_subifx(vsd, ifx)) {
            if (main_ifx != nullptr)
                *main_ifx = subif->main_ifx;
            if (svid != nullptr)
                *svid = subif->svid;
            if (cvid != nullptr)
                *cvid = subif->cvid;
            if (vni != nullptr)
                *vni = subif->vni;
            VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] Success to find subif(%u): mifx %u, "
                           "svid %u, cvid %u, vni: %u.\n",
                           ifx, subif->main_ifx, static_cast<unsigned>(subif->svid),
                           static_cast<unsigned>(subif->cvid), subif->vni);
            return 1;
        }
    }
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] Fail to find subif(%u).\n", ifx);
    return 0;
}

int vxlan_ef_subif_check_by_mifx_vid(uint32_t main_ifx, uint16_t svid, uint16_t cvid,
                                     uint32_t *ifx, uint32_t *vni)
{
    vxlan_ef_vsd_t *vsd = g_vxlan_vsd;
    if (vsd == nullptr)
        return 0;
    {
        ReadLock lock(vsd);
        if (const vxlan_ef_subif_t *subif =
                vxlan_ef_subif_lookup_by_mainifx(vsd, main_ifx, svid, cvid)) {
            if (ifx != nullptr)
                *ifx = subif->ifx;
            if (vni != nullptr)
                *vni = subif->vni;
            VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] Success to find subif(%u): mifx %u, "
                           "svid %u, cvid %u, vni: %u.\n",
                           subif->ifx, main_ifx, static_cast<unsigned>(svid),
                           static_cast<unsigned>(cvid), subif->vni);
            return 1;
        }
    }
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] Fail to find subif(mifx %u, svid %u, cvid %u).\n",
                   main_ifx, static_cast<unsigned>(svid), static_cast<unsigned>(cvid));
    return 0;
}
