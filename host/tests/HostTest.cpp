#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "host/CommandLine.h"
#include "host/Report.h"
#include "host/World.h"
#include "kiv/Trace.h"
#include "host/Run.h"

namespace Host {
namespace {

struct Outcome {
  int rc;
  std::string out, err;
};

Outcome run(std::string const& text, Options o = {}) {
  std::ostringstream out, err;
  int rc = runScenarioText(text, "t.scn", o, out, err);
  return {rc, out.str(), err.str()};
}

Options json() {
  Options o;
  o.json = true;
  return o;
}

bool has(std::string const& s, std::string const& part) { return s.find(part) != std::string::npos; }

// A strict reader of one JSON value (RFC 8259), enough to tell valid output from invalid.
class JsonReader {
 public:
  static bool valid(std::string_view text) {
    JsonReader r{text};
    return r.value() && (r.blanks(), r.i_ == text.size());
  }

 private:
  explicit JsonReader(std::string_view t) : t_(t) {}
  void blanks() {
    while (i_ < t_.size() && (t_[i_] == ' ' || t_[i_] == '\n' || t_[i_] == '\t' || t_[i_] == '\r')) ++i_;
  }
  bool eat(char c) { return blanks(), i_ < t_.size() && t_[i_] == c ? (++i_, true) : false; }
  bool word(std::string_view w) { return t_.substr(i_, w.size()) == w ? (i_ += w.size(), true) : false; }
  bool digits() {
    std::size_t const from = i_;
    while (i_ < t_.size() && std::isdigit(static_cast<unsigned char>(t_[i_]))) ++i_;
    return i_ > from;
  }
  bool number() {
    eat('-');
    if (!(t_.substr(i_, 1) == "0" ? (++i_, true) : digits())) return false;
    if (i_ < t_.size() && t_[i_] == '.' && (++i_, !digits())) return false;
    if (i_ < t_.size() && (t_[i_] == 'e' || t_[i_] == 'E')) {
      ++i_;
      if (i_ < t_.size() && (t_[i_] == '+' || t_[i_] == '-')) ++i_;
      if (!digits()) return false;
    }
    return true;
  }
  bool string() {
    if (!eat('"')) return false;
    for (; i_ < t_.size(); ++i_) {
      unsigned char const c = static_cast<unsigned char>(t_[i_]);
      if (c == '"') return ++i_, true;
      if (c < 0x20) return false;
      if (c == '\\' && (++i_ >= t_.size() || std::string_view("\"\\/bfnrtu").find(t_[i_]) == std::string_view::npos))
        return false;
    }
    return false;
  }
  template <class F>
  bool members(char close, F member) {
    if (eat(close)) return true;
    do {
      if (!member()) return false;
    } while (eat(','));
    return eat(close);
  }
  bool value() {
    blanks();
    if (eat('{')) return members('}', [&] { return string() && eat(':') && value(); });
    if (eat('[')) return members(']', [&] { return value(); });
    if (i_ < t_.size() && t_[i_] == '"') return string();
    return word("true") || word("false") || word("null") || number();
  }
  std::string_view t_;
  std::size_t i_ = 0;
};

constexpr char kOneSwitch[] =
    "switch 00:00:00:00:00:01 latency 2 version svc=1 pub=1 real=1 entity /sys/config /p\n";

TEST(HostRun, AMountAndAPublicationGoFromConfigurationToStatus) {
  Outcome r = run(std::string(kOneSwitch) +
                  "service svc\n"
                  "mount svc g /sys/config type Sim::Record flags r\n"
                  "service pub ready\n"
                  "publish pub pg /local/state remote /remote/state type Sim::Record\n"
                  "at 2.5 create /local/state\n"
                  "run 20\n",
              json());
  ASSERT_EQ(r.rc, 0) << r.err;
  EXPECT_TRUE(has(r.out, "{\"switch\": \"00:00:00:00:00:01\", \"service\": \"svc\", \"group\": \"g\", "
                         "\"path\": \"/sys/config\", \"state\": \"mounted\", \"mountedPath\": \"mounts/sys/config/"))
      << r.out;
  EXPECT_TRUE(has(r.out, "{\"switch\": \"00:00:00:00:00:01\", \"path\": \"/local/state\", \"remotePath\": "
                         "\"/remote/state\", \"type\": \"Sim::Record\", \"service\": \"pub\"}"))
      << r.out;
  EXPECT_TRUE(has(r.out, "\"pub\": true")) << r.out;
  // One switch connected at the start with a 2 s heartbeat: the initial mounts complete in the run.
  EXPECT_TRUE(has(r.out, "{\"service\": \"svc\", \"group\": \"g\", \"complete\": true, \"at\": ")) << r.out;
  // The log went to stderr, keeping stdout pure JSON; a run this quick shows no progress.
  EXPECT_EQ(r.out.front(), '{');
  EXPECT_TRUE(has(r.err, "    2.000  mounted /sys/config for svc/g on 00:00:00:00:00:01\n")) << r.err;
  EXPECT_FALSE(has(r.err, "[progress]")) << r.err;
}

TEST(HostRun, TheDefaultRunFitsOnAScreenAndSaysWhyTheGroupsCompletedWhenTheyDid) {
  std::ostringstream out, err;
  ASSERT_EQ(hostMain({}, out, err), 0) << err.str();
  std::string const& o = out.str();
  EXPECT_LT(std::count(o.begin(), o.end(), '\n'), 80) << o;
  EXPECT_EQ(err.str(), "");
  EXPECT_FALSE(has(o, "ControllerMountsRegistrySm:")) << "no level-5 trace by default\n" << o;
  // The scenario's events, and the outcomes with the switches they happened on.
  EXPECT_TRUE(has(o, "   60.000  event: flap 00:00:00:00:00:04 15  (<default>:19)\n")) << o;
  EXPECT_TRUE(has(o, "   30.000  FAILED  /sys/config for fabric/config on 00:00:00:00:00:03\n")) << o;
  // Paths that went from the same switches share a line.
  EXPECT_TRUE(has(o, "  300.000  withdrawn /sys/config for fabric/config, /sys/counters for fabric/counters on "
                     "00:00:00:00:00:01, 00:00:00:00:00:02, 00:00:00:00:00:04\n"))
      << o;
  EXPECT_TRUE(has(o, "  300.000  unpublished /web/state on 00:00:00:00:00:01, 00:00:00:00:00:02, 00:00:00:00:00:03 "
                     "and 1 more\n"))
      << o;
  EXPECT_TRUE(has(o, "  300.000  initial mounts of fabric/config start again\n")) << o;
  EXPECT_TRUE(has(o, "    6.000  connection period complete: 5 initial switches (00:00:00:00:00:01, 00:00:00:00:00:02, "
                     "00:00:00:00:00:03 and 2 more)\n"))
      << o;
  // The switch without a version keeps the groups waiting for the whole 240-s window after the
  // leader generation is current again at 330 s; the flush adds one poll. The counters group also
  // waits for a switch its own systems leave out: its group status is there, never finished.
  EXPECT_TRUE(has(o, "  571.000  initial mounts of fabric/config complete: the mount window ran out waiting for "
                     "00:00:00:00:00:05 (/sys/config: no version of fabric negotiated)\n"))
      << o;
  EXPECT_TRUE(has(o, "  571.000  initial mounts of fabric/counters complete: the mount window ran out waiting for "
                     "00:00:00:00:00:03 (/sys/counters: not in the group's systems), 00:00:00:00:00:05 (/sys/counters: "
                     "no version of fabric negotiated)\n"))
      << o;
  EXPECT_TRUE(has(o, "Summary: t=600.0: 5 switches (5 up); 9 mounted, 1 failed, 2 other rows; 2 of 2 groups "
                     "complete; 4 published\n"))
      << o;
  // Tables in aligned columns, with a reason for everything not mounted, rows or not.
  EXPECT_TRUE(has(o, "  fabric   config    yes       571.0\n")) << o;
  EXPECT_TRUE(has(o, "  00:00:00:00:00:03  fabric           config    /sys/config       failed     mount failed: the "
                     "switch does not answer\n"))
      << o;
  EXPECT_TRUE(has(o, "  00:00:00:00:00:03  fabric           counters  /sys/counters     absent     not in the group's "
                     "systems\n"))
      << o;
  EXPECT_TRUE(has(o, "  00:00:00:00:00:05  telemetry-proxy  state     /telemetry/state  unmounted  no version of "
                     "telemetry negotiated\n"))
      << o;
  EXPECT_TRUE(has(o, "  00:00:00:00:00:04  /web/state  /remote/web  Sim::Record  web\n")) << o;
  EXPECT_TRUE(has(o, "  web  ready\n")) << o;
  EXPECT_FALSE(has(o, "Ring log")) << o;
  std::ostringstream ring, ringErr;
  ASSERT_EQ(hostMain({"--ringlog"}, ring, ringErr), 0);
  EXPECT_TRUE(has(ring.str(), "\nRing log\n")) << ring.str();
}

TEST(HostRun, ReasonsFollowTheDecisionOrderDownVersionLeaderFiltersSharedEntry) {
  Outcome r = run(
      "switch 00:00:00:00:00:01 version a=1 b=1 entity /x /y /z\n"
      "switch 00:00:00:00:00:02 version a=2 b=1 entity /x /y /z\n"
      "switch 00:00:00:00:00:03 down version a=1 entity /x\n"
      "service a\nservice b\nservice c gen other\n"
      "mount a g /x type T versions 1\n"
      "mount b g /x type T systems 00:00:00:00:00:02\n"
      "mount c g /y type T\n"
      "mount a h /z type Sim::Record systems 00:00:00:00:00:01\n"
      "mount b h /z type Sim::Record\n"
      "run 5\n");
  ASSERT_EQ(r.rc, 0) << r.err;
  for (char const* row : {"00:00:00:00:00:01  a        g      /x    unmounted  shared entry: not in b/g's systems",
                          "00:00:00:00:00:01  b        g      /x    absent     not in the group's systems",
                          "00:00:00:00:00:02  a        g      /x    absent     version 2 is not in the group's versions",
                          "00:00:00:00:00:02  b        g      /x    unmounted  shared entry: version 2 is not in a/g's",
                          "00:00:00:00:00:02  c        g      /y    absent     no version of c negotiated",
                          // b's mount makes the entry a wildcard; a's own systems still keep its rows out.
                          "00:00:00:00:00:02  a        h      /z    absent     not in the group's systems",
                          "00:00:00:00:00:02  b        h      /z    mounted",
                          "00:00:00:00:00:03  a        g      /x    absent     switch down"})
    EXPECT_TRUE(has(r.out, row)) << row << '\n' << r.out;
  r = run("switch 00:00:00:00:00:01 version c=1 entity /y\nservice c gen other\nmount c g /y type T\nrun 5\n");
  EXPECT_TRUE(has(r.out, "absent  leader generation is gen1, the service follows other")) << r.out;
}

TEST(HostRun, ASwitchWithoutVersionsFlappingDuringTheConnectionPeriodIsWaitedForNotFatal) {
  std::string const scenario =
      "heartbeat 1\n"
      "switch 00:00:00:00:00:01 entity /a/b\n"
      "service s\n"
      "mount s g /a/b type Sim::Record\n"
      "at 1 flap 00:00:00:00:00:01 0.5\n";
  // Connected but without a version, it is a remaining switch for the whole mount window.
  Outcome late = run(scenario + "run 300\n");
  ASSERT_EQ(late.rc, 0) << late.err;
  EXPECT_TRUE(has(late.out, "  s        g      yes       244.0")) << late.out;
  EXPECT_TRUE(has(late.out, "initial mounts of s/g complete: the mount window ran out waiting for 00:00:00:00:00:01 "
                            "(/a/b: no version of s negotiated)"))
      << late.out;
}

// At data-centre sizes what happened alike on many switches is said once, and the table counts
// what differs only in its switch, unless every row is asked for.
TEST(HostRun, ManySwitchesGiveFewLines) {
  std::string text = "service s\nmount s g /a type Sim::Record\nmount s g /b type Sim::Record\n"
                     "mount s h /c type Sim::Record\nrun 60\n";
  for (int i = 100; i >= 1; --i) {
    char line[80];
    std::snprintf(line, sizeof line, "switch 00:00:00:00:01:%02x%s version s=1 entity /a /b /c\n", i, i == 50 ? " fail" : "");
    text = line + text;
  }
  Outcome r = run(text);
  ASSERT_EQ(r.rc, 0) << r.err;
  EXPECT_LT(std::count(r.out.begin(), r.out.end(), '\n'), 30) << r.out;
  EXPECT_TRUE(has(r.out, "    1.000  mounted /a for s/g, /b for s/g, /c for s/h on 00:00:00:00:01:01, 00:00:00:00:01:02, "
                         "00:00:00:00:01:03 and 96 more\n"))
      << r.out;
  EXPECT_TRUE(has(r.out, "   40.000  FAILED  /a for s/g, /b for s/g, /c for s/h on 00:00:00:00:01:32\n")) << r.out;
  EXPECT_TRUE(has(r.out, "\nMounts (300 rows, alike ones together; --all-rows lists each)\n")) << r.out;
  EXPECT_TRUE(has(r.out, "  s        g      /a    failed   1: 00:00:00:00:01:32                          mount failed: "
                         "the switch does not answer\n  s        g      /a    mounted  99: 00:00:00:00:01:01, "
                         "00:00:00:00:01:02 ...\n"))
      << r.out;
  Options all;
  all.allRows = true;
  r = run(text, all);
  EXPECT_TRUE(has(r.out, "\nMounts\n")) << r.out;
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 320) << r.out;
  std::ostringstream out, err;
  EXPECT_EQ(hostMain({"--all-rows"}, out, err), 0) << err.str();  // the option, from the command line
}

// What a group waited for is what its machine waited for: a switch that connects after the
// connection period is not among them, however long it takes.
TEST(HostRun, AGroupWaitsOnlyForTheSwitchesOfItsConnectionPeriod) {
  Outcome r = run(
      "heartbeat 1\ntimeout 60\n"
      "switch 00:00:00:00:00:01 latency 20 version s=1 entity /a\n"
      "switch 00:00:00:00:00:02 down latency 50 version s=1 entity /a\n"
      "service s\nmount s g /a type Sim::Record\nat 10 connect 00:00:00:00:00:02\nrun 40\n");
  ASSERT_EQ(r.rc, 0) << r.err;
  EXPECT_TRUE(has(r.out, "   21.000  initial mounts of s/g complete: the last to finish was 00:00:00:00:00:01 "
                         "(mounted at 20.0)\n"))
      << r.out;
}

TEST(HostRun, AVersionChangeOnAConnectedSwitchUnmountsByTheVersionFilterAndTheVerboseLogSaysWhy) {
  std::string const text = std::string(kOneSwitch) + "service svc\nmount svc g /sys/config type Sim::Record versions 1\n" +
                           "at 10 version 00:00:00:00:00:01 svc=2\nrun 15\n";
  // A log line: the virtual time, the unit's trace handle, the function and the message.
  std::string const why = "   10.000  ControllerMountsRegistrySm: bool Controller::MountsRegistryEntrySm::"
                          "matchingServiceVersionFilter(Kiv::String, Kiv::String):  version:2 not in filter "
                          "service:svc connection:00:00:00:00:00:01\n";
  Outcome plain = run(text);
  ASSERT_EQ(plain.rc, 0) << plain.err;
  EXPECT_TRUE(has(plain.out, "   10.000  withdrawn /sys/config for svc/g on 00:00:00:00:00:01\n")) << plain.out;
  EXPECT_FALSE(has(plain.out, why)) << plain.out;
  Options verbose;
  verbose.verbose = true;
  EXPECT_TRUE(has(run(text, verbose).out, why));
  // Extra trace levels add to the others, from the command line and from KIV_TRACE alike.
  std::ostringstream out, err;
  ASSERT_EQ(hostMain({"-v", "--trace", "ControllerMountsRegistrySm/8", "--until", "15", "/dev/null"}, out, err), 2);
  ::setenv("KIV_TRACE", "ControllerMountsRegistrySm/8", 1);
  verbose.trace = "ControllerInitialMountSm/8";
  std::string const both = run(text, verbose).out;
  EXPECT_TRUE(has(both, why)) << both;
  EXPECT_TRUE(has(both, "ControllerMountsRegistrySm: void Controller::MountsRegistryEntrySm::handleSwitchConnection("))
      << both;
  ::setenv("KIV_TRACE", "ControllerMountsRegistrySm/99", 1);
  EXPECT_EQ(hostMain({"--until", "1"}, out, err), 2);
  EXPECT_TRUE(has(err.str(), "mounthost: bad KIV_TRACE: ")) << err.str();
  ::unsetenv("KIV_TRACE");
}

TEST(HostRun, ExpectationsReportWhatTheyFoundAndFailTheRunOnlyUnderCheck) {
  std::string const text =
      "switch 00:00:00:00:00:01 latency 2 version svc=1 pub=1 entity /sys/config\n"
      "switch 00:00:00:00:00:02 latency 2 fail version svc=1 entity /sys/config\n"
      "switch 00:00:00:00:00:03 down version svc=1 entity /sys/config\n"
      "service svc\n"
      "mount svc g /sys/config type Sim::Record flags r\n"
      "service pub ready\n"
      "publish pub pg /local/d remote /remote/d type Sim::Record dir\n"
      "local /local/d/x\n"
      "expect 1 mount 00:00:00:00:00:01 svc /sys/config mounting\n"
      "expect 50 mount 00:00:00:00:00:01 svc /sys/config mounted\n"
      "expect 50 mount 00:00:00:00:00:02 svc /sys/config mounted\n"  // 11: it failed
      "expect 50 mount 00:00:00:00:00:03 svc /sys/config absent\n"
      "expect 50 group svc g complete\n"
      "expect 50 published 00:00:00:00:00:01 /local/d present\n"  // 14: the directory is not ready
      // Listed before the event of its time, it still sees what the event did at that time.
      "expect 60 published 00:00:00:00:00:01 /local/d present\n"
      "at 60 dir-ready pub pg /local/d on\n"
      "expect 61 ready pub off\n"  // 17: it is on
      "run 70\n";
  std::string const unmet =
      "t.scn:11: expected mount 00:00:00:00:00:02 svc /sys/config mounted, got failed\n"
      "t.scn:14: expected published 00:00:00:00:00:01 /local/d present, got absent\n"
      "t.scn:17: expected ready pub off, got on\n";
  auto lines = [](std::string const& err) {
    std::istringstream in(err);
    std::string out;
    for (std::string l; std::getline(in, l);)
      if (l.find("expected") != std::string::npos) out += l + "\n";
    return out;
  };
  Outcome r = run(text);
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(lines(r.err), unmet);
  EXPECT_TRUE(has(r.out, "Expectations: 5 met, 3 unmet")) << r.out;

  Options o = json();
  o.check = true;
  r = run(text, o);
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(lines(r.err), unmet);
  EXPECT_TRUE(has(r.out, "{\"line\": 11, \"time\": 50, \"expected\": \"mount 00:00:00:00:00:02 svc /sys/config "
                         "mounted\", \"got\": \"failed\", \"met\": false}"))
      << r.out;
  EXPECT_TRUE(has(r.out, "{\"line\": 15, \"time\": 60, \"expected\": \"published 00:00:00:00:00:01 /local/d "
                         "present\", \"got\": \"present\", \"met\": true}"))
      << r.out;

  // Met expectations pass the check.
  r = run("switch 00:00:00:00:00:01 latency 2 version svc=1 entity /sys/config\n"
          "service svc\nmount svc g /sys/config type Sim::Record flags r\n"
          "expect 20 mount 00:00:00:00:00:01 svc /sys/config mounted\nexpect 20 group svc g complete\nrun 20\n",
          [] {
            Options c;
            c.check = true;
            return c;
          }());
  EXPECT_EQ(r.rc, 0) << r.err;
}

TEST(HostCommandLine, JsonStaysValidWhateverElseIsAskedAndTheEventLogIsJsonLines) {
  EXPECT_FALSE(JsonReader::valid("{\"a\": 1.}"));  // the reader itself tells bad from good
  EXPECT_FALSE(JsonReader::valid("{\"a\": 1}\nRing log\n"));
  auto const dir = std::filesystem::temp_directory_path() / ("host_json_" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  std::string const file = (dir / "s.scn").string(), events = (dir / "e.jsonl").string();
  std::ofstream(file) << kOneSwitch
                      << "service svc\nmount svc g /sys/config type Sim::Record flags r\n"
                         "at 0.1 flap 00:00:00:00:00:01 0.7\n"
                         "expect 0.1 mount 00:00:00:00:00:01 svc /sys/config mounting\nrun 12\n";
  std::vector<std::vector<std::string>> const extras = {
      {}, {"--ringlog"}, {"--check"}, {"--trace", "ControllerMountsRegistrySm/0-9"}, {"--until", "2.2"},
      {"--events", events}, {"--realtime", "--until", "0.15"}, {"-v"},
      {"--timeline", (dir / "t.svg").string()}, {"--explain", "00:00:00:00:00:01"}, {"--all-rows"}};
  for (auto const& extra : extras) {
    std::vector<std::string> args{"--json"};
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back(file);
    std::ostringstream out, err;
    int const rc = hostMain(args, out, err);
    std::string const what = extra.empty() ? "--json alone" : "--json " + extra[0];
    EXPECT_EQ(rc, extra == extras[2] ? 1 : 0) << what << err.str();  // just after the flap: absent
    EXPECT_TRUE(JsonReader::valid(out.str())) << what << '\n' << out.str();
    EXPECT_TRUE(has(out.str(), "\"schema\": 1,")) << what;
  }
  // Times are exact, absent values null.
  std::ostringstream out, err;
  ASSERT_EQ(hostMain({"--json", "--until", "2.2", file}, out, err), 0);
  EXPECT_TRUE(has(out.str(), "\"time\": 2.2,")) << out.str();
  EXPECT_TRUE(has(out.str(), "\"state\": \"mounting\", \"mountedPath\": null}")) << out.str();

  std::ifstream in(events);
  std::string line, kinds;
  int lines = 0;
  while (std::getline(in, line)) {
    ++lines;
    EXPECT_TRUE(JsonReader::valid(line)) << line;
    for (char const* k : {"event", "outcome", "complete", "expectation"})
      if (has(line, std::string("\"kind\": \"") + k + "\"") && !has(kinds, k)) kinds += std::string(k) + " ";
  }
  EXPECT_GT(lines, 3);
  EXPECT_EQ(kinds, "event expectation outcome complete ");
  EXPECT_EQ(hostMain({"--events", (dir / "no" / "such" / "dir" / "e.jsonl").string(), file}, out, err), 2);
  EXPECT_TRUE(has(err.str(), "mounthost: cannot write the event log")) << err.str();
  std::filesystem::remove_all(dir);
}

TEST(HostRun, ExplainAnswersInTheRegistrysOrderFromAQueryThatChangesAndTracesNothing) {
  std::ostringstream out, err;
  ASSERT_EQ(hostMain({"--explain", "00:00:00:00:00:05@/sys/config"}, out, err), 0) << err.str();
  EXPECT_TRUE(has(out.str(), "Why, on 00:00:00:00:00:05\n"
                             "  /sys/config for fabric/config: absent\n"
                             "    1. switch connected: yes\n"
                             "    2. version negotiated: fabric none (the entry mounts if any of them has one)\n"
                             "    3. leader generation: gen1; fabric follows gen1: current\n"
                             "    4. wildcard: no\n"
                             "    5. version filter: not passed\n"))
      << out.str();
  EXPECT_TRUE(has(out.str(), "    11. so: no version of fabric negotiated\n")) << out.str();
  EXPECT_FALSE(has(out.str(), "/sys/counters for fabric/counters: ")) << "only the path asked for";
  // Another group's systems shape the shared entry of a path; a current mount says so too.
  std::ostringstream shaped;
  ASSERT_EQ(hostMain({"--explain", "00:00:00:00:00:03"}, shaped, err), 0);
  EXPECT_TRUE(has(shaped.str(), "6. connection filter: 3 switches, this one named by 0 group(s); fabric/counters does "
                                "not include it\n"))
      << shaped.str();
  EXPECT_TRUE(has(shaped.str(), "  /sys/config for fabric/config: failed\n")) << shaped.str();
  EXPECT_TRUE(has(shaped.str(), "9. mount attempt: failed\n")) << shaped.str();
  std::ostringstream json;
  ASSERT_EQ(hostMain({"--json", "--explain", "00:00:00:00:00:01"}, json, err), 0);
  EXPECT_TRUE(JsonReader::valid(json.str())) << json.str();
  EXPECT_TRUE(has(json.str(), "\"explain\": [\n    {\"service\": \"fabric\", \"group\": \"config\", \"path\": "
                              "\"/sys/config\", \"state\": \"mounted\", \"steps\": [\"switch connected: yes\""))
      << json.str();
  for (auto const& bad : {std::vector<std::string>{"--explain", "00:00:00:00:00:09"},
                          std::vector<std::string>{"--explain", "00:00:00:00:00:01@/nope"},
                          std::vector<std::string>{"--explain", "@/sys/config"}, std::vector<std::string>{"--explain"}}) {
    std::ostringstream o, e;
    EXPECT_EQ(hostMain(bad, o, e), 2) << bad.back();
    EXPECT_TRUE(has(e.str(), "--explain")) << e.str();
  }

  // The query itself: nothing traced with every level on, nothing changed.
  Scenario const s = parseScenario(defaultScenarioText(), "<default>");
  World w(s, Kiv::EventLoop::Mode::virtualTime);
  w.configure();
  w.start();
  w.loop.advanceTo(100);
  struct Counting : Kiv::TraceSink {
    Kiv::TraceSink* previous = Kiv::traceSinkIs(this);
    int lines = 0;
    void write(Kiv::TraceRecord const&) override { ++lines; }
  } sink;
  Kiv::TraceHandle::configure("*/0-31");
  std::size_t const ring = Kiv::Ringlog::defaultHandle().size();
  auto const before = mountRows(w);
  for (auto const& d : s.switches) EXPECT_FALSE(explain(w, d.address, "").empty());
  EXPECT_EQ(sink.lines, 0);
  EXPECT_EQ(Kiv::Ringlog::defaultHandle().size(), ring);
  auto const after = mountRows(w);
  ASSERT_EQ(after.size(), before.size());
  for (std::size_t i = 0; i < after.size(); ++i) EXPECT_EQ(after[i].state, before[i].state);
  Kiv::TraceHandle::resetAll();
  Kiv::traceSinkIs(sink.previous);
}

// Well-formed XML as far as an SVG viewer cares: one root, every tag closed in order, attributes
// quoted, no bare '<' or '&' in text.
bool wellFormedXml(std::string_view x) {
  std::vector<std::string> open;
  int roots = 0;
  for (std::size_t i = 0; i < x.size();) {
    if (x[i] == '&') {
      std::size_t const semi = x.find(';', i);
      if (semi == std::string_view::npos || semi - i > 6) return false;
      i = semi + 1;
      continue;
    }
    if (x[i] != '<') {
      ++i;
      continue;
    }
    std::size_t const end = x.find('>', i);
    if (end == std::string_view::npos) return false;
    std::string_view tag = x.substr(i + 1, end - i - 1);
    i = end + 1;
    if (std::count(tag.begin(), tag.end(), '"') % 2 || tag.find('<') != std::string_view::npos) return false;
    if (tag.starts_with("/")) {
      if (open.empty() || open.back() != tag.substr(1)) return false;
      open.pop_back();
      continue;
    }
    std::string const name(tag.substr(0, tag.find_first_of(" /")));
    if (open.empty() && ++roots > 1) return false;
    if (!tag.ends_with("/")) open.push_back(name);
  }
  return open.empty() && roots == 1;
}

std::size_t count(std::string const& s, std::string const& part) {
  std::size_t n = 0;
  for (auto at = s.find(part); at != std::string::npos; at = s.find(part, at + 1)) ++n;
  return n;
}

TEST(HostCommandLine, TheTimelineIsWellFormedSvgWithALanePerSwitchAndGroupAndAMarkerPerEvent) {
  EXPECT_FALSE(wellFormedXml("<svg><g></svg></g>"));  // the checker itself tells bad from good
  EXPECT_FALSE(wellFormedXml("<svg><text>a < b</text></svg>"));
  auto const dir = std::filesystem::temp_directory_path() / ("host_svg_" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  std::string const svg = (dir / "t.svg").string();
  auto read = [&] {
    std::ifstream in(svg);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  };
  std::ostringstream out, err;
  ASSERT_EQ(hostMain({"--timeline", svg}, out, err), 0) << err.str();
  std::string t = read();
  EXPECT_TRUE(wellFormedXml(t)) << t;
  EXPECT_TRUE(t.starts_with("<svg xmlns=\"http://www.w3.org/2000/svg\"")) << t;
  EXPECT_EQ(count(t, "<g class=\"switch\">"), 5u);
  EXPECT_EQ(count(t, "<g class=\"group\">"), 2u);
  EXPECT_EQ(count(t, "<g class=\"event\">"), 3u);
  // The flap, the failure, the waiting groups and their completion are all in the picture.
  EXPECT_TRUE(has(t, "<title>00:00:00:00:00:04: down from 60.0 s</title>")) << t;
  EXPECT_TRUE(has(t, "<title>00:00:00:00:00:03: failed from 30.0 s</title>")) << t;
  // The group's stages, through the leader's move away and back.
  for (char const* stage : {"connection period from 0.0", "mount window from 6.0", "flush from 246.0",
                            "initial mounts complete from 247.0", "not tracked from 300.0",
                            "mount window from 330.0", "initial mounts complete from 571.0"})
    EXPECT_TRUE(has(t, "<title>fabric/config: " + std::string(stage) + " s</title>")) << stage;
  // A switch whose only row is unmounted has nothing in progress.
  EXPECT_TRUE(has(t, "<title>00:00:00:00:00:05: up, nothing mounted from 0.0 s</title>")) << t;
  // Labels 30 s apart would overlap: the second takes the row above; each marker has a tooltip.
  EXPECT_TRUE(has(t, " y=\"45\">leader gen2</text>")) << t;
  EXPECT_TRUE(has(t, " y=\"32\">leader gen1</text>")) << t;
  EXPECT_TRUE(has(t, "<title>330.0 s: leader gen1</title>")) << t;

  // A hundred switches share forty lanes at most, three to a lane, each lane its worst state.
  std::string many = "service s\nmount s g /a type Sim::Record\n";
  for (int i = 1; i <= 100; ++i) {
    char address[18];
    std::snprintf(address, sizeof address, "00:00:00:00:01:%02x", i);
    many = "switch " + std::string(address) + (i == 50 ? " fail" : "") + " version s=1 entity /a\n" + many;
  }
  // Eight events at one instant: six label rows, then only the tooltips.
  for (int i = 1; i <= 8; ++i) many += "at 30 latency 00:00:00:00:01:0" + std::to_string(i) + " 1\n";
  std::ofstream(dir / "many.scn") << many << "run 60\n";
  ASSERT_EQ(hostMain({"--timeline", svg, (dir / "many.scn").string()}, out, err), 0) << err.str();
  t = read();
  EXPECT_TRUE(wellFormedXml(t));
  EXPECT_EQ(count(t, "<g class=\"switch\">"), 34u);
  EXPECT_TRUE(has(t, "<text x=\"10\" y=\"117\">00:00:00:00:01:01 … 00:00:00:00:01:03 (3)</text>")) << t;
  EXPECT_EQ(count(t, "<g class=\"event\">"), 8u);
  EXPECT_EQ(count(t, "</text></g>"), 6u);
  EXPECT_TRUE(has(t, "<title>30.0 s: latency 00:00:00:00:01:08 1</title>")) << t;
  EXPECT_TRUE(has(t, "00:00:00:00:01:31 … 00:00:00:00:01:33 (3): failed from ")) << t;

  EXPECT_EQ(hostMain({"--timeline", (dir / "no" / "t.svg").string()}, out, err), 2);
  EXPECT_TRUE(has(err.str(), "mounthost: cannot write the timeline")) << err.str();
  std::filesystem::remove_all(dir);
}

// Names may hold anything printable, quotes and backslashes included; what JSON forbids in a
// string is escaped, and a byte that is no UTF-8 at all (from a scenario not made by the reader)
// still gives valid JSON.
TEST(HostRun, TheJsonReportEscapesWhatJsonRequires) {
  Scenario s = parseScenario(
      std::string(kOneSwitch) + "service q\"\\\xc3\xa9\nmount q\"\\\xc3\xa9 g /sys/config type Sim::Record\nrun 5\n",
      "t.scn");
  s.mounts[0].group = "g\x01\xff";
  std::ostringstream out, err;
  ASSERT_EQ(runScenario(s, json(), out, err), 0) << err.str();
  EXPECT_TRUE(has(out.str(), "{\"service\": \"q\\\"\\\\\xc3\xa9\", \"group\": \"g\\u0001\\ufffd\"")) << out.str();
}

}  // namespace
}  // namespace Host
