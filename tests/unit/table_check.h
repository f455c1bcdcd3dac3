// A whole-instance consistency check of the configuration tables, usable by
// any test and by the fuzz targets after every message they deliver: the
// counts agree with what the lists and trees hold, every record sits in each
// list and hash it belongs to (and nowhere else), the VLAN arrays agree with
// the VLAN nodes, and the two sub-interface trees are sound red-black trees
// over the same records, each in its own order.
//
// Takes no lock: call it while nothing changes the tables (the deterministic
// platform's task runs on the caller's thread). Walks are bounded, so a list
// that never closes is reported rather than followed for ever.
#pragma once

#include <string>
#include <vector>

#include "vxlan_ef.h"

namespace vxtest {

// Every inconsistency found, one line each; empty when the tables agree.
std::vector<std::string> table_problems(const vxlan_ef_vsd_t *vsd);

// The same as one text ("" when consistent), for assertion messages.
std::string table_problems_text(const vxlan_ef_vsd_t *vsd);

}  // namespace vxtest
