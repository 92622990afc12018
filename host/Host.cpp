#include "host/Host.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <sstream>

#include "host/Utf8.h"
#include "host/World.h"
#include "kiv/Clock.h"
#include "kiv/Trace.h"
#include "kiv/AttrLog.h"
#include "platform/MountSm.h"

namespace Host {

namespace {

volatile std::sig_atomic_t interrupted = 0;
void onInterrupt(int) { interrupted = 1; }

// JSON text is UTF-8: a byte that is not part of a character becomes U+FFFD.
std::string jsonString(std::string_view s) {
  std::string out = "\"";
  while (!s.empty()) {
    CodePoint const c = decodeUtf8(s);
    if (c.length == 0) {
      out += "\\ufffd";
      s.remove_prefix(1);
      continue;
    }
    if (c.value == '"' || c.value == '\\') {
      out += '\\';
      out += static_cast<char>(c.value);
    } else if (c.value < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c.value));
      out += buf;
    } else {
      out.append(s.substr(0, c.length));
    }
    s.remove_prefix(c.length);
  }
  return out + "\"";
}

// Level-1 and level-5 lines (or whatever --trace enables) with their simulated time.
class LogSink : public Kiv::TraceSink {
 public:
  explicit LogSink(std::ostream& os) : os_(os), previous_(Kiv::traceSinkIs(this)) {}
  ~LogSink() override { Kiv::traceSinkIs(previous_); }
  void write(Kiv::TraceRecord const& r) override {
    os_ << std::setw(9) << fixed(r.time) << "  " << (r.level == 1 ? "PROBLEM " : "") << r.handle << ": "
        << r.message << '\n';
  }

 private:
  std::ostream& os_;
  Kiv::TraceSink* previous_;
};

class Ticker : public Kiv::Clock::NotifieeConst {
 public:
  Ticker(Kiv::Ptr<Kiv::Clock const> const& clock, std::function<void()> f)
      : NotifieeConst(clock), f_(std::move(f)) {}
  void onTime() override { f_(); }

 private:
  std::function<void()> f_;
};

void tables(World const& w, std::ostream& os) {
  os << "\nInitial mounts (t=" << fixed(w.loop.now(), 1) << ")\n";
  os << "  " << std::left << std::setw(22) << "service" << std::setw(14) << "group" << std::setw(10) << "complete"
     << "at\n";
  for (auto const& r : w.groupRows())
    os << "  " << std::setw(22) << r.service << std::setw(14) << r.group << std::setw(10)
       << (r.complete ? "yes" : "no") << (r.at >= 0 ? fixed(r.at, 1) : "-") << '\n';
  os << "\nMounts\n";
  os << "  " << std::setw(19) << "switch" << std::setw(22) << "service" << std::setw(14) << "group"
     << std::setw(18) << "path" << std::setw(12) << "state" << "mounted at\n";
  for (auto const& r : w.mountRows())
    os << "  " << std::setw(19) << r.sw << std::setw(22) << r.service << std::setw(14) << r.group << std::setw(18)
       << r.path << std::setw(12) << r.state << (r.mountedPath.empty() ? "-" : r.mountedPath) << '\n';
  os << "\nPublished\n";
  os << "  " << std::setw(19) << "switch" << std::setw(18) << "path" << std::setw(18) << "remote"
     << std::setw(14) << "type" << "service\n";
  for (auto const& r : w.publishedRows())
    os << "  " << std::setw(19) << r.sw << std::setw(18) << r.path << std::setw(18) << r.remotePath
       << std::setw(14) << r.type << r.service << '\n';
  os << "\nPublish readiness\n";
  for (auto const& svc : w.publishers())
    os << "  " << std::setw(22) << svc << (w.dbPublish->servicePublishReady(svc) ? "ready" : "not ready") << '\n';
  os << std::right;
}

