#include <gtest/gtest.h>

#include <sstream>

#include "host/Host.h"
#include "host/Scenario.h"

namespace Host {
namespace {

// Each class of bad input: the error names the file and line, the exit status is 2 and nothing
// runs (no log, no tables, no progress).
struct BadInput {
  char const* text;
  char const* message;
};

class HostBadScenario : public ::testing::TestWithParam<BadInput> {};

TEST_P(HostBadScenario, IsRejectedWithItsLineAndNothingRuns) {
  std::ostringstream out, err;
  int rc = runScenarioText(GetParam().text, "bad.scn", Options{}, out, err);
  EXPECT_EQ(rc, 2);
  EXPECT_EQ(err.str(), std::string(GetParam().message) + "\n");
  EXPECT_EQ(out.str(), "");
}

constexpr char kSwitch[] = "switch 00:00:00:00:00:01 version svc=1 entity /a\n";

INSTANTIATE_TEST_SUITE_P(
    Classes, HostBadScenario,
    ::testing::Values(
        BadInput{"# fine\nfrobnicate 3\n", "bad.scn:2: unknown statement 'frobnicate'"},
        BadInput{"heartbeat\n", "bad.scn:1: missing the heartbeat interval"},
        BadInput{"heartbeat two\n", "bad.scn:1: bad heartbeat interval 'two'"},
        BadInput{"heartbeat 0\n", "bad.scn:1: bad heartbeat interval '0' (must be positive)"},
        BadInput{"switch 00:00:01\n", "bad.scn:1: bad switch address '00:00:01' (want xx:xx:xx:xx:xx:xx)"},
        BadInput{"switch 00:00:00:00:00:01\nswitch 00:00:00:00:00:01\n",
                 "bad.scn:2: switch '00:00:00:00:00:01' declared twice"},
        BadInput{"switch 00:00:00:00:00:01 speed 3\n", "bad.scn:1: unknown switch option 'speed'"},
        BadInput{"switch 00:00:00:00:00:01 version svc\n",
                 "bad.scn:1: bad service version 'svc' (want service=N)"},
        BadInput{"switch 00:00:00:00:00:01 entity\n", "bad.scn:1: missing value after 'entity'"},
        BadInput{"mount svc g /a type T\n", "bad.scn:1: unknown service 'svc' (declare it with 'service' first)"},
        BadInput{"service svc\nservice svc\n", "bad.scn:2: service 'svc' declared twice"},
        BadInput{"service real proxy\n", "bad.scn:1: a proxy service's name ends in '-proxy'"},
        BadInput{"service real-proxy\n", "bad.scn:1: service 'real-proxy' is named as a proxy; add 'proxy'"},
        BadInput{"service svc\nmount svc g a type T\n", "bad.scn:2: bad path 'a' (must start with '/')"},
        BadInput{"service svc\nmount svc g /a\n", "bad.scn:2: mount needs 'type <T>'"},
        BadInput{"service svc\nmount svc g /a type T systems 00:00:00:00:00:09\n",
                 "bad.scn:2: unknown switch '00:00:00:00:00:09'"},
        BadInput{"service svc\nmount svc g /a type T versions 1,x\n", "bad.scn:2: bad number 'x'"},
        BadInput{"service p-proxy proxy\npublish p-proxy g /l remote /r type T\n",
                 "bad.scn:2: proxy service 'p-proxy' cannot publish"},
        BadInput{"service p\npublish p g /l type T\n", "bad.scn:2: publish needs 'remote <path>'"},
        BadInput{"at 5 explode\n", "bad.scn:1: unknown action 'explode'"},
        BadInput{"at soon leader gen2\n", "bad.scn:1: bad time 'soon'"},
        BadInput{"at 5 connect 00:00:00:00:00:02\n", "bad.scn:1: unknown switch '00:00:00:00:00:02'"},
        BadInput{"service p\nat 5 ready p maybe\n", "bad.scn:2: want 'on' or 'off', not 'maybe'"},
        BadInput{"leader gen1 gen2\n", "bad.scn:1: unexpected 'gen2'"},
        BadInput{"run 30\nat 1 leader g\nat 2 leader\n", "bad.scn:3: missing a generation id"}));

TEST(HostScenarioParse, ReadsDeclarationsAndOrdersEventsByTimeKeepingFileOrderForTies) {
  Scenario s = parseScenario(std::string(kSwitch) +
                                 "service svc gen g7\n"
                                 "mount svc g /a type Sim::Record flags r target /t systems 00:00:00:00:00:01 "
                                 "versions 1,2 preserve   # trailing comment\n"
                                 "at 9 leader b\nat 3 leader a\nat 9 leader c\nrun 12\n",
                             "x.scn");
  ASSERT_EQ(s.switches.size(), 1u);
  EXPECT_EQ(s.switches[0].versions.at("svc"), 1u);
  EXPECT_EQ(s.switches[0].entities, std::vector<std::string>{"/a"});
  ASSERT_EQ(s.mounts.size(), 1u);
  auto const& m = s.mounts[0];
  EXPECT_EQ(m.type, "Sim::Record");
  EXPECT_EQ(m.flags, "r");
  EXPECT_EQ(m.target, "/t");
  EXPECT_EQ(m.versions, (std::vector<unsigned>{1, 2}));
  EXPECT_TRUE(m.preserve);
  EXPECT_EQ(s.service("svc")->gen, "g7");
  ASSERT_EQ(s.events.size(), 3u);
  EXPECT_EQ(s.events[0].words[1], "a");
  EXPECT_EQ(s.events[1].words[1], "b");
  EXPECT_EQ(s.events[2].words[1], "c");
  EXPECT_EQ(s.events[2].line, 6);
  EXPECT_EQ(s.until, 12);
}

TEST(HostScenarioParse, TheDefaultScenarioIsValid) {
  Scenario s = parseScenario(defaultScenarioText(), "<default>");
  EXPECT_EQ(s.switches.size(), 5u);
  EXPECT_TRUE(s.service("telemetry-proxy")->proxy);
  EXPECT_FALSE(s.publishes.empty());
}

TEST(HostCommandLine, BadUsageExitsWithTwoAndHelpAndVersionWithZero) {
  std::ostringstream out, err;
  EXPECT_EQ(hostMain({"--frob"}, out, err), 2);
  EXPECT_NE(err.str().find("unknown option '--frob'"), std::string::npos);
  EXPECT_EQ(hostMain({"--until", "x"}, out, err), 2);
  EXPECT_EQ(hostMain({"--until"}, out, err), 2);
  EXPECT_EQ(hostMain({"a.scn", "b.scn"}, out, err), 2);
  EXPECT_EQ(hostMain({"/nonexistent/x.scn"}, out, err), 2);
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(hostMain({"--help"}, out, err), 0);
  EXPECT_NE(out.str().find("usage: mounthost"), std::string::npos);
  EXPECT_EQ(hostMain({"--version"}, out, err), 0);
  EXPECT_NE(out.str().find(kVersion), std::string::npos);
}

}  // namespace
}  // namespace Host
