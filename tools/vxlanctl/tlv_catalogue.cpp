// vxlanctl's view of the module's TLV catalogue and the lookups behind
// tlv_catalogue.h.
#include "tlv_catalogue.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstddef>

namespace vxlanctl {

namespace {

namespace tlv = vxlan_ef::tlv;

constexpr std::size_t kActedOn = [] {
    std::size_t n = 0;
    for (const tlv::Type &t : tlv::kTypes)
        n += t.acted_on();
    return n;
}();

// The rows of the types the module acts on, as vxlanctl's definitions; a code
// the system left unnamed goes by its label.
constexpr std::array<TlvDef, kActedOn> kCatalogue = [] {
    std::array<TlvDef, kActedOn> out{};
    std::size_t i = 0;
    for (const tlv::Type &t : tlv::kTypes)
        if (t.acted_on())
            out[i++] = TlvDef{t.code, t.label, t.length, t.fields.span()};
    return out;
}();

bool same_name(std::string_view a, std::string_view b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y));
    });
}

}  // namespace

std::string_view field_kind_name(FieldKind kind)
{
    switch (kind) {
    case FieldKind::U8: return "u8";
    case FieldKind::U16: return "u16";
    case FieldKind::U32: return "u32";
    case FieldKind::I32: return "i32";
    case FieldKind::Ip: return "ip";
    case FieldKind::Mac: return "mac";
    case FieldKind::VlanBitmap: return "vlan bitmap";
    }
    return "?";
}

std::span<const TlvDef> catalogue() { return kCatalogue; }

const TlvDef *find_tlv(uint16_t code)
{
    for (const TlvDef &def : kCatalogue)
        if (def.code == code)
            return &def;
    return nullptr;
}

const TlvDef *find_tlv(std::string_view name_or_code)
{
    unsigned code = 0;
    const char *end = name_or_code.data() + name_or_code.size();
    auto [p, ec] = std::from_chars(name_or_code.data(), end, code);
    if (!name_or_code.empty() && ec == std::errc() && p == end)
        return code <= 0xFFFF ? find_tlv(static_cast<uint16_t>(code)) : nullptr;
    for (const TlvDef &def : kCatalogue)
        if (same_name(def.name, name_or_code))
            return &def;
    return nullptr;
}

const FieldDef *find_field(const TlvDef &def, std::string_view name)
{
    for (const FieldDef &f : def.fields)
        if (f.name == name)
            return &f;
    return nullptr;
}

std::string_view tlv_code_name(uint16_t code) { return tlv::name_of(code); }

}  // namespace vxlanctl
