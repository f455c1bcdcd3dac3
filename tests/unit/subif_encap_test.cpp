// Frames sent to a layer-2 sub-interface: they leave through the main
// interface with the sub-interface's tags (or untagged on the PVID), and the
// encapsulation hooks follow the interfaces that take them.
#include <arpa/inet.h>

#include "encap_fixture.h"
#include "vxlan_ef_encap.h"
#include "vxlan_ef_frame.h"

namespace vxtest {
namespace {

constexpr uint32_t kMainIfx = 10;
constexpr uint32_t kSubIfx = 1010;
constexpr const char *kBase = "g_feature_spec/dcn/CAP_VXLAN_BASE";

class SubifEncapTest : public EncapTest {
protected:
    void start_subif(uint16_t svid, uint16_t cvid, bool with_pvid = true)
    {
        start_tables(VXLAN_EF_DBG_ENCAP);
        g_vxlan_vsd->trace_budget = 100;
        efrt::lsm_add(efrt::make_intf(kMainIfx, 6, LSM_IF_STACK_BRIDGE, "eth10"));
        efrt::lsm_add(subif_intf(kSubIfx));
        deliver_tlvs({set_entry(kVni), subif(kSubIfx, kMainIfx, kVni, svid, cvid)});
        if (with_pvid) {
            efrt::bridge_set_pvid(kMainIfx, 100);
            vxlan_ef_bridge_intf_pvid_get = efrt::bridge_handler(22);
        }
        take_logs();
    }

    static lsm_intfcb_t subif_intf(uint32_t ifx, uint32_t type = 6, uint8_t mode = 5,
                                   uint32_t parent = kMainIfx)
    {
        lsm_intfcb_t cb = efrt::make_intf(ifx, type, LSM_IF_STACK_BRIDGE, "eth10.1");
        cb.subif_mode = mode;
        cb.parent_ifx = parent;
        return cb;
    }

    static efmp_buff_t *frame_to(uint32_t ifx, std::vector<uint8_t> *frame_out = nullptr)
    {
        const FrameSpec s{64};
        const std::vector<uint8_t> frame = make_frame(s);
        if (frame_out != nullptr)
            *frame_out = frame;
        return make_buff(frame, s, lsm_get_intfcb(ifx));
    }

    static std::vector<uint8_t> tagged(const std::vector<uint8_t> &frame,
                                       std::initializer_list<uint16_t> vids)
    {
        std::vector<uint8_t> out(frame.begin(), frame.begin() + 12);
        for (uint16_t vid : vids) {
            out.push_back(0x81);
            out.push_back(0x00);
            out.push_back(static_cast<uint8_t>(vid >> 8));
            out.push_back(static_cast<uint8_t>(vid));
        }
        out.insert(out.end(), frame.begin() + 12, frame.end());
        return out;
    }

