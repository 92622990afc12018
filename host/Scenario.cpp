#include "host/Scenario.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <limits>
#include <set>
#include <sstream>
#include <tuple>

#include "host/Utf8.h"

namespace Host {

namespace {

// Every number is bounded, so that each value fits what it feeds and virtual time keeps moving.
// Seconds are 0, or from 1e-6 to 1e9 (about 31 years): up there a double still tells
// microseconds apart, so a timer never lands on the time it was armed at, and nothing
// subnormal reaches the machines. The heartbeat, the mount timeout, the end time and a flap's
// down time must be positive. Counts fit the registry's U32; a version starts at 1, as 0 means
// that none was negotiated.
constexpr double kMinSeconds = 1e-6;
constexpr double kMaxSeconds = 1e9;
constexpr char kSecondsRange[] = "1e-6 to 1e9 seconds";

// `w` with every byte that is not part of a printable UTF-8 character shown as \xNN.
std::string shown(std::string_view w) {
  std::string out;
  while (!w.empty()) {
    CodePoint const c = decodeUtf8(w);
    if (c.length > 0 && !isControl(c.value)) {
      out.append(w.substr(0, c.length));
      w.remove_prefix(c.length);
      continue;
    }
    for (std::size_t i = 0; i < std::max<std::size_t>(c.length, 1); ++i) {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(w[i]));
      out += hex;
    }
    w.remove_prefix(std::max<std::size_t>(c.length, 1));
  }
  return out;
}

std::string shown(double v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

bool under(std::string_view path, std::string_view dir) {
  return path.starts_with(dir) && (path.size() == dir.size() || path[dir.size()] == '/');
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
    // Names reach trace lines, tables and JSON: no control characters, nothing that is not UTF-8.
    for (auto const& w : w_)
      if (std::string s = shown(w); s != w) fail("'" + s + "' is not printable UTF-8");
    std::string const kw = next("a statement");
    if (kw == "heartbeat") {
      s_.heartbeat = seconds(next("the heartbeat interval"), "heartbeat interval", true);
    } else if (kw == "leader") {
      s_.leader = next("a generation id");
    } else if (kw == "retries") {
      s_.retries = count(next("a retry count"), "retry count", 0);
    } else if (kw == "timeout") {
      s_.timeout = seconds(next("the mount timeout"), "mount timeout", true);
    } else if (kw == "run") {
      s_.until = seconds(next("the end time"), "end time", true);
      runLine_ = line_;
    } else if (kw == "local") {
      s_.locals.push_back(localPath(next("a local path")));
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
    } else if (kw == "expect") {
      expectation();
    } else {
      fail("unknown statement '" + kw + "'");
    }
    if (pos_ < w_.size()) fail("unexpected '" + w_[pos_] + "'");
  }

  Scenario finish(std::optional<double> until) {
    if (until) s_.until = *until;
    std::string const by = until      ? std::string(" (--until)")
                           : runLine_ ? lineOf(runLine_)
                                      : " (the default; 'run' sets it)";
    for (auto const& e : s_.events)
      if (e.time > s_.until)
        throw ScenarioError(file_, e.line,
                            "event at " + shown(e.time) + " is after the end time " + shown(s_.until) + by);
    std::stable_sort(s_.events.begin(), s_.events.end(),
                     [](Event const& a, Event const& b) { return a.time < b.time; });
    return std::move(s_);
  }

 private:
  [[noreturn]] void fail(std::string const& reason) const { throw ScenarioError(file_, line_, reason); }
  std::string lineOf(int line) const { return " (line " + std::to_string(line) + ")"; }

  bool more() const { return pos_ < w_.size(); }
  std::string next(char const* what) {
    if (!more()) fail(std::string("missing ") + what);
    return w_[pos_++];
  }
  double seconds(std::string const& w, char const* what, bool positive) {
    auto v = parseSeconds(w);
    if (!v || (positive && *v == 0))
      fail(std::string("bad ") + what + " '" + w + "' (want " + (positive ? "" : "0 or ") + kSecondsRange + ")");
    return *v;
  }
  unsigned count(std::string const& w, char const* what, std::uint32_t least) {
    std::uint32_t v = 0;
    auto [p, ec] = std::from_chars(w.data(), w.data() + w.size(), v);
    if (ec != std::errc() || p != w.data() + w.size() || v < least)
      fail(std::string("bad ") + what + " '" + w + "' (want " + std::to_string(least) + " to " +
           std::to_string(std::numeric_limits<std::uint32_t>::max()) + ")");
    return v;
  }
  // A path names an entity: names after single slashes, so none of them is empty.
  std::string path(std::string const& w) {
    if (w.empty() || w[0] != '/') fail("bad path '" + w + "' (must start with '/')");
    if (w.back() == '/' || w.find("//") != std::string::npos) fail("bad path '" + w + "' (a name in it is empty)");
    return w;
  }
  // A path the host creates locally: clear of the host's own directories and of mounted copies.
  std::string localPath(std::string const& w) {
    outsideHostDirs(w, "'" + w + "'");
    for (auto const& [target, line] : targets_)
      if (under(w, target)) fail("'" + w + "' is under '" + target + "', which holds mounted copies" + lineOf(line));
    locals_.emplace_back(w, line_);
    return w;
  }
  std::string targetPath(std::string const& w) {
    outsideHostDirs(w, "target '" + w + "'");
    for (auto const& [local, line] : locals_)
      if (under(local, w)) fail("target '" + w + "' would hold mounted copies over '" + local + "'" + lineOf(line));
    targets_.emplace_back(w, line_);
    return w;
  }
  void outsideHostDirs(std::string const& w, std::string const& shownAs) {
    path(w);
    for (std::string_view dir : kHostDirs)
      if (under(w, dir)) fail(shownAs + " is under '" + std::string(dir) + "', which the host builds");
  }
  // A switch's entities are leaves: none holds another.
  std::string entityPath(SwitchDecl const& d, std::string const& w) {
    path(w);
    for (auto const& e : d.entities)
      if (under(w, e) || under(e, w)) fail("entity '" + w + "' overlaps entity '" + e + "' of the same switch");
    return w;
  }
  std::string address(std::string const& a) {
    std::string out = canonicalAddress(a);
    if (out.empty()) fail("bad switch address '" + a + "' (want a non-zero xx:xx:xx:xx:xx:xx)");
    return out;
  }
  std::string knownSwitch(std::string const& a) {
    std::string out = address(a);
    if (!switches_.count(out)) fail("unknown switch '" + a + "'");
    return out;
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
    for (auto& a : out) a = knownSwitch(a);
    return out;
  }
  std::vector<unsigned> versions(std::string const& w) {
    std::vector<unsigned> out;
    for (auto const& v : list(w)) out.push_back(count(v, "version", 1));
    return out;
  }
  std::pair<std::string, unsigned> serviceVersion(std::string const& w) {
    auto eq = w.find('=');
    if (eq == std::string::npos || eq == 0) fail("bad service version '" + w + "' (want service=N)");
    return {w.substr(0, eq), count(w.substr(eq + 1), "version", 1)};
  }
  // Consumes words up to the next keyword of the statement.
  template <class F>
  void each(std::set<std::string> const& keywords, F f) {
    if (!more() || keywords.count(w_[pos_])) fail("missing value after '" + w_[pos_ - 1] + "'");
    while (more() && !keywords.count(w_[pos_])) f(w_[pos_++]);
  }

  void switchDecl() {
    SwitchDecl d;
    d.address = address(next("a switch address"));
    if (!switches_.insert(d.address).second) fail("switch '" + d.address + "' declared twice");
    static std::set<std::string> const kws{"latency", "handshake", "fail", "down", "version", "entity"};
    while (more()) {
      std::string kw = next("an option");
      if (kw == "latency") {
        d.latency = seconds(next("a latency"), "latency", false);
      } else if (kw == "handshake") {
        d.handshake = seconds(next("a handshake latency"), "handshake latency", false);
      } else if (kw == "fail") {
        d.failing = true;
      } else if (kw == "down") {
        d.down = true;
      } else if (kw == "version") {
        each(kws, [&](std::string const& w) { d.versions.insert(serviceVersion(w)); });
      } else if (kw == "entity") {
        each(kws, [&](std::string const& w) { d.entities.push_back(entityPath(d, w)); });
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
        d.target = targetPath(next("a target path"));
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
    // The registry holds one entry per remote path, whoever mounts it.
    auto [first, isFirst] = mounted_.try_emplace(d.remotePath, Mounted{d.type, d.flags, line_});
    if (!isFirst && (first->second.type != d.type || first->second.flags != d.flags))
      fail("'" + d.remotePath + "' is mounted with type '" + first->second.type + "' and flags '" +
           first->second.flags + "'" + lineOf(first->second.line) + "; every mount of a path must agree");
    auto [group, isNew] = mountedBy_.try_emplace({d.service, d.remotePath}, d.group, line_);
    if (!isNew)
      fail("service '" + d.service + "' already mounts '" + d.remotePath + "' in group '" + group->second.first + "'" +
           lineOf(group->second.second));
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
      } else if (kw == "ready") {
        d.ready = true;
      } else if (kw == "systems") {
        d.systems = systems(next("a switch list"));
      } else if (kw == "versions") {
        d.versions = versions(next("a version list"));
      } else {
        fail("unknown publish option '" + kw + "'");
      }
    }
    if (d.ready && !d.dir) fail("'ready' is for a directory ('dir'); a single entity is ready once it exists");
    if (d.remotePath.empty()) fail("publish needs 'remote <path>'");
    if (d.type.empty()) fail("publish needs 'type <T>'");
    auto [group, isNew] = publishedBy_.try_emplace({d.service, d.group, d.localPath}, line_);
    if (!isNew)
      fail("group '" + d.group + "' of service '" + d.service + "' already publishes '" + d.localPath + "'" +
           lineOf(group->second));
    s_.publishes.push_back(std::move(d));
  }

  void onOff(std::string const& w) {
    if (w != "on" && w != "off") fail("want 'on' or 'off', not '" + w + "'");
  }

  void event() {
    Event e;
    e.line = line_;
    e.time = seconds(next("a time"), "time", false);
    std::string const action = next("an action");
    e.words.push_back(action);
    auto take = [&](char const* what) { e.words.push_back(next(what)); return e.words.back(); };
    // The world finds a switch by the address as the scenario declared it.
    auto knownSwitchWord = [&] { e.words.push_back(knownSwitch(next("a switch address"))); };
    if (action == "connect" || action == "disconnect") {
      knownSwitchWord();
    } else if (action == "flap") {
      knownSwitchWord();
      seconds(take("a down time"), "down time", true);
    } else if (action == "version") {
      knownSwitchWord();
      serviceVersion(take("service=N"));
    } else if (action == "withdraw") {
      knownSwitchWord();
      take("a service name");
    } else if (action == "fail") {
      knownSwitchWord();
      onOff(take("on or off"));
    } else if (action == "latency") {
      knownSwitchWord();
      seconds(take("a latency"), "latency", false);
    } else if (action == "leader") {
      take("a generation id");
    } else if (action == "gen") {
      knownService(take("a service name"));
      take("a generation id");
    } else if (action == "ready") {
      knownService(take("a service name"));
      onOff(take("on or off"));
    } else if (action == "create") {
      localPath(take("a local path"));
    } else if (action == "dir-ready") {
      std::string const service = take("a service name");
      std::string const group = take("a group name");
      publishedDir(service, group, take("a directory path"));
      onOff(take("on or off"));
    } else {
      fail("unknown action '" + action + "'");
    }
    s_.events.push_back(std::move(e));
  }

  // The directory a group of a service publishes with 'dir'.
  void publishedDir(std::string const& service, std::string const& group, std::string const& dir) {
    for (auto const& p : s_.publishes)
      if (p.dir && p.service == service && p.group == group && p.localPath == dir) return;
    fail("group '" + group + "' of service '" + service + "' publishes no directory '" + dir + "'");
  }

  // expect T mount SWITCH SERVICE PATH STATE | group SERVICE GROUP complete|incomplete
  //        | published SWITCH PATH present|absent | ready SERVICE on|off
  void expectation() {
    Event e;
    e.line = line_;
    e.words.push_back("expect");
    e.time = seconds(next("a time"), "time", false);
    std::string const what = next("what to expect (mount, group, published or ready)");
    e.words.push_back(what);
    auto take = [&](char const* w) { e.words.push_back(next(w)); return e.words.back(); };
    auto oneOf = [&](char const* w, std::initializer_list<char const*> values) {
      std::string const v = take(w);
      std::string all;
      for (char const* x : values) {
        if (v == x) return;
        all += (all.empty() ? "" : ", ") + std::string(x);
      }
      fail("want one of " + all + ", not '" + v + "'");
    };
    if (what == "mount") {
      e.words.push_back(knownSwitch(next("a switch address")));
      std::string const service = knownService(take("a service name")).name;
      std::string const remote = path(take("a remote path"));
      if (!mountedBy_.count({service, remote})) fail("service '" + service + "' mounts no '" + remote + "'");
      oneOf("a mount state", {"unmounted", "mounting", "mounted", "unmounting", "failed", "absent"});
    } else if (what == "group") {
      auto const& svc = knownService(take("a service name"));
      std::string const group = take("a group name");
      if (svc.proxy) fail("proxy service '" + svc.name + "' has no initial mounts to complete");
      if (std::none_of(s_.mounts.begin(), s_.mounts.end(),
                       [&](MountDecl const& m) { return m.service == svc.name && m.group == group; }))
        fail("service '" + svc.name + "' mounts nothing in group '" + group + "'");
      oneOf("complete or incomplete", {"complete", "incomplete"});
    } else if (what == "published") {
      e.words.push_back(knownSwitch(next("a switch address")));
      path(take("a local path"));
      oneOf("present or absent", {"present", "absent"});
    } else if (what == "ready") {
      auto const& svc = knownService(take("a service name"));
      if (std::none_of(s_.publishes.begin(), s_.publishes.end(),
                       [&](PublishDecl const& p) { return p.service == svc.name; }))
        fail("service '" + svc.name + "' publishes nothing");
      onOff(take("on or off"));
    } else {
      fail("unknown expectation '" + what + "' (want mount, group, published or ready)");
    }
    s_.events.push_back(std::move(e));
  }

  std::string file_;
  int line_ = 0;
  std::vector<std::string> w_;
  std::size_t pos_ = 0;
  std::set<std::string> switches_;
  struct Mounted {
    std::string type, flags;
    int line;
  };
  std::map<std::string, Mounted> mounted_;  // by remote path, as first mounted
  std::map<std::pair<std::string, std::string>, std::pair<std::string, int>> mountedBy_;  // by service and path
  std::map<std::tuple<std::string, std::string, std::string>, int> publishedBy_;          // by service, group and path
  std::vector<std::pair<std::string, int>> locals_, targets_;                             // with their lines
  int runLine_ = 0;
  Scenario s_;
};

}  // namespace

