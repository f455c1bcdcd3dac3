// The VXLAN message format as the receiver checks it and the sender builds
// it: header bounds, the TLV walk, versions, type names and the 255-TLV limit.
#include <iterator>
#include <string>
#include <utility>

#include "module_fixture.h"
#include "vxlan_ef_tlv_catalogue.h"

namespace {

class TlvFormatTest : public vxtest::ModuleTest {
protected:
    // Starts the module with event and error lines on, logs emptied.
    void start_logging()
    {
        start();
        deliver_tlvs({vxtest::ef_dbg(VXLAN_EF_DBG_EVENT | VXLAN_EF_DBG_ERR)});
        take_logs();
    }

    // The lines the dispatcher printed (the receive line left out).
    static std::vector<std::string> dispatch_logs()
    {
        std::vector<std::string> out;
        for (const auto &l : logs())
            if (l.find("vxlan_ef_msg_read]") == std::string::npos)
                out.push_back(l);
        return out;
    }
};

using Lines = std::vector<std::string>;
using vxtest::bytes;

TEST_F(TlvFormatTest, EightByteMessageWithOneEmptyTlvIsWellFormed)
{
    start_logging();
    deliver(bytes({1, 8, 0, 1, 3, 0, 0, 0}));
    EXPECT_EQ(dispatch_logs(), (Lines{
                                   "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_task] Dispatch message, length: 8.\n",
                                   "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_deal] Msg info, ver: 01, len: 8, tlv_num: 1\n",
                                   "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_tlv_parse] recv tlv, t: SYNC_VNI_REQ, l: 0\n",
                                   "VXLAN-EF-ERR: [vsd 3 vxlan_ef_tlv_parse] Unknown or not care tlv, t: 3, l: 0\n",
                               }));
}

TEST_F(TlvFormatTest, SevenByteMessageIsRejectedAsShorterThanATlvHeader)
{
    start_logging();
    deliver(bytes({1, 7, 0, 1, 3, 0, 0}));
    EXPECT_EQ(dispatch_logs(), (Lines{
                                   "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_task] Dispatch message, length: 7.\n",
                                   "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_deal] Msg info, ver: 01, len: 7, tlv_num: 1\n",
                                   "VXLAN-EF-ERR: [vsd 3 vxlan_ef_msg_deal] msg check error, ver: 01, len: 7, tlv_num: 1\n",
                               }));
}

TEST_F(TlvFormatTest, TlvNumTwoWithThreeTlvsThatAddUpIsRejected)
{
    start_logging();
    std::vector<uint8_t> msg = vxtest::make_msg({{28, {1}}, {29, {1}}, {87, {1}}});
    msg[3] = 2;
    deliver(msg);
    EXPECT_EQ(vxtest::lines_starting(dispatch_logs(), "VXLAN-EF-ERR:"),
              Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_msg_deal] msg check error, ver: 01, len: 19, tlv_num: 2\n"});
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 0);
    EXPECT_EQ(g_vxlan_vsd->copy_dscp, 0);
    EXPECT_EQ(g_vxlan_vsd->nd_suppress, 0);
}

TEST_F(TlvFormatTest, TlvLengthsNotEndingAtMessageEndAreRejected)
{
    start_logging();
    // Header says 10 bytes; a TLV of length 1 leaves one byte over.
    deliver(bytes({1, 10, 0, 1, 28, 0, 1, 0, 1, 0}));
    // A TLV claiming more bytes than the message holds.
    deliver(bytes({1, 9, 0, 1, 28, 0, 2, 0, 1}));
    EXPECT_EQ(vxtest::lines_starting(dispatch_logs(), "VXLAN-EF-ERR:"),
              (Lines{
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_msg_deal] msg check error, ver: 01, len: 10, tlv_num: 1\n",
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_msg_deal] msg check error, ver: 01, len: 9, tlv_num: 1\n",
              }));
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 0);
}

TEST_F(TlvFormatTest, HeaderLengthOutsideFiveTo8196IsRejected)
{
    start_logging();
    deliver(bytes({1, 4, 0, 0}));
    std::vector<uint8_t> big = vxtest::make_msg({{28, std::vector<uint8_t>(8189, 1)}});
    ASSERT_EQ(vxtest::msg_len(big), 8197);
    deliver(big);
    EXPECT_EQ(vxtest::lines_starting(dispatch_logs(), "VXLAN-EF-ERR:"),
              (Lines{
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_msg_deal] msg check error, ver: 01, len: 4, tlv_num: 0\n",
                  "VXLAN-EF-ERR: [vsd 3 vxlan_ef_msg_deal] msg check error, ver: 01, len: 8197, tlv_num: 1\n",
              }));
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 0);
}

