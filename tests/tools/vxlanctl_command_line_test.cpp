// vxlanctl's command line: verbs shortened as ip(8) allows, the refusal of
// an unknown or ambiguous verb naming the choices, --version, and the TLV
// types send --help lists.
#include <gtest/gtest.h>

#include <sstream>

#include "command_line.h"
#include "request.h"
#include "tlv_catalogue.h"
#include "tool_version.h"
#include "word_match.h"

namespace {

using namespace vxlanctl;

struct Outcome {
    std::optional<int> exit;
    std::string out;
    std::string err;
    CommandLine line;
};

Outcome read(const std::vector<std::string> &args)
{
    Outcome o;
    o.line.socket = "/default.sock";
    std::ostringstream out, err;
    o.exit = read_command_line(args, o.line, out, err);
    o.out = out.str();
    o.err = err.str();
    return o;
}

const std::string kCommands =
    "commands: apply, send, raw, show, debug, techdump, tunnel-intf, counters, mac, suppress\n";

TEST(VxlanctlCommandLineTest, UnknownVerbIsNamedWithTheCommands)
{
    Outcome o = read({"bogus"});
    EXPECT_EQ(o.exit, kExitUsage);
    EXPECT_EQ(o.err, "vxlanctl: unknown command 'bogus'; " + kCommands);
    o = read({"--socket", "/x.sock", "shwo", "status"});
    EXPECT_EQ(o.exit, kExitUsage);
    EXPECT_EQ(o.err, "vxlanctl: unknown command 'shwo'; " + kCommands);
}

TEST(VxlanctlCommandLineTest, AmbiguousVerbIsRefusedNamingTheCandidates)
{
    Outcome o = read({"s", "status"});
    EXPECT_EQ(o.exit, kExitUsage);
    EXPECT_EQ(o.err, "vxlanctl: ambiguous command 's'; it could be send, show or suppress\n");
    o = read({"t"});
    EXPECT_EQ(o.exit, kExitUsage);
    EXPECT_EQ(o.err, "vxlanctl: ambiguous command 't'; it could be techdump or tunnel-intf\n");
}

TEST(VxlanctlCommandLineTest, UnambiguousVerbPrefixStandsForTheVerb)
{
    Outcome o = read({"sh", "status"});
    EXPECT_EQ(o.exit, std::nullopt) << o.err;
    EXPECT_EQ(o.line.verb, "show");
    EXPECT_EQ(o.line.words, std::vector<std::string>{"status"});
    o = read({"cou"});
    EXPECT_EQ(o.exit, std::nullopt) << o.err;
    EXPECT_EQ(o.line.verb, "counters");
    o = read({"tu", "list"});
    EXPECT_EQ(o.line.verb, "tunnel-intf");
}

TEST(VxlanctlCommandLineTest, GlobalOptionValuesAreNotTakenForTheVerb)
{
    Outcome o = read({"--socket", "sh", "--timeout", "3", "cou"});
    EXPECT_EQ(o.exit, std::nullopt) << o.err;
    EXPECT_EQ(o.line.verb, "counters");
    EXPECT_EQ(o.line.socket, "sh");
    EXPECT_EQ(o.line.timeout, 3);
    o = read({"--socket=/s.sock", "se", "SET_ENTRY", "vni=1"});
    EXPECT_EQ(o.exit, std::nullopt) << o.err;
    EXPECT_EQ(o.line.verb, "send");
    EXPECT_EQ(o.line.socket, "/s.sock");
    EXPECT_EQ(o.line.type, "SET_ENTRY");
    EXPECT_EQ(o.line.words, std::vector<std::string>{"vni=1"});
}

TEST(VxlanctlCommandLineTest, OnlyTheVerbIsExpandedNotItsArguments)
{
    const Outcome o = read({"send", "sh"});
    EXPECT_EQ(o.exit, std::nullopt) << o.err;
    EXPECT_EQ(o.line.verb, "send");
    EXPECT_EQ(o.line.type, "sh");
}

TEST(VxlanctlCommandLineTest, VersionPrintsTheProjectVersionAndExitsZero)
{
    const Outcome o = read({"--version"});
    EXPECT_EQ(o.exit, kExitOk);
    EXPECT_EQ(o.out, "vxlanctl " + std::string(tools::kVersion) + "\n");
    EXPECT_EQ(o.err, "");
    EXPECT_FALSE(tools::kVersion.empty());
}

TEST(VxlanctlCommandLineTest, SendHelpListsEveryTlvTypeWithItsFieldKinds)
{
    const Outcome o = read({"send", "--help"});
    EXPECT_EQ(o.exit, kExitOk);
    EXPECT_NE(o.out.find("\n  SET_ENTRY (8): vni u32, oper u8\n"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("\n  SYNC_DATA_BEGIN (1): no fields\n"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("\n  SET_VLAN (9): vni u32, oper u8, vlans vlan bitmap\n"), std::string::npos) << o.out;
    for (const TlvDef &def : catalogue())
        EXPECT_NE(o.out.find("\n  " + std::string(def.name) + " (" + std::to_string(def.code) + "): "),
                  std::string::npos)
            << def.name;
}

TEST(VxlanctlCommandLineTest, MissingVerbIsStillRefusedWithUsageStatus)
{
    const Outcome o = read({});
    EXPECT_EQ(o.exit, kExitUsage);
}

TEST(WordMatchTest, ExactWordWinsOverLongerChoicesItBegins)
{
    const WordMatch m = match_word("mac", {"mac", "macs"});
    EXPECT_EQ(m.kind, WordMatch::Kind::Found);
    EXPECT_EQ(m.word, "mac");
}

TEST(WordMatchTest, EmptyWordMatchesNothing)
{
    EXPECT_EQ(match_word("", {"send"}).kind, WordMatch::Kind::Unknown);
}

TEST(WordMatchTest, CandidatesAreNamedAsOneOf)
{
    EXPECT_EQ(one_of({"a"}), "a");
    EXPECT_EQ(one_of({"a", "b"}), "a or b");
    EXPECT_EQ(one_of({"a", "b", "c"}), "a, b or c");
}

}  // namespace
