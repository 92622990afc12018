// The mount side from a service's declarations to status, with simulated switches: the service
// configuration machines fill the registry, the registry machines mount from the switches. The
// seeded simulation plays the rest of this path under churn.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "serviceconfig/tests/EndToEndFixture.h"

namespace Controller::testing {
namespace {

TEST_F(EndToEnd, AMountGoesFromConfigurationToStatus) {
  Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
  s1.entityIs("sys/config")->attrIs("mtu", "9000");
  s1.serviceVersionIs("svc", 1).mountLatencyIs(2);
  s1.connect();
  mountService("svc")->mountGroupConfigIs("g")->mountConfigIs("/sys/config", "Sim::Record", "r", "");
  startAll();

  auto status = statusOf("svc", s1, "g", "/sys/config");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->mountState(), mountStateMounting);
  loop.advanceTo(2);
  EXPECT_EQ(status->mountState(), mountStateMounted);
  auto group = mountStatusOf("svc")->systemStatus(s1.name())->serviceMountGroupStatus("g");
  EXPECT_EQ(group->mountState(), mountStateMounted);
  EXPECT_TRUE(group->processed());
  ASSERT_FALSE(status->mountedPath().empty());
  auto mounted = Kiv::entityCast<Sim::Record>(root->entityAtPath(status->mountedPath().view()));
  ASSERT_TRUE(mounted);
  EXPECT_EQ(mounted->attr("mtu"), "9000");
  EXPECT_TRUE(mounted->kivReadOnly());
}

}  // namespace
}  // namespace Controller::testing
