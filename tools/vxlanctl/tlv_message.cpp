// Packing TLVs into messages and walking received ones; see tlv_message.h.
#include "tlv_message.h"

#include <cstring>

namespace vxlanctl {

namespace {

template <typename T>
void store(Message &m, size_t at, T v)
{
    std::memcpy(m.data() + at, &v, sizeof v);
}

template <typename T>
T load(const uint8_t *p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

Message empty_message() { return Message{1, kMessageHeaderLen, 0, 0}; }

bool fits(const Message &m, const Tlv &tlv)
{
    return tlv.value.size() + kTlvHeaderLen <= kMaxMessageLen - m.size() && m[3] < kMaxTlvsPerMessage;
}

void append(Message &m, const Tlv &tlv)
{
    const size_t at = m.size();
    m.resize(at + kTlvHeaderLen + tlv.value.size());
    store(m, at, tlv.type);
    store(m, at + 2, static_cast<uint16_t>(tlv.value.size()));
    if (!tlv.value.empty())
        std::memcpy(m.data() + at + kTlvHeaderLen, tlv.value.data(), tlv.value.size());
    store(m, 1, static_cast<uint16_t>(m.size()));
    m[3]++;
}

}  // namespace

std::optional<std::vector<Message>> pack_messages(const std::vector<Tlv> &tlvs, std::string &error)
{
    std::vector<Message> out;
    Message current = empty_message();
    for (const Tlv &tlv : tlvs) {
        if (tlv.value.size() > kMaxValueLen) {
            error = "TLV " + std::string(tlv_code_name(tlv.type)) + " (type " + std::to_string(tlv.type) +
                    ") has " + std::to_string(tlv.value.size()) + " value bytes; a message holds at most " +
                    std::to_string(kMaxValueLen);
            return std::nullopt;
        }
        if (!fits(current, tlv)) {
            out.push_back(current);
            current = empty_message();
        }
        append(current, tlv);
    }
    if (current[3] != 0)
        out.push_back(current);
    return out;
}

std::optional<std::vector<Tlv>> unpack_message(const std::vector<uint8_t> &bytes, std::string &error)
{
    if (bytes.size() < kMessageHeaderLen) {
        error = "message of " + std::to_string(bytes.size()) + " bytes is shorter than its header";
        return std::nullopt;
    }
    const size_t len = load<uint16_t>(bytes.data() + 1);
    if (len < kMessageHeaderLen || len > bytes.size()) {
        error = "message says " + std::to_string(len) + " bytes but carries " + std::to_string(bytes.size());
        return std::nullopt;
    }
    std::vector<Tlv> tlvs;
    size_t at = kMessageHeaderLen;
    while (at + kTlvHeaderLen <= len) {
        const uint16_t type = load<uint16_t>(bytes.data() + at);
        const size_t vlen = load<uint16_t>(bytes.data() + at + 2);
        if (at + kTlvHeaderLen + vlen > len)
            break;
        const uint8_t *v = bytes.data() + at + kTlvHeaderLen;
        tlvs.push_back(Tlv{type, std::vector<uint8_t>(v, v + vlen)});
        at += kTlvHeaderLen + vlen;
    }
    if (at != len || tlvs.size() != bytes[3]) {
        error = "message TLVs do not add up to its length " + std::to_string(len) + " and count " +
                std::to_string(bytes[3]);
        return std::nullopt;
    }
    return tlvs;
}

}  // namespace vxlanctl
