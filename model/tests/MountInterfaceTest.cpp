#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MountInterfaceTesting.h"
#include "kiv/Dir.h"

namespace {

using namespace Controller;
using Calls = std::vector<std::string>;

TEST(MountTree, WholeCollectionNotificationCallsOnlyTheKeylessCallbacks) {
  Kiv::Ptr<Kiv::Dir> root = Kiv::Dir::DirIs("root");
  Kiv::Ptr<ServiceMountConfig> service = root->entryIs<ServiceMountConfig>("agent1");
  service->mountGroupConfigIs("group1");
  service->systemFilterIs("switches");
  Kiv::Ptr<kivtesting::Traits<ServiceMountConfig>::Recorder> calls(
      new kivtesting::Traits<ServiceMountConfig>::Recorder(service));
  service->systemFilterNotify();
  service->mountGroupConfigNotify("group1");
  EXPECT_EQ(calls->calls, (Calls{"systemFilter!", "systemFilter()", "mountGroupConfig(group1)"}));
}

}  // namespace
