// Putting the whole reference platform back to its initial state between
// tests or runs.
#include "efrt.h"
#include "efrt_bcast.h"
#include "efrt_l3.h"
#include "efrt_services.h"
#include "suppress.h"

namespace efrt {

void mem_reset_injection();
void tasks_reset();
void msg_reset();
void syslog_reset();
void buff_reset_injection();
void services_reset();
void hooks_reset();
void lsm_events_reset();
void bridge_reset();
void caps_reset();
void appdb_reset();

void reset()
{
    mem_reset_injection();
    tasks_reset();
    msg_reset();
    syslog_reset();
    lsm_clear();
    buff_reset_injection();
    services_reset();
    hooks_reset();
    lsm_events_reset();
    bridge_reset();  // publishes its services into the empty registry
    caps_reset();
    appdb_reset();
    l3_reset();
    bcast_reset();
    suppress_reset();
    buff_pool_trim();
}

}  // namespace efrt
