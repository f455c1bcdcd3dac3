/* What the control side can ask of the module beyond configuration: the
 * tables an EF_SHOW prints, chosen by its show_id field, and the EF_CTRL bit
 * that asks for the tech-support dump. The module answers them
 * (src/channel/control_tlvs.cpp) and vxlanctl asks them; both read the
 * numbers here. Standard library only, like the catalogue beside it. */
#pragma once

#include <cstdint>

namespace vxlan_ef::tlv {

enum class ShowId : uint16_t {
    Entry = 1,
    Status = 3,
    Intf = 4,
    Vrf = 5,
    Subif = 6,
};

// EF_CTRL's ctrl bit for the tech-support dump.
inline constexpr uint32_t kCtrlTechDump = 0x4;

// The dump's path is "%s/%d/%s" of these two around the instance id, so a
// doubled slash stands before "dc"; the host creates the directory.
inline constexpr const char *kTechDumpRoot = "/tmp/vsd";
inline constexpr const char *kTechDumpFile = "/dc/vxlan/.vxlan_ef_dump.txt";

}  // namespace vxlan_ef::tlv
