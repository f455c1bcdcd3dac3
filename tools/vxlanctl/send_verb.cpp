// The send verb; see send_verb.h.
#include "send_verb.h"

#include <cstring>

#include "module_state.h"
#include "request.h"
#include "session.h"

namespace vxlanctl {

namespace {

template <typename T>
T field_value(const Tlv &tlv, std::string_view name)
{
    T value{};
    const FieldDef *f = find_field(*find_tlv(tlv.type), name);
    if (f != nullptr && f->offset + sizeof value <= tlv.value.size())
        std::memcpy(&value, tlv.value.data() + f->offset, sizeof value);
    return value;
}

// The bitmap is 64 host-order words, VLAN v being bit v % 64 of word v / 64.
bool vlan_bit(const Tlv &tlv, size_t bitmap_at, unsigned vid)
{
    uint64_t word = 0;
    const size_t at = bitmap_at + vid / 64 * sizeof word;
    if (at + sizeof word > tlv.value.size())
        return false;
    std::memcpy(&word, tlv.value.data() + at, sizeof word);
    return (word >> (vid % 64) & 1) != 0;
}

}  // namespace

std::vector<std::string> vlans_left_elsewhere(const Tlv &tlv, const VlanOwners &owners)
{
    std::vector<std::string> lines;
    if (tlv.type != kSetVlan || field_value<uint8_t>(tlv, "oper") == 0)
        return lines;
    const uint32_t vni = field_value<uint32_t>(tlv, "vni");
    const size_t bitmap_at = find_field(*find_tlv(kSetVlan), "vlans")->offset;
    for (const auto &[vid, owner] : owners)
        if (owner != vni && vlan_bit(tlv, bitmap_at, vid))
            lines.push_back("vxlanctl: send: VLAN " + std::to_string(vid) + " stays with VNI " + std::to_string(owner) +
                            ", which holds it (the module moves no VLAN: delete it there first)");
    return lines;
}

int run_send_verb(const std::string &socket_path, const std::string &type, const std::vector<std::string> &fields,
                  double timeout_s, std::ostream &out, std::ostream &err)
{
    std::string error;
    const auto request = send_request(type, fields, error);
    if (!request) {
        err << error << '\n';
        return kExitUsage;
    }
    const int code = connect_and_run(socket_path, *request, timeout_s, out, err);
    const auto tlvs = unpack_message(request->messages.front(), error);
    if (code != kExitOk || !tlvs || tlvs->front().type != kSetVlan)
        return code;
    int read_code = kExitOk;
    const auto owners = read_vlan_owners(socket_path, timeout_s, err, read_code);
    if (!owners)
        return read_code;
    const auto left = vlans_left_elsewhere(tlvs->front(), *owners);
    for (const std::string &line : left)
        err << line << '\n';
    return left.empty() ? kExitOk : kExitModuleError;
}

}  // namespace vxlanctl
