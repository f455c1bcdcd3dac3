// A new packet buffer that carries another buffer's metadata over storage of
// its own: what broadcast clones and fragments both start from.
#pragma once

#include <cstdint>

#include "efmp.h"

namespace efrt {

// Allocates len bytes under reason and copies src's metadata into the new
// buffer, keeping the new storage (head, size, data offset) and leaving it
// outside any chain or node list. nullptr when the allocation fails.
inline efmp_buff_t *alloc_with_metadata(int reason, const efmp_buff_t *src, uint32_t len)
{
    efmp_buff_t *b = efmp_buff_alloc_sw_user(reason, len);
    if (b == nullptr)
        return nullptr;
    uint8_t *head = b->head;
    const uint32_t size = b->size;
    const uint16_t data_off = b->data_off;
    *b = *src;
    b->next = nullptr;
    b->mcast_nodes = nullptr;
    b->head = head;
    b->size = size;
    b->data_off = data_off;
    b->len = len;
    return b;
}

}  // namespace efrt
