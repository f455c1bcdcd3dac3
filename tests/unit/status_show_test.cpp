// The status show: its exact lines for a fresh and a configured instance, the
// debug names, the local interface names and the dump-file form.
#include <fcntl.h>
#include <unistd.h>

#include "module_fixture.h"

namespace {

class StatusShowTest : public vxtest::ModuleTest {
protected:
    // Asks for the status show over the channel; returns the show lines.
    std::vector<std::string> request_status()
    {
        take_logs();
        std::vector<uint8_t> value(8);
        vxtest::put<uint16_t>(value, 0, 3);
        deliver_tlvs({{65, value}});
        return vxtest::lines_starting(logs(), "VXLAN-EF-SHOW:");
    }

    static lsm_intfcb_t intf(uint32_t ifindex, const char *name)
    {
        lsm_intfcb_t cb{};
        cb.ifindex = ifindex;
        cb.type = 32;
        std::snprintf(cb.name, sizeof cb.name, "%s", name);
        std::snprintf(cb.sname, sizeof cb.sname, "%s", name);
        return cb;
    }
};

using Lines = std::vector<std::string>;

constexpr size_t kStatusLines = 18;
const char *const kCapShowFirstLine = "VXLAN-EF-SHOW: [vsd 3] \n------------- DUMP CAP -------------\n";
constexpr size_t kCapShowLines = 9;

Lines status_part(const Lines &shows)
{
    return Lines(shows.begin(), shows.begin() + static_cast<long>(std::min(shows.size(), kStatusLines)));
}

TEST_F(StatusShowTest, FreshInstancePrintsDefaultsAndNullForBothLocalInterfaces)
{
    start();
    const Lines shows = request_status();
    ASSERT_EQ(shows.size(), kStatusLines + kCapShowLines);
    EXPECT_EQ(status_part(shows), (Lines{
                                      "VXLAN-EF-SHOW: [vsd 3] Debug Status         : \n",
                                      "VXLAN-EF-SHOW: [vsd 3] ANYCAST-MAC-SET      : FALSE\n",
                                      "VXLAN-EF-SHOW: [vsd 3] ANYCAST-MAC          : 0000.0000.0000.\n",
                                      "VXLAN-EF-SHOW: [vsd 3] ARP-SUPPRESS         : disable\n",
                                      "VXLAN-EF-SHOW: [vsd 3] REMOTE-ARP-LEARN     : disable\n",
                                      "VXLAN-EF-SHOW: [vsd 3] ND-SUPPRESS          : disable\n",
                                      "VXLAN-EF-SHOW: [vsd 3] REMOTE-ND-LEARN      : disable\n",
                                      "VXLAN-EF-SHOW: [vsd 3] COPY-DSCP            : disable\n",
                                      "VXLAN-EF-SHOW: [vsd 3] Global Status        : \n",
                                      "VXLAN-EF-SHOW: [vsd 3] User Pid             : 0\n",
                                      "VXLAN-EF-SHOW: [vsd 3] Entry Count          : 0\n",
                                      "VXLAN-EF-SHOW: [vsd 3] VTEP Adjacency Count : 0\n",
                                      "VXLAN-EF-SHOW: [vsd 3] UDP Port Number      : 4789, dirty False\n",
                                      "VXLAN-EF-SHOW: [vsd 3] L2 Local Intf        : NULL\n",
                                      "VXLAN-EF-SHOW: [vsd 3] L3 Local Intf        : NULL\n",
                                      "VXLAN-EF-SHOW: [vsd 3] RTime Send Buffer    : ver 1, len 4, tlv_num 0\n",
                                      "VXLAN-EF-SHOW: [vsd 3] Batch Send Buffer    : ver 1, len 4, tlv_num 0\n",
                                      "VXLAN-EF-SHOW: [vsd 3] Peer-link            : ifx 0\n",
                                  }));
    EXPECT_EQ(shows[kStatusLines], kCapShowFirstLine);
}

TEST_F(StatusShowTest, ConfiguredInstancePrintsItsSettings)
{
    efrt::lsm_add(intf(4094, "Vlan-if4094"));
    efrt::lsm_add(intf(4095, "Loopback-l3"));
    start();
    ASSERT_EQ(efrt::msg_connect(EF_MSG_MODULE_VXLAN, true), 0);
    deliver_tlvs({
        vxtest::ef_dbg(0x3B),
        {18, {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E, 1}},
        {28, {1}},
        {67, {2}},
        {87, {0}},
        {86, {1}},
        {29, {1}},
        {1, {}},
        {2, {}},
    });
    const uint8_t one = 1;
    ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 28, 1, &one, 1), 0);
    ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 29, 1, &one, 1), 0);
    g_vxlan_vsd->user_pid = 2718;
    g_vxlan_vsd->entry_count = 12;
    g_vxlan_vsd->adj_count = 7;
    g_vxlan_vsd->udp_port = 8472;
    g_vxlan_vsd->udp_port_dirty = 1;
    g_vxlan_vsd->peerlink_ifx = 0x2001;

    const Lines shows = request_status();
    ASSERT_EQ(shows.size(), kStatusLines + kCapShowLines);
    EXPECT_EQ(status_part(shows), (Lines{
                                      "VXLAN-EF-SHOW: [vsd 3] Debug Status         : event error forward encap parser \n",
                                      "VXLAN-EF-SHOW: [vsd 3] ANYCAST-MAC-SET      : TRUE\n",
                                      "VXLAN-EF-SHOW: [vsd 3] ANYCAST-MAC          : 001a.2b3c.4d5e.\n",
                                      "VXLAN-EF-SHOW: [vsd 3] ARP-SUPPRESS         : enable\n",
                                      "VXLAN-EF-SHOW: [vsd 3] REMOTE-ARP-LEARN     : enable\n",
                                      "VXLAN-EF-SHOW: [vsd 3] ND-SUPPRESS          : disable\n",
                                      "VXLAN-EF-SHOW: [vsd 3] REMOTE-ND-LEARN      : enable\n",
                                      "VXLAN-EF-SHOW: [vsd 3] COPY-DSCP            : enable\n",
                                      "VXLAN-EF-SHOW: [vsd 3] Global Status        : nl-conn sync-end \n",
                                      "VXLAN-EF-SHOW: [vsd 3] User Pid             : 2718\n",
                                      "VXLAN-EF-SHOW: [vsd 3] Entry Count          : 12\n",
                                      "VXLAN-EF-SHOW: [vsd 3] VTEP Adjacency Count : 7\n",
                                      "VXLAN-EF-SHOW: [vsd 3] UDP Port Number      : 8472, dirty True\n",
                                      "VXLAN-EF-SHOW: [vsd 3] L2 Local Intf        : Vlan-if4094\n",
                                      "VXLAN-EF-SHOW: [vsd 3] L3 Local Intf        : Loopback-l3\n",
                                      "VXLAN-EF-SHOW: [vsd 3] RTime Send Buffer    : ver 1, len 4, tlv_num 0\n",
                                      "VXLAN-EF-SHOW: [vsd 3] Batch Send Buffer    : ver 1, len 14, tlv_num 2\n",
                                      "VXLAN-EF-SHOW: [vsd 3] Peer-link            : ifx 8193\n",
                                  }));
    EXPECT_EQ(shows[kStatusLines], kCapShowFirstLine);
}

