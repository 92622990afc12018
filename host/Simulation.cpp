#include "host/Simulation.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>

#include "host/Report.h"
#include "host/Scenario.h"
#include "host/StatusView.h"
#include "host/World.h"
#include "kiv/AttrLog.h"
#include "kiv/Trace.h"
#include "initialmount/MountGroupInitialMountSm.h"
#include "initialmount/ServiceInitialMountSm.h"
#include "platform/MountSm.h"
#include "registry/MountsRegistryEntrySm.h"
#include "registry/PublishRegistryEntrySm.h"

namespace Host {

namespace {

// --- the generator ---

// Only the engine's raw output is used: the standard fixes it exactly, unlike its distributions,
// so a seed means the same scenario everywhere.
class Rng {
 public:
  explicit Rng(std::uint64_t seed) : g_(seed) {}
  unsigned below(unsigned n) { return n == 0 ? 0 : static_cast<unsigned>(g_() % n); }
  bool chance(double p) { return static_cast<double>(g_() >> 11) * 0x1.0p-53 < p; }
  // A multiple of 0.5 in [0, max].
  double halfSteps(double max) { return below(static_cast<unsigned>(max * 2) + 1) * 0.5; }

 private:
  std::mt19937_64 g_;
};

std::string num(double v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

std::string address(unsigned i) {
  char buf[18];
  std::snprintf(buf, sizeof buf, "00:00:00:00:00:%02x", (i + 1) & 0xffu);
  return buf;
}

}  // namespace

std::string generateScenario(std::uint64_t seed) {
  Rng r(seed);
  // Swarm parameters: each seed leans a different way, so that rare orders get their turn.
  unsigned const switches = 1 + r.below(8);
  unsigned const services = 1 + r.below(3);
  unsigned const paths = 1 + r.below(4);
  bool const filters = r.chance(0.5), proxy = r.chance(0.3), preserve = r.chance(0.3), publish = r.chance(0.6);
  double const heartbeat = 1 + r.below(3), timeout = 2 + r.below(8);
  unsigned const retries = r.below(4);
  double const active = 10 + r.below(110);
  std::vector<std::string> kinds;
  for (char const* k : {"connect", "disconnect", "flap", "version", "withdraw", "fail", "latency", "leader", "gen",
                        "ready", "create"})
    if (r.chance(0.5)) kinds.push_back(k);
  unsigned const events = kinds.empty() ? 0 : r.below(60);

  std::ostringstream os;
  os << "# seed " << seed << "\nheartbeat " << num(heartbeat) << "\ntimeout " << num(timeout) << "\nretries "
     << retries << "\n";
  std::vector<std::string> base;
  for (unsigned s = 0; s < services; ++s) base.push_back("s" + std::to_string(s + 1));
  for (unsigned i = 0; i < switches; ++i) {
    os << "switch " << address(i) << " latency " << num(r.halfSteps(3)) << " handshake " << num(r.halfSteps(2));
    if (r.chance(0.1)) os << " fail";
    if (r.chance(0.25)) os << " down";
    std::string versions;
    for (auto const& s : base)
      if (r.chance(0.8)) versions += " " + s + "=" + std::to_string(1 + r.below(2));
    if (!versions.empty()) os << " version" << versions;
    std::string entities;
    for (unsigned p = 0; p < paths; ++p)
      if (r.chance(0.85)) entities += " /d/p" + std::to_string(p + 1);
    if (!entities.empty()) os << " entity" << entities;
    os << "\n";
  }
  std::vector<std::string> mounting = base;
  if (proxy) mounting.push_back("s1-proxy");
  std::vector<std::string> publishers;
  for (auto const& s : base) {
    bool const publishes = publish && r.chance(0.6);
    if (publishes) publishers.push_back(s);
    os << "service " << s << (r.chance(0.1) ? " gen gen2" : "") << (publishes && r.chance(0.7) ? " ready" : "")
       << "\n";
  }
  if (proxy) os << "service s1-proxy proxy\n";
  auto restriction = [&] {
    std::string out;
    if (filters && r.chance(0.4)) {
      std::string systems;
      for (unsigned i = 0; i < switches; ++i)
        if (r.chance(0.5)) systems += (systems.empty() ? "" : ",") + address(i);
      if (!systems.empty()) out += " systems " + systems;
    }
    if (filters && r.chance(0.3)) out += " versions " + std::to_string(1 + r.below(2));
    return out;
  };
  for (auto const& s : mounting) {
    // A group's restriction and preservation hold for all its paths; a path is in one group.
    std::map<std::string, std::string> groupOptions;
    for (char const* g : {"g1", "g2"})
      groupOptions[g] = restriction() + (preserve && r.chance(0.5) ? " preserve" : "");
    for (unsigned p = 0; p < paths; ++p) {
      if (!r.chance(0.6)) continue;
      std::string const g = r.chance(0.6) ? "g1" : "g2";
      os << "mount " << s << " " << g << " /d/p" << p + 1 << " type Sim::Record flags r" << groupOptions[g] << "\n";
    }
  }
  std::vector<std::string> creatable;
  for (auto const& s : publishers) {
    std::string const restrict = restriction();
    for (unsigned x = 1; x <= 2; ++x) {
      if (!r.chance(0.7)) continue;
      std::string const local = "/local/" + s + "/x" + std::to_string(x);
      os << "publish " << s << " pg " << local << " remote /pub/" << s << "/x" << x << " type Sim::Record"
         << restrict << "\n";
      if (r.chance(0.5)) {
        os << "local " << local << "\n";
      } else {
        creatable.push_back(local);
      }
    }
    if (r.chance(0.2)) {
      std::string const local = "/local/" + s + "/dir";
      os << "publish " << s << " pd " << local << " remote /pub/" << s << "/dir type Sim::Record dir" << restrict
         << "\nlocal " << local << "\n";
    }
  }
  for (unsigned e = 0; e < events; ++e) {
    std::string const& kind = kinds[r.below(static_cast<unsigned>(kinds.size()))];
    std::string const sw = address(r.below(switches));
    std::string const& svc = base[r.below(services)];
    os << "at " << num(r.halfSteps(active)) << " ";
    if (kind == "flap") {
      os << "flap " << sw << " " << num(0.5 + r.halfSteps(10));
    } else if (kind == "version") {
      os << "version " << sw << " " << svc << "=" << 1 + r.below(2);
    } else if (kind == "withdraw") {
      os << "withdraw " << sw << " " << svc;
    } else if (kind == "fail") {
      os << "fail " << sw << (r.chance(0.5) ? " on" : " off");
    } else if (kind == "latency") {
      os << "latency " << sw << " " << num(r.halfSteps(4));
    } else if (kind == "leader") {
      os << "leader " << (r.chance(0.5) ? "gen1" : "gen2");
    } else if (kind == "gen") {
      os << "gen " << svc << (r.chance(0.5) ? " gen1" : " gen2");
    } else if (kind == "ready") {
      os << "ready " << svc << (r.chance(0.5) ? " on" : " off");
    } else if (kind == "create" && !creatable.empty()) {
      os << "create " << creatable[r.below(static_cast<unsigned>(creatable.size()))];
    } else {
      os << (kind == "disconnect" ? "disconnect " : "connect ") << sw;
    }
    os << "\n";
  }
  // The quiet tail: longer than the connection period, the mount window, the flush and every
  // retry of a mount, so that everything admissible has settled by the end.
  double const tail = 3 * heartbeat + 240 + 120 + (retries + 2) * (timeout + 4) + 30;
  os << "run " << num(active + tail) << "\n";
  return os.str();
}

namespace {

// --- the checks ---

struct Violation : std::runtime_error {
  Violation(std::string invariant, std::string const& detail)
      : std::runtime_error(detail), invariant(std::move(invariant)) {}
  std::string invariant;
};

class Checker {
 public:
  Checker(World& w, Scenario const& s) : w_(w), s_(s) {}

