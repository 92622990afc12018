#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MountInterfaceTesting.h"
#include "kiv/Dir.h"

namespace {

using namespace Controller;
using Calls = std::vector<std::string>;

template <class T>
using Recorder = typename kivtesting::Traits<T>::Recorder;

// Tells whether the filter it watches has lost its last reference.
class LastReference : public MountFilterSystem::NotifieeConst {
 public:
  using NotifieeConst::NotifieeConst;
  void onZeroReferences() override { gone = true; }
  bool gone = false;
};

class MountTree : public ::testing::Test {
 protected:
  Kiv::Ptr<Kiv::Dir> root = Kiv::Dir::DirIs("root");
  Kiv::Ptr<ServiceMountConfig> service = root->entryIs<ServiceMountConfig>("agent1");
  Kiv::Ptr<ServiceMountGroupConfig> group = service->mountGroupConfigIs("group1");
};

// The group's filter reference and the service's filter collection neither own nor tell each other.
TEST_F(MountTree, GroupFilterReferenceAndServiceCollectionAreIndependent) {
  Kiv::Ptr<MountFilterSystem> filter = service->systemFilterIs("switches");
  filter->includedSystemIs("sw1", true);
  group->systemFilterIs(filter);
  Kiv::Ptr<LastReference> watch(new LastReference(filter));
  Kiv::Ptr<Recorder<ServiceMountGroupConfig>> groupCalls(new Recorder<ServiceMountGroupConfig>(group));
  Kiv::Ptr<Recorder<ServiceMountConfig>> serviceCalls(new Recorder<ServiceMountConfig>(service));

  group->systemFilterIs(nullptr);
  EXPECT_EQ(serviceCalls->calls, Calls{});
  EXPECT_TRUE(service->systemFilter("switches") == filter);
  EXPECT_EQ(filter->parent(), service.ptr());

  group->systemFilterIs(filter);
  filter = nullptr;
  groupCalls->calls.clear();
  service->systemFilterDel("switches");
  ASSERT_TRUE(group->systemFilter());
  EXPECT_FALSE(watch->gone);
  EXPECT_EQ(group->systemFilter()->parent(), nullptr);
  EXPECT_TRUE(group->systemFilter()->includedSystem("sw1"));
  EXPECT_EQ(groupCalls->calls, Calls{}) << "the group is not told of its filter's removal";
  group->systemFilterIs(nullptr);
  EXPECT_TRUE(watch->gone);
}

TEST_F(MountTree, WholeCollectionNotificationCallsOnlyTheKeylessCallbacks) {
  service->systemFilterIs("switches");
  Kiv::Ptr<Recorder<ServiceMountConfig>> calls(new Recorder<ServiceMountConfig>(service));
  service->systemFilterNotify();
  service->mountGroupConfigNotify("group1");
  EXPECT_EQ(calls->calls, (Calls{"systemFilter!", "systemFilter()", "mountGroupConfig(group1)"}));
}

}  // namespace
