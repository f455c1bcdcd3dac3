// Reads of a TLV value by field name, compiled three ways by the tests in
// tests/CMakeLists.txt: as the catalogue has the field, it compiles; under a
// name the type's row lacks, or into another type than the field's kind, it
// must not.
#include "core/tlv_value.h"

uint32_t tunnel_ifx(const uint8_t *value)
{
    const vxlan_ef::TlvValue<vxlan_ef::tlv::kSetVtep> vtep(value);
#if defined(READ_UNKNOWN_NAME)
    const uint32_t ifx = vtep.get<"tunnel_ifx">();
#elif defined(READ_AS_OTHER_TYPE)
    const uint32_t ifx = vtep.get<"oper">();
#else
    const uint32_t ifx = vtep.get<"ifx">();
#endif
    return ifx;
}
