// Field paths, map key checks and scalar readers of efhost's configuration
// reader (see config_fields.h).
#include "config_fields.h"

#include <charconv>

namespace efhost::config_detail {

int line_of(const YAML::Node &n, int fallback)
{
    const YAML::Mark m = n.Mark();
    return m.is_null() || m.line < 0 ? fallback : m.line + 1;
}

Field Field::child(const YAML::Node &n, const std::string &sub_path, int fallback_line) const
{
    // yaml-cpp marks an empty value where the next token starts, often on a
    // later line; the line of its key is the one people look for.
    return Field{n, sub_path, n.IsNull() ? fallback_line : line_of(n, fallback_line)};
}

std::string Field::subject() const
{
    return path.empty() ? "the configuration" : "field '" + path + "'";
}

std::string Field::found() const
{
    if (node.IsSequence())
        return "a list";
    if (node.IsMap())
        return "a map";
    if (node.IsScalar())
        return "'" + node.Scalar() + "'";
    return "no value";
}

void Field::fail(const std::string &problem, const std::string &allowed) const
{
    throw ConfigError(line, subject() + ": " + problem + " (" + allowed + ")");
}

void Field::fail_not(const std::string &kind, const std::string &allowed) const
{
    if (!node.IsDefined() || node.IsNull())
        fail("no value is given", allowed);
    fail(found() + " is not " + kind, allowed);
}

namespace {

std::string join(std::initializer_list<std::string_view> names)
{
    std::string out;
    for (std::string_view n : names) {
        if (!out.empty())
            out += ", ";
        out += n;
    }
    return out;
}

std::string sub_path(const std::string &parent, const std::string &key)
{
    return parent.empty() ? key : parent + "." + key;
}

}  // namespace

MapReader::MapReader(const Field &map, std::initializer_list<std::string_view> allowed,
                     const std::string &what)
    : map_(map)
{
    if (!map.node.IsMap())
        map.fail_not("a map", what);
    const std::string allowed_keys = "allowed: " + join(allowed);
    for (auto it = map.node.begin(); it != map.node.end(); ++it) {
        const int key_line = line_of(it->first, map.line);
        if (!it->first.IsScalar())
            throw ConfigError(key_line, map.subject() + ": a key is not a name (" + allowed_keys + ")");
        const std::string key = it->first.Scalar();
        Field value = map.child(it->second, sub_path(map.path, key), key_line);
        bool known = false;
        for (std::string_view a : allowed)
            known = known || a == key;
        if (!known)
            throw ConfigError(key_line, value.subject() + " is not known (" + allowed_keys + ")");
        if (const Field *first = find(key))
            throw ConfigError(key_line, value.subject() + " is given twice (first on line " +
                                            std::to_string(first->line) + ")");
        entries_.emplace_back(key, std::move(value));
    }
}

const Field *MapReader::find(std::string_view key) const
{
    for (const auto &[k, f] : entries_)
        if (k == key)
            return &f;
    return nullptr;
}

const Field &MapReader::require(std::string_view key, const std::string &allowed) const
{
    if (const Field *f = find(key))
        return *f;
    Field missing{YAML::Node(), sub_path(map_.path, std::string(key)), map_.line};
    throw ConfigError(map_.line, missing.subject() + " is missing (" + allowed + ")");
}

std::vector<Field> list_items(const Field &f, const std::string &what)
{
    if (!f.node.IsSequence())
        f.fail_not("a list", what);
    std::vector<Field> items;
    for (size_t i = 0; i < f.node.size(); ++i)
        items.push_back(f.child(f.node[i], f.path + "[" + std::to_string(i) + "]", f.line));
    return items;
}

std::string read_scalar(const Field &f, const std::string &kind, const std::string &allowed)
{
    if (!f.node.IsScalar())
        f.fail_not(kind, allowed);
    return f.node.Scalar();
}

int64_t read_int(const Field &f, int64_t lo, int64_t hi, const std::string &allowed)
{
    const std::string text = read_scalar(f, "an integer", allowed);
    // A quoted number is a string in YAML; taking it as a number would hide
    // a mistake in the file.
    if (f.node.Tag() == "!")
        f.fail("the quoted string '" + text + "' is not an integer", allowed);
    int64_t v = 0;
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, v);
    if (ec == std::errc::result_out_of_range)
        f.fail(f.found() + " is out of range", allowed);
    if (ec != std::errc() || ptr != end || text.empty())
        f.fail_not("an integer", allowed);
    if (v < lo || v > hi)
        f.fail(f.found() + " is out of range", allowed);
    return v;
}

bool read_bool(const Field &f)
{
    static constexpr std::pair<std::string_view, bool> kWords[] = {
        {"true", true}, {"True", true}, {"TRUE", true},
        {"false", false}, {"False", false}, {"FALSE", false},
    };
    const std::string allowed = "true or false";
    const std::string text = read_scalar(f, "true or false", allowed);
    if (f.node.Tag() != "!")
        for (const auto &[word, value] : kWords)
            if (word == text)
                return value;
    f.fail_not("true or false", allowed);
}

std::string read_string(const Field &f, size_t max_len, const std::string &allowed)
{
    std::string text = read_scalar(f, "a string", allowed);
    if (text.empty())
        f.fail("an empty string is not allowed", allowed);
    if (max_len != 0 && text.size() >= max_len)
        f.fail(f.found() + " is too long", allowed);
    return text;
}

}  // namespace efhost::config_detail
