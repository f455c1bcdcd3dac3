// Builds one TLV of a catalogued type: a zeroed value of the type's length
// into which fields are written by name at their catalogued offsets, so that
// no caller spells an offset itself.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "field_text.h"
#include "tlv_catalogue.h"

namespace vxlanctl {

struct Tlv {
    uint16_t type = 0;
    std::vector<uint8_t> value;
    bool operator==(const Tlv &) const = default;
};

class TlvWriter {
public:
    // The code must be catalogued (std::logic_error otherwise).
    explicit TlvWriter(uint16_t code);

    // Integer field, stored in the field's width (the caller has checked
    // that the number fits). std::logic_error for an unknown field or kind.
    TlvWriter &number(std::string_view field, int64_t v);
    TlvWriter &ip(std::string_view field, const IpAddr &addr);
    TlvWriter &mac(std::string_view field, const Mac &mac);
    // Sets the bit of one VLAN id (0..4095) in a bitmap field.
    TlvWriter &vlan(std::string_view field, uint16_t vid);

    const TlvDef &def() const { return *def_; }
    const Tlv &tlv() const { return tlv_; }

private:
    const FieldDef &field(std::string_view name, bool (*kind_ok)(FieldKind)) const;

    const TlvDef *def_;
    Tlv tlv_;
};

}  // namespace vxlanctl
