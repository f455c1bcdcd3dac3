// The words of efhost's text requests on its control socket, read and
// written one way for every table: VNIs, MACs and interface indexes.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace efhost {

using Mac = std::array<uint8_t, 6>;

// A request's words, split at blanks.
std::vector<std::string> request_words(const std::string &request);

// 1..16777215, or nothing.
std::optional<uint32_t> parse_vni(const std::string &text);
// Six hex bytes separated by colons (aa:bb:cc:dd:ee:ff), or nothing.
std::optional<Mac> parse_mac(const std::string &text);
// 1..4294967295, or nothing.
std::optional<uint32_t> parse_ifindex(const std::string &text);

// A table generation (0..2^64-1), or nothing.
std::optional<uint64_t> parse_generation(const std::string &text);

// Lower-case aa:bb:cc:dd:ee:ff.
std::string mac_text(const uint8_t *mac);

// The refusals of those words, one text each.
std::string not_a_vni(const std::string &text);
std::string not_a_mac(const std::string &text);
std::string not_an_ifindex(const std::string &text);
std::string not_a_generation(const std::string &text);

}  // namespace efhost
