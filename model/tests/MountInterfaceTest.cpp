#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MountInterfaceTesting.h"
#include "kiv/Dir.h"
#include "kiv/Exception.h"

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

TEST_F(MountTree, GroupFilterReferenceOutlivesTheServiceCollection) {
  Kiv::Ptr<MountFilterSystem> filter = service->systemFilterIs("switches");
  filter->includedSystemIs("sw1", true);
  group->systemFilterIs(filter);
  Kiv::Ptr<LastReference> watch(new LastReference(filter));
  filter = nullptr;

  Kiv::Ptr<Recorder<ServiceMountGroupConfig>> groupCalls(new Recorder<ServiceMountGroupConfig>(group));
  service->systemFilterDel("switches");
  EXPECT_EQ(service->systemFilterSize(), 0u);
  ASSERT_TRUE(group->systemFilter());
  EXPECT_FALSE(watch->gone);
  EXPECT_EQ(group->systemFilter()->parent(), nullptr);
  EXPECT_TRUE(group->systemFilter()->includedSystem("sw1"));
  EXPECT_EQ(groupCalls->calls, Calls{}) << "the group is not told of its filter's removal";

  group->systemFilterIs(nullptr);
  EXPECT_TRUE(watch->gone);
  EXPECT_EQ(groupCalls->calls, Calls{"systemFilter"});
}

TEST_F(MountTree, ClearingTheFilterReferenceLeavesTheServiceCollection) {
  Kiv::Ptr<MountFilterServiceVersion> filter = service->versionFilterIs("v2");
  Kiv::Ptr<MountFilterSystem> systems = service->systemFilterIs("switches");
  group->versionFilterIs(filter);
  group->systemFilterIs(systems);
  Kiv::Ptr<Recorder<ServiceMountGroupConfig>> groupCalls(new Recorder<ServiceMountGroupConfig>(group));
  Kiv::Ptr<Recorder<ServiceMountConfig>> serviceCalls(new Recorder<ServiceMountConfig>(service));

  group->systemFilterIs(nullptr);
  group->systemFilterIs(nullptr);
  EXPECT_EQ(groupCalls->calls, Calls{"systemFilter"});
  EXPECT_EQ(serviceCalls->calls, Calls{});
  EXPECT_EQ(service->systemFilterSize(), 1u);
  EXPECT_TRUE(service->systemFilter("switches") == systems);
  EXPECT_EQ(systems->parent(), service.ptr());
  EXPECT_TRUE(group->versionFilter() == filter) << "the other filter is untouched";
}

TEST_F(MountTree, DirectoryCreatesByTypeNameAndCastsChecked) {
  Kiv::Ptr<Kiv::Entity> byName = root->entryIs("agent2", "Controller::ServiceMountConfig");
  Kiv::Ptr<ServiceMountConfig> cast = Kiv::entityCast<ServiceMountConfig>(byName);
  ASSERT_TRUE(cast);
  EXPECT_FALSE(Kiv::entityCast<Kiv::Dir>(byName));
  EXPECT_FALSE(Kiv::entityCast<ServiceMountGroupConfig>(byName));
  EXPECT_EQ(cast->parent(), root.ptr());
  EXPECT_EQ(cast->agentName(), Kiv::String("agent2"));
  EXPECT_EQ(cast->mountGroupConfigIs("g")->fullName(), Kiv::String("root/agent2/g"));
  EXPECT_TRUE(root->entryIs("agent2", "Controller::ServiceMountConfig") == byName);

  try {
    root->entryIs("agent2", "Kiv::Dir");
    ADD_FAILURE() << "a member of another type under the same name was accepted";
  } catch (Kiv::NameInUseException const& e) {
    EXPECT_STREQ(e.what(),
                 "Reinstantiating the entity with name agent2 where constructor parameter attribute _typeName has a "
                 "different value of Kiv::Dir than the current value of Controller::ServiceMountConfig not allowed");
  }
  // A mount configuration needs its constructor parameters.
  EXPECT_THROW(root->entryIs("m", "Controller::MountConfig"), Kiv::RangeException);
}

TEST_F(MountTree, WholeCollectionNotificationCallsOnlyTheKeylessCallbacks) {
  service->systemFilterIs("switches");
  Kiv::Ptr<Recorder<ServiceMountConfig>> calls(new Recorder<ServiceMountConfig>(service));
  service->systemFilterNotify();
  service->mountGroupConfigNotify("group1");
  EXPECT_EQ(calls->calls, (Calls{"systemFilter!", "systemFilter()", "mountGroupConfig(group1)"}));
}

TEST_F(MountTree, MembersOfAReadOnlyReplicaAreReadOnlyAndWrittenOnlyByReplication) {
  service->kivReadOnlyIs(true);
  Kiv::Ptr<ServiceMountGroupConfig> replicated;
  {
    Kiv::ReplicaWriteScope replication;
    replicated = service->mountGroupConfigIs("group2");
    replicated->mountConfigIs("/export/a", "Kiv::Dir", "ro", "");
    service->warmIs(true);
  }
  EXPECT_TRUE(replicated->kivReadOnly());
  EXPECT_TRUE(replicated->mountConfig("/export/a")->kivReadOnly());
  EXPECT_TRUE(service->warm());
  EXPECT_THROW(replicated->preserveMountsOnDisconnectIs(true), Kiv::InternalException);
}

TEST(MountFilterFactory, RefusesAnEmptyNameAndStandsAlone) {
  EXPECT_THROW(MountFilterSystem::MountFilterSystemIs(""), Kiv::RangeException);
  Kiv::Ptr<MountFilterServiceVersion> f = MountFilterServiceVersion::MountFilterServiceVersionIs("v");
  EXPECT_EQ(f->parent(), nullptr);
  EXPECT_EQ(f->filterName(), Kiv::String("v"));
  f->includedServiceVersionIs(0, true);  // a numeric key of zero is a key like any other
  EXPECT_TRUE(f->includedServiceVersion(0));
}

}  // namespace
