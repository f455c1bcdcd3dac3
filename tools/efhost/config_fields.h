// The building blocks of efhost's configuration reader: a YAML node with the
// path and line it is reported under, a map whose keys are checked against
// the ones it may hold, and readers of scalars that refuse what does not fit.
// Every refusal throws ConfigError with one message for people.
#pragma once

#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace efhost::config_detail {

// A refusal: the 1-based line and the text that follows "FILE:LINE: ".
class ConfigError : public std::runtime_error {
public:
    ConfigError(int line, const std::string &text) : std::runtime_error(text), line_(line) {}
    int line() const { return line_; }

private:
    int line_;
};

// A node and where it is: its field path (e.g. interfaces[1].mac) and line.
struct Field {
    YAML::Node node;
    std::string path;
    int line = 1;

    Field child(const YAML::Node &n, const std::string &sub_path, int fallback_line) const;
    // "field 'PATH'", or "the configuration" for the whole file.
    std::string subject() const;
    // What the node holds, for messages: 'text', a list, a map or no value.
    std::string found() const;
    // Throws "field 'PATH': PROBLEM (ALLOWED)".
    [[noreturn]] void fail(const std::string &problem, const std::string &allowed) const;
    // Throws "field 'PATH': FOUND is not KIND (ALLOWED)", or "no value is
    // given" when the node is empty.
    [[noreturn]] void fail_not(const std::string &kind, const std::string &allowed) const;
};

// The 1-based line of a node, or fallback when yaml-cpp has none for it.
int line_of(const YAML::Node &n, int fallback);

// A map of fields. Construction refuses a node that is not a map, a key
// that is not among `allowed` and a key given twice.
class MapReader {
public:
    MapReader(const Field &map, std::initializer_list<std::string_view> allowed,
              const std::string &what);

    // The value of key, or nullptr when the key is absent.
    const Field *find(std::string_view key) const;
    // The value of key; refuses an absent key naming what is allowed.
    const Field &require(std::string_view key, const std::string &allowed) const;
    const Field &self() const { return map_; }

private:
    Field map_;
    std::vector<std::pair<std::string, Field>> entries_;
};

// Refuses a node that is not a list; returns its items with their paths.
std::vector<Field> list_items(const Field &f, const std::string &what);

// A decimal integer within [lo, hi]; allowed describes the range for people.
int64_t read_int(const Field &f, int64_t lo, int64_t hi, const std::string &allowed);
bool read_bool(const Field &f);
// A non-empty string shorter than max_len bytes (0: any length).
std::string read_string(const Field &f, size_t max_len, const std::string &allowed);
// The scalar's text; refuses lists, maps and empty values.
std::string read_scalar(const Field &f, const std::string &kind, const std::string &allowed);

}  // namespace efhost::config_detail
