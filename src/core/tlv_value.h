// A TLV value read by the field names of its row in the catalogue
// (vxlan_ef_tlv.def), so that the layouts are written there alone: the row
// gives each field's offset, and its kind the C++ type it reads as. A name
// the row lacks does not compile, nor does a reader that expects another
// type than the field's kind.
#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "core_private.h"
#include "vxlan_ef_tables.h"
#include "vxlan_ef_tlv_catalogue.h"

namespace vxlan_ef {

// A field's name as a template argument: get<"ifx">().
template <std::size_t N>
struct FieldName {
    char text[N]{};
    consteval FieldName(const char (&name)[N]) { std::copy_n(name, N, text); }
    constexpr std::string_view view() const { return {text, N - 1}; }
};

using MacBytes = std::array<uint8_t, 6>;
// VLAN v is bit v % 64 of word v / 64.
using VlanWords = std::array<uint64_t, 64>;

namespace detail {

template <tlv::FieldKind K>
using Kind = std::integral_constant<tlv::FieldKind, K>;

// Declared only, for KindType to take their return types.
uint8_t kind_type(Kind<tlv::FieldKind::U8>);
uint16_t kind_type(Kind<tlv::FieldKind::U16>);
uint32_t kind_type(Kind<tlv::FieldKind::U32>);
int32_t kind_type(Kind<tlv::FieldKind::I32>);
vxlan_ef_ip_addr_t kind_type(Kind<tlv::FieldKind::Ip>);
MacBytes kind_type(Kind<tlv::FieldKind::Mac>);
VlanWords kind_type(Kind<tlv::FieldKind::VlanBitmap>);

}  // namespace detail

// The C++ type of a kind. Each is the kind's bytes as they stand in the value
// (an Ip's family word, then its 16 address bytes, is vxlan_ef_ip_addr_t to
// the byte), so one copy reads any field.
template <tlv::FieldKind K>
using KindType = decltype(detail::kind_type(detail::Kind<K>{}));

// A field as read. It converts to its kind's type and to no other: widening a
// u8 into a u32 would hide a catalogue that disagrees with its reader.
template <typename T>
class FieldValue {
public:
    explicit FieldValue(const T &value) : value_(value) {}

    template <std::same_as<T> U>
    operator U() const
    {
        return value_;
    }

private:
    T value_;
};

// The value of a TLV C, read field by field: get<"ifx">().
template <tlv::Code C>
class TlvValue {
public:
    explicit TlvValue(const uint8_t *value) : value_(value) {}

    template <FieldName Name>
    auto get() const
    {
        constexpr tlv::Field field = tlv::field_of(C, Name.view());
        using T = KindType<field.kind>;
        static_assert(sizeof(T) == tlv::field_width(field.kind) && std::is_trivially_copyable_v<T>);
        return FieldValue<T>(load_unaligned<T>(value_ + field.offset));
    }

private:
    const uint8_t *value_;
};

}  // namespace vxlan_ef