  // The invariants, from the machines' own state.
  void safety() {
    std::string const leader = w_.db->leaderGenId().stdString();
    auto peers = w_.oob->peerTable();
    // Mount rows: only from a connected switch in the table that negotiated the service's version.
    for (auto const& d : s_.services) {
      auto status = w_.mountStatusOf(d);
      if (!status) continue;
      for (auto sys = status->systemStatusIter(); sys; ++sys) {
        std::string const name(sys.key().view());
        Sim::Switch const* sw = switchNamed(name);
        if (!sw || !peers || !peers->peer(sw->systemId()))
          fail("system status of a switch in the peer table", d.name + " has a system status for " + name);
        for (auto g = sys.value()->serviceMountGroupStatusIter(); g; ++g) {
          auto const& group = *g.value();
          if (group.mountStatusSize() != 0 &&
              group.mountState() != Controller::MountsRegistryEntrySm::combinedMountState(group))
            fail("a group's state combines its rows'", d.name + "/" + std::string(g.key().view()) + " on " + name);
          for (auto m = group.mountStatusIter(); m; ++m) {
            if (m.value()->mountState() != Controller::mountStateMounted) continue;
            std::string const where = d.name + "/" + std::string(g.key().view()) + " " +
                                      std::string(m.key().view()) + " from " + name;
            // A mount being taken down stays until its request is handled, on the loop's next turn.
            if (beingUnmounted(*sw, m.key())) continue;
            if (!sw->connected()) fail("mounted only from a connected switch", where);
            if (!negotiatedForPath(*sw, m.key()))
              fail("mounted only from a switch with a negotiated version", where);
            if (!d.proxy && currentGen(d) != leader) fail("no mount of a stale service", where);
          }
        }
      }
    }
    // Mounters only of current services (proxies keep theirs).
    for (auto e = w_.registry->mountEntryIter(); e; ++e)
      for (auto m = e.value()->mounterIter(); m; ++m) {
        ServiceDecl const* d = s_.service(std::string(m.key().view()));
        if (d && !d->proxy && currentGen(*d) != leader)
          fail("no mounter of a stale service", d->name + " mounts " + std::string(e.key().view()));
      }
    // Publications: on a connected switch, of an existing entity, for a current service.
    for (auto sys = w_.dbPublish->systemIter(); sys; ++sys) {
      std::string const name = Controller::valueToStrep(sys.key());
      Sim::Switch const* sw = switchNamed(name);
      for (auto m = sys.value()->publishedMountIter(); m; ++m) {
        std::string const service = m.value().serviceName().stdString();
        std::string const where = service + " " + m.value().path().stdString() + " on " + name;
        if (!sw || !sw->connected()) fail("published only to a connected switch", where);
        ServiceDecl const* d = s_.service(service);
        // Readiness is the service's own signal to the switches, not a condition of placing.
        if (!d || currentGen(*d) != leader) fail("published only for a current service", where);
        if (!w_.root->entityAtPath(m.value().path().view())) fail("published only an existing entity", where);
        // And only where the publication's group admits the switch (a directory's members count
        // as the directory's).
        bool admitted = false;
        for (auto const& p : s_.publishes) {
          if (p.service != service || !m.value().path().view().starts_with(p.localPath)) continue;
          std::optional<unsigned> v = version(*sw, *d);
          admitted |= v && admits(p.systems, p.versions, addressOf(*sw), *v);
        }
        if (!admitted) fail("published only where the version and filters admit", where);
      }
    }
    // Readiness stands exactly while the service is ready and current and every one of its
    // publish entries has been processed.
    for (auto const& d : s_.services) {
      bool expected = currentGen(d) == leader && ready(d);
      for (auto e = w_.registry->publishEntryIter(); expected && e; ++e) {
        if (e.value()->serviceName().view() != d.name) continue;
        auto sm = w_.registrySm->publishRegistryEntrySm(e.key());
        expected = sm && sm->processed();
      }
      if (w_.dbPublish->servicePublishReady(d.name) != expected)
        fail("publish readiness exactly while ready, current and processed",
             d.name + (expected ? " is not ready" : " is ready"));
    }
    // Machines: one per entity, no orphan, no missing one; filter counts match a recount.
    auto const& rsm = *w_.registrySm;
    if (rsm.mountsRegistryEntrySmSize() != w_.registry->mountEntrySize())
      fail("one entry machine per registry entry", std::to_string(rsm.mountsRegistryEntrySmSize()) + " machines for " +
                                                       std::to_string(w_.registry->mountEntrySize()) + " entries");
    if (rsm.publishRegistryEntrySmSize() != w_.registry->publishEntrySize())
      fail("one machine per publish entry", std::to_string(rsm.publishRegistryEntrySmSize()));
    std::size_t const peerCount = peers ? peers->peerSize() : 0;
    if (rsm.connectionServiceStatusDirSmSize() != peerCount)
      fail("one connection machine per peer", std::to_string(rsm.connectionServiceStatusDirSmSize()));
    std::set<std::string> mounting, ordinary, publishing;
    for (auto const& d : s_.services) {
      if (paired<Controller::ServiceMountConfig, Controller::ServiceMountStatus>(
              d.proxy ? w_.proxyMountConfig : w_.mountConfig, w_.statusDir(d), d.name)) {
        mounting.insert(d.name);
        if (!d.proxy) ordinary.insert(d.name);
      }
      if (paired<Controller::ServicePublishConfig, Controller::ServicePublishStatus>(w_.publishConfig,
                                                                                    w_.publishStatus, d.name))
        publishing.insert(d.name);
    }
    if (w_.serviceConfig->serviceMountConfigSmSize() != mounting.size() ||
        w_.serviceConfig->servicePublishConfigSmSize() != publishing.size() ||
        w_.initialMount->serviceInitialMountSmSize() != ordinary.size())
      fail("one machine per configured service", "");
    for (auto e = w_.registry->mountEntryIter(); e; ++e) {
      auto sm = rsm.mountsRegistryEntrySm(e.key());
      if (!sm) fail("one entry machine per registry entry", "none for " + std::string(e.key().view()));
      if (sm->mounterConfigSmSize() != e.value()->mounterSize())
        fail("one filter machine per mounter", std::string(e.key().view()));
      if (sm->mountSmSize() != sm->mountSmDataSize()) fail("mount data per mount machine", std::string(e.key().view()));
      std::map<std::string, std::uint32_t> recount;
      for (auto m = e.value()->mounterIter(); m; ++m)
        if (auto systems = m.value()->systemFilter())
          for (auto i = systems->includedSystemIter(); i; ++i)
            if (i.value()) ++recount[std::string(i.key().view())];
      if (sm->connectionFilterSize() != recount.size())
        fail("connection-filter counts match the mounters' filters", std::string(e.key().view()));
      for (auto const& [system, n] : recount)
        if (sm->connectionFilter(system) != n)
          fail("connection-filter counts match the mounters' filters", std::string(e.key().view()) + " " + system);
    }
    // Initial mounts: never complete before the connection period could end, nor while stale.
    for (auto const& d : s_.services) {
      if (d.proxy) continue;
      auto status = w_.mountStatusOf(d);
      if (!status) continue;
      for (auto g = status->initialMountsCompleteIter(); g; ++g) {
        if (!g.value()) continue;
        auto period = w_.initialMount->connectionPeriod();
        if (w_.loop.now() < 3 * s_.heartbeat || !period || !period->complete())
          fail("initial mounts complete only after the connection period", d.name + "/" + std::string(g.key().view()));
        if (currentGen(d) != leader)
          fail("initial mounts complete only while current", d.name + "/" + std::string(g.key().view()));
      }
    }
  }

