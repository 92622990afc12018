#include <gtest/gtest.h>

#include "MountInterface.h"
#include "host/Wiring.h"
#include "platform/SimNetwork.h"

namespace Controller {
namespace {

// The three top-level machines as a host runs them, against simulated switches: a service
// declares one mount group, and the registry mounts it from every switch.
class InitialMountEndToEndTest : public ::testing::Test, public Host::Wiring {
 protected:
  // Retries and a timeout long enough that a slow mount is still in progress after the window.
  InitialMountEndToEndTest() : Wiring({.retries = 0, .timeout = 1000.0, .heartbeat = 2}) {}

  Sim::Switch& offering(char const* addr, Kiv::Seconds mountLatency) {
    Sim::Switch& s = net->switchIs(addr).mountLatencyIs(mountLatency).serviceVersionIs("svc", 1);
    s.entityIs("sys/a");
    return s;
  }
  void start() {
    Wiring::start();
    auto config = mountConfig->entryIs<ServiceMountConfig>("svc");
    config->serviceNameIs("svc");
    config->leaderGenIdIs("gen1");
    config->mountGroupConfigIs("g")->mountConfigIs("/sys/a", "Sim::Record", "r", "");
    mountStatus->entryIs<ServiceMountStatus>("svc");
  }
  bool complete() {
    return Kiv::entityCast<ServiceMountStatus>(mountStatus->entityPtr("svc"))->initialMountsComplete("g");
  }
};

TEST_F(InitialMountEndToEndTest, ASlowSwitchDelaysCompletionToTheEndOfTheMountWindowAndNoFurther) {
  offering("00:00:00:00:00:01", 1).connect();
  offering("00:00:00:00:00:02", 500).connect();
  start();
  loop.advanceTo(245.999);
  EXPECT_TRUE(initialMount->connectionPeriod()->complete());
  EXPECT_FALSE(complete());
  // The window ends at 246; the flush's round is applied half a second later, seen at the next poll.
  loop.advanceTo(247);
  EXPECT_TRUE(complete());
  auto slow = Kiv::entityCast<ServiceMountStatus>(mountStatus->entityPtr("svc"))->systemStatus("00:00:00:00:00:02");
  ASSERT_NE(slow, nullptr);
  EXPECT_EQ(slow->serviceMountGroupStatus("g")->mountState(), mountStateMounting);
}

}  // namespace
}  // namespace Controller
