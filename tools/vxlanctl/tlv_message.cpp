// Packing TLVs into messages and walking received ones with the module's
// framing rules; see tlv_message.h.
#include "tlv_message.h"

#include <array>

namespace vxlanctl {

namespace frame = vxlan_ef::frame;

namespace {

// One message being filled: a whole message image, as the module's send
// buffers are, so that the module's fit test and append apply unchanged.
class Builder {
public:
    Builder() { frame::msg_reset(image_.data()); }

    bool empty() const { return image_[3] == 0; }
    bool fits(const Tlv &tlv) const
    {
        return frame::tlv_fits(image_.data(), static_cast<uint32_t>(tlv.value.size()));
    }
    void append(const Tlv &tlv)
    {
        frame::tlv_append(image_.data(), tlv.type, static_cast<uint16_t>(tlv.value.size()), tlv.value.data());
    }
    // The message so far; the builder starts again empty.
    Message take()
    {
        Message m(image_.begin(), image_.begin() + frame::msg_len(image_.data()));
        frame::msg_reset(image_.data());
        return m;
    }

private:
    std::array<uint8_t, kMaxMessageLen> image_{};
};

}  // namespace

std::optional<std::vector<Message>> pack_messages(const std::vector<Tlv> &tlvs, std::string &error)
{
    std::vector<Message> out;
    Builder current;
    for (const Tlv &tlv : tlvs) {
        if (tlv.value.size() > kMaxValueLen) {
            error = "TLV " + std::string(tlv_code_name(tlv.type)) + " (type " + std::to_string(tlv.type) +
                    ") has " + std::to_string(tlv.value.size()) + " value bytes; a message holds at most " +
                    std::to_string(kMaxValueLen);
            return std::nullopt;
        }
        if (!current.fits(tlv))
            out.push_back(current.take());
        current.append(tlv);
    }
    if (!current.empty())
        out.push_back(current.take());
    return out;
}

std::optional<std::vector<Tlv>> unpack_message(const std::vector<uint8_t> &bytes, std::string &error)
{
    if (bytes.size() < kMessageHeaderLen) {
        error = "message of " + std::to_string(bytes.size()) + " bytes is shorter than its header";
        return std::nullopt;
    }
    const size_t len = frame::msg_len(bytes.data());
    if (len < kMessageHeaderLen || len > bytes.size()) {
        error = "message says " + std::to_string(len) + " bytes but carries " + std::to_string(bytes.size());
        return std::nullopt;
    }
    const uint8_t *area = bytes.data() + kMessageHeaderLen;
    const uint32_t size = static_cast<uint32_t>(len - kMessageHeaderLen);
    std::vector<Tlv> tlvs;
    bool inside = frame::tlv_area_well_formed(area, size, bytes[3]);
    for (frame::TlvCursor walk{area, size}; inside && !walk.done();) {
        const uint32_t at = walk.offset;
        const frame::Tlv tlv = walk.take();
        // A walk whose 16-bit offset wrapped can end where it should with a
        // value that runs past the message; such a message is refused too.
        inside = at + kTlvHeaderLen + tlv.length <= size;
        if (inside)
            tlvs.push_back(Tlv{tlv.type, std::vector<uint8_t>(tlv.value, tlv.value + tlv.length)});
    }
    if (!inside) {
        error = "message TLVs do not add up to its length " + std::to_string(len) + " and count " +
                std::to_string(bytes[3]);
        return std::nullopt;
    }
    return tlvs;
}

}  // namespace vxlanctl
