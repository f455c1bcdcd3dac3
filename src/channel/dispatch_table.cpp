// One table from TLV type to handler, expanded from the catalogue's rows; a
// type without a handler is reported as unknown or not cared for and skipped.
#include <array>
#include <string_view>

#include "channel_private.h"
#include "control_tlvs.h"
#include "dispatch_table.h"
#include "vxlan_ef_tables.h"

namespace {

using vxlan_ef::TlvHandler;

constexpr std::array<TlvHandler, vxlan_ef::tlv::kCodeLimit> kTable = [] {
    std::array<TlvHandler, vxlan_ef::tlv::kCodeLimit> table{};
#define VXLAN_EF_TLV(code, ident, name, dir, len, handler, ...) table[code] = handler;
#include "vxlan_ef_tlv.def"
    return table;
}();

// A handler only where the catalogue says the module acts on the type. The
// rows are read as written: comparing function addresses is not a constant
// expression in every build (sanitizers make it a run-time check).
constexpr bool names_nothing(const char *handler)
{
    return std::string_view(handler) == "nullptr";
}

constexpr bool handlers_match_directions()
{
    std::array<bool, vxlan_ef::tlv::kCodeLimit> has_handler{};
#define VXLAN_EF_TLV(code, ident, name, dir, len, handler, ...) has_handler[code] = !names_nothing(#handler);
#include "vxlan_ef_tlv.def"
    for (const vxlan_ef::tlv::Type &t : vxlan_ef::tlv::kTypes)
        if (has_handler[t.code] != t.acted_on())
            return false;
    return true;
}
static_assert(handlers_match_directions(), "a TLV acted on without a handler, or a handler on one that is not");

}  // namespace

namespace vxlan_ef {

TlvHandler tlv_handler(uint16_t type) { return type < kTable.size() ? kTable[type] : nullptr; }

}  // namespace vxlan_ef