    static std::vector<efmp_encap_t> encaps_of(uint32_t ifx)
    {
        std::vector<efmp_encap_t> out;
        for (const efmp_encap_t &e : efrt::efmp_encaps())
            if (e.intf != nullptr && e.intf->ifindex == ifx)
                out.push_back(e);
        return out;
    }
};

TEST_F(SubifEncapTest, SvidEqualToPvidWithoutCvidLeavesUntagged)
{
    start_subif(100, 0);
    std::vector<uint8_t> frame;
    efmp_buff_t *b = frame_to(kSubIfx, &frame);
    b->vlan_tag = 0xFFFFFFFFu;
    EXPECT_EQ(vxlan_ef_subif_encap_frame(b), 0u);
    EXPECT_EQ(buff_bytes(b), frame);
    EXPECT_EQ(b->dst_intf, lsm_get_intfcb(kMainIfx));
    EXPECT_EQ(efmp_buff_tag_word(b), (0xFFFFFFFFu & ~EFMP_TAG_VID_MASK) | 100);
    EXPECT_EQ(efmp_buff_tag_vid(b), 100u);
    EXPECT_NE(b->flags & EFMP_F_SUBIF_TAGGED, 0u);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(SubifEncapTest, SvidEqualToPvidWithCvidSendsTwo8100Tags)
{
    start_subif(100, 200);
    std::vector<uint8_t> frame;
    efmp_buff_t *b = frame_to(kSubIfx, &frame);
    EXPECT_EQ(vxlan_ef_subif_encap_frame(b), 0u);
    EXPECT_EQ(buff_bytes(b), tagged(frame, {100, 200}));
    EXPECT_EQ(b->data_off, EFMP_BUFF_START - 8);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(SubifEncapTest, SvidOtherThanThePvidSendsOneTag)
{
    start_subif(300, 0);
    std::vector<uint8_t> frame;
    efmp_buff_t *b = frame_to(kSubIfx, &frame);
    EXPECT_EQ(vxlan_ef_subif_encap_frame(b), 0u);
    EXPECT_EQ(buff_bytes(b), tagged(frame, {300}));
    EXPECT_EQ(b->len, frame.size() + 4);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(SubifEncapTest, WithoutTheBridgePvidServiceTheFrameIsTagged)
{
    start_subif(100, 0, false);
    std::vector<uint8_t> frame;
    efmp_buff_t *b = frame_to(kSubIfx, &frame);
    EXPECT_EQ(vxlan_ef_subif_encap_frame(b), 0u);
    EXPECT_EQ(buff_bytes(b), tagged(frame, {100}));
    efmp_buff_free_sw_user(0, b);
}

TEST_F(SubifEncapTest, SuccessIsTracedAndDumpedAsSubifEncap)
{
    start_subif(300, 7);
    efmp_buff_t *b = frame_to(kSubIfx);
    EXPECT_EQ(vxlan_ef_subif_encap_frame(b), 0u);
    const Lines lines = take_logs();
    char line[256];
    std::snprintf(line, sizeof line,
                  "VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_subif_encap_frame] pkt %p : Success to encap "
                  "SUB-INTF(1010) to MAIN-INTF(10) with svid 300, cvid 7.\n",
                  static_cast<void *>(b));
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], line);
    EXPECT_EQ(lines[2], "Packet position: subif-encap\n");
    efmp_buff_free_sw_user(0, b);
}

TEST_F(SubifEncapTest, NoBufferFailsNoDestinationIsNothingToDo)
{
    start_subif(300, 0);
    EXPECT_EQ(vxlan_ef_subif_encap_frame(nullptr), 1u);
    efmp_buff_t *b = frame_to(kSubIfx);
    b->dst_intf = nullptr;
    EXPECT_EQ(vxlan_ef_subif_encap_frame(b), 0u);
    EXPECT_EQ(b->data_off, EFMP_BUFF_START);
    EXPECT_EQ(take_logs(), Lines{});
    efmp_buff_free_sw_user(0, b);
}

TEST_F(SubifEncapTest, WithoutInstanceTheFrameFails)
{
    efrt::lsm_add(subif_intf(kSubIfx));
    efmp_buff_t *b = frame_to(kSubIfx);
    EXPECT_EQ(vxlan_ef_subif_encap_frame(b), 1u);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(SubifEncapTest, DestinationThatIsNotALayer2SubinterfaceFails)
{
    start_subif(300, 0);
    const lsm_intfcb_t others[] = {
        subif_intf(2001, 6, 0),                           // not in sub-interface mode
        subif_intf(2002, 6, 5, 0),                        // no parent
        subif_intf(2003, 11),                             // not Ethernet-class
        subif_intf(2004, LSM_IF_TYPE_OVERLAY_TUNNEL),     // a tunnel
    };
    for (const lsm_intfcb_t &cb : others) {
        efrt::lsm_add(cb);
        efmp_buff_t *b = frame_to(cb.ifindex);
        EXPECT_EQ(vxlan_ef_subif_encap_frame(b), 1u) << cb.ifindex;
        EXPECT_EQ(take_logs(), Lines{"VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_subif_encap_frame] "
                                     "NON-SUBIF-INTF used subif-encap service.\n"});
        efmp_buff_free_sw_user(0, b);
    }
    for (uint32_t type : {2u, 10u, 21u}) {
        efrt::lsm_add(subif_intf(3000 + type, type));
        efmp_buff_t *b = frame_to(3000 + type);
        EXPECT_EQ(vxlan_ef_subif_encap_frame(b), 1u);
        EXPECT_EQ(take_logs(), Lines{"VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_subif_encap_frame] SUB-INTF(" +
                                     std::to_string(3000 + type) + ") is not up.\n"})
            << "type " << type << " is Ethernet-class";
        efmp_buff_free_sw_user(0, b);
    }
}

TEST_F(SubifEncapTest, SubinterfaceMissingFromTheTableIsNotUp)
{
    start_subif(300, 0);
    efrt::lsm_add(subif_intf(1011));
    efmp_buff_t *b = frame_to(1011);
    EXPECT_EQ(vxlan_ef_subif_encap_frame(b), 1u);
    EXPECT_EQ(take_logs(), Lines{"VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_subif_encap_frame] "
                                 "SUB-INTF(1011) is not up.\n"});
    EXPECT_EQ(b->dst_intf, lsm_get_intfcb(1011));
    efmp_buff_free_sw_user(0, b);
}

TEST_F(SubifEncapTest, MissingMainInterfaceFails)
{
    start_subif(300, 0);
    efrt::lsm_remove(kMainIfx);
    efmp_buff_t *b = frame_to(kSubIfx);
    EXPECT_EQ(vxlan_ef_subif_encap_frame(b), 1u);
    EXPECT_EQ(take_logs(), Lines{"VXLAN-EF-ENCAP: [vsd 3 vxlan_ef_subif_encap_frame] "
                                 "MAIN-INTF(10) of SUB-INTF(1010) is not exist.\n"});
    efmp_buff_free_sw_user(0, b);
}

TEST_F(SubifEncapTest, NoHeadroomForTheTagsFails)
{
    start_subif(300, 0);
    std::vector<uint8_t> frame;
    efmp_buff_t *b = frame_to(kSubIfx, &frame);
    std::memmove(b->head + 515, b->head + b->data_off, frame.size());
    b->data_off = 515;
    EXPECT_EQ(vxlan_ef_subif_encap_frame(b), 1u);
    char line[160];
    std::snprintf(line, sizeof line,
                  "VXLAN-EF-ENCAP: [vsd 0 vxlan_ef_pkt_add_vlan_tag] pkt %p : efmp_buff_push for "
                  "vlan tag failed\n",
                  static_cast<void *>(b));
    EXPECT_EQ(take_logs(), Lines{line});
    EXPECT_EQ(buff_bytes(b), frame);
    EXPECT_EQ(b->flags & EFMP_F_SUBIF_TAGGED, 0u);
    efmp_buff_free_sw_user(0, b);
}

TEST_F(SubifEncapTest, TagPushNeedsFourOrEightBytesAboveThe512Floor)
{
    start_subif(300, 0);
    struct Case {
        uint16_t data_off;
        uint16_t cvid;
        bool ok;
    };
    for (const Case c : {Case{516, 0, true}, Case{515, 0, false}, Case{520, 9, true},
                         Case{519, 9, false}}) {
        std::vector<uint8_t> frame;
        efmp_buff_t *b = frame_to(kSubIfx, &frame);
        std::memmove(b->head + c.data_off, b->head + b->data_off, frame.size());
        b->data_off = c.data_off;
        EXPECT_EQ(vxlan_ef_pkt_add_vlan_tag(3, b, 300, c.cvid), c.ok) << c.data_off;
        if (c.ok) {
            EXPECT_EQ(b->data_off, 512);
            EXPECT_EQ(buff_bytes(b), c.cvid != 0 ? tagged(frame, {300, 9}) : tagged(frame, {300}));
        }
        efmp_buff_free_sw_user(0, b);
    }
}

TEST_F(SubifEncapTest, SubinterfaceDriverTagsTheFrame)
{
    start_subif(300, 0);
    std::vector<uint8_t> frame;
    efmp_buff_t *b = frame_to(kSubIfx, &frame);
    EXPECT_EQ(vxlan_ef_subif_encap_driver(b, lsm_get_intfcb(kSubIfx)), 0);
    EXPECT_EQ(buff_bytes(b), tagged(frame, {300}));
    efmp_buff_free_sw_user(0, b);
}

// ---- per-interface hooks ----

TEST_F(SubifEncapTest, TunnelAndSubinterfaceTakeTheirHooksOtherInterfacesNone)
{
    start_tables(VXLAN_EF_DBG_ERR | VXLAN_EF_DBG_EVENT);
    efrt::lsm_add(efrt::make_intf(kTunnelIfx, LSM_IF_TYPE_OVERLAY_TUNNEL, 0, "Tunnel300"));
    efrt::lsm_add(subif_intf(kSubIfx));
    efrt::lsm_add(efrt::make_intf(kMainIfx, 6, LSM_IF_STACK_BRIDGE, "eth10"));
    EXPECT_EQ(vxlan_ef_reg_intf_encap(lsm_get_intfcb(kTunnelIfx)), 0);
    EXPECT_EQ(vxlan_ef_reg_intf_encap(lsm_get_intfcb(kSubIfx)), 0);
    EXPECT_EQ(vxlan_ef_reg_intf_encap(lsm_get_intfcb(kMainIfx)), 0);
    EXPECT_EQ(vxlan_ef_reg_intf_encap(nullptr), -1);
    auto t = encaps_of(kTunnelIfx);
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0].handler, vxlan_ef_encap_driver);
    EXPECT_EQ(t[0].value, 1u);
    auto s = encaps_of(kSubIfx);
    ASSERT_EQ(s.size(), 1u);
    EXPECT_EQ(s[0].handler, vxlan_ef_subif_encap_driver);
    EXPECT_EQ(s[0].value, 1u);
    EXPECT_TRUE(encaps_of(kMainIfx).empty());
    EXPECT_EQ(take_logs(), Lines{});

    EXPECT_EQ(vxlan_ef_dereg_intf_encap(lsm_get_intfcb(kTunnelIfx)), 0);
    EXPECT_EQ(vxlan_ef_dereg_intf_encap(lsm_get_intfcb(kSubIfx)), 0);
    EXPECT_EQ(vxlan_ef_dereg_intf_encap(lsm_get_intfcb(kMainIfx)), 0);
    EXPECT_EQ(vxlan_ef_dereg_intf_encap(nullptr), -1);
    EXPECT_TRUE(efrt::efmp_encaps().empty());
    EXPECT_EQ(take_logs(), Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_dereg_intf_encap] efmp dereg "
                                 "encap for Tunnel300\n"});
}