TEST_F(TlvFormatTest, TlvLengthThatWrapsTheOffsetIsRejectedWithoutHanging)
{
    start_logging();
    // 65532 + 4 brings the 16-bit offset back to 0.
    deliver(bytes({1, 8, 0, 1, 28, 0, 0xFC, 0xFF}));
    EXPECT_EQ(vxtest::lines_starting(dispatch_logs(), "VXLAN-EF-ERR:"),
              Lines{"VXLAN-EF-ERR: [vsd 3 vxlan_ef_msg_deal] msg check error, ver: 01, len: 8, tlv_num: 1\n"});
}

TEST_F(TlvFormatTest, VersionZeroIsAccepted)
{
    start_logging();
    deliver(vxtest::make_msg({{28, {1}}}, 0));
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 1);
    EXPECT_EQ(vxtest::lines_starting(dispatch_logs(), "VXLAN-EF-ERR:"), Lines{});
    EXPECT_EQ(dispatch_logs().at(1),
              "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_deal] Msg info, ver: 00, len: 9, tlv_num: 1\n");
}

TEST_F(TlvFormatTest, VersionTwoIsRejectedAsIncompatible)
{
    start_logging();
    deliver(vxtest::make_msg({{28, {1}}}, 2));
    EXPECT_EQ(dispatch_logs(), (Lines{
                                   "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_task] Dispatch message, length: 9.\n",
                                   "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_deal] Msg info, ver: 02, len: 9, tlv_num: 1\n",
                                   "VXLAN-EF-ERR: [vsd 3 vxlan_ef_msg_deal] Msg version is incompatible, current ver: 0x01, msg ver: 0x02\n",
                               }));
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 0);
}

TEST_F(TlvFormatTest, Type90LogsNameUnknownAndType46IsSkipped)
{
    start_logging();
    EXPECT_STREQ(vxlan_ef_tlv_name(90), "unknown");
    deliver_tlvs({{46, {1, 2}}, {90, {}}, {28, {1}}});
    const Lines tlv_lines = vxtest::lines_starting(dispatch_logs(), "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_tlv_parse] recv");
    ASSERT_EQ(tlv_lines.size(), 3u);
    EXPECT_EQ(tlv_lines[0], "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_tlv_parse] recv tlv, t: SET_VXLAN_SUB_INTF, l: 2\n");
    EXPECT_EQ(tlv_lines[1], "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_tlv_parse] recv tlv, t: unknown, l: 0\n");
    EXPECT_TRUE(logged("VXLAN-EF-ERR: [vsd 3 vxlan_ef_tlv_parse] Unknown or not care tlv, t: 46, l: 2\n"));
    // Type 90 goes to the sub-interface handler instead of being skipped.
    EXPECT_FALSE(logged_containing("Unknown or not care tlv, t: 90,"));
    // The rest of the message is still processed.
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 1);
}

TEST_F(TlvFormatTest, MaximalMessageOf8196BytesWith255TlvsIsAcceptedAndEveryTlvSeen)
{
    start_logging();
    // 255 TLV headers take 1020 of the 8192 TLV bytes: 254 values of 28
    // bytes and a last one of 60 fill the rest exactly.
    std::vector<vxtest::Tlv> tlvs;
    for (int i = 0; i < 255; ++i)
        tlvs.push_back({static_cast<uint16_t>(1000 + i), std::vector<uint8_t>(i == 254 ? 60 : 28, 0xAB)});
    const std::vector<uint8_t> msg = vxtest::make_msg(tlvs);
    ASSERT_EQ(msg.size(), 8196u);
    ASSERT_EQ(vxtest::msg_len(msg), 8196);
    ASSERT_EQ(msg[3], 255);
    deliver(msg);

    Lines expected{
        "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_task] Dispatch message, length: 8196.\n",
        "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_msg_deal] Msg info, ver: 01, len: 8196, tlv_num: 255\n",
    };
    for (int i = 0; i < 255; ++i) {
        const std::string l = i == 254 ? "60" : "28";
        expected.push_back("VXLAN-EF-EVENT: [vsd 3 vxlan_ef_tlv_parse] recv tlv, t: unknown, l: " + l + "\n");
        expected.push_back("VXLAN-EF-ERR: [vsd 3 vxlan_ef_tlv_parse] Unknown or not care tlv, t: " +
                           std::to_string(1000 + i) + ", l: " + l + "\n");
    }
    EXPECT_EQ(dispatch_logs(), expected);
}

