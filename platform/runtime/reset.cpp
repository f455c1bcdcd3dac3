// Putting the whole reference platform back to its initial state between
// tests or runs.
#include "efrt.h"

namespace efrt {

void mem_reset_injection();
void tasks_reset();
void msg_reset();
void syslog_reset();

void reset()
{
    mem_reset_injection();
    tasks_reset();
    msg_reset();
    syslog_reset();
    lsm_clear();
}

}  // namespace efrt
