// Receive parser target: arbitrary frames received on an access port, the
// underlay uplink, the MLAG peer-link, a sub-interface or an overlay tunnel
// of the configured segment, through the receive parsers the module attached
// there (the Ethernet-level parser with VXLAN decapsulation and the access
// path, then the tunnel's parser for what was decapsulated; the tunnel
// parser alone for frames delivered on a tunnel). Frames may be shorter than
// any header, and the buffer's length may be cut below what it stores.
//
// Input: options, length cut, the buffer's VNI word (frames on a tunnel
// carry one), then the frame.
//   byte 0  bit 0 software forwarding, bit 1 L2 VNI mapping, bit 2 bridge
//           services published, bit 3 the receiving port is an aggregate
//           member, bit 4 parser tracing with packet dumps, bits 5-7 the
//           receiving interface (P1 P2 UP PL S1 T1 T2 T6)
//   byte 1  bytes taken off the buffer's length after the frame is stored
//   bytes 2-5  the VNI word
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "efrt_pipeline.h"
#include "efrt_services.h"
#include "module_harness.h"
#include "vxlan_ef.h"

namespace {

using namespace fuzz::seg;

constexpr size_t kHeader = 6;
constexpr std::array<uint32_t, 8> kReceivers{kP1, kP2, kUplink, kPeerLink, kS1, kT1, kT2, kT6};

bool is_tunnel(uint32_t ifx) { return ifx == kT1 || ifx == kT2 || ifx == kT6; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < kHeader)
        return 0;
    const uint8_t options = data[0];
    fuzz::StartOptions start;
    start.soft = (options & 0x01) != 0;
    start.l2vni_mapping = (options & 0x02) != 0;
    start.bridge_services = (options & 0x04) != 0;
    fuzz::start_segment(start);
    const uint32_t ifx = kReceivers[options >> 5];
    lsm_intfcb_t *receiver = fuzz::intf(ifx);
    if (options & 0x08)
        receiver->status |= LSM_IF_STATUS_AP_MEMBER;
    if (options & 0x10) {
        g_vxlan_vsd->debug_mask = VXLAN_EF_DBG_PARSER;
        g_vxlan_vsd->trace_ifx = ifx;
        g_vxlan_vsd->trace_budget = 4;
    }

    const uint8_t *frame = data + kHeader;
    const auto len = static_cast<uint32_t>(size - kHeader);
    efmp_buff_t *b = efmp_buff_alloc_sw_user(EFMP_REASON_SW_USER, len);
    if (b == nullptr)
        fuzz::fail("no buffer for a frame of " + std::to_string(len) + " bytes");
    std::memcpy(b->head + b->data_off, frame, len);
    b->len -= std::min<uint32_t>(b->len, data[1]);
    b->src_intf = receiver;
    b->src_ifx = ifx;
    std::memcpy(b->vni_tag, data + 2, 4);

    if (is_tunnel(ifx)) {
        efmp_parser_fn parser = efrt::efmp_parser_of(receiver);
        if (parser == nullptr)
            fuzz::fail("the tunnel has no parser attached");
        uint32_t result = 0;
        const int r = parser(b, &result);
        if (result != 1 || (r != EF_Normal && r != EF_Drop))
            fuzz::fail("the tunnel parser answered " + std::to_string(r));
    } else {
        const int r = efrt::pipeline_parse(b);
        if (r != EF_Normal && r != EF_Drop)
            fuzz::fail("the receive parsers answered " + std::to_string(r));
    }
    if (uint64_t{b->data_off} + b->len > b->size)
        fuzz::fail("the parsed frame runs past its buffer's storage");
    efmp_buff_free_sw_user(EFMP_REASON_SW_USER, b);
    fuzz::check_tables("after parsing a frame");
    fuzz::stop();
    return 0;
}
