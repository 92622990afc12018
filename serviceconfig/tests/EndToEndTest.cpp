// The mount side from a service's declarations to status, with simulated switches: the service
// configuration machines fill the registry, the registry machines mount from the switches.
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

TEST_F(EndToEnd, NothingIsLeftBehindOnceEveryGroupIsGone) {
  Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
  Sim::Switch& s2 = network.switchIs("00:00:00:00:00:02");
  for (Sim::Switch* s : {&s1, &s2}) {
    s->entityIs("a");
    s->entityIs("b");
    s->serviceVersionIs("one", 1).serviceVersionIs("two", 1);
    s->connect();
  }
  mountService("one")->mountGroupConfigIs("g")->mountConfigIs("/a", "Sim::Record", "r", "");
  auto two = mountService("two");
  two->mountGroupConfigIs("g")->mountConfigIs("/a", "Sim::Record", "r", "");
  two->mountGroupConfigIs("h")->mountConfigIs("/b", "Sim::Record", "r", "");
  startAll();
  loop.advanceBy(5);
  ASSERT_EQ(statusOf("two", s2, "h", "/b")->mountState(), mountStateMounted);

  Kiv::entityCast<ServiceMountConfig>(mountConfig->entityPtr("one"))->mountGroupConfigDelAll();
  two->mountGroupConfigDelAll();
  loop.advanceBy(5);
  EXPECT_EQ(mounterCount(), 0u);
  EXPECT_EQ(mountStatusOf("one")->systemStatusSize(), 0u);
  EXPECT_EQ(mountStatusOf("two")->systemStatusSize(), 0u);
  EXPECT_EQ(mountStatusOf("two")->mountedPathPrefixSize(), 0u);
  // Registry entries without mounters stay, as do their machines, which mount nothing.
  EXPECT_EQ(registry->mountEntrySize(), 2u);
  for (auto it = registry->mountEntryIter(); it; ++it) {
    EXPECT_EQ(it.value()->mounterSize(), 0u);
    auto entrySm = registrySm->mountsRegistryEntrySm(it.key());
    EXPECT_EQ(entrySm->mountSms(), 0u) << it.key();
    EXPECT_EQ(entrySm->mountSmDatas(), 0u) << it.key();
  }
  EXPECT_FALSE(root->entityAtPath("mounts/a/" + s1.name().stdString() + "/a"));
}

TEST_F(EndToEnd, AStaleGenerationUnmountsAnOrdinaryServiceButNotAProxy) {
  Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
  s1.entityIs("a");
  s1.entityIs("p");
  s1.serviceVersionIs("svc", 1).serviceVersionIs("real", 1).connect();
  mountService("svc")->mountGroupConfigIs("g")->mountConfigIs("/a", "Sim::Record", "r", "");
  mountService("real-proxy", "gen1", true)->mountGroupConfigIs("g")->mountConfigIs("/p", "Sim::Record", "r", "");
  startAll();
  loop.advanceBy(2);
  ASSERT_EQ(statusOf("svc", s1, "g", "/a")->mountState(), mountStateMounted);

  db->leaderGenIdIs("gen2");
  loop.advanceBy(2);
  EXPECT_THAT(mountersOf("/a"), ::testing::IsEmpty());
  EXPECT_EQ(mountStatusOf("svc")->systemStatusSize(), 0u);
  EXPECT_EQ(registrySm->mountsRegistryEntrySm("/a")->mountSms(), 0u);
  EXPECT_FALSE(root->entityAtPath("mounts/a/" + s1.name().stdString() + "/a"));
  EXPECT_EQ(statusOf("real-proxy", s1, "g", "/p", true)->mountState(), mountStateMounted);

  mountConfig->entryIs<ServiceMountConfig>("svc")->leaderGenIdIs("gen2");
  loop.advanceBy(2);
  EXPECT_EQ(statusOf("svc", s1, "g", "/a")->mountState(), mountStateMounted);
}

TEST_F(EndToEnd, APublicationGoesFromDeclarationToTheAdmittedSwitches) {
  Sim::Switch& s1 = network.switchIs("00:00:00:00:00:01");
  Sim::Switch& s2 = network.switchIs("00:00:00:00:00:02");
  Sim::Switch& s3 = network.switchIs("00:00:00:00:00:03");
  s1.serviceVersionIs("pub", 1).connect();
  s2.serviceVersionIs("pub", 2).connect();  // its version is filtered out
  s3.serviceVersionIs("pub", 1).connect();  // not in the system filter
  auto svc = publishService("pub");
  auto group = svc->publishGroupConfigIs("g");
  auto systems = svc->systemFilterIs("systems");
  systems->includedSystemIs(s1.name(), true);
  systems->includedSystemIs(s2.name(), true);
  auto versions = svc->versionFilterIs("versions");
  versions->includedServiceVersionIs(1, true);
  group->systemFilterIs(systems);
  group->versionFilterIs(versions);
  group->publishConfigIs("/local/state", "/remote/state", "Sim::Record");
  svc->readyIs(true);
  startAll();
  EXPECT_FALSE(dbPublish->servicePublishReady("pub"));  // the entity does not exist yet

  loop.advanceTo(2.5);
  root->subdirIs("local")->entryIs<Kiv::Dir>("state");
  EXPECT_EQ(dbPublish->system(s1.systemId())->publishedMountSize(), 0u);
  loop.advanceTo(3);  // the next presence check finds it
  EXPECT_EQ(dbPublish->system(s1.systemId())->publishedMount("/local/state").remotePath(), "/remote/state");
  EXPECT_EQ(dbPublish->system(s2.systemId())->publishedMountSize(), 0u);
  EXPECT_EQ(dbPublish->system(s3.systemId())->publishedMountSize(), 0u);
  EXPECT_TRUE(dbPublish->servicePublishReady("pub"));

  svc->publishGroupConfigDel("g");
  EXPECT_EQ(dbPublish->system(s1.systemId())->publishedMountSize(), 0u);
}

}  // namespace
}  // namespace Controller::testing
