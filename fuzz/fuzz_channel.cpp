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
//
// The peer is trusted to send every TLV value as long as its type's layout,
// and the handlers read their fixed layouts without a length check. The
// dispatcher gives them that room itself: it reads each message from a
// zero-padded image larger than any message plus the longest layout, so a
// short value reads the following TLV's bytes or zeros, never outside. The
// payloads are therefore delivered exactly as the input gives them.
#include <cstddef>
#include <cstdint>

#include "module_harness.h"

namespace {

constexpr size_t kMaxPayloads = 32;

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
        fuzz::deliver(fuzz::Bytes(data + at, data + at + len));
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