TEST_F(SubifEncapTest, RefusedRegistrationsAreLoggedWithVsdZero)
{
    start_tables(VXLAN_EF_DBG_ERR);
    efrt::lsm_add(efrt::make_intf(kTunnelIfx, LSM_IF_TYPE_OVERLAY_TUNNEL, 0, "Tunnel300"));
    efrt::lsm_add(subif_intf(kSubIfx));
    efrt::efmp_encap_fail_register(-1);
    EXPECT_EQ(vxlan_ef_reg_intf_encap(lsm_get_intfcb(kTunnelIfx)), -1);
    efrt::efmp_encap_fail_register(-1);
    EXPECT_EQ(vxlan_ef_reg_intf_encap(lsm_get_intfcb(kSubIfx)), -1);
    EXPECT_EQ(take_logs(),
              (Lines{"VXLAN-EF-ERR: [vsd 0 vxlan_ef_reg_intf_encap] efmp reg ot-encap error!\n",
                     "VXLAN-EF-ERR: [vsd 0 vxlan_ef_reg_intf_encap] efmp reg l2-subif-encap "
                     "error!\n"}));
    EXPECT_TRUE(efrt::efmp_encaps().empty());
}

TEST_F(SubifEncapTest, RefusedWithdrawalsAreLogged)
{
    start_tables(VXLAN_EF_DBG_ERR | VXLAN_EF_DBG_EVENT);
    efrt::lsm_add(efrt::make_intf(kTunnelIfx, LSM_IF_TYPE_OVERLAY_TUNNEL, 0, "Tunnel300"));
    efrt::lsm_add(subif_intf(kSubIfx));
    // Nothing was registered: the platform refuses both withdrawals.
    EXPECT_EQ(vxlan_ef_dereg_intf_encap(lsm_get_intfcb(kTunnelIfx)), -1);
    EXPECT_EQ(vxlan_ef_dereg_intf_encap(lsm_get_intfcb(kSubIfx)), -1);
    EXPECT_EQ(take_logs(),
              (Lines{"VXLAN-EF-EVENT: [vsd 3 vxlan_ef_dereg_intf_encap] efmp dereg encap for "
                     "Tunnel300\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_dereg_intf_encap] efmp dereg encap error!\n",
                     "VXLAN-EF-ERR: [vsd 3 vxlan_ef_dereg_intf_encap] efmp dereg l2-subif-encap "
                     "error!\n"}));
}

