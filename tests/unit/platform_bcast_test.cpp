// The reference platform's broadcast engine on its own: node allocation and
// release, the VLAN flood of a single buffer with and without source
// exclusion, refusals, and the per-node calls of the broadcast-packet
// callback published as module 56 service 6.
#include <arpa/inet.h>

#include "efrt_bcast.h"
#include "module_fixture.h"

namespace {

using vxtest::ModuleTest;

class PlatformBcastTest : public ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        for (uint32_t ifx : {11u, 12u, 13u}) {
            lsm_intfcb_t cb = efrt::make_intf(ifx, 2, LSM_IF_STACK_BRIDGE, "p" + std::to_string(ifx));
            efrt::lsm_add(cb);
            efrt::bridge_add_vlan(ifx, 10);
        }
        efrt::bridge_add_vlan(13, 20);
    }

    void TearDown() override
    {
        efmp_service_t serv{nullptr, EFMP_MODULE_VXLAN, EFMP_VXLAN_SERV_BCAST_PKT_ENCAP};
        efmp_dereg_service(&serv);
        ModuleTest::TearDown();
    }

    static efmp_buff_t *vlan_buff(uint32_t src, uint16_t vid)
    {
        efmp_buff_t *b = efmp_buff_alloc_sw_user(EFMP_REASON_SW_USER, 4);
        std::memcpy(b->head + b->data_off, "\x01\x02\x03\x04", 4);
        b->src_intf = lsm_get_intfcb(src);
        efmp_buff_set_tag_word(b, vid);
        return b;
    }

    static std::vector<uint32_t> sent_ports()
    {
        std::vector<uint32_t> out;
        for (const auto &s : efrt::port_take_sends())
            out.push_back(s.ifindex);
        return out;
    }

    static efmp_mcast_node_t *push_node(efmp_buff_t *b, uint32_t kind, uint32_t ifindex)
    {
        efmp_mcast_node_t *n = efmp_mcast_alloc_nodes(1);
        n->kind = kind;
        n->ifindex = ifindex;
        n->next = b->mcast_nodes;
        b->mcast_nodes = n;
        return n;
    }
};

TEST_F(PlatformBcastTest, NodesComeOneAtATimeZeroedAndCounted)
{
    EXPECT_EQ(efmp_mcast_alloc_nodes(2), nullptr);
    efmp_mcast_node_t *a = efmp_mcast_alloc_nodes(1);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->next, nullptr);
    EXPECT_EQ(a->kind, 0u);
    efmp_mcast_node_t *b = efmp_mcast_alloc_nodes(1);
    b->next = a;
    EXPECT_EQ(efrt::mcast_nodes_live(), 2);
    efrt::mcast_fail_alloc(1);
    EXPECT_EQ(efmp_mcast_alloc_nodes(1), nullptr);
    efmp_mcast_free_nodes(b);
    EXPECT_EQ(efrt::mcast_nodes_live(), 0);
}

TEST_F(PlatformBcastTest, SingleBufferFloodLeavesTheSourcePortOut)
{
    EXPECT_EQ(efmp_bcast_proc(vlan_buff(12, 10), 0), 0);
    EXPECT_EQ(sent_ports(), (std::vector<uint32_t>{11, 13}));
    EXPECT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), 0);
}

TEST_F(PlatformBcastTest, SingleBufferFloodWithNotExSrcIncludesTheSourcePort)
{
    efmp_buff_t *b = vlan_buff(12, 10);
    b->flags |= EFMP_F_NOT_EX_SRC;
    EXPECT_EQ(efmp_bcast_proc(b, 0), 0);
    const auto sends = efrt::port_take_sends();
    ASSERT_EQ(sends.size(), 3u);
    EXPECT_EQ(sends[1].ifindex, 12u);
    EXPECT_EQ(sends[1].vid, 10u);
    EXPECT_TRUE(sends[1].vlan_flood);
    EXPECT_EQ(sends[1].frame, vxtest::bytes({1, 2, 3, 4}));
    EXPECT_EQ(efmp_bcast_proc(vlan_buff(12, 20), 0), 0);
    EXPECT_EQ(sent_ports(), (std::vector<uint32_t>{13}));
}

