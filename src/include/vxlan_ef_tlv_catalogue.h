// The TLV catalogue of vxlan_ef_tlv.def as constexpr tables: type codes as
// named constants, every row with its name, direction, value length and field
// layout, and the lookups the module, vxlanctl, efhost and the tests share.
// Depends on the standard library only, so that the tools can include it from
// the module's tree without the platform's headers.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

namespace vxlan_ef::tlv {

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
constexpr std::size_t field_width(FieldKind kind)
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

// None: the code has a name but is neither acted on nor sent.
enum class Direction : uint8_t { None, In, Out, InOut };

struct Field {
    std::string_view name;
    uint16_t offset;
    FieldKind kind;
};

// The fields of one type, held in place so that each row of the list is one
// constant expression.
class FieldList {
public:
    static constexpr std::size_t kCapacity = 6;

    constexpr FieldList() = default;
    constexpr FieldList(std::initializer_list<Field> fields) : count_(fields.size())
    {
        std::size_t i = 0;
        for (const Field &f : fields)
            items_[i++] = f;
    }

    constexpr const Field *begin() const { return items_.data(); }
    constexpr const Field *end() const { return items_.data() + count_; }
    constexpr std::size_t size() const { return count_; }
    constexpr bool empty() const { return count_ == 0; }
    constexpr std::span<const Field> span() const { return {items_.data(), count_}; }

private:
    std::array<Field, kCapacity> items_{};
    std::size_t count_ = 0;
};

struct Type {
    uint16_t code;
    std::string_view name;   // the name the system prints; empty for an unnamed code
    std::string_view label;  // what tools call it: the name, or the label of an unnamed code
    Direction direction;
    uint16_t length;  // value bytes a sender writes
    FieldList fields;

    constexpr bool acted_on() const { return direction == Direction::In || direction == Direction::InOut; }
};

// Every type code by name: kSetEntry, kEfDbg, kSubInterface, ...
enum Code : uint16_t {
#define VXLAN_EF_TLV(code, ident, ...) k##ident = code,
#define VXLAN_EF_TLV_UNNAMED(code, ident, ...) k##ident = code,
#include "vxlan_ef_tlv.def"
};

// Every row, in code order.
inline constexpr Type kTypes[] = {
#define VXLAN_EF_FIELD(name, offset, kind) Field{#name, offset, FieldKind::kind}
#define VXLAN_EF_TLV(code, ident, name, dir, len, handler, ...) \
    Type{code, name, name, Direction::dir, len, FieldList{__VA_ARGS__}},
#define VXLAN_EF_TLV_UNNAMED(code, ident, label, dir, len, handler, ...) \
    Type{code, "", label, Direction::dir, len, FieldList{__VA_ARGS__}},
#include "vxlan_ef_tlv.def"
};

// Codes from here up have no name.
inline constexpr uint16_t kCodeLimit = std::end(kTypes)[-1].code + 1;

// The row of a code, or nullptr.
constexpr const Type *find(uint32_t code)
{
    for (const Type &t : kTypes)
        if (t.code == code)
            return &t;
    return nullptr;
}

// The name the system prints for a code: "unknown" for codes without one.
constexpr std::string_view name_of(uint32_t code)
{
    const Type *t = find(code);
    return t != nullptr && !t->name.empty() ? t->name : "unknown";
}

namespace detail {
// Never defined: reaching it stops a constant evaluation with its name.
Field no_such_field_in_the_layout();
}  // namespace detail

// A field of a type's value, for readers that know the field by name; where
// it is evaluated as a constant, a name not in the layout does not compile.
// (Not consteval: clang 14 refuses a consteval call made with a template's
// parameters, which is how the module's TLV readers call it.)
constexpr Field field_of(uint16_t code, std::string_view name)
{
    const Type *t = find(code);
    for (const Field &f : t->fields)
        if (f.name == name)
            return f;
    return detail::no_such_field_in_the_layout();
}

namespace detail {

consteval bool rows_consistent()
{
    uint32_t previous = 0;
    bool first = true;
    for (const Type &t : kTypes) {
        if (!first && t.code <= previous)
            return false;  // in code order, no code twice
        first = false;
        previous = t.code;
        for (const Field &f : t.fields)
            if (f.offset + field_width(f.kind) > t.length)
                return false;  // every field lies inside its value
        if (t.label.empty())
            return false;
    }
    return true;
}
static_assert(rows_consistent(), "TLV catalogue rows out of order or a field past its value");

}  // namespace detail

}  // namespace vxlan_ef::tlv