TEST_F(SubifEncapTest, StartHooksExistingInterfacesAndStopWithdrawsThem)
{
    set_cap(kBase);
    efrt::lsm_add(efrt::make_intf(kTunnelIfx, LSM_IF_TYPE_OVERLAY_TUNNEL, 0, "Tunnel300"));
    efrt::lsm_add(subif_intf(kSubIfx));
    efrt::lsm_add(efrt::make_intf(kMainIfx, 6, LSM_IF_STACK_BRIDGE, "eth10"));
    start("3");
    EXPECT_EQ(encaps_of(kTunnelIfx).size(), 1u);
    EXPECT_EQ(encaps_of(kSubIfx).size(), 1u);
    EXPECT_EQ(efrt::efmp_encaps().size(), 2u);
    vxlan_ef_frame_exit();
    EXPECT_TRUE(efrt::efmp_encaps().empty());
}

TEST_F(SubifEncapTest, InterfaceEventsAttachAndWithdrawTheHooks)
{
    set_cap(kBase);
    start("3");
    efrt::lsm_create(efrt::make_intf(kTunnelIfx, LSM_IF_TYPE_OVERLAY_TUNNEL, 0, "Tunnel300"));
    efrt::lsm_create(subif_intf(kSubIfx));
    ASSERT_EQ(encaps_of(kTunnelIfx).size(), 1u);
    EXPECT_EQ(encaps_of(kTunnelIfx)[0].handler, vxlan_ef_encap_driver);
    ASSERT_EQ(encaps_of(kSubIfx).size(), 1u);
    EXPECT_EQ(encaps_of(kSubIfx)[0].handler, vxlan_ef_subif_encap_driver);
    efrt::lsm_destroy(kTunnelIfx);
    efrt::lsm_destroy(kSubIfx);
    EXPECT_TRUE(efrt::efmp_encaps().empty());
}

}  // namespace
}  // namespace vxtest
