#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MountsRegistry.h"
#include "kiv/Exception.h"

namespace {

using Controller::MounterName;

// The conformance suite covers what the generated types share; this is the registry's own rule:
// mounters are keyed by service alone, so a second group of the same service collides.
TEST(MountsRegistry, OneMounterPerServiceWhateverTheGroup) {
  auto root = Kiv::Dir::DirIs("root");
  auto registry =
      Controller::MountsRegistry::MountsRegistryIs(root->subdirIs("mounts"), "mounts", root, "/remote", 3, 10.0);
  auto entry = registry->mountEntryIs("/a", "mounts/a", "T", "r");
  auto config = Kiv::Dir::DirIs("config")->entryIs<Controller::ServiceMountConfig>("svc");
  auto g1 = config->mountGroupConfigIs("g1");
  auto g2 = config->mountGroupConfigIs("g2");
  auto status = Kiv::Dir::DirIs("status")->entryIs<Controller::ServiceMountStatus>("svc");
  entry->mounterIs(MounterName("svc", "g1"), g1->mountConfigIs("/a", "T", "r", ""), g1, status);

  EXPECT_THAT([&] { entry->mounterIs(MounterName("svc", "g2"), g2->mountConfigIs("/a", "T", "r", ""), g2, status); },
              ::testing::ThrowsMessage<Kiv::NameInUseException>(
                  "Reinstantiating the entity with name svc where constructor parameter attribute _mounterName has a "
                  "different value of Value('Controller::MounterName', ** {'serviceName': 'svc', 'groupName': 'g2'}) "
                  "than the current value of Value('Controller::MounterName', ** {'serviceName': 'svc', "
                  "'groupName': 'g1'}) not allowed"));
  EXPECT_THROW(entry->mounterIs(MounterName("", "g1"), g1->mountConfig("/a"), g1, status), Kiv::RangeException);
  EXPECT_EQ(entry->mounterSize(), 1u);
}

}  // namespace
