// The sections of efhost's configuration file, each read from its YAML node
// into the Config records (config.h). Shared by config.cpp, which reads the
// top level, and the files reading the larger sections.
#pragma once

#include <optional>
#include <set>
#include <vector>

#include "config.h"
#include "config_fields.h"

namespace efhost::config_detail {

// An interface as read, with the fields the checks across interfaces report.
struct InterfaceRead {
    InterfaceConfig config;
    Field index;
    Field name;
    std::optional<Field> parent;
};

// config_interface.cpp: one item of the interfaces list, checked on its own.
InterfaceRead read_interface(const Field &item);
std::array<uint8_t, 6> read_mac(const Field &f);

// config_underlay.cpp: the routes and static neighbours; `indexes` are the
// interfaces they may name.
std::vector<RouteConfig> read_routes(const Field &list, const std::set<uint32_t> &indexes);
std::vector<NeighbourConfig> read_neighbours(const Field &list, const std::set<uint32_t> &indexes);

// Refuses an interface index not among indexes (0 only when zero_allowed).
uint32_t read_interface_ref(const Field &f, const std::set<uint32_t> &indexes, bool zero_allowed);

}  // namespace efhost::config_detail
