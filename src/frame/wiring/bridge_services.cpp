// The bridge module's services that forwarding uses, each null until the
// bridge publishes it. Packet threads read them without a lock.
#include "vxlan_ef.h"

void *vxlan_ef_bridge_mac_lookup;
void *vxlan_ef_bridge_intf_pvid_get;
void *vxlan_ef_l2protocol_pkt_check;
void *vxlan_ef_add_mac_entry;
void *vxlan_ef_intf_vlan_check;
