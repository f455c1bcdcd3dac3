// Checked YAML reads; see yaml_fields.h.
#include "yaml_fields.h"

#include <map>

namespace vxlanctl {

namespace {

std::string found(const YAML::Node &node)
{
    if (node.IsSequence())
        return "a list";
    if (node.IsMap())
        return "a mapping";
    if (node.IsScalar())
        return "'" + node.Scalar() + "'";
    return "nothing";
}

std::string joined(std::initializer_list<std::string_view> names)
{
    std::string out;
    for (std::string_view n : names)
        out += (out.empty() ? "" : ", ") + std::string(n);
    return out;
}

}  // namespace

int line_of(const YAML::Node &node)
{
    const YAML::Mark mark = node.Mark();
    return mark.is_null() ? 1 : mark.line + 1;
}

void fail(const YAML::Node &at, const std::string &path, const std::string &what)
{
    throw FieldError{line_of(at), path, what};
}

std::string key_path(const std::string &path, std::string_view key)
{
    return path.empty() ? std::string(key) : path + "." + std::string(key);
}

std::string item_path(const std::string &path, size_t index) { return path + "[" + std::to_string(index) + "]"; }

void check_map(const YAML::Node &node, const std::string &path, std::initializer_list<std::string_view> allowed)
{
    if (!node.IsMap())
        fail(node, path, "expected a mapping with keys " + joined(allowed) + ", found " + found(node));
    std::map<std::string, int> seen;
    for (const auto &kv : node) {
        const std::string key = kv.first.Scalar();
        bool known = false;
        for (std::string_view a : allowed)
            known = known || a == key;
        if (!known)
            fail(kv.first, key_path(path, key), "unknown key; allowed here: " + joined(allowed));
        auto [it, fresh] = seen.emplace(key, line_of(kv.first));
        if (!fresh)
            fail(kv.first, key_path(path, key), "given twice (first at line " + std::to_string(it->second) + ")");
    }
}

YAML::Node required(const YAML::Node &map, const std::string &path, std::string_view key)
{
    const YAML::Node node = map[std::string(key)];
    if (!node)
        fail(map, key_path(path, key), "missing; it is required");
    return node;
}

std::vector<YAML::Node> items(const YAML::Node &node, const std::string &path)
{
    if (node.IsNull())
        return {};
    if (!node.IsSequence())
        fail(node, path, "expected a list, found " + found(node));
    return std::vector<YAML::Node>(node.begin(), node.end());
}

std::string scalar(const YAML::Node &node, const std::string &path, std::string_view expected)
{
    if (!node.IsScalar())
        fail(node, path, "expected " + std::string(expected) + ", found " + found(node));
    return node.Scalar();
}

uint64_t unsigned_in(const YAML::Node &node, const std::string &path, uint64_t lo, uint64_t hi,
                     std::string_view noun)
{
    const std::string text = scalar(node, path, "an integer");
    const auto v = parse_unsigned(text);
    if (!v)
        fail(node, path, "expected an integer, found '" + text + "'");
    if (*v < lo || *v > hi)
        fail(node, path, std::string(noun) + " " + std::to_string(*v) + " is outside " + std::to_string(lo) + ".." +
                             std::to_string(hi));
    return *v;
}

int64_t signed_in(const YAML::Node &node, const std::string &path, int64_t lo, int64_t hi, std::string_view noun)
{
    const std::string text = scalar(node, path, "an integer");
    const auto v = parse_signed(text);
    if (!v)
        fail(node, path, "expected an integer, found '" + text + "'");
    if (*v < lo || *v > hi)
        fail(node, path, std::string(noun) + " " + std::to_string(*v) + " is outside " + std::to_string(lo) + ".." +
                             std::to_string(hi));
    return *v;
}

bool boolean(const YAML::Node &node, const std::string &path)
{
    const std::string text = scalar(node, path, "true or false");
    if (text != "true" && text != "false")
        fail(node, path, "expected true or false, found '" + text + "'");
    return text == "true";
}

IpAddr address(const YAML::Node &node, const std::string &path)
{
    const std::string text = scalar(node, path, "an IPv4 or IPv6 address");
    const auto ip = parse_ip(text);
    if (!ip)
        fail(node, path, "'" + text + "' is not an IPv4 or IPv6 address");
    return *ip;
}

Mac mac_address(const YAML::Node &node, const std::string &path)
{
    const std::string text = scalar(node, path, "a MAC address");
    const auto mac = parse_mac(text);
    if (!mac)
        fail(node, path, "'" + text + "' is not a MAC address such as 00:00:5e:00:01:01");
    return *mac;
}

}  // namespace vxlanctl
