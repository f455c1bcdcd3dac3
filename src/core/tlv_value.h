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
constexpr auto kind_type()
{
    using enum tlv::FieldKind;
    if constexpr (K == U8)
        return std::type_identity<uint8_t>{};
    else if constexpr (K == U16)
        return std::type_identity<uint16_t>{};
    else if constexpr (K == U32)
        return std::type_identity<uint32_t>{};
    else if constexpr (K == I32)
        return std::type_identity<int32_t>{};
    else if constexpr (K == Ip)
        return std::type_identity<vxlan_ef_ip_addr_t>{};
    else if constexpr (K == Mac)
        return std::type_identity<MacBytes>{};
    else if constexpr (K == VlanBitmap)
        return std::type_identity<VlanWords>{};
}

}  // namespace detail

// The C++ type of a kind. Each is the kind's bytes as they stand in the value
// (an Ip's family word, then its 16 address bytes, is vxlan_ef_ip_addr_t to
// the byte), so one copy reads any field.
template <tlv::FieldKind K>
using KindType = typename decltype(detail::kind_type<K>())::type;

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