void json(World const& w, std::ostream& os) {
  os << "{\n  \"time\": " << w.loop.now() << ",\n  \"initialMounts\": [";
  char const* sep = "";
  for (auto const& r : w.groupRows()) {
    os << sep << "\n    {\"service\": " << jsonString(r.service) << ", \"group\": " << jsonString(r.group)
       << ", \"complete\": " << (r.complete ? "true" : "false") << ", \"at\": ";
    if (r.at >= 0) os << r.at; else os << "null";
    os << '}';
    sep = ",";
  }
  os << "\n  ],\n  \"mounts\": [";
  sep = "";
  for (auto const& r : w.mountRows()) {
    os << sep << "\n    {\"switch\": " << jsonString(r.sw) << ", \"service\": " << jsonString(r.service)
       << ", \"group\": " << jsonString(r.group) << ", \"path\": " << jsonString(r.path)
       << ", \"state\": " << jsonString(r.state) << ", \"mountedPath\": " << jsonString(r.mountedPath) << '}';
    sep = ",";
  }
  os << "\n  ],\n  \"published\": [";
  sep = "";
  for (auto const& r : w.publishedRows()) {
    os << sep << "\n    {\"switch\": " << jsonString(r.sw) << ", \"path\": " << jsonString(r.path)
       << ", \"remotePath\": " << jsonString(r.remotePath) << ", \"type\": " << jsonString(r.type)
       << ", \"service\": " << jsonString(r.service) << '}';
    sep = ",";
  }
  os << "\n  ],\n  \"publishReady\": {";
  sep = "";
  for (auto const& svc : w.publishers()) {
    os << sep << "\n    " << jsonString(svc) << ": " << (w.dbPublish->servicePublishReady(svc) ? "true" : "false");
    sep = ",";
  }
  os << "\n  }\n}\n";
}

}  // namespace

int runScenario(Scenario const& s, Options const& o, std::ostream& out, std::ostream& err) {
  double const until = o.until ? *o.until : s.until;
  std::ostream& log = o.json ? err : out;
  Kiv::TraceHandle::configure(
      "ControllerMountsRegistrySm/1,5;ControllerServiceConfigDirSm/1,5;ControllerInitialMountSm/1,5");
  if (!o.trace.empty()) Kiv::TraceHandle::configure(o.trace);
  Kiv::Ringlog::defaultHandle().clear();
  int status = 0;
  {
    LogSink sink(log);
    World w(s, o.realtime ? Kiv::EventLoop::Mode::wallClock : Kiv::EventLoop::Mode::virtualTime);
    w.configure();
    w.start();
    std::size_t next = 0;
    double nextProgress = o.progressEvery > 0 ? o.progressEvery : Kiv::kInfinity;
    auto due = [&](double t) {
      while (next < s.events.size() && s.events[next].time <= t) w.apply(s.events[next++]);
      w.checkCompletion();
      while (t >= nextProgress) {
        err << "[progress] t=" << fixed(nextProgress, 0) << "s of " << fixed(until, 0) << "s\n";
        nextProgress += o.progressEvery;
      }
    };
    if (o.realtime) {
      interrupted = 0;
      auto previous = std::signal(SIGINT, onInterrupt);
      Kiv::Ptr<Ticker> ticker;
      ticker = new Ticker(w.loop.clock(), [&] {
        double const now = w.loop.now();
        due(now);
        if (interrupted || now >= until) {
          w.loop.stop();
        } else {
          ticker->timeMinIs(now + 0.1);
        }
      });
      ticker->timeMinIs(0);
      w.loop.run();
      std::signal(SIGINT, previous);
      ticker = nullptr;
    } else {
      due(0);
      // Stepping timer by timer dates each completion exactly.
      while (w.loop.now() < until) {
        double t = std::min({w.loop.nextTimerTime(), until, nextProgress});
        if (next < s.events.size()) t = std::min(t, s.events[next].time);
        w.loop.advanceTo(std::max(t, w.loop.now()));
        due(w.loop.now());
      }
    }
    if (o.json) {
      json(w, out);
    } else {
      tables(w, out);
    }
    // The shutdown withdraws everything; the report ends with the tables.
    Kiv::TraceHandle::resetAll();
  }
  if (o.ringlog) {
    out << "\nRing log\n";
    Kiv::Ringlog::defaultHandle().dump(out);
  }
  Kiv::TraceHandle::resetAll();
  return status;
}

