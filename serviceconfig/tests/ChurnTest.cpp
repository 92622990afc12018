// The whole mount and publish side under churn: switches that connect late, drop, flap and
// renegotiate; leaders that change away and back; configuration that comes and goes.
#include "serviceconfig/tests/EndToEndFixture.h"

namespace Controller::testing {
namespace {

using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::Not;

class Churn : public EndToEnd {
 protected:
  // A publishing service of the current generation, ready, with one group "g".
  Kiv::Ptr<ServicePublishConfig> publisher(std::string const& name = "pub") {
    auto svc = publishService(name);
    svc->readyIs(true);
    svc->publishGroupConfigIs("g");
    return svc;
  }
  bool publishedTo(Sim::Switch const& s, std::string const& path) {
    auto system = dbPublish->system(s.systemId());
    return system && !!system->publishedMount(path);
  }
  Kiv::Ptr<SystemStatus> systemStatus(std::string const& service, Sim::Switch const& s) {
    return mountStatusOf(service)->systemStatus(s.name());
  }
  bool ready(std::string const& service = "pub") { return dbPublish->servicePublishReady(service); }
  // A mount group of `svc` that takes version 1 only.
  Kiv::Ptr<ServiceMountGroupConfig> versionOneGroup(Kiv::Ptr<ServiceMountConfig> const& svc) {
    auto versions = svc->versionFilterIs("v1");
    versions->includedServiceVersionIs(1, true);
    auto group = svc->mountGroupConfigIs("g");
    group->versionFilterIs(versions);
    return group;
  }
  // The publisher's group "g" publishes /local/state, which exists.
  void publishState(Kiv::Ptr<ServicePublishConfig> const& pub) {
    pub->publishGroupConfig("g")->publishConfigIs("/local/state", "/remote/state", "Sim::Record");
    root->subdirIs("local")->entryIs<Kiv::Dir>("state");
  }
};

// Every value the publish status's readiness of a service took, in order.
struct ReadinessLog : Controllerdb::PublishStatus::NotifieeConst {
  using NotifieeConst::NotifieeConst;
  void onServicePublishReady(Kiv::String const& service) override {
    seen.push_back(notifier()->servicePublishReady(service));
  }
  std::vector<bool> seen;
};

TEST_F(Churn, ASwitchThatConnectsLateOrComesBackGetsItsMountsAndPublications) {
  mountService("svc")->mountGroupConfigIs("g")->mountConfigIs("/a", "Sim::Record", "r", "");
  publishState(publisher());
  startAll();

  // Its peer appears at once; its connection comes up only after the handshake.
  Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
  s1.entityIs("a");
  s1.serviceVersionIs("svc", 1).serviceVersionIs("pub", 1).handshakeLatencyIs(1).mountLatencyIs(1);
  loop.advanceTo(10);
  s1.connect();
  EXPECT_FALSE(publishedTo(s1, "/local/state"));
  loop.advanceTo(11);
  EXPECT_TRUE(publishedTo(s1, "/local/state"));
  loop.advanceTo(12);
  EXPECT_EQ(statusOf("svc", s1, "g", "/a")->mountState(), mountStateMounted);

  s1.flap(5);
  EXPECT_FALSE(systemStatus("svc", s1));
  EXPECT_FALSE(dbPublish->system(s1.systemId()));
  loop.advanceTo(17.5);  // back at 17, its handshake done at 18
  EXPECT_FALSE(publishedTo(s1, "/local/state"));
  loop.advanceTo(18);
  EXPECT_TRUE(publishedTo(s1, "/local/state"));
  loop.advanceTo(19);
  EXPECT_EQ(statusOf("svc", s1, "g", "/a")->mountState(), mountStateMounted);
}

TEST_F(Churn, ASwitchWithoutNegotiatedServicesKeepsItsSystemStatusAcrossAFlap) {
  mountService("svc")->mountGroupConfigIs("g")->mountConfigIs("/a", "Sim::Record", "r", "");
  startAll();
  // A peer counts from its arrival, before its connection is up.
  Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
  s1.handshakeLatencyIs(1).connect();
  ASSERT_TRUE(systemStatus("svc", s1));
  EXPECT_TRUE(systemStatus("svc", s1)->serviceMountGroupStatus("g")->processed());

  s1.flap(1);
  EXPECT_FALSE(systemStatus("svc", s1));
  loop.advanceBy(1);
  ASSERT_TRUE(systemStatus("svc", s1));
  EXPECT_TRUE(systemStatus("svc", s1)->serviceMountGroupStatus("g")->processed());
  EXPECT_EQ(registrySm->mountsRegistryEntrySm("/a")->mountSms(), 0u);
}

TEST_F(Churn, ARenegotiatedVersionMountsAndPublishesByTheVersionFilters) {
  versionOneGroup(mountService("svc"))->mountConfigIs("/a", "Sim::Record", "r", "");
  auto pub = publisher();
  auto pubVersions = pub->versionFilterIs("v1");
  pubVersions->includedServiceVersionIs(1, true);
  pub->publishGroupConfig("g")->versionFilterIs(pubVersions);
  publishState(pub);
  Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
  s1.entityIs("a");
  s1.serviceVersionIs("svc", 1).serviceVersionIs("pub", 1).connect();
  startAll();
  loop.advanceBy(2);
  ASSERT_EQ(statusOf("svc", s1, "g", "/a")->mountState(), mountStateMounted);
  ASSERT_TRUE(publishedTo(s1, "/local/state"));

  s1.serviceVersionIs("svc", 2).serviceVersionIs("pub", 2);
  loop.advanceBy(2);
  EXPECT_FALSE(statusOf("svc", s1, "g", "/a"));
  EXPECT_EQ(registrySm->mountsRegistryEntrySm("/a")->mountSms(), 0u);
  EXPECT_FALSE(root->entityAtPath("mounts/a/" + s1.name().stdString() + "/a"));
  EXPECT_FALSE(publishedTo(s1, "/local/state"));

  s1.serviceVersionIs("svc", 1).serviceVersionIs("pub", 1);
  loop.advanceBy(2);
  EXPECT_EQ(statusOf("svc", s1, "g", "/a")->mountState(), mountStateMounted);
  EXPECT_TRUE(publishedTo(s1, "/local/state"));
}

TEST_F(Churn, AGroupThatTakesAnotherFilterIsFollowed) {
  Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
  Sim::Switch& s2 = network.switchIs("00:00:00:00:00:02");
  for (Sim::Switch* s : {&s1, &s2}) {
    s->entityIs("a");
    s->serviceVersionIs("svc", 1).connect();
  }
  auto svc = mountService("svc");
  auto only1 = svc->systemFilterIs("only1");
  only1->includedSystemIs(s1.name(), true);
  auto only2 = svc->systemFilterIs("only2");
  only2->includedSystemIs(s2.name(), true);
  auto g = svc->mountGroupConfigIs("g");
  g->systemFilterIs(only1);
  g->mountConfigIs("/a", "Sim::Record", "r", "");
  startAll();
  loop.advanceBy(2);
  auto mounted = [&](Sim::Switch const& s) {
    auto row = statusOf("svc", s, "g", "/a");
    return row && row->mountState() == mountStateMounted;
  };
  ASSERT_TRUE(mounted(s1));
  ASSERT_FALSE(mounted(s2));

  g->systemFilterIs(only2);
  loop.advanceBy(2);
  EXPECT_FALSE(mounted(s1));
  EXPECT_TRUE(mounted(s2));
  EXPECT_EQ(registrySm->mountsRegistryEntrySm("/a")->connectionFilter(s1.name()), 0u);

  g->systemFilterIs(nullptr);  // no filter at all: every switch
  loop.advanceBy(2);
  EXPECT_TRUE(mounted(s1));
  EXPECT_TRUE(mounted(s2));
  EXPECT_EQ(registrySm->mountsRegistryEntrySm("/a")->connectionFilters(), 0u);
}

TEST_F(Churn, PublishReadinessWaitsForTheEntriesAndIsWithdrawnAtOnce) {
  auto pub = publisher();
  pub->publishGroupConfig("g")->publishConfigIs("/local/a", "/remote/a", "Sim::Record");
  pub->publishGroupConfig("g")->publishConfigIs("/local/b", "/remote/b", "Sim::Record");
  auto local = root->subdirIs("local");
  local->entryIs<Kiv::Dir>("a");
  startAll();
  EXPECT_FALSE(ready());  // /local/b is not there yet
  local->entryIs<Kiv::Dir>("b");
  loop.advanceBy(1);
  EXPECT_TRUE(ready());

  // A stale generation withdraws it at once; when the generation comes back, the entries come back
  // before the readiness does, and it waits for the one whose entity went meanwhile. The group
  // meets its own entries again silently.
  Kiv::TraceCapture capture;
  serviceConfigDirSmTrace.levelIs(1, true);
  db->leaderGenIdIs("gen2");
  EXPECT_FALSE(ready());
  EXPECT_EQ(registry->publishEntrySize(), 0u);
  local->entityPtrDel("b");
  Kiv::Ptr<ReadinessLog> log = new ReadinessLog(dbPublish);
  db->leaderGenIdIs("gen1");
  EXPECT_EQ(registry->publishEntrySize(), 2u);
  EXPECT_FALSE(ready());
  EXPECT_THAT(log->seen, Not(Contains(true)));  // not even for a moment
  serviceConfigDirSmTrace.levelsIs(0);
  EXPECT_THAT(capture.messages(1), IsEmpty());
  local->entryIs<Kiv::Dir>("b");
  loop.advanceBy(1);
  EXPECT_TRUE(ready());

  // The ready flag going off withdraws it at once; an entry added unprocessed withdraws it until
  // the entry is processed.
  pub->readyIs(false);
  EXPECT_FALSE(ready());
  pub->readyIs(true);
  EXPECT_TRUE(ready());
  pub->publishGroupConfig("g")->publishConfigIs("/local/c", "/remote/c", "Sim::Record");
  EXPECT_FALSE(ready());
  local->entryIs<Kiv::Dir>("c");
  loop.advanceBy(1);
  EXPECT_TRUE(ready());
  // And removing the one entry it waits for releases it.
  pub->publishGroupConfig("g")->publishConfigIs("/local/d", "/remote/d", "Sim::Record");
  EXPECT_FALSE(ready());
  pub->publishGroupConfig("g")->publishConfigDel("/local/d");
  EXPECT_TRUE(ready());
}

TEST_F(Churn, RemovingAMountEntryOrReplacingAServiceEntityLeavesNothingBehind) {
  Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
  s1.entityIs("a");
  s1.entityIs("b");
  s1.serviceVersionIs("svc", 1).connect();
  auto group = mountService("svc")->mountGroupConfigIs("g");
  group->mountConfigIs("/a", "Sim::Record", "r", "");
  group->mountConfigIs("/b", "Sim::Record", "r", "");
  startAll();
  loop.advanceBy(2);
  ASSERT_EQ(statusOf("svc", s1, "g", "/a")->mountState(), mountStateMounted);
  std::string const copyOfA = "mounts/a/" + s1.name().stdString() + "/a";
  ASSERT_TRUE(root->entityAtPath(copyOfA));

  // The entry goes from the registry: its machine, its mount, its row and the prefix go with it,
  // while the group's other path keeps the statuses they share.
  registry->mountEntryDel("/a");
  EXPECT_FALSE(registrySm->mountsRegistryEntrySm("/a"));
  EXPECT_FALSE(root->entityAtPath(copyOfA));
  EXPECT_FALSE(statusOf("svc", s1, "g", "/a"));
  EXPECT_FALSE(mountStatusOf("svc")->mountedPathPrefix("/a"));
  EXPECT_EQ(statusOf("svc", s1, "g", "/b")->mountState(), mountStateMounted);

  // The configuration entity replaced by one of another type: every mounter and every status row
  // of the service is withdrawn with its machine.
  mountConfig->entityPtrDel("svc");
  mountConfig->entryIs<Kiv::Dir>("svc");
  EXPECT_FALSE(sm->serviceMountConfigSm("svc"));
  EXPECT_EQ(mounterCount(), 0u);
  EXPECT_EQ(mountStatusOf("svc")->systemStatusSize(), 0u);
  EXPECT_EQ(mountStatusOf("svc")->mountedPathPrefixSize(), 0u);

  // A status entity replaced the same way, then a fresh one: the service's rows go to the new one.
  mountConfig->entityPtrDel("svc");
  mountService("svc")->mountGroupConfigIs("g")->mountConfigIs("/b", "Sim::Record", "r", "");
  loop.advanceBy(2);
  Kiv::Ptr<ServiceMountStatus> old = mountStatusOf("svc");
  ASSERT_EQ(statusOf("svc", s1, "g", "/b")->mountState(), mountStateMounted);
  mountStatus->entityPtrDel("svc");
  mountStatus->entryIs<Kiv::Dir>("svc");
  EXPECT_EQ(mounterCount(), 0u);
  EXPECT_EQ(old->systemStatusSize(), 0u);
  mountStatus->entityPtrDel("svc");
  mountStatus->entryIs<ServiceMountStatus>("svc");
  loop.advanceBy(2);
  EXPECT_EQ(statusOf("svc", s1, "g", "/b")->mountState(), mountStateMounted);
  EXPECT_EQ(old->systemStatusSize(), 0u);
}

TEST_F(Churn, AMounterLeavesWhatOtherGroupsAndPathsStillUse) {
  // Switch 1 negotiated no version: each path's group status there holds no row, only `processed`.
  Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
  s1.connect();
  auto g = versionOneGroup(mountService("svc"));
  g->mountConfigIs("/a", "Sim::Record", "r", "");
  g->mountConfigIs("/b", "Sim::Record", "r", "");
  startAll();
  ASSERT_TRUE(systemStatus("svc", s1)->serviceMountGroupStatus("g"));
  // Written by someone else, empty: not a mounter's to remove.
  mountStatusOf("svc")->systemStatusIs("00:00:00:00:00:09");

  g->mountConfigDel("/a");
  EXPECT_TRUE(systemStatus("svc", s1)->serviceMountGroupStatus("g")->processed());  // /b still uses it
  EXPECT_TRUE(mountStatusOf("svc")->systemStatus("00:00:00:00:00:09"));
  g->mountConfigDel("/b");
  EXPECT_FALSE(systemStatus("svc", s1));
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
    publishState(publisher());
    startAll();
    loop.advanceBy(2);
    EXPECT_EQ(statusOf("svc", s1, "g", "/a")->mountState(), mountStateMounted);
    EXPECT_TRUE(publishedTo(s1, "/local/state"));
    EXPECT_TRUE(ready());
    return s1;
  }
};

TEST_F(Shutdown, TheConfigurationSideWithdrawsWhatItPutInTheRegistry) {
  Sim::Switch& s1 = running();
  sm = nullptr;
  EXPECT_EQ(mounterCount(), 0u);
  EXPECT_EQ(registry->publishEntrySize(), 0u);
  EXPECT_EQ(registry->servicePublishReadySize(), 0u);
  EXPECT_EQ(mountStatusOf("svc")->systemStatusSize(), 0u);
  EXPECT_EQ(mountStatusOf("svc")->mountedPathPrefixSize(), 0u);
  EXPECT_EQ(publishStatusOf("pub")->servicePublishGroupStatusSize(), 0u);
  EXPECT_FALSE(publishedTo(s1, "/local/state"));
  EXPECT_FALSE(ready());
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