  // After the quiet tail: every admissible mount has settled, every admissible publication is in.
  void liveness() {
    std::string const leader = w_.db->leaderGenId().stdString();
    for (auto const& m : s_.mounts) {
      ServiceDecl const& d = *s_.service(m.service);
      if (!d.proxy && currentGen(d) != leader) continue;
      for (auto const& [address, sw] : w_.switches) {
        std::optional<unsigned> v = version(*sw, d);
        if (!sw->connected() || !v || !admits(m.systems, m.versions, address, *v) || !entryAdmits(m, *sw)) continue;
        auto row = rowOf(d, *sw, m.group, m.remotePath);
        std::string const where = m.service + "/" + m.group + " " + m.remotePath + " from " + address;
        if (!row) fail("every admissible mount settles", where + ": no status");
        if (row->mountState() != Controller::mountStateMounted && row->mountState() != Controller::mountStateFailed)
          fail("every admissible mount settles", where + ": " + stateName(row->mountState()));
      }
    }
    // Once the connection period is over (it never is without a peer), every group of a current
    // ordinary service has its machine, and completes once as many switches were processed as
    // were initial: the tail outlasts the mount window and the flush. The count, not membership,
    // is the design's: a group whose initial switches all left before being processed waits for
    // later ones, and is not a fault here.
    auto period = w_.initialMount->connectionPeriod();
    for (auto const& m : s_.mounts) {
      if (!period || !period->complete()) break;
      ServiceDecl const& d = *s_.service(m.service);
      if (d.proxy || currentGen(d) != leader) continue;
      std::string const where = m.service + "/" + m.group;
      auto service = w_.initialMount->serviceInitialMountSm(d.name);
      auto group = service ? service->mountGroupInitialMountSm(m.group) : nullptr;
      if (!group) fail("a completion machine for every group of a current service", where);
      auto initial = group->mountGroupInitialSwitchSet();
      if (!initial->complete() || initial->initialSwitchSize() > group->processedSwitchSet()->processedSize()) continue;
      auto status = w_.mountStatusOf(d);
      if (!status || !status->initialMountsComplete(m.group)) fail("every group's initial mounts complete", where);
    }
    for (auto const& p : s_.publishes) {
      ServiceDecl const& d = *s_.service(p.service);
      if (p.dir || currentGen(d) != leader || !w_.root->entityAtPath(p.localPath)) continue;
      for (auto const& [address, sw] : w_.switches) {
        std::optional<unsigned> v = version(*sw, d);
        if (!sw->connected() || !v || !admits(p.systems, p.versions, address, *v)) continue;
        auto system = w_.dbPublish->system(sw->systemId());
        bool placed = false;
        if (system)
          for (auto m = system->publishedMountIter(); m; ++m) placed |= m.value().path().view() == p.localPath;
        if (!placed) fail("every admissible publication is placed", p.localPath + " on " + address);
      }
    }
  }

