// One cold start of the mount side, timed in CPU seconds: the service configuration and registry
// machines start with services already configured, then every switch connects and every path is
// mounted from every switch. The teardown of the whole world (machines, switches, trees and the
// loop) is timed separately. Usage: cold_start [switches] [paths] [services]
//
// Every group is a wildcard (no filters), so each path is mounted from each switch.

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "kiv/Clock.h"
#include "kiv/AttrLog.h"
#include "platform/MountSm.h"
#include "platform/SimNetwork.h"
#include "registry/MountsRegistrySm.h"
#include "serviceconfig/ServiceConfigDirSm.h"

namespace {

double cpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

std::string hexAddress(int i) {
  char buf[18];
  std::snprintf(buf, sizeof buf, "02:00:00:00:%02x:%02x", (i >> 8) & 0xff, i & 0xff);
  return buf;
}

// The whole world, members in construction order so that it goes in reverse.
struct World {
  Kiv::EventLoop loop;
  Kiv::Ptr<Kiv::Dir> root = Kiv::Dir::DirIs("root");
  Kiv::Ptr<Controllerdb::Status> db = Controllerdb::Status::StatusIs("controllerdb");
  Kiv::Ptr<Kiv::Dir> mountConfig = root->subdirIs("mountConfig");
  Kiv::Ptr<Kiv::Dir> mountStatus = root->subdirIs("mountStatus");
  Kiv::Ptr<Kiv::Dir> publishConfig = root->subdirIs("publishConfig");
  Kiv::Ptr<Kiv::Dir> publishStatus = root->subdirIs("publishStatus");
  Kiv::Ptr<Kiv::Dir> proxyConfig = root->subdirIs("proxyMountConfig");
  Kiv::Ptr<Kiv::Dir> proxyStatus = root->subdirIs("proxyMountStatus");
  Kiv::Ptr<Controllerdb::PublishStatus> dbPublish = Controllerdb::PublishStatus::PublishStatusIs("publish");
  Kiv::Ptr<Controller::MountsRegistry> registry =
      Controller::MountsRegistry::MountsRegistryIs(root->subdirIs("mounts"), "mounts", root, "", 2, 5.0);
  Kiv::Ptr<ControllerOob::Status> oob = ControllerOob::Status::StatusIs("oob");
  Kiv::Ptr<Controller::Heartbeat::Config> heartbeat = Controller::Heartbeat::Config::ConfigIs("heartbeat");
  Sim::Network network{oob, heartbeat};
  Kiv::Ptr<Controller::ServiceConfigDirSm> configSm;
  Kiv::Ptr<Controller::MountsRegistrySm> registrySm;

  World(int switches, int paths, int services) {
    db->leaderGenIdIs("gen1");
    Controller::MountSm::localRootDirIs(root);
    for (int s = 0; s < switches; ++s) {
      Sim::Switch& sw = network.switchIs(hexAddress(s + 1));
      for (int p = 0; p < paths; ++p) sw.entityIs("data/path" + std::to_string(p));
      for (int v = 0; v < services; ++v) sw.serviceVersionIs(Kiv::Name("svc" + std::to_string(v)), 1);
    }
    for (int v = 0; v < services; ++v) {
      std::string const name = "svc" + std::to_string(v);
      auto config = mountConfig->entryIs<Controller::ServiceMountConfig>(name);
      config->leaderGenIdIs("gen1");
      config->serviceNameIs(name);
      mountStatus->entryIs<Controller::ServiceMountStatus>(name);
      auto group = config->mountGroupConfigIs("all");
      for (int p = 0; p < paths; ++p) group->mountConfigIs("/data/path" + std::to_string(p), "Sim::Record", "r", "");
    }
  }
  ~World() { Controller::MountSm::localRootDirIs(nullptr); }

  // Timed: the machines start, every switch connects, a minute of virtual time passes.
  void start(int switches) {
    configSm = new Controller::ServiceConfigDirSm(db, mountConfig, mountStatus, publishConfig, publishStatus,
                                                  proxyConfig, proxyStatus, dbPublish, registry);
    registrySm = new Controller::MountsRegistrySm(registry, oob, heartbeat, mountStatus, dbPublish);
    network.establish();
    for (int s = 0; s < switches; ++s) network.switchIs(hexAddress(s + 1)).connect();
    loop.advanceBy(60);
  }

  std::size_t mounted(int services) const {
    std::size_t count = 0;
    for (int v = 0; v < services; ++v) {
      auto status = Kiv::entityCast<Controller::ServiceMountStatus>(mountStatus->entityPtr("svc" + std::to_string(v)));
      for (auto it = status->systemStatusIter(); it; ++it) {
        auto group = it.value()->serviceMountGroupStatus("all");
        if (!group) continue;
        for (auto m = group->mountStatusIter(); m; ++m)
          if (m.value()->mountState() == Controller::mountStateMounted) ++count;
      }
    }
    return count;
  }
};

// A function of its own so that a profiler can count the teardown alone
// (valgrind --tool=callgrind --toggle-collect=tearDown).
[[gnu::noinline]] void tearDown(std::unique_ptr<World>& world) { world.reset(); }

}  // namespace

int main(int argc, char** argv) {
  int const switches = argc > 1 ? std::atoi(argv[1]) : 100;
  int const paths = argc > 2 ? std::atoi(argv[2]) : 100;
  int const services = argc > 3 ? std::atoi(argv[3]) : 3;

  std::size_t const expected = static_cast<std::size_t>(switches) * paths * services;
  auto world = std::make_unique<World>(switches, paths, services);

  double const start = cpuSeconds();
  world->start(switches);
  double const cpu = cpuSeconds() - start;
  std::size_t const mounted = world->mounted(services);
  std::printf("cold start: %d switches, %d remote paths, %d services (wildcard)\n", switches, paths, services);
  std::printf("mounted %zu of %zu path statuses; CPU time %.3f s\n", mounted, expected, cpu);
  std::fflush(stdout);

  double const teardownStart = cpuSeconds();
  tearDown(world);
  std::printf("teardown CPU time %.3f s\n", cpuSeconds() - teardownStart);
  return mounted == expected ? 0 : 1;
}
