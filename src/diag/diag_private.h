// Private declarations of the diagnostics (the show functions themselves are
// exported and declared in the public header).
#pragma once

#include "vxlan_ef.h"