  // The operator's view, kept by reactors, shows what a full read of the status shows.
  void view(StatusView& v) {
    v.update();
    std::map<StatusView::Key, StatusView::Row> full;
    for (auto const& r : mountRows(w_)) full[{r.service, r.sw, r.group, r.path}] = {r.state, r.mountedPath};
    auto const row = [](auto const& kv) {
      auto const& [service, sw, group, path] = kv.first;
      return service + "/" + group + " " + path + " from " + sw + ": " + kv.second.state + " at '" +
             kv.second.mountedPath + "'";
    };
    auto a = full.begin();
    auto b = v.rows().begin();
    for (; a != full.end() || b != v.rows().end(); ++a, ++b) {
      if (a == full.end()) fail("the status view follows every change", "the view still has " + row(*b));
      if (b == v.rows().end()) fail("the status view follows every change", "the view misses " + row(*a));
      if (row(*a) != row(*b)) fail("the status view follows every change", "the view has " + row(*b) + ", not " + row(*a));
    }
    std::set<StatusView::Publication> published;
    for (auto const& r : publishedRows(w_)) published.emplace(r.sw, r.path);
    if (published != v.published()) fail("the status view follows every change", "the publications differ");
  }

  // After the teardown: nothing the machines wrote is left.
  void empty() {
    // The registry's entries are the configuration side's to keep; what hangs off them is not.
    for (auto e = w_.registry->mountEntryIter(); e; ++e) {
      std::string const path(e.key().view());
      if (e.value()->mounterSize() != 0) fail("nothing left after teardown", "a mounter of " + path);
      auto sm = w_.registrySm->mountsRegistryEntrySm(e.key());
      if (sm && (sm->mountSmSize() != 0 || sm->mounterConfigSmSize() != 0))
        fail("nothing left after teardown", "a machine of " + path);
    }
    if (w_.registry->publishEntrySize() != 0) fail("nothing left after teardown", "publish entries");
    if (w_.registrySm->groupStateTally().size() != 0) fail("nothing left after teardown", "counted group states");
    if (w_.dbPublish->systemSize() != 0) fail("nothing left after teardown", "published mounts");
    for (auto const& d : s_.services)
      if (auto status = w_.mountStatusOf(d); status && status->systemStatusSize() != 0)
        fail("nothing left after teardown", "status rows of " + d.name);
  }

