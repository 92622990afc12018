#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "host/CommandLine.h"
#include "host/Run.h"
#include "host/Scenario.h"

namespace Host {
namespace {

// Each class of bad input: the error names the file and line, the exit status is 2 and nothing
// runs (no log, no tables, no progress).
struct BadInput {
  char const* name;
  char const* text;
  char const* message;  // after "bad.scn:"
};
void PrintTo(BadInput const& b, std::ostream* os) { *os << b.name; }

class HostBadScenario : public ::testing::TestWithParam<BadInput> {};

TEST_P(HostBadScenario, IsRejectedWithItsLineAndNothingRuns) {
  std::ostringstream out, err;
  int rc = runScenarioText(GetParam().text, "bad.scn", Options{}, out, err);
  EXPECT_EQ(rc, 2);
  EXPECT_EQ(err.str(), "bad.scn:" + std::string(GetParam().message) + "\n");
  EXPECT_EQ(out.str(), "");
}

constexpr BadInput kBadInputs[] = {
    {"UnknownStatement", "# fine\nfrobnicate 3\n", "2: unknown statement 'frobnicate'"},
    {"MissingValue", "heartbeat\n", "1: missing the heartbeat interval"},
    {"ZeroHeartbeat", "heartbeat 0\n", "1: bad heartbeat interval '0' (want 1e-6 to 1e9 seconds)"},
    {"NegativeLatency", "switch 00:00:00:00:00:01 latency -1\n", "1: bad latency '-1' (want 0 or 1e-6 to 1e9 seconds)"},
    {"VersionZero", "switch 00:00:00:00:00:01 version svc=0\n", "1: bad version '0' (want 1 to 4294967295)"},
    {"ZeroAddress", "switch 00:00:00:00:00:00\n",
     "1: bad switch address '00:00:00:00:00:00' (want a non-zero xx:xx:xx:xx:xx:xx)"},
    {"SwitchTwice", "switch 00:00:00:00:00:0a\nswitch 00:00:00:00:00:0A\n",
     "2: switch '00:00:00:00:00:0a' declared twice"},
    {"UnknownSwitchOption", "switch 00:00:00:00:00:01 speed 3\n", "1: unknown switch option 'speed'"},
    {"VersionWithoutNumber", "switch 00:00:00:00:00:01 version svc\n", "1: bad service version 'svc' (want service=N)"},
    {"EntityWithoutPath", "switch 00:00:00:00:00:01 entity\n", "1: missing value after 'entity'"},
    {"EntityInsideEntity", "switch 00:00:00:00:00:01 entity /a /a/b\n",
     "1: entity '/a/b' overlaps entity '/a' of the same switch"},
    {"CreateWithEmptyName", "at 1 create /a//b\n", "1: bad path '/a//b' (a name in it is empty)"},
    {"UndeclaredService", "mount svc g /a type T\n", "1: unknown service 'svc' (declare it with 'service' first)"},
    {"ServiceTwice", "service svc\nservice svc\n", "2: service 'svc' declared twice"},
    {"ProxyNotNamedSo", "service real proxy\n", "1: a proxy service's name ends in '-proxy'"},
    {"NamedAsProxy", "service real-proxy\n", "1: service 'real-proxy' is named as a proxy; add 'proxy'"},
    {"RelativePath", "service svc\nmount svc g a type T\n", "2: bad path 'a' (must start with '/')"},
    {"MountWithoutType", "service svc\nmount svc g /a\n", "2: mount needs 'type <T>'"},
    {"UnknownSwitchInFilter", "service svc\nmount svc g /a type T systems 00:00:00:00:00:09\n",
     "2: unknown switch '00:00:00:00:00:09'"},
    {"OtherTypeForAMountedPath", "service svc\nservice web\nmount svc g /a type T\nmount web g /a type U\n",
     "4: '/a' is mounted with type 'T' and flags '' (line 3); every mount of a path must agree"},
    {"OnePathInTwoGroups", "service svc\nmount svc g /a type T\nmount svc h /a type T\n",
     "3: service 'svc' already mounts '/a' in group 'g' (line 2)"},
    {"ProxyPublishing", "service p-proxy proxy\npublish p-proxy g /l remote /r type T\n",
     "2: proxy service 'p-proxy' cannot publish"},
    {"PublishWithoutRemote", "service p\npublish p g /l type T\n", "2: publish needs 'remote <path>'"},
    {"OnePathPublishedTwiceInAGroup", "service p\npublish p g /l remote /r type T\npublish p g /l remote /s type T\n",
     "3: group 'g' of service 'p' already publishes '/l' (line 2)"},
    {"CreateAmongMountedCopies", "service svc\nmount svc g /a type T target /t\nat 1 create /t/x\n",
     "3: '/t/x' is under '/t', which holds mounted copies (line 2)"},
    {"TargetOverALocalPath", "local /t/x\nservice svc\nmount svc g /a type T target /t\n",
     "3: target '/t' would hold mounted copies over '/t/x' (line 1)"},
    {"TargetInAHostDirectory", "service svc\nmount svc g /a type T target /publishStatus/x\n",
     "2: target '/publishStatus/x' is under '/publishStatus', which the host builds"},
    {"UnknownAction", "at 5 explode\n", "1: unknown action 'explode'"},
    {"NeitherOnNorOff", "service p\nat 5 ready p maybe\n", "2: want 'on' or 'off', not 'maybe'"},
    {"ExtraWord", "leader gen1 gen2\n", "1: unexpected 'gen2'"},
    {"EventAfterRun", "at 1 leader a\nat 31 leader b\nrun 30\n", "2: event at 31 is after the end time 30 (line 3)"},
    {"EventAfterTheDefaultEnd", "at 60.5 leader b\n",
     "1: event at 60.5 is after the end time 60 (the default; 'run' sets it)"},
    {"C1ControlInAType", "service s\nmount s g /a type T\xc2\x85\n", "2: 'T\\xc2\\x85' is not printable UTF-8"},
    {"UnknownExpectation", "expect 5 weather sunny\n",
     "1: unknown expectation 'weather' (want mount, group, published or ready)"},
    {"ExpectedStateUnknown", "switch 00:00:00:00:00:01\nservice s\nmount s g /a type T\n"
     "expect 5 mount 00:00:00:00:00:01 s /a up\n",
     "4: want one of unmounted, mounting, mounted, unmounting, failed, absent, not 'up'"},
    {"ExpectedMountNotDeclared", "switch 00:00:00:00:00:01\nservice s\nmount s g /a type T\n"
     "expect 5 mount 00:00:00:00:00:01 s /b mounted\n",
     "4: service 's' mounts no '/b'"},
    {"ExpectedGroupOfAProxy", "service s-proxy proxy\nmount s-proxy g /a type T\nexpect 5 group s-proxy g complete\n",
     "3: proxy service 's-proxy' has no initial mounts to complete"},
    {"ExpectedReadinessOfANonPublisher", "service s\nexpect 5 ready s on\n", "2: service 's' publishes nothing"},
    {"DirReadyOfAnEntity", "service p\npublish p g /l remote /r type T\nat 5 dir-ready p g /l on\n",
     "3: group 'g' of service 'p' publishes no directory '/l'"},
    {"ReadyEntity", "service p\npublish p g /l remote /r type T ready\n",
     "2: 'ready' is for a directory ('dir'); a single entity is ready once it exists"},
    {"OverlongSlash", "switch 00:00:00:00:00:01 entity /a\xc0\xaf" "b\n", "1: '/a\\xc0\\xafb' is not printable UTF-8"},
};

INSTANTIATE_TEST_SUITE_P(Classes, HostBadScenario, ::testing::ValuesIn(kBadInputs),
                         [](auto const& info) { return std::string(info.param.name); });

TEST(HostScenarioParse, ReadsDeclarationsAndOrdersEventsByTimeKeepingFileOrderForTies) {
  Scenario s = parseScenario(
      "switch 00:00:00:00:00:01 version svc=1 entity /a\n"
      "service svc gen g7\n"
      "mount svc g /a type Sim::Record flags r target /t systems 00:00:00:00:00:01 "
      "versions 1,2 preserve   # trailing comment\n"
      "at 9 leader b\nat 3 leader a\nat 9 leader c\nrun 12\n",
      "x.scn");
  ASSERT_EQ(s.mounts.size(), 1u);
  auto const& m = s.mounts[0];
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

// The world looks switches up by the address the scenario declared, whatever its spelling.
TEST(HostScenarioParse, AcceptsTheEdgesOfEveryRangeAndSpellsEachAddressOneWay) {
  Scenario s = parseScenario(
      "heartbeat 1e-6\nretries 4294967295\ntimeout 1e9\n"
      "switch 00:00:00:00:00:0A latency 0 handshake 1e9 version svc=4294967295\n"
      "at 0 disconnect 00:00:00:00:00:0a\nat 1e9 flap 00:00:00:00:00:0A 1e-6\nrun 1e9\n",
      "x.scn");
  EXPECT_EQ(s.switches[0].address, "00:00:00:00:00:0a");
  ASSERT_EQ(s.events.size(), 2u);
  EXPECT_EQ(s.events[1].words[1], "00:00:00:00:00:0a");
}

// --until replaces the scenario's end: events may go up to it and no further.
TEST(HostCommandLine, BadUsageAndEventsPastTheEndExitWithTwoAndHelpAndVersionWithZero) {
  std::ostringstream out, err;
  EXPECT_EQ(hostMain({"--until", "100"}, out, err), 2);
  EXPECT_EQ(err.str(), "<default>:20: event at 300 is after the end time 100 (--until)\n");
  EXPECT_EQ(hostMain({"--frob"}, out, err), 2);
  EXPECT_NE(err.str().find("unknown option '--frob'"), std::string::npos);
  for (char const* until : {"x", "nan", "inf", "0", "2e9"})
    EXPECT_EQ(hostMain({"--until", until}, out, err), 2) << until;
  EXPECT_EQ(hostMain({"--until"}, out, err), 2);
  EXPECT_EQ(hostMain({"a.scn", "b.scn"}, out, err), 2);
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(hostMain({"--help"}, out, err), 0);
  EXPECT_NE(out.str().find("usage: mounthost"), std::string::npos);
  EXPECT_EQ(hostMain({"--version"}, out, err), 0);
  EXPECT_NE(out.str().find(kVersion), std::string::npos);
  Options o;
  o.until = 5;
  EXPECT_EQ(runScenarioText("at 4 leader b\nrun 3\n", "t.scn", o, out, err), 0) << err.str();
}

TEST(HostCommandLine, ADirectoryOrAFileOfOnlyCommentsIsNoScenario) {
  std::string const dir = ::testing::TempDir() + "host-input";
  std::filesystem::create_directories(dir);
  std::ofstream(dir + "/comments.scn") << "# only\n   \t\n  # comments\r\n";
  for (auto const& [file, message] : {std::pair{dir, "is a directory, not a scenario file"},
                                      {dir + "/comments.scn", "has no statements"},
                                      {dir + "/missing.scn", "cannot read"}}) {
    std::ostringstream out, err;
    EXPECT_EQ(hostMain({file}, out, err), 2) << file;
    EXPECT_NE(err.str().find(message), std::string::npos) << err.str();
    EXPECT_EQ(out.str(), "");
  }
}

// Nothing escapes the command line: an output that throws (here, on every write) ends with
// status 3 and says so.
TEST(HostCommandLine, AnExceptionThatEscapesIsAnInternalErrorWithStatusThree) {
  struct Refusing : std::streambuf {
    int overflow(int) override { return traits_type::eof(); }
  } refusing;
  std::ostream out(&refusing);
  out.exceptions(std::ios::badbit);
  std::ostringstream err;
  EXPECT_EQ(hostMain({"--version"}, out, err), 3);
  EXPECT_TRUE(err.str().starts_with("mounthost: internal error: ")) << err.str();
}

}  // namespace
}  // namespace Host
