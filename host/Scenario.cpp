#include "host/Scenario.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <sstream>

namespace Host {

namespace {

bool isAddress(std::string_view a) {
  if (a.size() != 17) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (i % 3 == 2) {
      if (a[i] != ':') return false;
    } else if (!std::isxdigit(static_cast<unsigned char>(a[i]))) {
      return false;
    }
  }
  return true;
}

class Parser {
 public:
  Parser(std::string const& file) : file_(file) { s_.name = file; }

  void line(int number, std::string_view text) {
    line_ = number;
    if (auto hash = text.find('#'); hash != std::string_view::npos) text = text.substr(0, hash);
    std::istringstream in{std::string(text)};
    w_.clear();
    pos_ = 0;
    for (std::string word; in >> word;) w_.push_back(word);
    if (w_.empty()) return;
    std::string const kw = next("a statement");
    if (kw == "heartbeat") {
      s_.heartbeat = positive(next("the heartbeat interval"), "heartbeat interval");
    } else if (kw == "leader") {
      s_.leader = next("a generation id");
    } else if (kw == "retries") {
      s_.retries = count(next("a retry count"));
    } else if (kw == "timeout") {
      s_.timeout = positive(next("the mount timeout"), "mount timeout");
    } else if (kw == "run") {
      s_.until = positive(next("the end time"), "end time");
    } else if (kw == "local") {
      s_.locals.push_back(path(next("a local path")));
    } else if (kw == "switch") {
      switchDecl();
    } else if (kw == "service") {
      serviceDecl();
    } else if (kw == "mount") {
      mountDecl();
    } else if (kw == "publish") {
      publishDecl();
    } else if (kw == "at") {
      event();
    } else {
      fail("unknown statement '" + kw + "'");
    }
    if (pos_ < w_.size()) fail("unexpected '" + w_[pos_] + "'");
  }

  Scenario finish() {
    std::stable_sort(s_.events.begin(), s_.events.end(),
                     [](Event const& a, Event const& b) { return a.time < b.time; });
    return std::move(s_);
  }

 private:
  [[noreturn]] void fail(std::string const& reason) const { throw ScenarioError(file_, line_, reason); }

  bool more() const { return pos_ < w_.size(); }
  std::string next(char const* what) {
    if (!more()) fail(std::string("missing ") + what);
    return w_[pos_++];
  }
  double number(std::string const& w, char const* what) {
    double v = 0;
    auto [p, ec] = std::from_chars(w.data(), w.data() + w.size(), v);
    if (ec != std::errc() || p != w.data() + w.size() || v < 0) fail(std::string("bad ") + what + " '" + w + "'");
    return v;
  }
  double positive(std::string const& w, char const* what) {
    double v = number(w, what);
    if (v <= 0) fail(std::string("bad ") + what + " '" + w + "' (must be positive)");
    return v;
  }
  unsigned count(std::string const& w) {
    unsigned v = 0;
    auto [p, ec] = std::from_chars(w.data(), w.data() + w.size(), v);
    if (ec != std::errc() || p != w.data() + w.size()) fail("bad number '" + w + "'");
    return v;
  }
  std::string path(std::string const& w) {
    if (w.size() < 2 || w[0] != '/') fail("bad path '" + w + "' (must start with '/')");
    return w;
  }
  std::string knownSwitch(std::string const& a) {
    if (!isAddress(a)) fail("bad switch address '" + a + "' (want xx:xx:xx:xx:xx:xx)");
    if (!switches_.count(a)) fail("unknown switch '" + a + "'");
    return a;
  }
  ServiceDecl const& knownService(std::string const& name) {
    auto const* svc = s_.service(name);
    if (!svc) fail("unknown service '" + name + "' (declare it with 'service' first)");
    return *svc;
  }
  std::vector<std::string> list(std::string const& w) {
    std::vector<std::string> out;
    std::istringstream in(w);
    for (std::string item; std::getline(in, item, ',');)
      if (!item.empty()) out.push_back(item);
    if (out.empty()) fail("empty list");
    return out;
  }
  std::vector<std::string> systems(std::string const& w) {
    auto out = list(w);
    for (auto const& a : out) knownSwitch(a);
    return out;
  }
  std::vector<unsigned> versions(std::string const& w) {
    std::vector<unsigned> out;
    for (auto const& v : list(w)) out.push_back(count(v));
    return out;
  }
  std::pair<std::string, unsigned> serviceVersion(std::string const& w) {
    auto eq = w.find('=');
    if (eq == std::string::npos || eq == 0) fail("bad service version '" + w + "' (want service=N)");
    return {w.substr(0, eq), count(w.substr(eq + 1))};
  }
  // Consumes words up to the next keyword of the statement.
  template <class F>
  void each(std::set<std::string> const& keywords, F f) {
    if (!more() || keywords.count(w_[pos_])) fail("missing value after '" + w_[pos_ - 1] + "'");
    while (more() && !keywords.count(w_[pos_])) f(w_[pos_++]);
  }

