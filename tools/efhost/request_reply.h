// What efhost answers to a text request on its control socket (run-time
// interfaces, the MAC table, neighbour suppression): a status line, "ok ..."
// or the reason of a refusal, and the listed lines.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace efhost {

struct RequestReply {
    bool ok = false;
    std::string text;                // "ok ..." or the reason of a refusal
    std::vector<std::string> lines;  // one per listed item
};

inline RequestReply refuse(const std::string &why) { return {false, why, {}}; }

// The answer to "local since G" of a table with a generation: nothing while
// the client's generation is the table's, else the lines the table lists
// now ("ok generation G N <what>").
inline RequestReply changes_since(const std::optional<uint64_t> &since, uint64_t generation,
                                  std::vector<std::string> lines, const std::string &what)
{
    if (since && *since == generation)
        return {true, "ok unchanged generation " + std::to_string(generation), {}};
    const std::string text =
        "ok generation " + std::to_string(generation) + " " + std::to_string(lines.size()) + " " + what;
    return {true, text, std::move(lines)};
}

}  // namespace efhost
