// Builders of the VXLAN control messages the benchmarks deliver.
#include "bench_messages.h"

#include <arpa/inet.h>

#include <cstring>

#include "vxlan_ef_tlv_catalogue.h"
#include "vxlan_ef_tables.h"

namespace vxbench {

namespace {

namespace tlv = vxlan_ef::tlv;

constexpr size_t kHeaderLen = 4;
constexpr size_t kVlanBitmapAt = 16;
constexpr size_t kVlanValueLen = kVlanBitmapAt + 512;

template <typename T>
void store(Bytes &v, size_t at, T value)
{
    std::memcpy(v.data() + at, &value, sizeof value);
}

void put_ip(Bytes &v, size_t at, const vxlan_ef_ip_addr_t &ip)
{
    store(v, at, ip.family);
    std::memcpy(v.data() + at + 4, ip.addr, sizeof ip.addr);
}

}  // namespace

Bytes make_msg(const std::vector<Tlv> &tlvs)
{
    Bytes m(kHeaderLen);
    for (const Tlv &t : tlvs) {
        const auto len = static_cast<uint16_t>(t.value.size());
        m.push_back(static_cast<uint8_t>(t.type));
        m.push_back(static_cast<uint8_t>(t.type >> 8));
        m.push_back(static_cast<uint8_t>(len));
        m.push_back(static_cast<uint8_t>(len >> 8));
        m.insert(m.end(), t.value.begin(), t.value.end());
    }
    m[0] = 1;
    store(m, 1, static_cast<uint16_t>(m.size()));
    m[3] = static_cast<uint8_t>(tlvs.size());
    return m;
}

vxlan_ef_ip_addr_t ip4(const char *text)
{
    vxlan_ef_ip_addr_t ip{};
    ip.family = VXLAN_EF_AF_INET;
    inet_pton(AF_INET, text, ip.addr);
    return ip;
}

vxlan_ef_ip_addr_t ip6(const char *text)
{
    vxlan_ef_ip_addr_t ip{};
    ip.family = VXLAN_EF_AF_INET6;
    inet_pton(AF_INET6, text, ip.addr);
    return ip;
}

Tlv sync_begin() { return Tlv{tlv::kSyncDataBegin, {}}; }
Tlv sync_over() { return Tlv{tlv::kSyncDataOver, {}}; }

Tlv set_entry(uint32_t vni, uint8_t oper)
{
    Bytes v(5);
    store(v, 0, vni);
    v[4] = oper;
    return Tlv{tlv::kSetEntry, v};
}

Tlv set_vlan(uint32_t vni, const std::vector<uint16_t> &vids, uint8_t oper)
{
    Bytes v(kVlanValueLen);
    store(v, 0, vni);
    v[6] = oper;
    // The bitmap is little-endian 64-bit words: bit vid of the byte string.
    for (uint16_t vid : vids)
        v[kVlanBitmapAt + vid / 8] |= static_cast<uint8_t>(1u << (vid % 8));
    return Tlv{tlv::kSetVlan, v};
}

Tlv set_vtep(uint32_t ifx, const vxlan_ef_ip_addr_t &sip, const vxlan_ef_ip_addr_t &dip,
             uint8_t oper)
{
    Bytes v(69);
    store(v, 4, ifx);
    put_ip(v, 8, sip);
    put_ip(v, 28, dip);
    v[68] = oper;
    return Tlv{tlv::kSetVtep, v};
}

Tlv asso_vtep(uint32_t vni, uint32_t ifx, uint8_t oper)
{
    Bytes v(17);
    store(v, 0, vni);
    store(v, 4, ifx);
    v[16] = oper;
    return Tlv{tlv::kAssoVtep, v};
}

}  // namespace vxbench
