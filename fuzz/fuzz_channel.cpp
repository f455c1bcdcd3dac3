// Control channel target: arbitrary bytes as a handful of channel payloads,
// through the module's receive callback, its queue and the dispatcher on the
// module's task, with the whole table consistency check after every task run
// and the module stopped (every table swept, every block given back) after
// each input.
//
// Input: one options byte, then payloads, as tests/unit/channel_fuzz_input.h
// reads them (the regression tests replay findings through the same code):
//   bit 0  run the task after every payload (else once, after all of them)
//   bit 1  start with the packet plane off (CAP_VXLAN_BASE)
//   bit 2  software forwarding mode; bit 3  L2 VNI mapping
//   bit 4  start from the configured segment instead of empty tables
//   bit 5  each payload is a TLV area: the harness puts a well-formed header
//          in front, so that mutations reach the handlers instead of the
//          framing check
//
// The peer is trusted to send every TLV value as long as its type's layout,
// and the handlers read their fixed layouts without a length check. The
// dispatcher gives them that room itself: it reads each message from a
// zero-padded image larger than any message plus the longest layout, so a
// short value reads the following TLV's bytes or zeros, never outside. The
// payloads are therefore delivered exactly as the input gives them.
#include <cstddef>
#include <cstdint>

#include "channel_fuzz_input.h"
#include "module_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    namespace input = vxtest::channel_input;
    const uint8_t options = data[0];
    fuzz::StartOptions start;
    start.base = (options & input::kPacketPlaneOff) == 0;
    start.soft = (options & input::kSoftForwarding) != 0;
    start.l2vni_mapping = (options & input::kL2VniMapping) != 0;
    if (options & input::kSegment)
        fuzz::start_segment(start);
    else
        fuzz::start(start);
    for (const fuzz::Bytes &payload : input::payloads(data, size)) {
        fuzz::deliver(payload);
        if (options & input::kTaskAfterEach) {
            fuzz::run_task();
            fuzz::check_tables("after a task run");
        }
    }
    fuzz::run_task();
    fuzz::check_tables("after the last task run");
    fuzz::stop();
    return 0;
}
