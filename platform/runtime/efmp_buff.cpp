// Packet buffers: zeroed storage with a fixed headroom in front of the frame,
// counted per allocation reason; pushes never reach below EFMP_HEADROOM.
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "efmp.h"
#include "efrt_services.h"

namespace {

constexpr uint32_t kTailroom = 256;

struct Buffers {
    std::mutex lock;
    std::map<int, long> live;  // reason -> buffers
    unsigned fail_alloc = 0;
};

Buffers &buffers()
{
    static Buffers b;
    return b;
}

}  // namespace

extern "C" efmp_buff_t *efmp_buff_alloc_sw_user(int reason, uint32_t length)
{
    Buffers &b = buffers();
    {
        std::lock_guard<std::mutex> g(b.lock);
        if (b.fail_alloc != 0) {
            b.fail_alloc--;
            return nullptr;
        }
    }
    const uint32_t size = EFMP_BUFF_START + length + kTailroom;
    auto *buff = static_cast<efmp_buff_t *>(std::calloc(1, sizeof(efmp_buff_t)));
    auto *head = static_cast<uint8_t *>(std::calloc(1, size));
    if (buff == nullptr || head == nullptr) {
        std::free(buff);
        std::free(head);
        return nullptr;
    }
    buff->head = head;
    buff->size = size;
    buff->data_off = static_cast<uint16_t>(EFMP_BUFF_START);
    buff->len = length;
    std::lock_guard<std::mutex> g(b.lock);
    b.live[reason]++;
    return buff;
}

extern "C" void efmp_buff_free_sw_user(int reason, efmp_buff_t *buff)
{
    if (buff == nullptr)
        return;
    std::free(buff->head);
    std::free(buff);
    Buffers &b = buffers();
    std::lock_guard<std::mutex> g(b.lock);
    b.live[reason]--;
}

// Frees count buffers along the chain from first (all of it when count is 0).
extern "C" void efmp_buff_chain_free_sw_user(int reason, efmp_buff_t *first, uint32_t,
                                             uint32_t count)
{
    uint32_t freed = 0;
    while (first != nullptr && (count == 0 || freed < count)) {
        efmp_buff_t *next = first->next;
        efmp_buff_free_sw_user(reason, first);
        first = next;
        freed++;
    }
}

extern "C" uint8_t *efmp_buff_push(efmp_buff_t *buff, uint32_t n)
{
    if (buff == nullptr || buff->data_off < n || buff->data_off - n < EFMP_HEADROOM)
        return nullptr;
    buff->data_off = static_cast<uint16_t>(buff->data_off - n);
    buff->len += n;
    return buff->head + buff->data_off;
}

extern "C" uint8_t *efmp_buff_pull(efmp_buff_t *buff, uint32_t n)
{
    if (buff == nullptr || buff->len < n)
        return nullptr;
    buff->data_off = static_cast<uint16_t>(buff->data_off + n);
    buff->len -= n;
    return buff->head + buff->data_off;
}

namespace efrt {

long buff_live(int reason)
{
    std::lock_guard<std::mutex> g(buffers().lock);
    auto it = buffers().live.find(reason);
    return it == buffers().live.end() ? 0 : it->second;
}

long buff_live_total()
{
    std::lock_guard<std::mutex> g(buffers().lock);
    long total = 0;
    for (const auto &[reason, count] : buffers().live)
        total += count;
    return total;
}

void buff_fail_alloc(unsigned n)
{
    std::lock_guard<std::mutex> g(buffers().lock);
    buffers().fail_alloc = n;
}

// Live counts stay, as memory accounting does: a leak shows across tests.
void buff_reset_injection()
{
    std::lock_guard<std::mutex> g(buffers().lock);
    buffers().fail_alloc = 0;
}

}  // namespace efrt
