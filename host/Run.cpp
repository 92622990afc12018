#include "host/Run.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <optional>
#include <tuple>
#include <csignal>
#include <fstream>
#include <functional>
#include <iomanip>
#include <ostream>

#include "host/Narrator.h"
#include "host/Report.h"
#include "host/StatusView.h"
#include "host/Timeline.h"
#include "host/World.h"
#include "kiv/Clock.h"
#include "kiv/Trace.h"

namespace Host {

namespace {

volatile std::sig_atomic_t interrupted = 0;
void onInterrupt(int) { interrupted = 1; }

// Level-1 and level-5 lines (or whatever --trace enables) with their simulated time, and the
// same as JSON lines into the event log when there is one.
class LogSink : public Kiv::TraceSink {
 public:
  LogSink(std::ostream& os, std::ostream* events) : os_(os), events_(events), previous_(Kiv::traceSinkIs(this)) {}
  ~LogSink() override { Kiv::traceSinkIs(previous_); }
  void write(Kiv::TraceRecord const& r) override {
    os_ << std::setw(9) << fixed(r.time) << "  " << (r.level == 1 ? "PROBLEM " : "") << r.handle << ": "
        << r.message << '\n';
    if (events_)
      *events_ << "{\"time\": " << jsonNumber(r.time) << ", \"kind\": \"trace\", \"level\": " << r.level
               << ", \"source\": " << jsonString(r.handle) << ", \"message\": " << jsonString(r.message) << "}\n";
  }

 private:
  std::ostream& os_;
  std::ostream* events_;
  Kiv::TraceSink* previous_;
};

void eventLine(std::ostream& os, double time, Event const& e) {
  os << "{\"time\": " << jsonNumber(time) << ", \"kind\": \"event\", \"line\": " << e.line
     << ", \"action\": " << jsonString(e.words[0]) << ", \"args\": [";
  for (std::size_t i = 1; i < e.words.size(); ++i) os << (i > 1 ? ", " : "") << jsonString(e.words[i]);
  os << "]}\n";
}

void verdictLine(std::ostream& os, double time, Verdict const& v) {
  os << "{\"time\": " << jsonNumber(time) << ", \"kind\": \"expectation\", \"line\": " << v.line
     << ", \"expected\": " << jsonString(v.expected) << ", \"got\": " << jsonString(v.got)
     << ", \"met\": " << (v.met ? "true" : "false") << "}\n";
}

class Ticker : public Kiv::Clock::NotifieeConst {
 public:
  Ticker(Kiv::Ptr<Kiv::Clock const> const& clock, std::function<void()> f)
      : NotifieeConst(clock), f_(std::move(f)) {}
  void onTime() override { f_(); }

 private:
  std::function<void()> f_;
};


// Extra levels add to those already on: a KIV_TRACE setting or --trace never takes one away.
void addTrace(std::string_view setting) {
  std::map<Kiv::TraceHandle*, std::uint32_t> before;
  for (Kiv::TraceHandle* h : Kiv::TraceHandle::all()) before[h] = h->levels();
  Kiv::TraceHandle::configure(setting);
  for (Kiv::TraceHandle* h : Kiv::TraceHandle::all()) h->levelsIs(h->levels() | before[h]);
}

// Wall-clock progress, at most once a second and only once a run has taken two.
class Progress {
 public:
  Progress(std::ostream& err, double until, bool on) : err_(err), until_(until), on_(on) {}
  void at(double t) {
    if (!on_) return;
    auto const now = std::chrono::steady_clock::now();
    if (now - start_ < std::chrono::seconds(2) || now - last_ < std::chrono::seconds(1)) return;
    last_ = now;
    err_ << "[progress] t=" << fixed(t, 0) << "s of " << fixed(until_, 0) << "s\n";
  }

