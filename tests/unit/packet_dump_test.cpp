// The dump of a traced packet and the hand-off of chains to the L3 engine.
#include <arpa/inet.h>
#include <cstring>

#include "efrt_l3.h"
#include "efrt_services.h"
#include "frame/trace/packet_dump.h"
#include "frame/transmit/l3_handoff.h"
#include "module_fixture.h"

using vxtest::ModuleTest;

namespace {

// An Ethernet + IPv4 + UDP frame of 70 bytes from 10.0.0.1 to 10.0.0.2.
efmp_buff_t *ipv4_frame()
{
    efmp_buff_t *b = efmp_buff_alloc_sw_user(EFMP_REASON_SW_USER, 70);
    uint8_t *f = b->head + b->data_off;
    const uint8_t eth[14] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x00, 0xaa,
                             0xbb, 0xcc, 0xdd, 0xee, 0x08, 0x00};
    std::memcpy(f, eth, sizeof eth);
    for (int i = 14; i < 70; ++i)
        f[i] = static_cast<uint8_t>(i);
    const uint8_t ip[20] = {0x45, 0, 0, 56, 0, 0, 0, 0, 64, 17, 0, 0, 10, 0, 0, 1, 10, 0, 0, 2};
    std::memcpy(f + 14, ip, sizeof ip);
    b->l2_len = 14;
    b->l3_off = static_cast<uint16_t>(b->data_off + 14);
    efmp_buff_set_tag_word(b, 0x30000000u | 10);
    b->vni_tag[0] = 0x08;
    efmp_buff_set_vni(b, 1000);
    b->pid = 77;
    b->flags = 0x1000;
    b->pkt_type = 1;
    return b;
}

}  // namespace

TEST_F(ModuleTest, PacketDumpPrintsMetadataSixtyFourBytesAndAddresses)
{
    start();
    efmp_buff_t *b = ipv4_frame();
    take_logs();
    vxlan_ef_pkt_dump(b, "patch-enc(vxlan)");
    char head[64];
    std::snprintf(head, sizeof head, "\n******** VXLAN EF Packet %p Dump ********\n",
                  static_cast<void *>(b));
    char off[80];
    std::snprintf(off, sizeof off, "Packet offset  : l2_offset: %d, ip_offset: %d\n",
                  b->data_off, b->data_off + 14);
    char nul[80];
    std::snprintf(nul, sizeof nul, "Src_intf       : NULL (sifx: 0, %p, vrf: 0)\n",
                  static_cast<void *>(nullptr));
    char nul_dst[80];
    std::snprintf(nul_dst, sizeof nul_dst, "Dst_intf       : NULL (difx: 0, %p, vrf: 0)\n",
                  static_cast<void *>(nullptr));
    const std::vector<std::string> expected{
        head,
        "Packet position: patch-enc(vxlan)\n",
        "Packet len     : 70, l2_len: 14\n",
        off,
        "Packet VSD     : 3\n",
        "Packet vrf     : 0\n",
        "Packet VID     : 10\n",
        "Packet vni     : 1000 (flags 0x8)\n",
        "Packet pid     : 77 \n",
        "Packet flags   : 0x1000, priv_flags: 0x0\n",
        nul,
        nul_dst,
        "Engine         : 0, module: 0, pktType: 1\n",
        "01 02 03 04 05 06 07 08 09 10 11 12 13 14 15 16\n",
        "-----------------------------------------------\n",
        "00 11 22 33 44 55 00 AA BB CC DD EE 08 00 45 00 \n",
        "00 38 00 00 00 00 40 11 00 00 0A 00 00 01 0A 00 \n",
        "00 02 22 23 24 25 26 27 28 29 2A 2B 2C 2D 2E 2F \n",
        "30 31 32 33 34 35 36 37 38 39 3A 3B 3C 3D 3E 3F \n",
        "src_mac: 00aa.bbcc.ddee, dst_mac: 0011.2233.4455, eth_type: 0800\n",
        "src_ip: 10.0.0.1, dst_ip: 10.0.0.2, ip protocol: 11\n",
    };
    EXPECT_EQ(take_logs(), expected);
    efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
}

TEST_F(ModuleTest, PacketDumpEndsAPartialHexLineWithABlankLine)
{
    start();
    efmp_buff_t *b = ipv4_frame();
    b->len = 20;
    take_logs();
    vxlan_ef_pkt_dump(b, "subif-encap");
    const auto lines = take_logs();
    ASSERT_GE(lines.size(), 17u);
    EXPECT_EQ(lines[15], "00 11 22 33 44 55 00 AA BB CC DD EE 08 00 45 00 \n");
    EXPECT_EQ(lines[16], "00 38 00 00 \n\n");
    EXPECT_EQ(lines.size(), 17u);  // too short for the address lines
    efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
}

TEST_F(ModuleTest, HandoffQueuesTheChainOnThisCpuAndWakesTheWorker)
{
    start();
    set_mask(VXLAN_EF_DBG_ENCAP);
    g_vxlan_vsd->trace_budget = 5;
    efmp_buff_t *a = ipv4_frame();
    efmp_buff_t *b = ipv4_frame();
    a->flags = 0;
    a->next = b;
    take_logs();
    EXPECT_EQ(vxlan_ef_skip_fw(a, b, 2, "vxlan_ef_encap_frame"), EF_Lost);
    EXPECT_EQ(efrt::l3_queued(0), 2u);
    EXPECT_EQ(efrt::l3_wakes(0), 1u);
    EXPECT_EQ(take_logs(), std::vector<std::string>{
                               "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_frame] efmp_vxlan_skip_fw "
                               "success: skip to l3-engin.\n"});
    EXPECT_EQ(g_vxlan_vsd->trace_budget, 4u);
    auto queued = efrt::l3_take(0);
    ASSERT_EQ(queued.size(), 2u);
    EXPECT_EQ(queued[0], a);
    EXPECT_EQ(queued[1], b);
    for (auto *q : queued)
        efmp_buff_free_sw_user(EFMP_REASON_SW_USER, q);
}

TEST_F(ModuleTest, HandoffToAFullSlotWakesTheWorkerAndFreesTheChain)
{
    start();
    efrt::l3_set_capacity(1);
    efmp_buff_t *a = ipv4_frame();
    efmp_buff_t *b = ipv4_frame();
    a->next = b;
    const long live = efrt::buff_live_total();
    take_logs();
    EXPECT_EQ(vxlan_ef_skip_fw(a, b, 2, "vxlan_ef_encap_frame"), EF_Lost);
    EXPECT_EQ(efrt::l3_queued(0), 0u);
    EXPECT_EQ(efrt::l3_wakes(0), 1u);
    EXPECT_EQ(efrt::buff_live_total(), live - 2);
    EXPECT_EQ(take_logs(), std::vector<std::string>{
                               "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_encap_frame] efmp_vxlan_skip_fw "
                               "failed.(Drop it!)\n"});
}
