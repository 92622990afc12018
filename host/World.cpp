#include "host/World.h"

#include <cstdint>
#include <sstream>

namespace Host {

World::World(Scenario const& scenario, Kiv::EventLoop::Mode mode)
    : Wiring({.mode = mode, .leader = scenario.leader, .retries = scenario.retries, .timeout = scenario.timeout,
              .heartbeat = scenario.heartbeat}),
      s(scenario) {}

Kiv::Ptr<Controller::ServiceMountConfig> World::mountService(ServiceDecl const& d) {
  auto config = (d.proxy ? proxyMountConfig : mountConfig)->entryIs<Controller::ServiceMountConfig>(d.name);
  config->leaderGenIdIs(d.gen.empty() ? s.leader : d.gen);
  config->serviceNameIs(d.name);
  statusDir(d)->entryIs<Controller::ServiceMountStatus>(d.name);
  return config;
}
Kiv::Ptr<Controller::ServicePublishConfig> World::publishService(ServiceDecl const& d) {
  auto config = publishConfig->entryIs<Controller::ServicePublishConfig>(d.name);
  config->leaderGenIdIs(d.gen.empty() ? s.leader : d.gen);
  config->serviceNameIs(d.name);
  config->readyIs(d.ready);
  publishStatus->entryIs<Controller::ServicePublishStatus>(d.name);
  return config;
}
Kiv::Ptr<Controller::ServiceMountStatus> World::mountStatusOf(ServiceDecl const& d) const {
  return Kiv::entityCast<Controller::ServiceMountStatus>(statusDir(d)->entityPtr(d.name));
}
void World::localIs(std::string const& path) {
  auto dir = root;
  std::vector<std::string> parts;
  std::istringstream in(path);
  for (std::string p; std::getline(in, p, '/');)
    if (!p.empty()) parts.push_back(p);
  for (std::size_t i = 0; i + 1 < parts.size(); ++i) dir = dir->subdirIs(parts[i]);
  dir->entryIs<Kiv::Dir>(parts.back());
}

template <class Config, class GroupConfig>
void World::filters(Kiv::Ptr<Config> const& svc, std::string const& group, std::vector<std::string> const& systems,
                    std::vector<unsigned> const& versions, GroupConfig const& groupConfig) {
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

void World::configure() {
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
      auto dir = group->publishDirIs(p.localPath, p.type);
      dir->remoteTargetPathIs(p.remotePath);
      dir->readyToPublishIs(p.ready);
    } else {
      group->publishConfigIs(p.localPath, p.remotePath, p.type);
    }
    filters(svc, p.group, p.systems, p.versions, group);
  }
  for (auto const& d : s.switches)
    if (!d.down) switches[d.address]->connect();
}

void World::apply(Event const& e) {
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
  } else if (a == "dir-ready") {
    if (auto c = Kiv::entityCast<Controller::ServicePublishConfig>(publishConfig->entityPtr(w[1])))
      if (auto group = c->publishGroupConfig(w[2]))
        if (auto dir = group->publishDir(w[3])) dir->readyToPublishIs(w[4] == "on");
  }
  // An expectation changes nothing; the run checks it.
}

// Notes when each group's initial mounts became complete; a leader change withdraws the flag
// and the group starts again, so the time is that of the latest completion.
void World::checkCompletion() {
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

}  // namespace Host
