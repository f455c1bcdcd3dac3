// The TLV catalogue of vxlanctl: every TLV type the module acts on, with its
// value length and the name, offset and kind of each value field, plus the
// name of every type code for printing what efhost sends back. The message
// builders (tlv_writer.h) and the command-line parser (send_request.cpp) both
// read the layouts from here, so each layout is written down exactly once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vxlanctl {

// How a value field is encoded; all integers in host byte order.
enum class FieldKind : uint8_t {
    U8,
    U16,
    U32,
    I32,
    Ip,          // u32 address family (2 or 10), then 16 address bytes in network order
    Mac,         // 6 bytes
    VlanBitmap,  // 4096 bits as 64 u64 words; VLAN v is bit v % 64 of word v / 64
};

// Number of value bytes a field of this kind occupies.
constexpr size_t field_width(FieldKind kind)
{
    switch (kind) {
    case FieldKind::U8: return 1;
    case FieldKind::U16: return 2;
    case FieldKind::U32: return 4;
    case FieldKind::I32: return 4;
    case FieldKind::Ip: return 20;
    case FieldKind::Mac: return 6;
    case FieldKind::VlanBitmap: return 512;
    }
    return 0;
}

// Text naming a kind in messages ("u32", "ip", ...).
std::string_view field_kind_name(FieldKind kind);

struct FieldDef {
    std::string_view name;
    uint16_t offset;
    FieldKind kind;
};

struct TlvDef {
    uint16_t code;
    std::string_view name;
    uint16_t length;  // value bytes vxlanctl sends
    std::span<const FieldDef> fields;
};

// Message type codes vxlanctl builds or looks for by number.
enum TlvCode : uint16_t {
    kSyncDataReq = 0,
    kSyncDataBegin = 1,
    kSyncDataOver = 2,
    kSetEntry = 8,
    kSetVlan = 9,
    kSetUdpPort = 12,
    kSetRouter = 13,
    kSetVtep = 14,
    kAssoVtep = 15,
    kSetAnycastMac = 18,
    kSetSuppressArp = 28,
    kSetCopyDscp = 29,
    kSetOutsideCenterTunnel = 37,
    kSetSwitchProtected = 42,
    kEfDbg = 64,
    kEfShow = 65,
    kEfCtrl = 66,
    kSetRemoteLearn = 67,
    kEfDataReady = 68,
    kSetVniMap = 77,
    kSetVrf = 78,
    kSetVniArpSuppress = 79,
    kSetTunnelMacLearn = 80,
    kSetTunnelRouteLearn = 81,
    kSetRemoteNdLearn = 86,
    kSetSuppressNd = 87,
    kSetVniNdSuppress = 88,
    kSubInterface = 90,
};

// Every catalogued type, in code order.
std::span<const TlvDef> catalogue();

// The catalogued type of a code, or nullptr.
const TlvDef *find_tlv(uint16_t code);
// The catalogued type named by its name (any letter case) or its decimal
// code, or nullptr.
const TlvDef *find_tlv(std::string_view name_or_code);
// The field of a type with this name, or nullptr.
const FieldDef *find_field(const TlvDef &def, std::string_view name);

// The name the system gives a type code, "unknown" for codes without one.
std::string_view tlv_code_name(uint16_t code);

}  // namespace vxlanctl
