#include <gtest/gtest.h>

#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "host/CommandLine.h"
#include "host/Report.h"
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
  // The log went to stderr, keeping stdout pure JSON, with a progress line per 10 s.
  EXPECT_EQ(r.out.front(), '{');
  EXPECT_TRUE(has(r.err, "[progress] t=10s of 20s")) << r.err;
  EXPECT_TRUE(has(r.err, "[progress] t=20s of 20s")) << r.err;
}

TEST(HostRun, TheDefaultScenarioShowsWhatItIsBuiltToShowWithTheRingLog) {
  std::ostringstream out, err;
  ASSERT_EQ(hostMain({"--ringlog"}, out, err), 0) << err.str();
  std::string const& o = out.str();
  EXPECT_TRUE(has(o, "Initial mounts (t=600.0)")) << o;
  EXPECT_TRUE(has(o, "Ring log")) << o;
  // The switch without a version keeps the groups waiting for the whole 240-s window after the
  // leader generation is current again at 330 s; the flush adds one poll.
  EXPECT_TRUE(has(o, "  fabric                config        yes       571.0")) << o;
  EXPECT_TRUE(has(o, "00:00:00:00:00:03  fabric                config        /sys/config       failed")) << o;
  EXPECT_FALSE(has(o, "00:00:00:00:00:05  fabric")) << o;
  EXPECT_TRUE(has(o, "00:00:00:00:00:04  /web/state        /remote/web")) << o;
  EXPECT_TRUE(has(o, "  web                   ready")) << o;
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
  EXPECT_TRUE(has(late.out, "  s                     g             yes       244.0")) << late.out;
}

TEST(HostRun, AVersionChangeOnAConnectedSwitchUnmountsByTheVersionFilterAndLogsWhy) {
  Outcome filtered =
      run(std::string(kOneSwitch) + "service svc\nmount svc g /sys/config type Sim::Record versions 1\n" +
          "at 10 version 00:00:00:00:00:01 svc=2\nrun 15\n");
  ASSERT_EQ(filtered.rc, 0) << filtered.err;
  EXPECT_FALSE(has(filtered.out, "/sys/config       mounted")) << filtered.out;
  // A log line: the virtual time, the unit's trace handle, the function and the message.
  EXPECT_TRUE(has(filtered.out, "   10.000  ControllerMountsRegistrySm: bool Controller::MountsRegistryEntrySm::"
                                "matchingServiceVersionFilter(Kiv::String, Kiv::String):  version:2 not in filter "
                                "service:svc connection:00:00:00:00:00:01\n"))
      << filtered.out;
}

// Names may hold anything printable, quotes and backslashes included; what JSON forbids in a
// string is escaped, and a byte that is no UTF-8 at all (from a scenario not made by the reader)
// still gives valid JSON.
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
                         "expect 0.1 mount 00:00:00:00:00:01 svc /sys/config mounting\nrun 3.3\n";
  std::vector<std::vector<std::string>> const extras = {
      {}, {"--ringlog"}, {"--check"}, {"--trace", "ControllerMountsRegistrySm/0-9"}, {"--until", "2.2"},
      {"--events", events}, {"--realtime", "--until", "0.15"}};
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
    for (char const* k : {"trace", "event", "expectation"})
      if (has(line, std::string("\"kind\": \"") + k + "\"") && !has(kinds, k)) kinds += std::string(k) + " ";
  }
  EXPECT_GT(lines, 3);
  EXPECT_EQ(kinds, "trace event expectation ");
  EXPECT_EQ(hostMain({"--events", (dir / "no" / "such" / "dir" / "e.jsonl").string(), file}, out, err), 2);
  EXPECT_TRUE(has(err.str(), "mounthost: cannot write the event log")) << err.str();
  std::filesystem::remove_all(dir);
}

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