 private:
  std::ostream& err_;
  double until_;
  bool on_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now(), last_{};
};

}  // namespace

int runScenario(Scenario const& s, Options const& o, std::ostream& out, std::ostream& err) {
  // Output files are opened before anything runs: a run is not wasted on a file it cannot write.
  std::ofstream eventsFile, timelineFile;
  for (auto [file, name, what] : {std::tuple{&eventsFile, &o.events, "event log"},
                                  std::tuple{&timelineFile, &o.timeline, "timeline"}}) {
    if (name->empty()) continue;
    file->open(*name, std::ios::binary | std::ios::trunc);
    if (!*file) {
      err << "mounthost: cannot write the " << what << " '" << *name << "'\n";
      return 2;
    }
  }
  std::ostream* events = eventsFile.is_open() ? &eventsFile : nullptr;
  double const until = o.until ? *o.until : s.until;
  std::ostream& log = o.json ? err : out;
  // Problems always; the machines' level-5 account with -v.
  Kiv::TraceHandle::configure(o.verbose ? "ControllerMountsRegistrySm/1,5;ControllerServiceConfigDirSm/1,5;"
                                          "ControllerInitialMountSm/1,5"
                                        : "ControllerMountsRegistrySm/1;ControllerServiceConfigDirSm/1;"
                                          "ControllerInitialMountSm/1");
  if (char const* env = std::getenv("KIV_TRACE")) addTrace(env);  // checked by the command line
  if (!o.trace.empty()) addTrace(o.trace);
  Kiv::Ringlog::defaultHandle().clear();
  int status = 0;
  std::vector<Verdict> verdicts;
  {
    LogSink sink(log, events);
    World w(s, o.realtime ? Kiv::EventLoop::Mode::wallClock : Kiv::EventLoop::Mode::virtualTime);
    w.configure();
    w.start();
    std::size_t next = 0;
    StatusView view(w);
    Narrator narrator(w, view, log, events);
    std::optional<Timeline> timeline;
    if (timelineFile.is_open()) timeline.emplace(w, view);
    Progress progress(err, until, o.progress);
    auto due = [&](double t) {
      std::vector<Event const*> expectations;
      for (; next < s.events.size() && s.events[next].time <= t; ++next) {
        Event const& e = s.events[next];
        if (e.expectation()) {
          expectations.push_back(&e);
        } else {
          if (events) eventLine(*events, t, e);
          narrator.event(t, e);
          if (timeline) timeline->event(t, e);
          w.apply(e);
        }
      }
      // An expectation at t sees everything that happens at t, the events' immediate effects too.
      if (!expectations.empty() && !o.realtime) w.loop.runUntilIdle();
      for (Event const* e : expectations) {
        Verdict const& v = verdicts.emplace_back(verdictOf(w, *e));
        if (events) verdictLine(*events, t, v);
        if (!v.met) err << s.name << ':' << v.line << ": expected " << v.expected << ", got " << v.got << '\n';
      }
      w.checkCompletion();
      view.update();
      auto const groups = groupRows(w);  // read once for both
      narrator.step(t, groups);
      if (timeline) timeline->step(t, groups);
      progress.at(t);
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
        double t = std::min(w.loop.nextTimerTime(), until);
        if (next < s.events.size()) t = std::min(t, s.events[next].time);
        w.loop.advanceTo(std::max(t, w.loop.now()));
        due(w.loop.now());
      }
    }
    if (timeline && !(timeline->write(timelineFile, w.loop.now()), timelineFile.flush())) {
      err << "mounthost: could not write the whole timeline '" << o.timeline << "'\n";
      status = 2;
    }
    std::vector<Explanation> explanations;
    if (!o.explainSwitch.empty()) explanations = explain(w, o.explainSwitch, o.explainPath);
    if (o.json) {
      printJson(w, verdicts, out, o.explainSwitch.empty() ? nullptr : &explanations);
    } else {
      out << "\nSummary: " << narrator.summary() << '\n';
      printTables(w, verdicts, out, o.allRows);
      if (!o.explainSwitch.empty()) printExplanations(o.explainSwitch, explanations, out);
    }
    if (o.check && std::any_of(verdicts.begin(), verdicts.end(), [](Verdict const& v) { return !v.met; })) status = 1;
    // The shutdown withdraws everything; the report ends with the tables.
    Kiv::TraceHandle::resetAll();
  }
  if (o.ringlog) {
    // Beside JSON on stdout, the ring log goes where the log went.
    log << "\nRing log\n";
    Kiv::Ringlog::defaultHandle().dump(log);
  }
  if (events && !eventsFile.flush()) {
    err << "mounthost: could not write the whole event log '" << o.events << "'\n";
    return 2;
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
  Options o = options;
  if (!o.explainSwitch.empty()) {
    std::string const asked = o.explainSwitch;
    o.explainSwitch = canonicalAddress(asked);
    if (std::none_of(s.switches.begin(), s.switches.end(), [&](SwitchDecl const& d) { return d.address == o.explainSwitch; })) {
      err << "mounthost: --explain: '" << asked << "' is not a switch of the scenario\n";
      return 2;
    }
    if (!o.explainPath.empty() && std::none_of(s.mounts.begin(), s.mounts.end(),
                                               [&](MountDecl const& m) { return m.remotePath == o.explainPath; })) {
      err << "mounthost: --explain: the scenario mounts no '" << o.explainPath << "'\n";
      return 2;
    }
  }
  return runScenario(s, o, out, err);
}

}  // namespace Host
