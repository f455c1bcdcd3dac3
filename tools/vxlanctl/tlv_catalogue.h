// The TLV catalogue as vxlanctl uses it: every TLV type the module acts on,
// with its value length and the name, offset and kind of each value field,
// plus the name of every type code for printing what efhost sends back. All
// of it is drawn from the module's own list (src/include/vxlan_ef_tlv.def),
// so the message builders (tlv_writer.h), the command-line parser
// (send_request.cpp) and the module read the same layouts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "vxlan_ef_tlv_catalogue.h"

namespace vxlanctl {

// Field kinds and layouts are the module's catalogue rows (vxlan_ef_tlv.def).
using FieldKind = vxlan_ef::tlv::FieldKind;
using FieldDef = vxlan_ef::tlv::Field;
using vxlan_ef::tlv::field_width;

// Text naming a kind in messages ("u32", "ip", ...).
std::string_view field_kind_name(FieldKind kind);

struct TlvDef {
    uint16_t code;
    std::string_view name;
    uint16_t length;  // value bytes vxlanctl sends
    std::span<const FieldDef> fields;
};

// Type codes by name (kSetEntry, kSubInterface, ...).
using vxlan_ef::tlv::Code;
using enum vxlan_ef::tlv::Code;

// Every type the module acts on, in code order.
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
