// The whole mount and publish side under the churn the seeded simulation does not play: filters
// swapped, entities replaced, entries that come and go, machines shut down.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/SimNetwork.h"
#include "serviceconfig/tests/ServiceConfigFixture.h"

namespace Controller::testing {
namespace {

using ::testing::Contains;
using ::testing::Not;

// The service configuration machines and the registry machines over simulated switches.
class Churn : public ::testing::Test, public ServiceConfigWorld {
 protected:
  Churn() : ServiceConfigWorld({.initialMount = false}) {}
  Kiv::Ptr<MountStatus> statusOf(std::string const& service, Sim::Switch const& s, std::string const& group,
                                 std::string const& path) {
    auto system = mountStatusOf(service)->systemStatus(s.name());
    auto groupStatus = system ? system->serviceMountGroupStatus(group) : nullptr;
    return groupStatus ? groupStatus->mountStatus(path) : nullptr;
  }
  // A publishing service of the current generation, ready, with one group "g".
  Kiv::Ptr<ServicePublishConfig> publisher() {
    auto svc = publishService("pub");
    svc->readyIs(true);
    svc->publishGroupConfigIs("g");
    return svc;
  }
  bool ready() { return dbPublish->servicePublishReady("pub"); }

  Sim::Network& network = *net;
};

// Every value the publish status's readiness of a service took, in order.
struct ReadinessLog : Controllerdb::PublishStatus::NotifieeConst {
  using NotifieeConst::NotifieeConst;
  void onServicePublishReady(Kiv::String const& service) override {
    seen.push_back(notifier()->servicePublishReady(service));
  }
  std::vector<bool> seen;
};

TEST_F(Churn, AGroupThatTakesAnotherFilterIsFollowed) {
  Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
  Sim::Switch& s2 = network.switchIs("00:00:00:00:00:02");
  auto svc = mountService("svc");
  auto g = svc->mountGroupConfigIs("g");
  std::vector<Kiv::Ptr<MountFilterSystem>> only;
  for (Sim::Switch* s : {&s1, &s2}) {
    s->entityIs("a");
    s->serviceVersionIs("svc", 1).connect();
    only.push_back(svc->systemFilterIs(s->name()));
    only.back()->includedSystemIs(s->name(), true);
  }
  g->systemFilterIs(only[0]);
  g->mountConfigIs("/a", "Sim::Record", "r", "");
  start();
  auto mounted = [&](Sim::Switch const& s) {
    auto row = statusOf("svc", s, "g", "/a");
    return row && row->mountState() == mountStateMounted;
  };
  loop.advanceBy(2);
  ASSERT_TRUE(mounted(s1));
  ASSERT_FALSE(mounted(s2));

  g->systemFilterIs(only[1]);
  loop.advanceBy(2);
  EXPECT_FALSE(mounted(s1));
  EXPECT_TRUE(mounted(s2));

  g->systemFilterIs(nullptr);  // no filter at all: every switch, and nothing left counted
  loop.advanceBy(2);
  EXPECT_TRUE(mounted(s1));
  EXPECT_TRUE(mounted(s2));
  EXPECT_EQ(registrySm->mountsRegistryEntrySm("/a")->connectionFilterSize(), 0u);
}

TEST_F(Churn, PublishReadinessComesBackOnlyOnceEveryEntryIsProcessed) {
  auto group = publisher()->publishGroupConfig("g");
  group->publishConfigIs("/local/a", "/remote/a", "Sim::Record");
  group->publishConfigIs("/local/b", "/remote/b", "Sim::Record");
  auto local = root->subdirIs("local");
  local->entryIs<Kiv::Dir>("a");
  local->entryIs<Kiv::Dir>("b");
  start();
  ASSERT_TRUE(ready());

  // When the generation comes back, the entries come back before the readiness does, and it waits
  // for the one whose entity went meanwhile.
  db->leaderGenIdIs("gen2");
  local->entityPtrDel("b");
  Kiv::Ptr<ReadinessLog> log = new ReadinessLog(dbPublish);
  db->leaderGenIdIs("gen1");
  EXPECT_EQ(registry->publishEntrySize(), 2u);
  EXPECT_FALSE(ready());
  EXPECT_THAT(log->seen, Not(Contains(true)));  // not even for a moment
  local->entryIs<Kiv::Dir>("b");
  loop.advanceBy(1);
  EXPECT_TRUE(ready());

  // An entry added unprocessed withdraws it; removing the one entry it waits for releases it.
  group->publishConfigIs("/local/d", "/remote/d", "Sim::Record");
  EXPECT_FALSE(ready());
  group->publishConfigDel("/local/d");
  EXPECT_TRUE(ready());
}

TEST_F(Churn, AReplacedStatusEntityTakesTheRowsAlongAndAFreshOneGetsThemBack) {
  Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
  s1.entityIs("b");
  s1.serviceVersionIs("svc", 1).connect();
  mountService("svc")->mountGroupConfigIs("g")->mountConfigIs("/b", "Sim::Record", "r", "");
  start();
  loop.advanceBy(2);
  Kiv::Ptr<ServiceMountStatus> old = mountStatusOf("svc");
  ASSERT_EQ(statusOf("svc", s1, "g", "/b")->mountState(), mountStateMounted);

  mountStatus->entityPtrDel("svc");
  mountStatus->entryIs<Kiv::Dir>("svc");
  EXPECT_EQ(old->systemStatusSize(), 0u);
  mountStatus->entityPtrDel("svc");
  mountStatus->entryIs<ServiceMountStatus>("svc");
  loop.advanceBy(2);
  EXPECT_EQ(statusOf("svc", s1, "g", "/b")->mountState(), mountStateMounted);
}

TEST_F(Churn, AMounterLeavesWhatOtherGroupsAndPathsStillUse) {
  // Switch 1 negotiated no version: each path's group status there holds no row, only `processed`.
  Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
  s1.connect();
  auto svc = mountService("svc");
  auto versions = svc->versionFilterIs("v1");
  versions->includedServiceVersionIs(1, true);
  auto g = svc->mountGroupConfigIs("g");
  g->versionFilterIs(versions);
  g->mountConfigIs("/a", "Sim::Record", "r", "");
  g->mountConfigIs("/b", "Sim::Record", "r", "");
  start();
  ASSERT_TRUE(mountStatusOf("svc")->systemStatus(s1.name())->serviceMountGroupStatus("g"));
  // Written by someone else, empty: not a mounter's to remove.
  mountStatusOf("svc")->systemStatusIs("00:00:00:00:00:09");

  g->mountConfigDel("/a");
  EXPECT_TRUE(mountStatusOf("svc")->systemStatus(s1.name())->serviceMountGroupStatus("g")->processed());  // /b uses it
  g->mountConfigDel("/b");
  EXPECT_FALSE(mountStatusOf("svc")->systemStatus(s1.name()));
  EXPECT_TRUE(mountStatusOf("svc")->systemStatus("00:00:00:00:00:09"));
}

class Shutdown : public Churn {
 protected:
  // One mount and one publication in place on one switch.
  Sim::Switch& running() {
    Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
    s1.entityIs("a");
    s1.serviceVersionIs("svc", 1).serviceVersionIs("pub", 1).connect();
    mountService("svc")->mountGroupConfigIs("g")->mountConfigIs("/a", "Sim::Record", "r", "");
    publisher()->publishGroupConfig("g")->publishConfigIs("/local/state", "/remote/state", "Sim::Record");
    root->subdirIs("local")->entryIs<Kiv::Dir>("state");
    start();
    loop.advanceBy(2);
    return s1;
  }
};

// Mounters, entries and readiness go by the clean-up the simulation's teardown checks; these too.
TEST_F(Shutdown, TheConfigurationSideWithdrawsWhatItWrote) {
  running();
  sm = nullptr;
  EXPECT_EQ(mountStatusOf("svc")->mountedPathPrefixSize(), 0u);
  EXPECT_EQ(publishStatusOf("pub")->servicePublishGroupStatusSize(), 0u);
}

TEST_F(Shutdown, TheRegistrySideTakesItsMountsAndPublicationsDown) {
  Sim::Switch& s1 = running();
  // A switch that has left while its mount is still being taken down: the registry ends the mounts
  // switch by switch over its peers, and this one is no longer among them.
  Sim::Switch& s2 = network.switchIs("00:00:00:00:00:02");
  s2.entityIs("a");
  s2.serviceVersionIs("svc", 1).unmountLatencyIs(5).connect();
  loop.advanceBy(2);
  ASSERT_EQ(statusOf("svc", s2, "g", "/a")->mountState(), mountStateMounted);
  s2.disconnect();
  loop.advanceBy(1);
  ASSERT_TRUE(registrySm->mountsRegistryEntrySm("/a")->mountSm(s2.systemId()));
  registrySm = nullptr;
  EXPECT_FALSE(root->entityAtPath("mounts/a/" + s1.name().stdString() + "/a"));
  EXPECT_FALSE(root->entityAtPath("mounts/a/" + s2.name().stdString() + "/a"));
  EXPECT_EQ(mountStatusOf("svc")->systemStatusSize(), 0u);
  EXPECT_EQ(dbPublish->systemSize(), 0u);
  EXPECT_EQ(dbPublish->servicePublishReadySize(), 0u);
  // What the configuration side wrote stays its own.
  EXPECT_THAT(mountersOf("/a"), ::testing::ElementsAre("svc/g"));
  EXPECT_EQ(registry->publishEntrySize(), 1u);
}

}  // namespace
}  // namespace Controller::testing
