// Reading efhost's YAML configuration (being written).
#include "config.h"

namespace efhost {

bool parse_config(const std::string &, const std::string &name, Config &, std::string &error)
{
    error = name + ": configuration reader not built yet";
    return false;
}

bool load_config(const std::string &path, Config &out, std::string &error)
{
    return parse_config("", path, out, error);
}

}  // namespace efhost
