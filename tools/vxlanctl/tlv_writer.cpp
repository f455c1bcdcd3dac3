// Field writes into a TLV value; see tlv_writer.h.
#include "tlv_writer.h"

#include <cstring>
#include <stdexcept>
#include <string>

namespace vxlanctl {

namespace {

template <typename T>
void store(std::vector<uint8_t> &value, size_t at, T v)
{
    std::memcpy(value.data() + at, &v, sizeof v);
}

bool is_integer(FieldKind k)
{
    return k == FieldKind::U8 || k == FieldKind::U16 || k == FieldKind::U32 || k == FieldKind::I32;
}
bool is_ip(FieldKind k) { return k == FieldKind::Ip; }
bool is_mac(FieldKind k) { return k == FieldKind::Mac; }
bool is_bitmap(FieldKind k) { return k == FieldKind::VlanBitmap; }

}  // namespace

TlvWriter::TlvWriter(uint16_t code) : def_(find_tlv(code))
{
    if (def_ == nullptr)
        throw std::logic_error("TLV type " + std::to_string(code) + " is not catalogued");
    tlv_.type = code;
    tlv_.value.assign(def_->length, 0);
}

const FieldDef &TlvWriter::field(std::string_view name, bool (*kind_ok)(FieldKind)) const
{
    const FieldDef *f = find_field(*def_, name);
    if (f == nullptr || !kind_ok(f->kind))
        throw std::logic_error(std::string(def_->name) + " has no field '" + std::string(name) + "' of that kind");
    return *f;
}

TlvWriter &TlvWriter::number(std::string_view name, int64_t v)
{
    const FieldDef &f = field(name, is_integer);
    switch (f.kind) {
    case FieldKind::U8: store(tlv_.value, f.offset, static_cast<uint8_t>(v)); break;
    case FieldKind::U16: store(tlv_.value, f.offset, static_cast<uint16_t>(v)); break;
    case FieldKind::U32: store(tlv_.value, f.offset, static_cast<uint32_t>(v)); break;
    default: store(tlv_.value, f.offset, static_cast<int32_t>(v)); break;
    }
    return *this;
}

TlvWriter &TlvWriter::ip(std::string_view name, const IpAddr &addr)
{
    const FieldDef &f = field(name, is_ip);
    store(tlv_.value, f.offset, addr.family);
    std::memcpy(tlv_.value.data() + f.offset + 4, addr.bytes.data(), addr.bytes.size());
    return *this;
}

TlvWriter &TlvWriter::mac(std::string_view name, const Mac &mac)
{
    const FieldDef &f = field(name, is_mac);
    std::memcpy(tlv_.value.data() + f.offset, mac.data(), mac.size());
    return *this;
}

TlvWriter &TlvWriter::vlan(std::string_view name, uint16_t vid)
{
    const FieldDef &f = field(name, is_bitmap);
    if (vid > 4095)
        throw std::logic_error("VLAN id " + std::to_string(vid) + " is outside the bitmap");
    // Bit vid % 64 of the u64 word vid / 64, read back in host order.
    const size_t at = f.offset + vid / 64 * 8;
    uint64_t word;
    std::memcpy(&word, tlv_.value.data() + at, sizeof word);
    store(tlv_.value, at, word | uint64_t{1} << (vid % 64));
    return *this;
}

}  // namespace vxlanctl
