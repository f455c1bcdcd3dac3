// vxlanctl's verbs and options as CLI11 definitions; see command_line.h.
#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <ostream>

#include "request.h"
#include "tlv_catalogue.h"
#include "tool_paths.h"
#include "tool_version.h"
#include "word_match.h"

namespace vxlanctl {

namespace {

// One line per TLV type, from the catalogue send encodes with.
std::string send_footer()
{
    std::string out = "TLV types (name or number) and their fields:";
    for (const TlvDef &def : catalogue()) {
        std::string fields;
        for (const FieldDef &f : def.fields)
            fields += (fields.empty() ? "" : ", ") + std::string(f.name) + " " + std::string(field_kind_name(f.kind));
        out += "\n  " + std::string(def.name) + " (" + std::to_string(def.code) +
               "): " + (fields.empty() ? "no fields" : fields);
    }
    return out;
}

void add_options(CLI::App &app, CommandLine &line)
{
    app.set_version_flag("--version", tools::version_line("vxlanctl"));
    app.add_option("--socket", line.socket,
                   std::string("efhost's control socket (default: $EFHOST_SOCKET, else ") + tools::kDefaultControlSocket + ")");
    app.add_option("--timeout", line.timeout, "seconds to wait for efhost's answer (default 10)")
        ->check(CLI::Validator(
            [](std::string &text) {
                const auto v = std::strtod(text.c_str(), nullptr);
                return v > 0 ? std::string() : "the timeout must be a number of seconds above 0, got '" + text + "'";
            },
            "SECONDS>0"));
    // Without a variable: a flag that takes no value, so the verb after it
    // is still found (takes_value).
    app.add_flag("--json")->description(
                 "print what a read verb lists as JSON (show, counters, mac list|local, suppress "
                 "list|local|switches, tunnel-intf list|tunnels)");
}

void add_verbs(CLI::App &app, CommandLine &line)
{
    app.add_subcommand("apply", "full resynchronisation from a YAML file")->add_option("FILE", line.file)->required();
    auto *send = app.add_subcommand("send", "send one TLV: send TYPE field=value ...");
    send->add_option("TYPE", line.type, "type name or number")->required();
    send->add_option("FIELDS", line.words, "field=value, unset fields are 0");
    send->footer(send_footer());
    app.add_subcommand("raw", "send a whole VXLAN message given in hex")->add_option("HEX", line.words)->required();
    app.add_subcommand("show", "show status|entry [VNI]|intf|vrf|subif")->add_option("TABLE", line.words)->required();
    app.add_subcommand("debug", "set the debug mask: debug MASK [IFX BUDGET]")
        ->add_option("ARGS", line.words)
        ->required();
    app.add_subcommand("techdump", "write the tech-support dump");
    app.add_subcommand("tunnel-intf", "efhost's tunnel interfaces: create IFX NAME | remove IFX | list | tunnels")
        ->add_option("ARGS", line.words)
        ->required();
    auto *counters = app.add_subcommand(
        "counters", "efhost's counters: ports, pipeline, L3 engine, MAC table, module drops, VNIs, tunnels");
    counters->add_option("--interval", line.interval, "print rates per second every SECONDS until interrupted")
        ->check(CLI::PositiveNumber);
    counters->add_option("--count", line.count, "with --interval: stop after this many samples")
        ->check(CLI::PositiveNumber);
    app.add_subcommand("mac", "efhost's MAC table: list [vni V] [mac M] | remote add VNI MAC IFX | "
                              "remote remove VNI MAC IFX | local [since G]")
        ->add_option("ARGS", line.words)
        ->required();
    app.add_subcommand("suppress", "efhost's neighbour suppression: list [vni V] | remote add VNI IP MAC | "
                                   "remote remove VNI IP | local [since G] | switch VNI arp|nd on|off | switches")
        ->add_option("ARGS", line.words)
        ->required();
}

// Whether an argument is a global option that takes the next argument as its value.
bool takes_value(const CLI::App &app, const std::string &arg)
{
    for (const CLI::Option *opt : app.get_options()) {
        if (opt->get_positional() || opt->get_type_size_min() == 0 || opt->get_expected_min() == 0)
            continue;
        const auto &names = opt->get_lnames();
        if (arg.starts_with("--") && std::find(names.begin(), names.end(), arg.substr(2)) != names.end())
            return true;
    }
    return false;
}

// The index of the verb in args: the first word that is neither an option
// nor an option's value.
std::optional<size_t> verb_index(const CLI::App &app, const std::vector<std::string> &args)
{
    for (size_t i = 0; i < args.size(); ++i) {
        if (takes_value(app, args[i]))
            ++i;
        else if (!args[i].starts_with("-"))
            return i;
    }
    return std::nullopt;
}

// Spells out a shortened verb in args; false with error set when the word
// names no verb or several.
bool expand_verb(const CLI::App &app, std::vector<std::string> &args, std::string &error)
{
    const auto at = verb_index(app, args);
    if (!at)
        return true;
    std::vector<std::string> verbs;
    for (const CLI::App *sub : app.get_subcommands([](const CLI::App *) { return true; }))
        verbs.push_back(sub->get_name());
    const WordMatch match = match_word(args[*at], verbs);
    if (match.kind == WordMatch::Kind::Found) {
        args[*at] = match.word;
        return true;
    }
    if (match.kind == WordMatch::Kind::Ambiguous) {
        error = "vxlanctl: ambiguous command '" + args[*at] + "'; it could be " + one_of(match.candidates);
        return false;
    }
    std::string all;
    for (const std::string &v : verbs)
        all += (all.empty() ? "" : ", ") + v;
    error = "vxlanctl: unknown command '" + args[*at] + "'; commands: " + all;
    return false;
}

}  // namespace

std::optional<int> read_command_line(const std::vector<std::string> &args, CommandLine &line, std::ostream &out,
                                     std::ostream &err)
{
    CLI::App app{"vxlanctl: configures and queries the VXLAN module of a running efhost"};
    app.name("vxlanctl");
    add_options(app, line);
    app.require_subcommand(1, 1);
    app.fallthrough();
    add_verbs(app, line);
    std::vector<std::string> spelled = args;
    std::string error;
    if (!expand_verb(app, spelled, error)) {
        err << error << '\n';
        return kExitUsage;
    }
    std::reverse(spelled.begin(), spelled.end());
    try {
        app.parse(spelled);
    } catch (const CLI::ParseError &e) {
        return app.exit(e, out, err) == 0 ? kExitOk : kExitUsage;
    }
    line.verb = app.get_subcommands().front()->get_name();
    line.json = app.get_option("--json")->count() > 0;
    return std::nullopt;
}

}  // namespace vxlanctl