TEST_F(TlvFormatTest, MaximalMessageOf255SuppressArpTlvsAppliesEachOne)
{
    start_logging();
    std::vector<vxtest::Tlv> tlvs;
    for (int i = 0; i < 254; ++i)
        tlvs.push_back({28, std::vector<uint8_t>(28, static_cast<uint8_t>(i + 1))});
    tlvs.push_back({28, std::vector<uint8_t>(60, 0)});
    const std::vector<uint8_t> msg = vxtest::make_msg(tlvs);
    ASSERT_EQ(msg.size(), 8196u);
    deliver(msg);
    const Lines success = vxtest::lines_starting(
        dispatch_logs(), "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_arp_suppress_deal] Success");
    ASSERT_EQ(success.size(), 255u);
    EXPECT_EQ(success[0], "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_arp_suppress_deal] Success to enable vxlan arp suppress.\n");
    EXPECT_EQ(success[254], "VXLAN-EF-EVENT: [vsd 3 vxlan_ef_arp_suppress_deal] Success to disable vxlan arp suppress.\n");
    EXPECT_EQ(g_vxlan_vsd->arp_suppress, 0);
}

TEST_F(TlvFormatTest, TlvAppendedToMessageHolding255TlvsDoesNotFitWhateverItsLength)
{
    start();
    for (uint16_t length : {0, 1, 4000}) {
        for (int i = 0; i < 255; ++i)
            ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 5, 0, nullptr, 1), 0);
        ASSERT_EQ(g_vxlan_vsd->batch_buf.data[3], 255);
        ASSERT_TRUE(efrt::msg_sent().empty());
        const std::vector<uint8_t> value(length, 0x5A);
        ASSERT_EQ(vxlan_ef_msg_send(g_vxlan_vsd, 8, length, value.data(), 1), 0);
        // The full message left first; the new TLV starts the next one.
        const auto sent = efrt::msg_take_sent();
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].len, 1024u);
        EXPECT_EQ(sent[0].payload[3], 255);
        EXPECT_EQ(vxtest::msg_len(sent[0].payload), 1024);
        const uint8_t *buf = g_vxlan_vsd->batch_buf.data;
        EXPECT_EQ(buf[3], 1);
        uint16_t len;
        std::memcpy(&len, buf + 1, 2);
        EXPECT_EQ(len, 8 + length);
        // Empty the batch buffer for the next round.
        ASSERT_EQ(vxlan_ef_msg_write(g_vxlan_vsd, g_vxlan_vsd->batch_buf.data, len), 0);
        efrt::msg_take_sent();
    }
}

TEST_F(TlvFormatTest, EveryTypeCodeLogsItsCatalogueName)
{
    for (uint32_t code = 0; code < vxlan_ef::tlv::kCodeLimit; ++code) {
        const vxlan_ef::tlv::Type *type = vxlan_ef::tlv::find(code);
        const std::string expected =
            type != nullptr && !type->name.empty() ? std::string(type->name) : "unknown";
        EXPECT_EQ(vxlan_ef_tlv_name(code), expected) << "code " << code;
    }
    for (uint32_t code : {96u, 97u, 255u, 1000u, 65535u, 0xFFFFFFFFu})
        EXPECT_STREQ(vxlan_ef_tlv_name(code), "unknown") << "code " << code;
}

// The catalogue itself, pinned where its order differs from the order of the
// names and at both ends: these codes are the peer's and must not move.
TEST_F(TlvFormatTest, CodesWhoseNamesAreOutOfOrderKeepTheirNumbers)
{
    const std::pair<uint32_t, const char *> pinned[] = {
        {0, "SYNC_DATA_REQ"},        {8, "SET_ENTRY"},           {17, "SET_CTRL_PLANE_MODE"},
        {38, "SET_FORWARD_PLANE_MODE"}, {46, "SET_VXLAN_SUB_INTF"}, {64, "EF_DBG"},
        {67, "SET_REMOTE_LEARN"},    {68, "EF_DATA_READY"},      {84, "SET_TUNNEL_COUNTING"},
        {89, "SET_EVPN_ND_MAC_LEARN"}, {90, "unknown"},           {91, "unknown"},
        {92, "SET_VNI_ARP_SPRS"},    {93, "SET_VNI_ARP_PROXY"},  {94, "SET_VNI_ND_SPRS"},
        {95, "SET_VNI_ND_PROXY"},    {96, "unknown"},
    };
    for (const auto &[code, name] : pinned)
        EXPECT_STREQ(vxlan_ef_tlv_name(code), name) << "code " << code;
    EXPECT_EQ(vxlan_ef::tlv::kSubInterface, 90);
    EXPECT_EQ(vxlan_ef::tlv::kSetVxlanSubIntf, 46);
    EXPECT_EQ(vxlan_ef::tlv::kEfDataReady, 68);
    EXPECT_EQ(vxlan_ef::tlv::kCodeLimit, 96);
    EXPECT_EQ(std::size(vxlan_ef::tlv::kTypes), 95u);
}

}  // namespace