// The lower-case form of a non-zero Ethernet address; empty when `a` is not one.
std::string canonicalAddress(std::string_view a) {
  if (a.size() != 17) return {};
  std::string out(a);
  for (std::size_t i = 0; i < out.size(); ++i) {
    if (i % 3 == 2) {
      if (out[i] != ':') return {};
    } else if (std::isxdigit(static_cast<unsigned char>(out[i]))) {
      out[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(out[i])));
    } else {
      return {};
    }
  }
  return out == "00:00:00:00:00:00" ? std::string() : out;
}

ServiceDecl const* Scenario::service(std::string_view n) const {
  for (auto const& s : services)
    if (s.name == n) return &s;
  return nullptr;
}

std::optional<double> parseSeconds(std::string_view text) {
  double v = 0;
  auto [p, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || p != text.data() + text.size() || !std::isfinite(v)) return std::nullopt;
  if (v != 0 && !(v >= kMinSeconds && v <= kMaxSeconds)) return std::nullopt;
  return v;
}

Scenario parseScenario(std::string_view text, std::string const& fileName, std::optional<double> until) {
  Parser p(fileName);
  int number = 0;
  while (!text.empty()) {
    auto nl = text.find('\n');
    p.line(++number, text.substr(0, nl));
    text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
  }
  return p.finish(until);
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