  void switchDecl() {
    SwitchDecl d;
    d.address = next("a switch address");
    if (!isAddress(d.address)) fail("bad switch address '" + d.address + "' (want xx:xx:xx:xx:xx:xx)");
    if (!switches_.insert(d.address).second) fail("switch '" + d.address + "' declared twice");
    static std::set<std::string> const kws{"latency", "handshake", "fail", "down", "version", "entity"};
    while (more()) {
      std::string kw = next("an option");
      if (kw == "latency") {
        d.latency = number(next("a latency"), "latency");
      } else if (kw == "handshake") {
        d.handshake = number(next("a handshake latency"), "handshake latency");
      } else if (kw == "fail") {
        d.failing = true;
      } else if (kw == "down") {
        d.down = true;
      } else if (kw == "version") {
        each(kws, [&](std::string const& w) { d.versions.insert(serviceVersion(w)); });
      } else if (kw == "entity") {
        each(kws, [&](std::string const& w) { d.entities.push_back(path(w)); });
      } else {
        fail("unknown switch option '" + kw + "'");
      }
    }
    s_.switches.push_back(std::move(d));
  }

  void serviceDecl() {
    ServiceDecl d;
    d.name = next("a service name");
    if (s_.service(d.name)) fail("service '" + d.name + "' declared twice");
    while (more()) {
      std::string kw = next("an option");
      if (kw == "gen") {
        d.gen = next("a generation id");
      } else if (kw == "proxy") {
        d.proxy = true;
      } else if (kw == "ready") {
        d.ready = true;
      } else {
        fail("unknown service option '" + kw + "'");
      }
    }
    bool const proxyName = d.name.size() > 6 && d.name.ends_with("-proxy");
    if (d.proxy && !proxyName) fail("a proxy service's name ends in '-proxy'");
    if (!d.proxy && proxyName) fail("service '" + d.name + "' is named as a proxy; add 'proxy'");
    s_.services.push_back(std::move(d));
  }

  void mountDecl() {
    MountDecl d;
    d.service = knownService(next("a service name")).name;
    d.group = next("a group name");
    d.remotePath = path(next("a remote path"));
    while (more()) {
      std::string kw = next("an option");
      if (kw == "type") {
        d.type = next("a type name");
      } else if (kw == "flags") {
        d.flags = next("flags");
      } else if (kw == "target") {
        d.target = next("a target path");
      } else if (kw == "systems") {
        d.systems = systems(next("a switch list"));
      } else if (kw == "versions") {
        d.versions = versions(next("a version list"));
      } else if (kw == "preserve") {
        d.preserve = true;
      } else {
        fail("unknown mount option '" + kw + "'");
      }
    }
    if (d.type.empty()) fail("mount needs 'type <T>'");
    s_.mounts.push_back(std::move(d));
  }

