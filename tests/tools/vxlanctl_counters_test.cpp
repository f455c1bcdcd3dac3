// vxlanctl's counters verb off the socket: rates per second between two
// counters documents, and the JSON document a read verb's lines become,
// parsed back.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "counters_verb.h"

namespace {

using Json = nlohmann::ordered_json;

Json document(uint64_t received, uint64_t port_in, uint64_t unknown_vni, uint64_t vni_rx, uint64_t entries)
{
    return Json{
        {"pipeline", {{"received", received}, {"dropped", 0}}},
        {"ports", Json::array({{{"ifindex", 1}, {"name", "access1"}, {"in", port_in}, {"out", 0}}})},
        {"mac_table", {{"entries", entries}, {"refused", 0}}},
        {"buffers_in_use", 7},
        {"module",
         {{"drops", {{"unknown_vni", unknown_vni}, {"flooded", 0}}},
          {"untracked", 0},
          {"vnis", Json::array({{{"vni", 1000}, {"decapsulated_frames", vni_rx}}})},
          {"tunnels", Json::array({{{"ifindex", 101}, {"name", "tunnel-k1"}, {"decapsulated_frames", vni_rx}}})}}},
    };
}

TEST(VxlanctlCountersTest, RatesAreDifferencesPerSecondWithoutGauges)
{
    const Json before = document(100, 10, 3, 40, 5);
    const Json after = document(300, 30, 7, 80, 9);
    EXPECT_EQ(vxlanctl::rate_lines(before, after, 2.0),
              (std::vector<std::string>{
                  "pipeline: received 100.0, dropped 0.0",
                  "port 1 access1: in 10.0, out 0.0",
                  "mac_table: refused 0.0",
                  "module drops: total 2.0, unknown_vni 2.0",
                  "vni 1000: decapsulated_frames 20.0",
                  "tunnel 101 tunnel-k1: decapsulated_frames 20.0",
              }));
}

TEST(VxlanctlCountersTest, ARowNewSinceTheLastSampleCountsFromZero)
{
    Json before = document(0, 0, 0, 0, 0);
    before["module"]["vnis"] = Json::array();
    const Json after = document(0, 0, 0, 10, 0);
    const std::vector<std::string> lines = vxlanctl::rate_lines(before, after, 1.0);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "vni 1000: decapsulated_frames 10.0"), lines.end());
}

TEST(VxlanctlCountersTest, NoTimeGivesNoRates)
{
    EXPECT_TRUE(vxlanctl::rate_lines(document(0, 0, 0, 0, 0), document(1, 1, 1, 1, 1), 0).empty());
}

TEST(VxlanctlCountersTest, ListedLinesBecomeAJsonDocument)
{
    const Json doc = Json::parse(vxlanctl::lines_document("mac list", {"a \"quoted\" line", "second"}));
    EXPECT_EQ(doc.at("command"), "mac list");
    EXPECT_EQ(doc.at("lines"), Json::array({"a \"quoted\" line", "second"}));
}

}  // namespace
