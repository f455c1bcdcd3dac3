// vxlanctl: the control-process side of the VXLAN module. Reads one verb from
// the command line, builds everything it will send before connecting (so a
// bad argument or file sends nothing), then talks to efhost over its control
// socket.
#include <algorithm>
#include <iostream>
#include <sstream>

#include "apply_verb.h"
#include "command_line.h"
#include "counters_verb.h"
#include "send_verb.h"
#include "interface_request.h"
#include "request.h"
#include "session.h"
#include "tool_paths.h"

namespace {

using namespace vxlanctl;

std::optional<Request> build(const CommandLine &line, std::string &error)
{
    if (line.verb == "raw")
        return raw_request(line.words, error);
    if (line.verb == "show")
        return show_request(line.words, error);
    if (line.verb == "debug")
        return debug_request(line.words, error);
    return techdump_request();
}

// The words of the table verbs, and those of them that only read.
struct VerbWords {
    const char *verb;
    std::vector<std::string> all;
    std::vector<std::string> reads;
};
const VerbWords kVerbWords[] = {
    {"mac", {"list", "remote", "local"}, {"list", "local"}},
    {"suppress", {"list", "remote", "local", "switch", "switches"}, {"list", "local", "switches"}},
    {"tunnel-intf", {"create", "remove", "list", "tunnels"}, {"list", "tunnels"}},
};

// Whether the verb and its first word only read: every word the first one
// may abbreviate is a reading one.
bool reads_only(const CommandLine &line)
{
    if (line.verb == "show" || line.verb == "counters")
        return true;
    for (const VerbWords &v : kVerbWords) {
        if (line.verb != v.verb)
            continue;
        if (line.words.empty())
            return false;
        const std::string &w = line.words.front();
        bool any = false;
        for (const std::string &word : v.all) {
            if (word.rfind(w, 0) != 0)
                continue;
            if (std::find(v.reads.begin(), v.reads.end(), word) == v.reads.end())
                return false;
            any = true;
        }
        return any;
    }
    return false;
}

int run_verb(const CommandLine &line, std::ostream &out);

// --json for a verb other than counters: what it lists becomes the lines of
// one JSON document.
int run_as_json(const CommandLine &line)
{
    std::ostringstream listed;
    const int code = run_verb(line, listed);
    std::vector<std::string> lines;
    std::istringstream in(listed.str());
    for (std::string text; std::getline(in, text);)
        lines.push_back(text);
    std::string command = line.verb;
    for (const std::string &w : line.words)
        command += " " + w;
    if (code == kExitOk || !lines.empty())
        std::cout << lines_document(command, lines) << '\n';
    return code;
}

int run(int argc, char **argv)
{
    CommandLine line;
    line.socket = tools::default_control_socket();
    if (const auto done = read_command_line(std::vector<std::string>(argv + 1, argv + argc), line, std::cout, std::cerr))
        return *done;
    if ((line.interval > 0 || line.count > 0) && line.verb != "counters") {
        std::cerr << "vxlanctl: --interval and --count belong to the counters verb\n";
        return kExitUsage;
    }
    if (line.count > 0 && line.interval <= 0) {
        std::cerr << "vxlanctl: --count needs --interval\n";
        return kExitUsage;
    }
    if (line.verb == "counters")
        return run_counters(line.socket, line.timeout, CountersOptions{line.json, line.interval, line.count},
                            std::cout, std::cerr);
    if (line.json) {
        if (!reads_only(line)) {
            std::cerr << "vxlanctl: --json is for the verbs that read: show, counters, mac list|local, "
                         "suppress list|local|switches, tunnel-intf list|tunnels\n";
            return kExitUsage;
        }
        return run_as_json(line);
    }
    return run_verb(line, std::cout);
}

int run_verb(const CommandLine &line, std::ostream &out)
{
    if (line.verb == "mac")
        return run_table_verb(line.socket, ctl::kModuleMacRequest, line.words, line.timeout, out, std::cerr);
    if (line.verb == "suppress")
        return run_table_verb(line.socket, ctl::kModuleNeighbourRequest, line.words, line.timeout, out,
                              std::cerr);
    if (line.verb == "send")
        return run_send_verb(line.socket, line.type, line.words, line.timeout, out, std::cerr);
    if (line.verb == "apply")
        return run_apply_verb(line.socket, line.file, line.timeout, out, std::cerr);
    if (line.verb == "tunnel-intf")
        return run_interface_verb(line.socket, line.words, line.timeout, out, std::cerr);
    std::string error;
    const auto request = build(line, error);
    if (!request) {
        std::cerr << error << '\n';
        return kExitUsage;
    }
    return connect_and_run(line.socket, *request, line.timeout, out, std::cerr);
}

}  // namespace

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {
        std::cerr << "vxlanctl: internal error: " << e.what() << '\n';
        return kExitConnection;
    }
}
