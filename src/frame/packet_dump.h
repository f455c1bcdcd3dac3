// The packet dump printed for traced packets at named positions of the
// packet paths.
#pragma once

#include "efmp.h"

extern "C" {
// Prints the buffer's metadata and its first bytes, one log call per line.
// Called only for packets whose trace lines are printed.
void vxlan_ef_pkt_dump(efmp_buff_t *buff, const char *position);
}
