// What efhost can find wrong with its surroundings before it starts: every
// attached device present, every capture to replay readable, the module
// loadable. Checked before efhost creates its socket, log file or
// directories, so a mistake in the configuration leaves nothing behind.
#pragma once

#include <string>

#include "config.h"

namespace efhost {

// False with error set to the first problem, e.g. "interface p1: no network
// device 'veth9'".
bool check_startup(const Config &cfg, std::string &error);

}  // namespace efhost
