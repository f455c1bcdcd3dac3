// How the channel fuzz target (fuzz/fuzz_channel.cpp) reads an input, for
// the target itself and for the regression tests that replay what it found:
// one options byte, then up to kMaxPayloads payloads, each a little-endian
// u16 length and that many bytes (the last takes what is left when it is
// short). With kFramed each payload is a TLV area that gets a well-formed
// message header in front (version 1, its length, its TLV count), the last
// TLV's length cut to what is left, so that mutations reach the handlers
// instead of the framing check.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace vxtest::channel_input {

// Bits of the options byte.
constexpr uint8_t kTaskAfterEach = 0x01;   // run the task after every payload
constexpr uint8_t kPacketPlaneOff = 0x02;  // start with CAP_VXLAN_BASE off
constexpr uint8_t kSoftForwarding = 0x04;
constexpr uint8_t kL2VniMapping = 0x08;
constexpr uint8_t kSegment = 0x10;         // start from the configured segment
constexpr uint8_t kFramed = 0x20;

constexpr size_t kMaxPayloads = 32;
constexpr size_t kMaxMessage = 8196;

// A message around a TLV area, as the control process would frame it.
inline std::vector<uint8_t> framed(const uint8_t *area, size_t len)
{
    len = std::min(len, kMaxMessage - 4);
    std::vector<uint8_t> m(4 + len);
    if (len != 0)
        std::memcpy(m.data() + 4, area, len);
    uint8_t count = 0;
    size_t at = 4;
    while (at + 4 <= m.size() && count < 255) {
        const size_t room = m.size() - at - 4;
        size_t tlv_len = m[at + 2] | static_cast<size_t>(m[at + 3]) << 8;
        if (tlv_len > room) {
            tlv_len = room;
            m[at + 2] = static_cast<uint8_t>(tlv_len);
            m[at + 3] = static_cast<uint8_t>(tlv_len >> 8);
        }
        at += 4 + tlv_len;
        count++;
    }
    m.resize(at);
    m[0] = 1;
    m[1] = static_cast<uint8_t>(at);
    m[2] = static_cast<uint8_t>(at >> 8);
    m[3] = count;
    return m;
}

// The payloads of an input, framed when its options say so, as the target
// delivers them.
inline std::vector<std::vector<uint8_t>> payloads(const uint8_t *data, size_t size)
{
    std::vector<std::vector<uint8_t>> out;
    if (size == 0)
        return out;
    const bool frame = (data[0] & kFramed) != 0;
    size_t at = 1;
    while (out.size() < kMaxPayloads && at < size) {
        size_t len = size - at;
        if (len >= 2) {
            const size_t stated = data[at] | static_cast<size_t>(data[at + 1]) << 8;
            at += 2;
            len = std::min(stated, size - at);
        } else {
            at = size;
            len = 0;
        }
        out.push_back(frame ? framed(data + at, len) : std::vector<uint8_t>(data + at, data + at + len));
        at += len;
    }
    return out;
}

}  // namespace vxtest::channel_input
