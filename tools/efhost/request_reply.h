// What efhost answers to a text request on its control socket (run-time
// interfaces, the MAC table, neighbour suppression): a status line, "ok ..."
// or the reason of a refusal, and the listed lines.
#pragma once

#include <string>
#include <vector>

namespace efhost {

struct RequestReply {
    bool ok = false;
    std::string text;                // "ok ..." or the reason of a refusal
    std::vector<std::string> lines;  // one per listed item
};

inline RequestReply refuse(const std::string &why) { return {false, why, {}}; }

}  // namespace efhost