TEST_F(StatusShowTest, DebugMask0x3BListsAllFiveNamesAndBit2AddsNothing)
{
    start();
    const char *const all = "VXLAN-EF-SHOW: [vsd 3] Debug Status         : event error forward encap parser \n";
    for (uint16_t mask : {0x3B, 0x3F, 0xFFFF}) {
        set_mask(mask);
        const Lines shows = request_status();
        ASSERT_FALSE(shows.empty());
        EXPECT_EQ(shows[0], all) << "mask " << mask;
    }
    set_mask(0x4);
    EXPECT_EQ(request_status().at(0), "VXLAN-EF-SHOW: [vsd 3] Debug Status         : \n");
    set_mask(0x20);
    EXPECT_EQ(request_status().at(0), "VXLAN-EF-SHOW: [vsd 3] Debug Status         : parser \n");
}

TEST_F(StatusShowTest, EveryStateBitPrintsItsNameInOrder)
{
    start();
    g_vxlan_vsd->flags = 0xFFFF & ~VXLAN_EF_F_TECH_DUMP;
    const Lines shows = request_status();
    ASSERT_GE(shows.size(), 9u);
    EXPECT_EQ(shows[8],
              "VXLAN-EF-SHOW: [vsd 3] Global Status        : nl-conn sync-start sync-end learn-mac "
              "learn-vtep serv-parser serv-encap serv-forward serv-get-or serv-get-vni bridge-fwd "
              "router's-mac-fwd bcast-pkt-encap cap-init serv-or-no-icmp \n");
}

TEST_F(StatusShowTest, NoInstancePrintsNothing)
{
    vxlan_ef_show_status(3);
    EXPECT_TRUE(logs().empty());
}

TEST_F(StatusShowTest, DuringTechDumpLinesGoToDumpFileWithoutPrefix)
{
    vxtest::ScratchTmpdir tmp;
    start();
    const std::string path = tmp.path() + "/dump.txt";
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    g_vxlan_vsd->dump_fd = fd;
    g_vxlan_vsd->flags |= VXLAN_EF_F_TECH_DUMP;
    take_logs();
    vxlan_ef_show_status(3);
    g_vxlan_vsd->flags &= ~VXLAN_EF_F_TECH_DUMP;
    close(fd);

    EXPECT_TRUE(logs().empty());
    const std::string text = vxtest::read_file(path);
    const std::string head = "Debug Status         : \n"
                             "ANYCAST-MAC-SET      : FALSE\n"
                             "ANYCAST-MAC          : 0000.0000.0000.\n"
                             "ARP-SUPPRESS         : disable\n"
                             "REMOTE-ARP-LEARN     : disable\n"
                             "ND-SUPPRESS          : disable\n"
                             "REMOTE-ND-LEARN      : disable\n"
                             "COPY-DSCP            : disable\n"
                             "Global Status        : tech-dump \n"
                             "User Pid             : 0\n"
                             "Entry Count          : 0\n"
                             "VTEP Adjacency Count : 0\n"
                             "UDP Port Number      : 4789, dirty False\n"
                             "L2 Local Intf        : NULL\n"
                             "L3 Local Intf        : NULL\n"
                             "RTime Send Buffer    : ver 1, len 4, tlv_num 0\n"
                             "Batch Send Buffer    : ver 1, len 4, tlv_num 0\n"
                             "Peer-link            : ifx 0\n"
                             "\n------------- DUMP CAP -------------\n";
    EXPECT_EQ(text.substr(0, head.size()), head);
    EXPECT_EQ(text.find("VXLAN-EF-SHOW"), std::string::npos);
}

}  // namespace
