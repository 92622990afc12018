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

#include "MountInterface.h"
#include "host/Wiring.h"

namespace {

double cpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

std::string hexAddress(int i) {
  char buf[18];
  std::snprintf(buf, sizeof buf, "02:00:00:00:%02x:%02x", (i >> 8) & 0xff, i & 0xff);
  return buf;
}

// The host's world without the initial mount machine, its switches and services declared. The
// out-of-band connection comes up in the timed start; the process's exit forgets the
// attribute-log registries, outside the timed teardown.
struct World : Host::Wiring {
  World(int switches, int paths, int services)
      : Wiring({.retries = 2, .timeout = 5.0, .establish = false, .initialMount = false, .clearAttrLogAtEnd = false}) {
    for (int s = 0; s < switches; ++s) {
      Sim::Switch& sw = net->switchIs(hexAddress(s + 1));
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

  // Timed: the machines start, every switch connects, a minute of virtual time passes.
  void start(int switches) {
    Wiring::start();
    net->establish();
    for (int s = 0; s < switches; ++s) net->switchIs(hexAddress(s + 1)).connect();
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