  void publishDecl() {
    PublishDecl d;
    auto const& svc = knownService(next("a service name"));
    if (svc.proxy) fail("proxy service '" + svc.name + "' cannot publish");
    d.service = svc.name;
    d.group = next("a group name");
    d.localPath = path(next("a local path"));
    while (more()) {
      std::string kw = next("an option");
      if (kw == "remote") {
        d.remotePath = path(next("a remote path"));
      } else if (kw == "type") {
        d.type = next("a type name");
      } else if (kw == "dir") {
        d.dir = true;
      } else if (kw == "systems") {
        d.systems = systems(next("a switch list"));
      } else if (kw == "versions") {
        d.versions = versions(next("a version list"));
      } else {
        fail("unknown publish option '" + kw + "'");
      }
    }
    if (d.remotePath.empty()) fail("publish needs 'remote <path>'");
    if (d.type.empty()) fail("publish needs 'type <T>'");
    s_.publishes.push_back(std::move(d));
  }

  void onOff(std::string const& w) {
    if (w != "on" && w != "off") fail("want 'on' or 'off', not '" + w + "'");
  }

  void event() {
    Event e;
    e.line = line_;
    e.time = number(next("a time"), "time");
    std::string const action = next("an action");
    e.words.push_back(action);
    auto take = [&](char const* what) { e.words.push_back(next(what)); return e.words.back(); };
    if (action == "connect" || action == "disconnect") {
      knownSwitch(take("a switch address"));
    } else if (action == "flap") {
      knownSwitch(take("a switch address"));
      positive(take("a down time"), "down time");
    } else if (action == "version") {
      knownSwitch(take("a switch address"));
      serviceVersion(take("service=N"));
    } else if (action == "withdraw") {
      knownSwitch(take("a switch address"));
      take("a service name");
    } else if (action == "fail") {
      knownSwitch(take("a switch address"));
      onOff(take("on or off"));
    } else if (action == "latency") {
      knownSwitch(take("a switch address"));
      number(take("a latency"), "latency");
    } else if (action == "leader") {
      take("a generation id");
    } else if (action == "gen") {
      knownService(take("a service name"));
      take("a generation id");
    } else if (action == "ready") {
      knownService(take("a service name"));
      onOff(take("on or off"));
    } else if (action == "create") {
      path(take("a local path"));
    } else {
      fail("unknown action '" + action + "'");
    }
    s_.events.push_back(std::move(e));
  }

  std::string file_;
  int line_ = 0;
  std::vector<std::string> w_;
  std::size_t pos_ = 0;
  std::set<std::string> switches_;
  Scenario s_;
};

}  // namespace

ServiceDecl const* Scenario::service(std::string_view n) const {
  for (auto const& s : services)
    if (s.name == n) return &s;
  return nullptr;
}

Scenario parseScenario(std::string_view text, std::string const& fileName) {
  Parser p(fileName);
  int number = 0;
  while (!text.empty()) {
    auto nl = text.find('\n');
    p.line(++number, text.substr(0, nl));
    text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
  }
  return p.finish();
}

std::string_view defaultScenarioText() {
  return R"(# The built-in scenario: five switches, three services, a leader change and back.
heartbeat 2
leader gen1
retries 2
timeout 10
switch 00:00:00:00:00:01 latency 1 version fabric=1 telemetry=1 web=1 entity /sys/config /sys/counters /telemetry/state
switch 00:00:00:00:00:02 latency 8 version fabric=1 telemetry=1 web=1 entity /sys/config /sys/counters /telemetry/state
switch 00:00:00:00:00:03 latency 1 fail version fabric=1 web=1 entity /sys/config /sys/counters
switch 00:00:00:00:00:04 latency 2 version fabric=1 telemetry=1 web=1 entity /sys/config /sys/counters /telemetry/state
switch 00:00:00:00:00:05 latency 1 entity /sys/config /sys/counters
service fabric
service telemetry-proxy proxy
service web ready
mount fabric config /sys/config type Sim::Record flags r versions 1
mount fabric counters /sys/counters type Sim::Record flags r systems 00:00:00:00:00:01,00:00:00:00:00:02,00:00:00:00:00:04
mount telemetry-proxy state /telemetry/state type Sim::Record flags r
local /web/state
publish web pages /web/state remote /remote/web type Sim::Record versions 1
at 60 flap 00:00:00:00:00:04 15
at 300 leader gen2
at 330 leader gen1
run 600
)";
}

}  // namespace Host
