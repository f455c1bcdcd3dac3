// The status show of an instance configured through real channel messages,
// the app-db and the capability service: every line of the block and of the
// capability show that ends it.
#include <cstdio>

#include "efrt_services.h"
#include "table_fixture.h"

using namespace vxtest;

namespace {

std::string pointer_text(const void *p)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", p);
    return text;
}

class StatusConfiguredTest : public TableTest {
protected:
    std::vector<std::string> show_status()
    {
        take_logs();
        deliver_tlvs({show(3)});
        std::vector<std::string> shows;
        for (const auto &l : take_logs())
            if (l.rfind("VXLAN-EF-SHOW:", 0) == 0)
                shows.push_back(l);
        return shows;
    }
};

}  // namespace

TEST_F(StatusConfiguredTest, ShowsEntriesAdjacenciesPortSlotsBuffersPeerlinkAndCapabilities)
{
    ScratchTmpdir tmp;
    add_intf(4094, 32, "VLAN4094");
    add_intf(4095, 32, "Loopback4095");
    add_intf(200, 45, "OverlayTunnel200");
    set_cap("g_feature_spec/dcn/CAP_VXLAN_OUTSIDECENTER");
    set_cap("g_feature_spec/dcn/CAP_VXLAN_L2VNIMAPPING");
    start_tables();
    ASSERT_EQ(efrt::msg_connect(EF_MSG_MODULE_VXLAN, true), 0);
    ASSERT_EQ(efrt::mom_connect(), 1);
    efrt::mom_set_mlag_peerlink(9);
    efrt::mom_run();
    deliver_tlvs({sync_begin(), set_entry(1000), set_entry(2000),
                  set_vtep(200, ip4("192.0.2.1"), ip4("192.0.2.2")), asso_vtep(1000, 200),
                  asso_vtep(2000, 200), set_udp_port(8472), sync_over()});
    set_mask(VXLAN_EF_DBG_ERR);

    const std::string p = "VXLAN-EF-SHOW: [vsd 3] ";
    const std::vector<std::string> expected{
        p + "Debug Status         : error \n",
        p + "ANYCAST-MAC-SET      : FALSE\n",
        p + "ANYCAST-MAC          : 0000.0000.0000.\n",
        p + "ARP-SUPPRESS         : disable\n",
        p + "REMOTE-ARP-LEARN     : disable\n",
        p + "ND-SUPPRESS          : disable\n",
        p + "REMOTE-ND-LEARN      : disable\n",
        p + "COPY-DSCP            : disable\n",
        p + "Global Status        : nl-conn sync-end \n",
        p + "User Pid             : 0\n",
        p + "Entry Count          : 2\n",
        p + "VTEP Adjacency Count : 2\n",
        p + "UDP Port Number      : 8472, dirty False\n",
        p + "L2 Local Intf        : VLAN4094\n",
        p + "L3 Local Intf        : Loopback4095\n",
        p + "RTime Send Buffer    : ver 1, len 4, tlv_num 0\n",
        p + "Batch Send Buffer    : ver 1, len 4, tlv_num 0\n",
        p + "Peer-link            : ifx 9\n",
        p + "\n------------- DUMP CAP -------------\n",
        p + "global_mom:              " + pointer_text(efrt::mom_client()) + "\n",
        p + "vxlan_ef_add_mac_entry:  " + pointer_text(vxlan_ef_add_mac_entry) + "\n",
        p + "vxlan_ef_intf_vlan_check:  " + pointer_text(vxlan_ef_intf_vlan_check) + "\n",
        p + "CAP_VXLAN_BASE: OFF\n",
        p + "CAP_FWDMODE_SOFT: OFF\n",
        p + "CAP_OUTSIDECENTER: ON\n",
        p + "CAP_L2VNIMAPPING: ON\n",
        p + "CAP_OR_NO_ICMP: OFF\n",
    };
    EXPECT_EQ(show_status(), expected);
}
