// The send verb: one TLV of a catalogued type from field=value arguments,
// every field checked against its kind before anything is sent. Fields left
// out are 0.
#include <cstdint>
#include <set>

#include "request.h"

namespace vxlanctl {

namespace {

std::string known_types()
{
    std::string out;
    for (const TlvDef &def : catalogue())
        out += (out.empty() ? "" : ", ") + std::string(def.name);
    return out;
}

std::string field_names(const TlvDef &def)
{
    std::string out;
    for (const FieldDef &f : def.fields)
        out += (out.empty() ? "" : ", ") + std::string(f.name);
    return out.empty() ? "it has no fields" : "its fields: " + out;
}

bool write_integer(TlvWriter &w, const FieldDef &f, std::string_view text, std::string &why)
{
    const bool is_signed = f.kind == FieldKind::I32;
    const int64_t lo = is_signed ? INT32_MIN : 0;
    const int64_t hi = is_signed ? INT32_MAX : (int64_t{1} << (8 * field_width(f.kind))) - 1;
    const auto v = parse_signed(text);
    if (!v) {
        why = quoted(text) + " is not a number (decimal or 0x hex)";
        return false;
    }
    if (*v < lo || *v > hi) {
        why = std::string(text) + " does not fit " + std::to_string(lo) + ".." + std::to_string(hi);
        return false;
    }
    w.number(f.name, *v);
    return true;
}

bool write_vlans(TlvWriter &w, const FieldDef &f, std::string_view text, std::string &why)
{
    size_t start = 0;
    for (;;) {
        const size_t comma = text.find(',', start);
        const auto range = parse_vlan_range(text.substr(start, comma - start), why);
        if (!range)
            return false;
        for (unsigned vid = range->first; vid <= range->last; ++vid)
            w.vlan(f.name, static_cast<uint16_t>(vid));
        if (comma == std::string_view::npos)
            return true;
        start = comma + 1;
    }
}

// Writes one field from its text; false with why set when it does not parse or fit.
bool write_field(TlvWriter &w, const FieldDef &f, std::string_view text, std::string &why)
{
    switch (f.kind) {
    case FieldKind::Ip:
        if (auto ip = parse_ip(text)) {
            w.ip(f.name, *ip);
            return true;
        }
        why = quoted(text) + " is not an IPv4 or IPv6 address";
        return false;
    case FieldKind::Mac:
        if (auto mac = parse_mac(text)) {
            w.mac(f.name, *mac);
            return true;
        }
        why = quoted(text) + " is not a MAC address such as 00:00:5e:00:01:01";
        return false;
    case FieldKind::VlanBitmap:
        return write_vlans(w, f, text, why);
    default:
        return write_integer(w, f, text, why);
    }
}

}  // namespace

std::optional<Request> send_request(const std::string &type, const std::vector<std::string> &fields,
                                    std::string &error)
{
    const std::string prefix = "vxlanctl: send: ";
    const TlvDef *def = find_tlv(type);
    if (def == nullptr) {
        error = prefix + "unknown TLV type '" + type + "'; known types (or their numbers): " + known_types();
        return std::nullopt;
    }
    TlvWriter writer(def->code);
    std::set<std::string> given;
    for (const std::string &arg : fields) {
        const size_t eq = arg.find('=');
        if (eq == std::string::npos) {
            error = prefix + "argument '" + arg + "' is not field=value";
            return std::nullopt;
        }
        const std::string name = arg.substr(0, eq);
        const FieldDef *f = find_field(*def, name);
        if (f == nullptr) {
            error = prefix + std::string(def->name) + " has no field '" + name + "'; " + field_names(*def);
            return std::nullopt;
        }
        if (!given.insert(name).second) {
            error = prefix + "field '" + name + "' is given twice";
            return std::nullopt;
        }
        std::string why;
        if (!write_field(writer, *f, std::string_view(arg).substr(eq + 1), why)) {
            error = prefix + "field '" + name + "' (" + std::string(field_kind_name(f->kind)) + "): " + why;
            return std::nullopt;
        }
    }
    Request request;
    request.messages = *pack_messages({writer.tlv()}, error);
    request.tlv_count = 1;
    return request;
}

}  // namespace vxlanctl