 private:
  [[noreturn]] void fail(std::string const& invariant, std::string const& detail) const {
    throw Violation(invariant, detail);
  }
  Sim::Switch const* switchNamed(std::string const& name) const {
    for (auto const& [address, sw] : w_.switches)
      if (sw->name().view() == name || address == name) return sw;
    return nullptr;
  }
  std::string currentGen(ServiceDecl const& d) const {
    auto dir = d.proxy ? w_.proxyMountConfig : w_.mountConfig;
    if (auto c = Kiv::entityCast<Controller::ServiceMountConfig>(dir->entityPtr(d.name)))
      return c->leaderGenId().stdString();
    if (auto c = Kiv::entityCast<Controller::ServicePublishConfig>(w_.publishConfig->entityPtr(d.name)))
      return c->leaderGenId().stdString();
    return d.gen.empty() ? s_.leader : d.gen;
  }
  bool ready(ServiceDecl const& d) const {
    auto c = Kiv::entityCast<Controller::ServicePublishConfig>(w_.publishConfig->entityPtr(d.name));
    return c && c->ready();
  }
  // Proxies mount with the version of the service they stand for.
  static std::string versionService(ServiceDecl const& d) {
    return d.proxy ? d.name.substr(0, d.name.size() - 6) : d.name;
  }
  std::optional<unsigned> version(Sim::Switch const& sw, ServiceDecl const& d) const {
    auto it = sw.serviceVersions().find(Kiv::Name(versionService(d)));
    if (it == sw.serviceVersions().end()) return std::nullopt;
    return it->second;
  }
  template <class Config, class Status>
  static bool paired(Kiv::Ptr<Kiv::Dir> const& configDir, Kiv::Ptr<Kiv::Dir> const& statusDir,
                     std::string const& name) {
    return Kiv::entityCast<Config>(configDir->entityPtr(name)) && Kiv::entityCast<Status>(statusDir->entityPtr(name));
  }
  bool beingUnmounted(Sim::Switch const& sw, Kiv::Name const& path) const {
    auto entry = w_.registrySm->mountsRegistryEntrySm(path);
    auto sm = entry ? entry->mountSm(sw.systemId()) : nullptr;
    return sm && sm->pendingRequest();
  }
  // Some mounter of the path, whichever service brought the mount, negotiated a version there.
  bool negotiatedForPath(Sim::Switch const& sw, Kiv::Name const& path) const {
    auto entry = w_.registry->mountEntry(path);
    if (!entry) return false;
    for (auto m = entry->mounterIter(); m; ++m)
      if (ServiceDecl const* d = s_.service(std::string(m.key().view())); d && version(sw, *d)) return true;
    return false;
  }
  static bool admits(std::vector<std::string> const& systems, std::vector<unsigned> const& versions,
                     std::string const& address, unsigned version) {
    if (!systems.empty() && std::find(systems.begin(), systems.end(), address) == systems.end()) return false;
    return versions.empty() || std::find(versions.begin(), versions.end(), version) != versions.end();
  }
  // The shared entry admits a switch when some current mounter of the path has no restriction at
  // all, or when the union of the restrictions lets it through (versions, then systems).
  bool entryAdmits(MountDecl const& mine, Sim::Switch const& sw) const {
    std::string const leader = w_.db->leaderGenId().stdString();
    bool anyVersions = false, versionOk = false, anySystems = false, systemOk = false;
    std::string const address = addressOf(sw);
    for (auto const& m : s_.mounts) {
      if (m.remotePath != mine.remotePath) continue;
      ServiceDecl const& d = *s_.service(m.service);
      if (!d.proxy && currentGen(d) != leader) continue;
      if (m.systems.empty() && m.versions.empty()) return true;
      std::optional<unsigned> v = version(sw, d);
      if (!m.versions.empty()) {
        anyVersions = true;
        versionOk |= v && std::find(m.versions.begin(), m.versions.end(), *v) != m.versions.end();
      }
      if (!m.systems.empty()) {
        anySystems = true;
        systemOk |= std::find(m.systems.begin(), m.systems.end(), address) != m.systems.end();
      }
    }
    return (!anyVersions || versionOk) && (!anySystems || systemOk);
  }
  std::string addressOf(Sim::Switch const& sw) const {
    for (auto const& [address, s] : w_.switches)
      if (s == &sw) return address;
    return {};
  }
  Kiv::Ptr<Controller::MountStatus> rowOf(ServiceDecl const& d, Sim::Switch const& sw, std::string const& group,
                                          std::string const& path) const {
    auto status = w_.mountStatusOf(d);
    auto sys = status ? status->systemStatus(sw.name()) : nullptr;
    auto g = sys ? sys->serviceMountGroupStatus(group) : nullptr;
    return g ? g->mountStatus(path) : nullptr;
  }

