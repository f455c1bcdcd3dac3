// vxlanctl's command line: the global options, the verbs and their
// arguments. A verb may be shortened to any prefix that names only it, as
// with ip(8); CLI11 knows no prefixes, so the verb is spelled out in full
// before CLI11 reads the line.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace vxlanctl {

struct CommandLine {
    std::string verb;  // in full
    std::string socket;
    double timeout = 10;
    std::string file;  // apply
    std::string type;  // send
    std::vector<std::string> words;
    bool json = false;     // --json: what a read verb lists, as JSON
    double interval = 0;   // counters --interval: seconds between rates
    unsigned count = 0;    // counters --count: samples of rates, 0 until interrupted
};

// Reads args (without the program name) into line, whose socket holds the
// default on entry. Returns the exit status when vxlanctl has nothing left
// to do: help or version printed on out, or a usage error printed on err.
std::optional<int> read_command_line(const std::vector<std::string> &args, CommandLine &line, std::ostream &out,
                                     std::ostream &err);

}  // namespace vxlanctl
