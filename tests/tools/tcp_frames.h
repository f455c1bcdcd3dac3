// TCP frames for the tests of super-frame segmentation and joining: a
// super-frame with timestamps over IPv4 or IPv6 whose checksum is left for
// segment_tcp to write per segment, and the segments of one.
#pragma once

#include <cstdint>
#include <vector>

#include "ef_wire.h"
#include "frame_fixup.h"

namespace tcp_frames {

using Bytes = std::vector<uint8_t>;

inline void put16(Bytes &b, uint16_t v)
{
    b.push_back(static_cast<uint8_t>(v >> 8));
    b.push_back(static_cast<uint8_t>(v));
}

inline void put32(Bytes &b, uint32_t v)
{
    put16(b, static_cast<uint16_t>(v >> 16));
    put16(b, static_cast<uint16_t>(v));
}

// payload bytes from 02:00:00:00:00:0a to 02:00:00:00:00:0b; the IPv4 id and
// the sequence number wrap while segments are made.
inline Bytes super_frame(bool v6, size_t payload, uint8_t flags, uint16_t source_port = 40000)
{
    Bytes f = {0x02, 0, 0, 0, 0, 0x0B, 0x02, 0, 0, 0, 0, 0x0A};
    put16(f, v6 ? EF_ETHERTYPE_IPV6 : EF_ETHERTYPE_IPV4);
    const size_t l4_len = 32 + payload;
    if (v6) {
        f.insert(f.end(), {0x60, 0, 0, 0});
        put16(f, static_cast<uint16_t>(l4_len));
        f.insert(f.end(), {EF_IPPROTO_TCP, 64});
        for (int i = 0; i < 32; ++i) f.push_back(static_cast<uint8_t>(i < 16 ? 0x20 + i : 0x40 + i));
    } else {
        f.insert(f.end(), {0x45, 0});
        put16(f, static_cast<uint16_t>(EF_IPV4_HLEN + l4_len));
        put16(f, 0xFFFE);
        f.insert(f.end(), {0x40, 0, 64, EF_IPPROTO_TCP, 0, 0, 10, 0, 0, 1, 10, 0, 0, 2});
    }
    put16(f, source_port);
    put16(f, 5201);
    put32(f, 0xFFFFF000u);
    put32(f, 0x01020304u);
    f.insert(f.end(), {0x80, flags});
    put16(f, 512);
    put32(f, 0);
    f.insert(f.end(), {1, 1, 8, 10, 0, 0, 0x12, 0x34, 0, 0, 0x56, 0x78});
    for (size_t i = 0; i < payload; ++i) f.push_back(static_cast<uint8_t>(i * 7 + i / 251));
    return f;
}

// Segments of a super-frame cut to 1450 bytes of IP, checksums right.
inline std::vector<Bytes> segments_of(bool v6, size_t payload, uint8_t flags, uint16_t source_port = 40000)
{
    return efhost::segment_tcp(super_frame(v6, payload, flags, source_port), 1450);
}

}  // namespace tcp_frames