  World& w_;
  Scenario const& s_;
};

class CaptureSink : public Kiv::TraceSink {
 public:
  CaptureSink() : previous_(Kiv::traceSinkIs(this)) {}
  ~CaptureSink() override { Kiv::traceSinkIs(previous_); }
  void write(Kiv::TraceRecord const& r) override { os_ << r.time << ' ' << r.handle << ": " << r.message << '\n'; }
  std::string text() const { return os_.str(); }

 private:
  std::ostringstream os_;
  Kiv::TraceSink* previous_;
};

}  // namespace

SimulationResult simulate(std::string const& text) {
  Scenario const s = parseScenario(text, "<simulation>");
  SimulationResult result;
  Kiv::TraceHandle::configure(
      "ControllerMountsRegistrySm/1,5;ControllerServiceConfigDirSm/1,5;ControllerInitialMountSm/1,5");
  {
    CaptureSink sink;
    std::string last = "the start";
    try {
      World w(s, Kiv::EventLoop::Mode::virtualTime);
      Checker check(w, s);
      StatusView view(w);  // made first: it follows the services as they appear
      w.configure();
      w.start();
      check.safety();
      std::size_t next = 0;
      auto applyDue = [&] {
        while (next < s.events.size() && s.events[next].time <= w.loop.now()) {
          Event const& e = s.events[next++];
          w.apply(e);
          last = "line " + std::to_string(e.line);
          check.safety();
        }
      };
      applyDue();
      while (w.loop.now() < s.until) {
        double t = std::min(w.loop.nextTimerTime(), s.until);
        if (next < s.events.size()) t = std::min(t, s.events[next].time);
        w.loop.advanceTo(std::max(t, w.loop.now()));
        last = "the loop at t=" + num(w.loop.now());
        check.safety();
        check.view(view);
        applyDue();
      }
      last = "the quiet tail";
      check.liveness();
      // Teardown: every service goes, every switch leaves; then nothing may be left. A service's
      // machine goes when its configuration entity is replaced by one of another type (a removed
      // entity keeps its machine, by design), so that is how the services are taken away.
      last = "the teardown";
      for (auto const& dir : {w.mountConfig, w.proxyMountConfig, w.publishConfig}) {
        std::vector<Kiv::Name> names;
        for (auto it = dir->entityPtrIter(); it; ++it) names.push_back(it.key());
        for (auto const& n : names) {
          dir->entityPtrDel(n);
          dir->entryIs<Kiv::Dir>(n);
          dir->entityPtrDel(n);
        }
      }
      for (auto const& [address, sw] : w.switches) sw->disconnect();
      w.loop.advanceBy(60);
      check.safety();
      check.view(view);
      check.empty();
    } catch (Violation const& v) {
      result.ok = false;
      result.invariant = v.invariant;
      result.detail = std::string(v.what()) + " (after " + last + ")";
    }
    result.log = sink.text();
  }
  Kiv::TraceHandle::resetAll();
  return result;
}

SimulationResult simulateIsolated(std::string const& text) {
  int fds[2];
  if (pipe(fds) != 0) throw std::runtime_error("pipe failed");
  std::fflush(nullptr);
  pid_t const pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    close(fds[0]);
    SimulationResult r;
    try {
      r = simulate(text);
    } catch (std::exception const& e) {
      r.ok = false;
      r.invariant = "internal error";
      r.detail = e.what();
    }
    std::string const out = r.ok ? std::string() : r.invariant + '\n' + r.detail;
    std::size_t done = 0;
    while (done < out.size()) {
      ssize_t n = write(fds[1], out.data() + done, out.size() - done);
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    _exit(r.ok ? 0 : 1);
  }
  close(fds[1]);
  std::string message;
  char buf[4096];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) message.append(buf, static_cast<std::size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  SimulationResult r;
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return r;
  r.ok = false;
  if (WIFSIGNALED(status)) {
    r.invariant = "crash";
    r.detail = "signal " + std::to_string(WTERMSIG(status));
  } else {
    auto nl = message.find('\n');
    r.invariant = message.substr(0, nl);
    r.detail = nl == std::string::npos ? std::string() : message.substr(nl + 1);
  }
  return r;
}

std::string shrinkScenario(std::string const& text, SimulationResult const& failing) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  auto join = [](std::vector<std::string> const& ls) {
    std::string out;
    for (auto const& l : ls) out += l + "\n";
    return out;
  };
  auto stillFails = [&](std::vector<std::string> const& ls) {
    try {
      parseScenario(join(ls), "<shrink>");
    } catch (ScenarioError const&) {
      return false;
    }
    SimulationResult r = simulateIsolated(join(ls));
    return !r.ok && r.invariant == failing.invariant;
  };
  // The timing lines stay: without them the quiet tail would shrink with the scenario.
  auto timing = [](std::string const& l) {
    for (char const* kw : {"run ", "heartbeat ", "timeout ", "retries "})
      if (l.starts_with(kw)) return true;
    return false;
  };
  // Chunks of lines first, then single lines, until no line can go.
  for (std::size_t chunk = std::max<std::size_t>(lines.size() / 2, 1);; chunk = std::max<std::size_t>(chunk / 2, 1)) {
    bool removed = false;
    for (std::size_t i = 0; i < lines.size();) {
      std::vector<std::string> candidate(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(i));
      std::size_t const end = std::min(i + chunk, lines.size());
      for (std::size_t k = i; k < end; ++k)
        if (timing(lines[k])) candidate.push_back(lines[k]);
      candidate.insert(candidate.end(), lines.begin() + static_cast<std::ptrdiff_t>(end), lines.end());
      if (candidate.size() < lines.size() && stillFails(candidate)) {
        lines = std::move(candidate);
        removed = true;
      } else {
        i += chunk;
      }
    }
    if (chunk == 1 && !removed) break;
  }
  return join(lines);
}

namespace {

constexpr char const* kSimUsage =
    "usage: mountsim [--seeds FIRST-LAST] [--time-box SECONDS] [--twice EVERY] [--out DIR] [--replay FILE]\n"
    "Plays random scenarios, one per seed, checking the system after every event.\n"
    "  --seeds A-B        the seeds to run (default 1-100)\n"
    "  --time-box S       stop starting new seeds after S seconds of wall time\n"
    "  --twice N          run every Nth seed twice and compare the logs (default 10; 0: never)\n"
    "  --out DIR          where a failing seed's shrunk scenario goes (default .)\n"
    "  --replay FILE      check one scenario file instead\n"
    "  --print SEED       print the scenario of a seed\n";

bool parseRange(std::string const& s, std::uint64_t& a, std::uint64_t& b) {
  auto dash = s.find('-');
  try {
    std::size_t used = 0;
    a = std::stoull(s.substr(0, dash), &used);
    if (used != (dash == std::string::npos ? s.size() : dash)) return false;
    b = a;
    if (dash != std::string::npos) {
      b = std::stoull(s.substr(dash + 1), &used);
      if (used != s.size() - dash - 1) return false;
    }
  } catch (std::exception const&) {
    return false;
  }
  return a <= b;
}

}  // namespace

int simulationMain(std::vector<std::string> const& args, std::ostream& out, std::ostream& err) {
  std::uint64_t first = 1, last = 100;
  double timeBox = 0;
  unsigned twice = 10;
  std::string dir = ".", replay;
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string const& a = args[i];
    bool const hasValue = i + 1 < args.size();
    std::string const value = hasValue ? args[i + 1] : std::string();
    auto bad = [&](std::string const& why) {
      err << "mountsim: " << why << "\n" << kSimUsage;
      return 2;
    };
    if (a == "--help" || a == "-h") {
      out << kSimUsage;
      return 0;
    } else if (a == "--seeds") {
      if (!hasValue || !parseRange(value, first, last)) return bad("--seeds needs FIRST-LAST");
      ++i;
    } else if (a == "--time-box") {
      try {
        timeBox = hasValue ? std::stod(value) : -1;
      } catch (std::exception const&) {
        timeBox = -1;
      }
      if (!(timeBox > 0 && timeBox < 1e9)) return bad("--time-box needs a positive number of seconds");
      ++i;
    } else if (a == "--twice") {
      std::uint64_t n = 0, m = 0;
      if (!hasValue || !parseRange(value, n, m) || n != m || n > 1000000) return bad("--twice needs a count");
      twice = static_cast<unsigned>(n);
      ++i;
    } else if (a == "--out") {
      if (!hasValue) return bad("--out needs a directory");
      dir = value;
      ++i;
    } else if (a == "--replay") {
      if (!hasValue) return bad("--replay needs a file");
      replay = value;
      ++i;
    } else if (a == "--print") {
      std::uint64_t n = 0, m = 0;
      if (!hasValue || !parseRange(value, n, m) || n != m) return bad("--print needs a seed");
      out << generateScenario(n);
      return 0;
    } else {
      return bad("unknown argument '" + a + "'");
    }
  }
  if (!replay.empty()) {
    std::ifstream in(replay);
    if (!in) {
      err << "mountsim: cannot read '" << replay << "'\n";
      return 2;
    }
    std::stringstream text;
    text << in.rdbuf();
    try {
      parseScenario(text.str(), replay);
    } catch (ScenarioError const& e) {
      err << e.what() << '\n';
      return 2;
    }
    SimulationResult const r = simulateIsolated(text.str());
    if (r.ok) {
      out << replay << ": every check holds\n";
      return 0;
    }
    out << replay << ": FAILED " << r.invariant << ": " << r.detail << '\n';
    return 1;
  }

