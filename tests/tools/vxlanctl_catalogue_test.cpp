// vxlanctl's TLV catalogue: every type's value bytes for a full set of field
// values, written out by hand, and the names of the type codes.
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "request.h"
#include "tlv_catalogue.h"

namespace {

using namespace vxlanctl;
using Bytes = std::vector<uint8_t>;

struct Case {
    const char *type;
    std::vector<std::string> fields;
    uint16_t code;
    Bytes value;
};

Bytes zeros(size_t n) { return Bytes(n, 0); }

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes vlan_value()
{
    Bytes v = zeros(528);
    const Bytes head = {0x0D, 0x0C, 0x0B, 0x0A, 0, 0, 0x07};
    std::copy(head.begin(), head.end(), v.begin());
    v[16] = 0x02;       // VLAN 1: bit 1 of word 0
    v[16 + 7] = 0x80;   // VLAN 63: bit 63 of word 0
    v[16 + 8] = 0x01;   // VLAN 64: bit 0 of word 1
    v[16 + 511] = 0x40; // VLAN 4094: bit 62 of word 63
    return v;
}

const std::vector<Case> &cases()
{
    static const std::vector<Case> all = {
        {"SYNC_DATA_REQ", {}, 0, {}},
        {"SYNC_DATA_BEGIN", {}, 1, {}},
        {"SYNC_DATA_OVER", {}, 2, {}},
        {"SET_ENTRY", {"vni=0x01020304", "oper=5"}, 8, {0x04, 0x03, 0x02, 0x01, 0x05}},
        {"SET_VLAN", {"vni=0x0A0B0C0D", "oper=7", "vlans=1,63-64,4094"}, 9, vlan_value()},
        {"SET_UDP_PORT", {"port=4789"}, 12, {0xB5, 0x12}},
        {"SET_ROUTER",
         {"vni=0x11121314", "router_ifx=0x21222324", "vrf_id=0x31323334", "anycast=1", "oper=2"},
         13,
         cat({{0x14, 0x13, 0x12, 0x11, 0x24, 0x23, 0x22, 0x21, 0x34, 0x33, 0x32, 0x31}, zeros(8), {0x01, 0x02}})},
        {"SET_VTEP",
         {"ifx=0x01020304", "sip=10.0.0.1", "dip=2001:db8::2", "oper=1"},
         14,
         cat({zeros(4), {0x04, 0x03, 0x02, 0x01}, {2, 0, 0, 0, 10, 0, 0, 1}, zeros(12), {10, 0, 0, 0},
              {0x20, 0x01, 0x0d, 0xb8}, zeros(11), {0x02}, zeros(20), {0x01}})},
        {"ASSO_VTEP", {"vni=0x00010203", "ifx=0x04050607", "oper=9"}, 15,
         cat({{0x03, 0x02, 0x01, 0x00, 0x07, 0x06, 0x05, 0x04}, zeros(8), {0x09}})},
        {"SET_ANYCAST_MAC", {"mac=00:00:5e:00:01:02", "oper=1"}, 18, {0x00, 0x00, 0x5e, 0x00, 0x01, 0x02, 0x01}},
        {"SET_SUPPRESS_ARP", {"enable=2"}, 28, {0x02}},
        {"SET_COPY_DSCP", {"enable=3"}, 29, {0x03}},
        {"SET_OUTSIDE_CENTER_TUNNEL", {"ifx=0x01020304", "value=1"}, 37, {0x04, 0x03, 0x02, 0x01, 0x01}},
        {"SET_SWITCH_PROTECTED", {"vni=1000", "value=1"}, 42, {0xE8, 0x03, 0x00, 0x00, 0x01}},
        {"EF_DBG", {"mask=0x0102", "trace_ifx=0x03040506", "budget=0x0708090A"}, 64,
         {0x02, 0x01, 0x00, 0x00, 0x06, 0x05, 0x04, 0x03, 0x0A, 0x09, 0x08, 0x07}},
        {"EF_SHOW", {"show_id=1", "vni=0x00ABCDEF"}, 65, {0x01, 0x00, 0x00, 0x00, 0xEF, 0xCD, 0xAB, 0x00}},
        {"EF_CTRL", {"ctrl=4", "oper=1"}, 66, {0x04, 0x00, 0x00, 0x00, 0x01}},
        {"SET_REMOTE_LEARN", {"enable=1"}, 67, {0x01}},
        {"SET_VNI_MAP", {"vni=1000", "map_vni=2000", "oper=1"}, 77,
         {0xE8, 0x03, 0x00, 0x00, 0xD0, 0x07, 0x00, 0x00, 0x01}},
        {"SET_VRF", {"vrf_id=-2", "l3vni=5000", "l3ifx=301", "oper=1"}, 78,
         {0xFE, 0xFF, 0xFF, 0xFF, 0x88, 0x13, 0x00, 0x00, 0x2D, 0x01, 0x00, 0x00, 0x01}},
        {"SET_VNI_ARP_SUPPRESS", {"vni=0x01020304", "enable=1"}, 79, {0x04, 0x03, 0x02, 0x01, 0x01}},
        {"SET_TUNNEL_MAC_LEARN", {"ifx=0x01020304", "value=1"}, 80, cat({{0x04, 0x03, 0x02, 0x01}, zeros(20), {1}})},
        {"SET_TUNNEL_ROUTE_LEARN", {"ifx=0x01020304", "value=2"}, 81,
         cat({{0x04, 0x03, 0x02, 0x01}, zeros(20), {2}})},
        {"SET_REMOTE_ND_LEARN", {"enable=1"}, 86, {0x01}},
        {"SET_SUPPRESS_ND", {"enable=1"}, 87, {0x01}},
        {"SET_VNI_ND_SUPPRESS", {"vni=0x01020304", "enable=0"}, 88, {0x04, 0x03, 0x02, 0x01, 0x00}},
        {"SET_VXLAN_SUB_INTF_90",
         {"ifx=0x01020304", "main_ifx=0x05060708", "vni=0x0009000A", "svid=0x0BCD", "cvid=0x0EF1", "oper=1"},
         90,
         {0x04, 0x03, 0x02, 0x01, 0x08, 0x07, 0x06, 0x05, 0x0A, 0x00, 0x09, 0x00, 0xCD, 0x0B, 0xF1, 0x0E, 0x00,
          0x01}},
    };
    return all;
}

// The one message a send request carries: header, TLV header, value.
Bytes message_of(uint16_t code, const Bytes &value)
{
    const size_t len = 8 + value.size();
    Bytes m = {1, static_cast<uint8_t>(len & 0xFF), static_cast<uint8_t>(len >> 8), 1,
               static_cast<uint8_t>(code & 0xFF), static_cast<uint8_t>(code >> 8),
               static_cast<uint8_t>(value.size() & 0xFF), static_cast<uint8_t>(value.size() >> 8)};
    m.insert(m.end(), value.begin(), value.end());
    return m;
}

TEST(VxlanctlCatalogueTest, EveryTypeEncodesAllItsFieldsAtTheirOffsets)
{
    for (const Case &c : cases()) {
        SCOPED_TRACE(c.type);
        std::string error;
        const auto request = send_request(c.type, c.fields, error);
        ASSERT_TRUE(request.has_value()) << error;
        ASSERT_EQ(request->messages.size(), 1u);
        EXPECT_EQ(request->messages[0], message_of(c.code, c.value));
    }
}

TEST(VxlanctlCatalogueTest, EveryCataloguedTypeHasAByteTestAndEveryFieldIsSet)
{
    std::set<uint16_t> tested;
    for (const Case &c : cases()) {
        tested.insert(c.code);
        EXPECT_EQ(c.fields.size(), find_tlv(c.code)->fields.size()) << c.type;
    }
    std::set<uint16_t> catalogued;
    for (const TlvDef &def : catalogue())
        catalogued.insert(def.code);
    EXPECT_EQ(tested, catalogued);
}

TEST(VxlanctlCatalogueTest, UnsetFieldsAreZero)
{
    std::string error;
    const auto request = send_request("SET_ROUTER", {"vni=1"}, error);
    ASSERT_TRUE(request.has_value()) << error;
    EXPECT_EQ(request->messages[0], message_of(13, cat({{1, 0, 0, 0}, zeros(18)})));
}

TEST(VxlanctlCatalogueTest, TypesAreFoundByNameInAnyCaseOrByNumber)
{
    EXPECT_EQ(find_tlv("set_entry")->code, 8);
    EXPECT_EQ(find_tlv("90")->name, "SET_VXLAN_SUB_INTF_90");
    EXPECT_EQ(find_tlv("78")->name, "SET_VRF");
    EXPECT_EQ(find_tlv("46"), nullptr);  // never acted on by the module
    EXPECT_EQ(find_tlv("SET_VXLAN_SUB_INTF"), nullptr);
    EXPECT_EQ(find_tlv("EF_DATA_READY"), nullptr);  // only the module sends it
    EXPECT_EQ(find_tlv(""), nullptr);
    EXPECT_EQ(find_tlv("70000"), nullptr);
}

TEST(VxlanctlCatalogueTest, CodeNamesFollowTheSystemTableWithGaps)
{
    EXPECT_EQ(tlv_code_name(0), "SYNC_DATA_REQ");
    EXPECT_EQ(tlv_code_name(17), "SET_CTRL_PLANE_MODE");
    EXPECT_EQ(tlv_code_name(38), "SET_FORWARD_PLANE_MODE");
    EXPECT_EQ(tlv_code_name(46), "SET_VXLAN_SUB_INTF");
    EXPECT_EQ(tlv_code_name(67), "SET_REMOTE_LEARN");
    EXPECT_EQ(tlv_code_name(68), "EF_DATA_READY");
    EXPECT_EQ(tlv_code_name(84), "SET_TUNNEL_COUNTING");
    EXPECT_EQ(tlv_code_name(89), "SET_EVPN_ND_MAC_LEARN");
    EXPECT_EQ(tlv_code_name(90), "unknown");
    EXPECT_EQ(tlv_code_name(91), "unknown");
    EXPECT_EQ(tlv_code_name(92), "SET_VNI_ARP_SPRS");
    EXPECT_EQ(tlv_code_name(93), "SET_VNI_ARP_PROXY");
    EXPECT_EQ(tlv_code_name(94), "SET_VNI_ND_SPRS");
    EXPECT_EQ(tlv_code_name(95), "SET_VNI_ND_PROXY");
    EXPECT_EQ(tlv_code_name(96), "unknown");
    EXPECT_EQ(tlv_code_name(0xFFFF), "unknown");
}

}  // namespace
