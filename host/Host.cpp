#include "host/Host.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <sstream>

#include "ControllerdbTypes.h"
#include "MountInterface.h"
#include "MountsRegistry.h"
#include "initialmount/InitialMountSm.h"
#include "kiv/Clock.h"
#include "kiv/Trace.h"
#include "kiv/AttrLog.h"
#include "platform/MountSm.h"
#include "platform/SimNetwork.h"
#include "registry/MountsRegistrySm.h"
#include "serviceconfig/ServiceConfigDirSm.h"

namespace Host {

namespace {

using Controller::MountState;

volatile std::sig_atomic_t interrupted = 0;
void onInterrupt(int) { interrupted = 1; }

std::string fixed(double t, int precision = 3) {
  std::ostringstream os;
  os << std::fixed << std::setprecision(precision) << t;
  return os.str();
}

std::string jsonString(std::string_view s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string stateName(MountState s) {
  std::string n = Controller::valueToStrep(s);
  if (n.starts_with("mountState") && n.size() > 10) {
    n = n.substr(10);
    n[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(n[0])));
  }
  return n;
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

struct MountRow {
  std::string service, sw, group, path, state, mountedPath;
};
struct GroupRow {
  std::string service, group;
  bool complete = false;
  double at = -1;
};
struct PublishedRow {
  std::string sw, path, remotePath, type, service;
};

// The controller's side, in the order a host builds it; members are destroyed in reverse.
struct World {
  Kiv::EventLoop loop;
  Kiv::Ptr<Kiv::Dir> root = Kiv::Dir::DirIs("root");
  Kiv::Ptr<Kiv::Dir> mountConfig = root->subdirIs("mountConfig");
  Kiv::Ptr<Kiv::Dir> mountStatus = root->subdirIs("mountStatus");
  Kiv::Ptr<Kiv::Dir> publishConfig = root->subdirIs("publishConfig");
  Kiv::Ptr<Kiv::Dir> publishStatus = root->subdirIs("publishStatus");
  Kiv::Ptr<Kiv::Dir> proxyMountConfig = root->subdirIs("proxyMountConfig");
  Kiv::Ptr<Kiv::Dir> proxyMountStatus = root->subdirIs("proxyMountStatus");
  Kiv::Ptr<Controller::Heartbeat::Config> heartbeat = Controller::Heartbeat::Config::ConfigIs("heartbeat");
  Kiv::Ptr<ControllerOob::Config> oobConfig = ControllerOob::Config::ConfigIs("oobConfig");
  Kiv::Ptr<ControllerOob::Status> oob = ControllerOob::Status::StatusIs("oob");
  Kiv::Ptr<Controllerdb::Status> db = Controllerdb::Status::StatusIs("controllerdb");
  Kiv::Ptr<Controllerdb::PublishStatus> dbPublish = Controllerdb::PublishStatus::PublishStatusIs("publish");
  Kiv::Ptr<Controller::MountsRegistry> registry;
  std::unique_ptr<Sim::Network> net;
  Kiv::Ptr<Controller::ServiceConfigDirSm> serviceConfig;
  Kiv::Ptr<Controller::MountsRegistrySm> registrySm;
  Kiv::Ptr<Controller::InitialMountSm> initialMount;

  Scenario const& s;
  std::map<std::string, Sim::Switch*> switches;
  std::map<std::pair<std::string, std::string>, double> completedAt;

  World(Scenario const& scenario, Kiv::EventLoop::Mode mode) : loop(mode), s(scenario) {
    Kiv::globalNboAttrLogDemuxerManager()->clear();
    Kiv::NboAttrLog::ConnectionDir::instance()->clear();
    Controller::MountSm::localRootDirIs(root);
    registry = Controller::MountsRegistry::MountsRegistryIs(root->subdirIs("mounts"), "mounts", root, "", s.retries,
                                                            s.timeout);
    net = std::make_unique<Sim::Network>(oob, heartbeat);
    oobConfig->heartbeatConfigIs(heartbeat);
    net->heartbeatIntervalIs(s.heartbeat);
    net->establish();
    db->leaderGenIdIs(s.leader);
  }
  ~World() {
    initialMount = nullptr;
    registrySm = nullptr;
    serviceConfig = nullptr;
    net.reset();
    Controller::MountSm::localRootDirIs(nullptr);
    Kiv::globalNboAttrLogDemuxerManager()->clear();
    Kiv::NboAttrLog::ConnectionDir::instance()->clear();
  }

  Kiv::Ptr<Kiv::Dir> statusDir(ServiceDecl const& d) const { return d.proxy ? proxyMountStatus : mountStatus; }
  Kiv::Ptr<Controller::ServiceMountConfig> mountService(ServiceDecl const& d) {
    auto config = (d.proxy ? proxyMountConfig : mountConfig)->entryIs<Controller::ServiceMountConfig>(d.name);
    config->leaderGenIdIs(d.gen.empty() ? s.leader : d.gen);
    config->serviceNameIs(d.name);
    statusDir(d)->entryIs<Controller::ServiceMountStatus>(d.name);
    return config;
  }
  Kiv::Ptr<Controller::ServicePublishConfig> publishService(ServiceDecl const& d) {
    auto config = publishConfig->entryIs<Controller::ServicePublishConfig>(d.name);
    config->leaderGenIdIs(d.gen.empty() ? s.leader : d.gen);
    config->serviceNameIs(d.name);
    config->readyIs(d.ready);
    publishStatus->entryIs<Controller::ServicePublishStatus>(d.name);
    return config;
  }
  Kiv::Ptr<Controller::ServiceMountStatus> mountStatusOf(ServiceDecl const& d) const {
    return Kiv::entityCast<Controller::ServiceMountStatus>(statusDir(d)->entityPtr(d.name));
  }
  void localIs(std::string const& path) {
    auto dir = root;
    std::vector<std::string> parts;
    std::istringstream in(path);
    for (std::string p; std::getline(in, p, '/');)
      if (!p.empty()) parts.push_back(p);
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) dir = dir->subdirIs(parts[i]);
    dir->entryIs<Kiv::Dir>(parts.back());
  }

  template <class Config>
  void filters(Kiv::Ptr<Config> const& svc, std::string const& group, std::vector<std::string> const& systems,
               std::vector<unsigned> const& versions, auto const& groupConfig) {
    if (!systems.empty()) {
      auto f = svc->systemFilterIs(group + "-systems");
      for (auto const& a : systems) f->includedSystemIs(switches.at(a)->name().stdString(), true);
      groupConfig->systemFilterIs(f);
    }
    if (!versions.empty()) {
      auto f = svc->versionFilterIs(group + "-versions");
      for (auto v : versions) f->includedServiceVersionIs(v, true);
      groupConfig->versionFilterIs(f);
    }
  }

  void configure() {
    for (auto const& d : s.switches) {
      Sim::Switch& sw = net->switchIs(d.address);
      sw.mountLatencyIs(d.latency).handshakeLatencyIs(d.handshake).failingIs(d.failing);
      for (auto const& [svc, v] : d.versions) sw.serviceVersionIs(svc, v);
      for (auto const& e : d.entities) sw.entityIs(e.substr(1));
      switches[d.address] = &sw;
    }
    for (auto const& l : s.locals) localIs(l);
    for (auto const& m : s.mounts) {
      auto svc = mountService(*s.service(m.service));
      auto group = svc->mountGroupConfigIs(m.group);
      group->mountConfigIs(m.remotePath, m.type, m.flags, m.target);
      if (m.preserve) group->preserveMountsOnDisconnectIs(true);
      filters(svc, m.group, m.systems, m.versions, group);
    }
    for (auto const& p : s.publishes) {
      auto svc = publishService(*s.service(p.service));
      auto group = svc->publishGroupConfigIs(p.group);
      if (p.dir) {
        group->publishDirIs(p.localPath, p.type)->remoteTargetPathIs(p.remotePath);
      } else {
        group->publishConfigIs(p.localPath, p.remotePath, p.type);
      }
      filters(svc, p.group, p.systems, p.versions, group);
    }
    for (auto const& d : s.switches)
      if (!d.down) switches[d.address]->connect();
  }

  void start() {
    serviceConfig = new Controller::ServiceConfigDirSm(db, mountConfig, mountStatus, publishConfig, publishStatus,
                                                       proxyMountConfig, proxyMountStatus, dbPublish, registry);
    registrySm = new Controller::MountsRegistrySm(registry, oob, heartbeat, mountStatus, dbPublish);
    initialMount = new Controller::InitialMountSm(mountConfig, mountStatus, oobConfig, oob, db);
  }

  void apply(Event const& e) {
    auto const& w = e.words;
    auto sw = [&]() -> Sim::Switch& { return *switches.at(w[1]); };
    std::string const& a = w[0];
    if (a == "connect") {
      sw().connect();
    } else if (a == "disconnect") {
      sw().disconnect();
    } else if (a == "flap") {
      sw().flap(std::stod(w[2]));
    } else if (a == "version") {
      auto eq = w[2].find('=');
      sw().serviceVersionIs(w[2].substr(0, eq), static_cast<std::uint32_t>(std::stoul(w[2].substr(eq + 1))));
    } else if (a == "withdraw") {
      sw().serviceVersionDel(w[2]);
    } else if (a == "fail") {
      sw().failingIs(w[2] == "on");
    } else if (a == "latency") {
      sw().mountLatencyIs(std::stod(w[2]));
    } else if (a == "leader") {
      db->leaderGenIdIs(w[1]);
    } else if (a == "gen") {
      auto const& d = *s.service(w[1]);
      auto dir = d.proxy ? proxyMountConfig : mountConfig;
      if (auto c = Kiv::entityCast<Controller::ServiceMountConfig>(dir->entityPtr(d.name))) c->leaderGenIdIs(w[2]);
      if (auto c = Kiv::entityCast<Controller::ServicePublishConfig>(publishConfig->entityPtr(d.name)))
        c->leaderGenIdIs(w[2]);
    } else if (a == "ready") {
      if (auto c = Kiv::entityCast<Controller::ServicePublishConfig>(publishConfig->entityPtr(w[1])))
        c->readyIs(w[2] == "on");
    } else if (a == "create") {
      localIs(w[1]);
    }
  }

  // Notes when each group's initial mounts became complete; a leader change withdraws the flag
  // and the group starts again, so the time is that of the latest completion.
  void checkCompletion() {
    for (auto const& m : s.mounts) {
      auto key = std::make_pair(m.service, m.group);
      auto st = mountStatusOf(*s.service(m.service));
      if (!st || !st->initialMountsComplete(m.group)) {
        completedAt.erase(key);
      } else if (!completedAt.count(key)) {
        completedAt[key] = loop.now();
      }
    }
  }

  std::vector<GroupRow> groupRows() const {
    std::vector<GroupRow> rows;
    for (auto const& m : s.mounts) {
      if (s.service(m.service)->proxy) continue;  // initial mounts are tracked for ordinary services only
      if (std::any_of(rows.begin(), rows.end(),
                      [&](GroupRow const& r) { return r.service == m.service && r.group == m.group; }))
        continue;
      GroupRow r{m.service, m.group};
      auto st = mountStatusOf(*s.service(m.service));
      r.complete = st && st->initialMountsComplete(m.group);
      if (auto it = completedAt.find({m.service, m.group}); it != completedAt.end()) r.at = it->second;
      rows.push_back(r);
    }
    return rows;
  }
  std::vector<MountRow> mountRows() const {
    std::vector<MountRow> rows;
    for (auto const& d : s.services) {
      auto st = mountStatusOf(d);
      if (!st) continue;
      for (auto sys = st->systemStatusIter(); sys; ++sys)
        for (auto g = sys.value()->serviceMountGroupStatusIter(); g; ++g)
          for (auto m = g.value()->mountStatusIter(); m; ++m)
            rows.push_back({d.name, std::string(sys.key().view()), std::string(g.key().view()),
                            std::string(m.key().view()), stateName(m.value()->mountState()),
                            m.value()->mountedPath().stdString()});
    }
    std::sort(rows.begin(), rows.end(), [](MountRow const& a, MountRow const& b) {
      return std::tie(a.sw, a.service, a.group, a.path) < std::tie(b.sw, b.service, b.group, b.path);
    });
    return rows;
  }
  std::vector<PublishedRow> publishedRows() const {
    std::vector<PublishedRow> rows;
    for (auto sys = dbPublish->systemIter(); sys; ++sys)
      for (auto m = sys.value()->publishedMountIter(); m; ++m) {
        auto const& desc = m.value();
        rows.push_back({Controller::valueToStrep(sys.key()), desc.path().stdString(), desc.remotePath().stdString(),
                        desc.kivType().stdString(), desc.serviceName().stdString()});
      }
    std::sort(rows.begin(), rows.end(), [](PublishedRow const& a, PublishedRow const& b) {
      return std::tie(a.sw, a.path) < std::tie(b.sw, b.path);
    });
    return rows;
  }
  std::vector<std::string> publishers() const {
    std::vector<std::string> out;
    for (auto const& p : s.publishes)
      if (std::find(out.begin(), out.end(), p.service) == out.end()) out.push_back(p.service);
    return out;
  }

  void tables(std::ostream& os) const {
    os << "\nInitial mounts (t=" << fixed(loop.now(), 1) << ")\n";
    os << "  " << std::left << std::setw(22) << "service" << std::setw(14) << "group" << std::setw(10) << "complete"
       << "at\n";
    for (auto const& r : groupRows())
      os << "  " << std::setw(22) << r.service << std::setw(14) << r.group << std::setw(10)
         << (r.complete ? "yes" : "no") << (r.at >= 0 ? fixed(r.at, 1) : "-") << '\n';
    os << "\nMounts\n";
    os << "  " << std::setw(19) << "switch" << std::setw(22) << "service" << std::setw(14) << "group"
       << std::setw(18) << "path" << std::setw(12) << "state" << "mounted at\n";
    for (auto const& r : mountRows())
      os << "  " << std::setw(19) << r.sw << std::setw(22) << r.service << std::setw(14) << r.group << std::setw(18)
         << r.path << std::setw(12) << r.state << (r.mountedPath.empty() ? "-" : r.mountedPath) << '\n';
    os << "\nPublished\n";
    os << "  " << std::setw(19) << "switch" << std::setw(18) << "path" << std::setw(18) << "remote"
       << std::setw(14) << "type" << "service\n";
    for (auto const& r : publishedRows())
      os << "  " << std::setw(19) << r.sw << std::setw(18) << r.path << std::setw(18) << r.remotePath
         << std::setw(14) << r.type << r.service << '\n';
    os << "\nPublish readiness\n";
    for (auto const& svc : publishers())
      os << "  " << std::setw(22) << svc << (dbPublish->servicePublishReady(svc) ? "ready" : "not ready") << '\n';
    os << std::right;
  }

  void json(std::ostream& os) const {
    os << "{\n  \"time\": " << loop.now() << ",\n  \"initialMounts\": [";
    char const* sep = "";
    for (auto const& r : groupRows()) {
      os << sep << "\n    {\"service\": " << jsonString(r.service) << ", \"group\": " << jsonString(r.group)
         << ", \"complete\": " << (r.complete ? "true" : "false") << ", \"at\": ";
      if (r.at >= 0) os << r.at; else os << "null";
      os << '}';
      sep = ",";
    }
    os << "\n  ],\n  \"mounts\": [";
    sep = "";
    for (auto const& r : mountRows()) {
      os << sep << "\n    {\"switch\": " << jsonString(r.sw) << ", \"service\": " << jsonString(r.service)
         << ", \"group\": " << jsonString(r.group) << ", \"path\": " << jsonString(r.path)
         << ", \"state\": " << jsonString(r.state) << ", \"mountedPath\": " << jsonString(r.mountedPath) << '}';
      sep = ",";
    }
    os << "\n  ],\n  \"published\": [";
    sep = "";
    for (auto const& r : publishedRows()) {
      os << sep << "\n    {\"switch\": " << jsonString(r.sw) << ", \"path\": " << jsonString(r.path)
         << ", \"remotePath\": " << jsonString(r.remotePath) << ", \"type\": " << jsonString(r.type)
         << ", \"service\": " << jsonString(r.service) << '}';
      sep = ",";
    }
    os << "\n  ],\n  \"publishReady\": {";
    sep = "";
    for (auto const& svc : publishers()) {
      os << sep << "\n    " << jsonString(svc) << ": " << (dbPublish->servicePublishReady(svc) ? "true" : "false");
      sep = ",";
    }
    os << "\n  }\n}\n";
  }
};

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
      w.json(out);
    } else {
      w.tables(out);
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
    s = parseScenario(text, fileName);
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

}  // namespace

int hostMain(std::vector<std::string> const& args, std::ostream& out, std::ostream& err) {
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
      double d = -1;
      try {
        std::size_t used = 0;
        if (v) d = std::stod(*v, &used);
        if (v && used != v->size()) d = -1;
      } catch (std::exception const&) {
        d = -1;
      }
      if (d <= 0) {
        err << "mounthost: --until needs a positive number of seconds\n" << kUsage;
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
  std::ifstream in(file);
  if (!in) {
    err << "mounthost: cannot read '" << file << "'\n";
    return 2;
  }
  std::stringstream text;
  text << in.rdbuf();
  return runScenarioText(text.str(), file, o, out, err);
}

}  // namespace Host