TEST_F(PlatformBcastTest, RefusedCallTakesNothingButIsRecorded)
{
    efmp_buff_t *b = vlan_buff(11, 10);
    efrt::bcast_fail_proc(1);
    EXPECT_EQ(efmp_bcast_proc(b, 7), 1);
    EXPECT_TRUE(efrt::port_sends().empty());
    const auto requests = efrt::bcast_take_requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_TRUE(requests[0].refused);
    EXPECT_EQ(requests[0].flags_arg, 7u);
    EXPECT_EQ(requests[0].src_ifx, 11u);
    EXPECT_EQ(requests[0].vid, 10u);
    EXPECT_EQ(efmp_bcast_proc(b, 0), 0);
    EXPECT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), 0);
}

TEST_F(PlatformBcastTest, NodeListWithoutThePublishedCallbackIsRefused)
{
    efmp_buff_t *b = vlan_buff(11, 10);
    push_node(b, 3, 12);
    EXPECT_EQ(efmp_bcast_proc(b, 0), 1);
    EXPECT_EQ(efrt::mcast_nodes_live(), 1);
    efmp_mcast_free_nodes(b->mcast_nodes);
    efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
}

// A stand-in for the module's callback: points each copy at the node's
// interface, drops kind-1 copies and consumes kind-2 ones.
int fake_callback(void *slot_word, void *node_word)
{
    auto **slot = static_cast<efmp_buff_t **>(slot_word);
    auto *node = static_cast<efmp_mcast_node_t *>(node_word);
    if (node->kind == 1)
        return EF_Drop;
    if (node->kind == 2) {
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, *slot);
        *slot = nullptr;
        return EF_Lost;
    }
    (*slot)->dst_intf = lsm_get_intfcb(node->ifindex);
    return EF_Normal;
}

// An encapsulation hook that moves the copy to interface 13.
int fake_encap(efmp_buff_t *buff, lsm_intfcb_t *)
{
    buff->dst_intf = lsm_get_intfcb(13);
    return 0;
}

TEST_F(PlatformBcastTest, EachNodeGetsItsOwnCopyThroughTheCallbackAndNormalCopiesGoOut)
{
    efmp_service_t serv{reinterpret_cast<void *>(&fake_callback), EFMP_MODULE_VXLAN,
                        EFMP_VXLAN_SERV_BCAST_PKT_ENCAP};
    ASSERT_EQ(efmp_reg_service(&serv), 0);
    efmp_encap_t hook{fake_encap, lsm_get_intfcb(12), 1};
    ASSERT_EQ(efmp_reg_encap(&hook), 0);
    efmp_buff_t *b = vlan_buff(11, 10);
    push_node(b, 1, 0);
    push_node(b, 2, 0);
    push_node(b, 3, 12);
    push_node(b, 3, 11);
    EXPECT_EQ(efmp_bcast_proc(b, 0), 0);
    const auto results = efrt::bcast_node_results();
    ASSERT_EQ(results.size(), 4u);
    EXPECT_EQ(results[0].ifindex, 11u);
    EXPECT_EQ(results[0].result, EF_Normal);
    EXPECT_EQ(results[2].kind, 2u);
    EXPECT_EQ(results[2].result, EF_Lost);
    EXPECT_EQ(results[3].result, EF_Drop);
    const auto sends = efrt::port_take_sends();
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[0].ifindex, 11u);  // no hook on 11
    EXPECT_EQ(sends[1].ifindex, 13u);  // 12's hook moved it
    EXPECT_FALSE(sends[1].vlan_flood);
    EXPECT_EQ(sends[1].frame, vxtest::bytes({1, 2, 3, 4}));
    EXPECT_EQ(efrt::mcast_nodes_live(), 0);
    EXPECT_EQ(efrt::buff_live(EFMP_REASON_SW_USER), 0);
    efmp_dereg_encap(&hook);
}

}  // namespace
