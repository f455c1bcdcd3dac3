// efhost's joining of TCP segments on transmit: a frame from the input is
// cut into segments as a sender would (so that checksums are right and runs
// are there to join), the segments are then reordered, dropped or damaged as
// the input says, and joined. The units must send every segment once and in
// order, and each joined frame, completed and cut again at its segment size
// as the kernel does, must give back exactly the segments it stands for.
//
// Input: bytes 0-1 the MTU to cut at (little-endian), byte 2 what to do to
// the segments (bit 0 swap two, bit 1 drop one, bit 2 flip a byte, bit 3 set
// PSH on one), byte 3 which segment and byte 4 which byte, then the frame.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "ef_wire.h"
#include "frame_fixup.h"
#include "tcp_join.h"

namespace {

constexpr size_t kHeader = 5;

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "\n==== fuzz check failed ====\n%s\n", what);
    std::abort();
}

void disturb(std::vector<efhost::Frame> &segs, uint8_t what, size_t which, size_t where)
{
    if (segs.empty())
        return;
    const size_t i = which % segs.size();
    if ((what & 0x01) != 0 && segs.size() > 1)
        std::swap(segs[i], segs[(i + 1) % segs.size()]);
    if ((what & 0x02) != 0 && segs.size() > 2)
        segs.erase(segs.begin() + static_cast<std::ptrdiff_t>(i));
    efhost::Frame &s = segs[i % segs.size()];
    if ((what & 0x04) != 0 && !s.empty())
        s[where % s.size()] ^= 0x01;
    if ((what & 0x08) != 0) {
        const std::optional<efhost::IpLayout> ip = efhost::locate_ip(s.data(), s.size());
        if (ip && ip->proto == EF_IPPROTO_TCP && ip->end >= ip->l4 + EF_TCP_HLEN) {
            reinterpret_cast<ef_tcp_hdr *>(s.data() + ip->l4)->flags |= EF_TCP_PSH;
            efhost::complete_l4_checksum(s);
        }
    }
}

void check_units(const std::vector<efhost::Frame> &segs, const std::vector<efhost::TxUnit> &units)
{
    size_t next = 0;
    for (const efhost::TxUnit &u : units) {
        if (u.first != next || u.count == 0)
            fail("the units do not send every segment once and in order");
        next += u.count;
        if (u.count == 1)
            continue;
        efhost::Frame whole = u.joined;
        if (!efhost::complete_checksum_at(whole, u.header.csum_start, u.header.csum_offset))
            fail("a joined frame's checksum place lies outside it");
        const std::vector<efhost::Frame> again = efhost::segment_tcp(whole, 65535, u.header.gso_size);
        const std::vector<efhost::Frame> want(segs.begin() + static_cast<std::ptrdiff_t>(u.first),
                                              segs.begin() + static_cast<std::ptrdiff_t>(u.first + u.count));
        if (again != want)
            fail("a joined frame cut again differs from the segments it stands for");
    }
    if (next != segs.size())
        fail("the units do not send every segment");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < kHeader)
        return 0;
    const uint32_t mtu = static_cast<uint32_t>(data[0] | data[1] << 8);
    const efhost::Frame frame(data + kHeader, data + size);
    std::vector<efhost::Frame> segs = efhost::segment_tcp(frame, mtu);
    if (segs.empty())
        segs.push_back(frame);
    disturb(segs, data[2], data[3], data[4]);
    check_units(segs, efhost::join_tcp_segments(segs.data(), segs.size()));
    return 0;
}
