// IP addresses as the tables hold them (family and 16 bytes): comparison and
// text form.
#include <arpa/inet.h>
#include <cstring>

#include "tables_private.h"
#include "vxlan_ef_tables.h"

namespace vxlan_ef {

namespace {

// Bytes that count for a family: 4, 16, or 0 for any other family.
uint32_t addr_len(uint32_t family)
{
    if (family == VXLAN_EF_AF_INET)
        return 4;
    if (family == VXLAN_EF_AF_INET6)
        return 16;
    return 0;
}

}  // namespace

bool ip_nonzero(const vxlan_ef_ip_addr_t &a)
{
    const uint32_t len = addr_len(a.family);
    for (uint32_t i = 0; i < len; ++i) {
        if (a.addr[i] != 0)
            return true;
    }
    return false;
}

const char *ip_text(const vxlan_ef_ip_addr_t &a, char *buf)
{
    std::memset(buf, 0, kIpTextLen);
    if (addr_len(a.family) == 0) {
        buf[0] = '-';
        return buf;
    }
    const int af = a.family == VXLAN_EF_AF_INET ? AF_INET : AF_INET6;
    inet_ntop(af, a.addr, buf, kIpTextLen);
    return buf;
}

}  // namespace vxlan_ef
