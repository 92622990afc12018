// One cold start of the mount side, timed in CPU seconds: the service configuration and registry
// machines start with services already configured, then every switch connects and every path is
// mounted from every switch. The teardown of the whole world (machines, switches, trees and the
// loop) is timed separately. Usage: cold_start [switches] [paths] [services]
//
// Every group is a wildcard (no filters), so each path is mounted from each switch.

#include <cstdio>
#include <cstdlib>
#include <ctime>
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

}  // namespace

int main(int argc, char** argv) {
  int const switches = argc > 1 ? std::atoi(argv[1]) : 100;
  int const paths = argc > 2 ? std::atoi(argv[2]) : 100;
  int const services = argc > 3 ? std::atoi(argv[3]) : 3;

  std::size_t mounted = 0;
  std::size_t const expected = static_cast<std::size_t>(switches) * paths * services;
  double teardownStart = 0;
  {
    Kiv::EventLoop loop;
    auto root = Kiv::Dir::DirIs("root");
    auto db = Controllerdb::Status::StatusIs("controllerdb");
    db->leaderGenIdIs("gen1");
    auto mountConfig = root->subdirIs("mountConfig");
    auto mountStatus = root->subdirIs("mountStatus");
    auto publishConfig = root->subdirIs("publishConfig");
    auto publishStatus = root->subdirIs("publishStatus");
    auto proxyConfig = root->subdirIs("proxyMountConfig");
    auto proxyStatus = root->subdirIs("proxyMountStatus");
    auto dbPublish = Controllerdb::PublishStatus::PublishStatusIs("publish");
    auto registry = Controller::MountsRegistry::MountsRegistryIs(root->subdirIs("mounts"), "mounts", root, "", 2, 5.0);
    auto oob = ControllerOob::Status::StatusIs("oob");
    auto heartbeat = Controller::Heartbeat::Config::ConfigIs("heartbeat");
    Sim::Network network(oob, heartbeat);
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

    double const start = cpuSeconds();
    Kiv::Ptr<Controller::ServiceConfigDirSm> configSm(new Controller::ServiceConfigDirSm(
        db, mountConfig, mountStatus, publishConfig, publishStatus, proxyConfig, proxyStatus, dbPublish, registry));
    Kiv::Ptr<Controller::MountsRegistrySm> registrySm(
        new Controller::MountsRegistrySm(registry, oob, heartbeat, mountStatus, dbPublish));
    network.establish();
    for (int s = 0; s < switches; ++s) network.switchIs(hexAddress(s + 1)).connect();
    loop.advanceBy(60);
    double const cpu = cpuSeconds() - start;

    for (int v = 0; v < services; ++v) {
      auto status = Kiv::entityCast<Controller::ServiceMountStatus>(mountStatus->entityPtr("svc" + std::to_string(v)));
      for (auto it = status->systemStatusIter(); it; ++it) {
        auto group = it.value()->serviceMountGroupStatus("all");
        if (!group) continue;
        for (auto m = group->mountStatusIter(); m; ++m)
          if (m.value()->mountState() == Controller::mountStateMounted) ++mounted;
      }
    }
    std::printf("cold start: %d switches, %d remote paths, %d services (wildcard)\n", switches, paths, services);
    std::printf("mounted %zu of %zu path statuses; CPU time %.3f s\n", mounted, expected, cpu);
    std::fflush(stdout);
    Controller::MountSm::localRootDirIs(nullptr);
    teardownStart = cpuSeconds();
  }  // the world goes, in reverse order of construction
  std::printf("teardown CPU time %.3f s\n", cpuSeconds() - teardownStart);
  return mounted == expected ? 0 : 1;
}