int runScenarioText(std::string const& text, std::string const& fileName, Options const& options,
                    std::ostream& out, std::ostream& err) {
  Scenario s;
  try {
    s = parseScenario(text, fileName, options.until);
  } catch (ScenarioError const& e) {
    err << e.what() << '\n';
    return 2;
  }
  return runScenario(s, options, out, err);
}

namespace {

constexpr char const* kUsage =
    "usage: mounthost [options] [scenario-file]\n"
    "Runs a scenario (see README.md) against simulated switches; without a file, the built-in one.\n"
    "  --json            print the final status as JSON (the log goes to stderr)\n"
    "  --trace SETTING   extra trace levels, e.g. 'ControllerMountsRegistrySm/0-9'\n"
    "  --until SECONDS   stop at this time instead of the scenario's 'run'\n"
    "  --ringlog         dump the in-memory ring log at the end\n"
    "  --realtime        timers follow the wall clock; run until --until or Ctrl-C\n"
    "  --help            this text\n"
    "  --version         the version\n";

// Whether `text` holds a statement: something other than blanks and comments.
bool hasStatement(std::string_view text) {
  std::istringstream in{std::string(text)};
  for (std::string line; std::getline(in, line);)
    if (line.substr(0, line.find('#')).find_first_not_of(" \t\r\v\f") != std::string::npos) return true;
  return false;
}

int commandLine(std::vector<std::string> const& args, std::ostream& out, std::ostream& err) {
  Options o;
  std::string file;
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string const& a = args[i];
    auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= args.size()) return std::nullopt;
      return args[++i];
    };
    if (a == "--help" || a == "-h") {
      out << kUsage;
      return 0;
    } else if (a == "--version") {
      out << "mounthost " << kVersion << '\n';
      return 0;
    } else if (a == "--json") {
      o.json = true;
    } else if (a == "--ringlog") {
      o.ringlog = true;
    } else if (a == "--realtime") {
      o.realtime = true;
    } else if (a == "--trace") {
      auto v = value();
      if (!v) {
        err << "mounthost: --trace needs a setting\n" << kUsage;
        return 2;
      }
      o.trace = *v;
    } else if (a == "--until") {
      auto v = value();
      std::optional<double> const d = v ? parseSeconds(*v) : std::nullopt;
      if (!d || *d == 0) {
        err << "mounthost: --until needs a number of seconds from 1e-6 to 1e9\n" << kUsage;
        return 2;
      }
      o.until = d;
    } else if (a.starts_with("-")) {
      err << "mounthost: unknown option '" << a << "'\n" << kUsage;
      return 2;
    } else if (!file.empty()) {
      err << "mounthost: more than one scenario file\n" << kUsage;
      return 2;
    } else {
      file = a;
    }
  }
  if (!o.trace.empty()) {
    try {
      Kiv::TraceHandle::configure(o.trace);
      Kiv::TraceHandle::resetAll();
    } catch (std::exception const& e) {
      err << "mounthost: bad --trace setting: " << e.what() << '\n';
      return 2;
    }
  }
  if (file.empty()) return runScenarioText(std::string(defaultScenarioText()), "<default>", o, out, err);
  // A directory opens as a stream that reads nothing; it must not pass for an empty scenario.
  std::error_code ec;
  if (std::filesystem::is_directory(file, ec)) {
    err << "mounthost: '" << file << "' is a directory, not a scenario file\n";
    return 2;
  }
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    err << "mounthost: cannot read '" << file << "'\n";
    return 2;
  }
  std::stringstream text;
  text << in.rdbuf();
  if (!hasStatement(text.str())) {
    err << "mounthost: '" << file << "' has no statements (it is empty or only blanks and comments)\n";
    return 2;
  }
  return runScenarioText(text.str(), file, o, out, err);
}

}  // namespace

int hostMain(std::vector<std::string> const& args, std::ostream& out, std::ostream& err) {
  try {
    return commandLine(args, out, err);
  } catch (std::exception const& e) {
    err << "mounthost: internal error: " << e.what() << '\n';
  } catch (...) {
    err << "mounthost: internal error: an exception of unknown type\n";
  }
  return 3;
}

}  // namespace Host
