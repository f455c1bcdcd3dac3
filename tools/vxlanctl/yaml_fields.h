// Checked reads of YAML nodes for the apply file: each read either returns
// the value or throws FieldError naming the line and the field path
// (vnis[0].vlans[2]) with a sentence saying what was wrong and what is
// allowed.
#pragma once

#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "field_text.h"

namespace vxlanctl {

struct FieldError {
    int line;          // 1-based
    std::string path;  // empty for the document itself
    std::string what;
};

// 1-based line of a node; 1 for a node without a position.
int line_of(const YAML::Node &node);
[[noreturn]] void fail(const YAML::Node &at, const std::string &path, const std::string &what);

std::string key_path(const std::string &path, std::string_view key);
std::string item_path(const std::string &path, size_t index);

// The node must be a mapping whose keys are all in allowed, each once.
void check_map(const YAML::Node &node, const std::string &path, std::initializer_list<std::string_view> allowed);
// A key that must be present in a checked mapping.
YAML::Node required(const YAML::Node &map, const std::string &path, std::string_view key);
// The items of a list; an empty value counts as an empty list.
std::vector<YAML::Node> items(const YAML::Node &node, const std::string &path);

// A scalar's text.
std::string scalar(const YAML::Node &node, const std::string &path, std::string_view expected);
// An integer in lo..hi; noun names it in the range message ("VNI 0 is outside 1..16777215").
uint64_t unsigned_in(const YAML::Node &node, const std::string &path, uint64_t lo, uint64_t hi,
                     std::string_view noun);
int64_t signed_in(const YAML::Node &node, const std::string &path, int64_t lo, int64_t hi, std::string_view noun);
bool boolean(const YAML::Node &node, const std::string &path);
IpAddr address(const YAML::Node &node, const std::string &path);
Mac mac_address(const YAML::Node &node, const std::string &path);

}  // namespace vxlanctl
