// efhost's receive fix-ups target: arbitrary frames as a packet socket hands
// them over, with arbitrary offload reports (a stripped tag, a pending
// checksum) and device MTUs, through the whole fix-up and each of its steps.
// Whatever comes out must respect the MTU, and completing a checksum twice
// must change nothing the second time.
//
// Input: byte 0 options (bit 0 tag stripped, bit 1 checksum pending, bit 2
// an 802.1ad tag, bit 3 bytes 1-2 are also the super-frame's segment size,
// bit 4 bytes 1 and 2 are also the pending checksum's start and offset),
// bytes 1-2 the stripped tag's control word, bytes 3-4 the device MTU
// (little-endian), then the frame.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "ef_wire.h"
#include "frame_fixup.h"

namespace {

constexpr size_t kHeader = 5;

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "\n==== fuzz check failed ====\n%s\n", what);
    std::abort();
}

void check_fits(const std::vector<efhost::Frame> &frames, uint32_t mtu, const char *what)
{
    for (const efhost::Frame &f : frames)
        if (efhost::exceeds_mtu(f.data(), f.size(), mtu))
            fail(what);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < kHeader)
        return 0;
    efhost::RxOffloadInfo info;
    info.vlan_stripped = (data[0] & 0x01) != 0;
    info.checksum_pending = (data[0] & 0x02) != 0;
    info.vlan_tpid = (data[0] & 0x04) != 0 ? EF_ETHERTYPE_QINQ : EF_ETHERTYPE_VLAN;
    info.vlan_tci = static_cast<uint16_t>(data[1] << 8 | data[2]);
    if ((data[0] & 0x08) != 0) info.gso_size = info.vlan_tci;
    if ((data[0] & 0x10) != 0) {
        info.checksum_start = data[1];
        info.checksum_offset = data[2];
    }
    const uint32_t mtu = static_cast<uint32_t>(data[3] | data[4] << 8);
    const uint8_t *frame = data + kHeader;
    const size_t len = size - kHeader;

    const efhost::FixupResult whole = efhost::fix_up_received_frame(frame, len, info, mtu);
    if (whole.dropped && !whole.frames.empty())
        fail("a dropped frame came out as frames");
    if (whole.frames.size() > 1)
        check_fits(whole.frames, mtu, "a segment of the fix-up exceeds the MTU");

    efhost::Frame f(frame, frame + len);
    (void)efhost::ethernet_header_length(f.data(), f.size());
    (void)efhost::exceeds_mtu(f.data(), f.size(), mtu);
    efhost::Frame tagged = f;
    efhost::insert_vlan_tag(tagged, info.vlan_tpid, info.vlan_tci);
    if (efhost::complete_l4_checksum(f)) {
        const efhost::Frame once = f;
        if (!efhost::complete_l4_checksum(f) || f != once)
            fail("completing an L4 checksum a second time changed the frame");
    }
    check_fits(efhost::segment_tcp(tagged, mtu), mtu, "a TCP segment exceeds the MTU");
    check_fits(efhost::segment_vxlan_tcp(tagged, mtu), mtu, "a VXLAN TCP segment exceeds the MTU");
    efhost::Frame vx(frame, frame + len);
    if (efhost::complete_vxlan_inner_checksum(vx)) {
        const efhost::Frame once = vx;
        if (!efhost::complete_vxlan_inner_checksum(vx) || vx != once)
            fail("completing a VXLAN inner checksum a second time changed the frame");
    }
    return 0;
}