  auto const start = std::chrono::steady_clock::now();
  auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
  std::uint64_t ran = 0;
  for (std::uint64_t seed = first; seed <= last; ++seed) {
    if (timeBox > 0 && elapsed() > timeBox) break;
    std::string const text = generateScenario(seed);
    SimulationResult r = simulateIsolated(text);
    if (r.ok && twice && seed % twice == 0) {
      // Determinism: the same scenario twice in this process, logs byte for byte.
      SimulationResult a = simulate(text), b = simulate(text);
      if (a.log != b.log) {
        r.ok = false;
        r.invariant = "the same seed gives the same run";
        r.detail = "the logs of two runs differ";
      }
    }
    ++ran;
    if (r.ok) {
      if (ran % 500 == 0) err << "[mountsim] " << ran << " seeds, " << fixed(elapsed(), 1) << " s" << "\n";
      continue;
    }
    std::string const shrunk = r.invariant == "the same seed gives the same run" ? text : shrinkScenario(text, r);
    std::string const file = dir + "/mountsim-seed-" + std::to_string(seed) + ".scn";
    std::ofstream(file) << "# mountsim seed " << seed << ": " << r.invariant << "\n" << shrunk;
    out << "mountsim: seed " << seed << " FAILED\n  invariant: " << r.invariant << "\n  " << r.detail
        << "\n  shrunk scenario: " << file << " (replay: mountsim --replay " << file << ")\n";
    return 1;
  }
  out << "mountsim: " << ran << " seeds (" << first << "-" << first + ran - (ran ? 1 : 0) << ") passed in "
      << fixed(elapsed(), 1) << " s" << ", " << std::fixed << std::setprecision(1) << (ran / std::max(elapsed(), 1e-9))
      << " seeds/s\n";
  return 0;
}

}  // namespace Host
