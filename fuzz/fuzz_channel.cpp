// Control channel target: arbitrary bytes as a handful of channel payloads,
// through the module's receive callback, its queue and the dispatcher on the
// module's task, with the whole table consistency check after every task run
// and the module stopped (every table swept, every block given back) after
// each input.
//
// Input: one options byte, then payloads, each a little-endian u16 length
// and that many bytes (the last one takes what is left when it is short).
//   bit 0  run the task after every payload (else once, after all of them)
//   bit 1  start with the packet plane off (CAP_VXLAN_BASE)
//   bit 2  software forwarding mode; bit 3  L2 VNI mapping
//   bit 4  start from the configured segment instead of empty tables
//   bit 5  each payload is a TLV area: the harness puts a well-formed header
//          in front (version 1, its length, its TLV count), cutting the
//          last TLV's length field to what is left, so that mutations reach
//          the handlers instead of the framing check
//
// The peer is trusted to send every TLV value as long as its type's layout,
// and the handlers read their fixed layouts without a length check. The
// dispatcher gives them that room itself: it reads each message from a
// zero-padded image larger than any message plus the longest layout, so a
// short value reads the following TLV's bytes or zeros, never outside. The
// payloads are therefore delivered exactly as the input gives them.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "module_harness.h"

namespace {

constexpr size_t kMaxPayloads = 32;
constexpr size_t kMaxMessage = 8196;

// A message around a TLV area, as the control process would frame it.
fuzz::Bytes framed(const uint8_t *area, size_t len)
{
    len = std::min(len, kMaxMessage - 4);
    fuzz::Bytes m(4);
    m.insert(m.end(), area, area + len);
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const uint8_t options = data[0];
    fuzz::StartOptions start;
    start.base = (options & 0x02) == 0;
    start.soft = (options & 0x04) != 0;
    start.l2vni_mapping = (options & 0x08) != 0;
    if (options & 0x10)
        fuzz::start_segment(start);
    else
        fuzz::start(start);
    const bool drain_each = (options & 0x01) != 0;

    size_t at = 1;
    for (size_t n = 0; n < kMaxPayloads && at < size; ++n) {
        size_t len = size - at;
        if (len >= 2) {
            const size_t stated = data[at] | static_cast<size_t>(data[at + 1]) << 8;
            at += 2;
            len = stated < size - at ? stated : size - at;
        } else {
            at = size;
            len = 0;
        }
        fuzz::deliver((options & 0x20) ? framed(data + at, len) : fuzz::Bytes(data + at, data + at + len));
        at += len;
        if (drain_each) {
            fuzz::run_task();
            fuzz::check_tables("after a task run");
        }
    }
    fuzz::run_task();
    fuzz::check_tables("after the last task run");
    fuzz::stop();
    return 0;
}
