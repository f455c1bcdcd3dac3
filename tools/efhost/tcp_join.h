// Joining TCP segments on their way to a host: consecutive, in-order
// segments of one flow that one batch sends to a port leave as one
// super-frame with a virtio-net header (segment size, checksum left to
// complete), which a device taking TCP segmentation passes on whole, so the
// host's stack receives what a kernel VTEP would give it. Only segments the
// kernel would cut back into exactly the same bytes are joined: same
// headers but for lengths, IPv4 id (one more each), sequence number (each
// following the last), flags (ACK, PSH on the last only) and checksums
// (each verified first); every segment but the last as long as the first.
#pragma once


#include <cstddef>
#include <cstdint>
#include <vector>

#include "vnet_header.h"

namespace efhost {

// What leaves for frames[first .. first + count): the frame itself with an
// empty header when count is 1, else joined with its header.
struct TxUnit {
    size_t first = 0;
    size_t count = 1;
    std::vector<uint8_t> joined;
    VnetHeader header;
};

// The units that send frames[0 .. count), in order.
std::vector<TxUnit> join_tcp_segments(const std::vector<uint8_t> *frames, size_t count);

}  // namespace efhost
