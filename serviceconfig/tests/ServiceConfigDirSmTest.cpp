#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "serviceconfig/tests/ServiceConfigFixture.h"

namespace Controller::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ServiceConfigDir : public ::testing::Test, public ServiceConfigWorld {};

TEST_F(ServiceConfigDir, OneMachinePerCompletePairDeletedOnlyOnATypeMismatch) {
  mountConfig->entryIs<ServiceMountConfig>("svc");  // no status yet
  start();
  EXPECT_EQ(sm->serviceMountConfigSmSize(), 0u);
  mountStatus->entryIs<ServiceMountStatus>("svc");
  auto machine = sm->serviceMountConfigSm("svc");
  ASSERT_TRUE(machine);
  EXPECT_FALSE(machine->isProxyService());
  mountStatus->entityPtrNotify("svc");
  EXPECT_EQ(sm->serviceMountConfigSm("svc"), machine);

  // An entity that disappears keeps the machine; one replaced by another type deletes it.
  mountStatus->entityPtrDel("svc");
  EXPECT_EQ(sm->serviceMountConfigSm("svc"), machine);
  mountStatus->entryIs<Kiv::Dir>("svc");
  EXPECT_FALSE(sm->serviceMountConfigSm("svc"));

  // A proxy of the same name shares the one collection: whichever pair is complete first wins.
  proxyMountConfig->entryIs<ServiceMountConfig>("svc");
  proxyMountStatus->entryIs<ServiceMountStatus>("svc");
  EXPECT_TRUE(sm->serviceMountConfigSm("svc")->isProxyService());
  mountStatus->entityPtrDel("svc");
  mountStatus->entryIs<ServiceMountStatus>("svc");
  EXPECT_TRUE(sm->serviceMountConfigSm("svc")->isProxyService());
}

TEST_F(ServiceConfigDir, WhatIsPresentAtConstructionIsTakenUpOnce) {
  mountService("a")->mountGroupConfigIs("g")->mountConfigIs("/a", "T", "r", "");
  mountService("p-proxy", "other", true)->mountGroupConfigIs("g")->mountConfigIs("/p", "T", "r", "");
  publishService("pub")->publishGroupConfigIs("g")->publishConfigIs("/l", "/r", "T");
  start();
  EXPECT_TRUE(sm->initialized());
  EXPECT_THAT(mountersOf("/a"), ElementsAre("a/g"));
  EXPECT_THAT(mountersOf("/p"), ElementsAre("p-proxy/g"));
  EXPECT_TRUE(registry->publishEntry("/l"));
  mountConfig->entityPtrNotify();  // the whole-directory notification re-evaluates, creating nothing new
  EXPECT_EQ(sm->serviceMountConfigSmSize(), 2u);
}

// What the machines wrote is withdrawn by their clean-up; what the design keeps stays.
TEST_F(ServiceConfigDir, NothingIsLeftBehind) {
  auto mounting = mountService("m");
  mounting->mountGroupConfigIs("g1")->mountConfigIs("/a", "T", "r", "");
  mounting->mountGroupConfigIs("g2")->mountConfigIs("/b", "T", "r", "x/y");
  auto publishing = publishService("p");
  auto group = publishing->publishGroupConfigIs("g");
  group->publishConfigIs("/l", "/r", "T");
  group->publishDirIs("/d", "Kiv::Dir");
  publishing->readyIs(true);
  start();
  ASSERT_EQ(mounterCount(), 2u);
  ASSERT_EQ(registry->publishEntrySize(), 2u);
  mounting->mountGroupConfigDelAll();
  publishing->publishGroupConfigDelAll();
  EXPECT_EQ(mounterCount(), 0u);
  EXPECT_EQ(mountStatusOf("m")->mountedPathPrefixSize(), 0u);
  EXPECT_EQ(registry->publishEntrySize(), 0u);
  EXPECT_EQ(publishStatusOf("p")->servicePublishGroupStatusSize(), 0u);
  // Kept on purpose: registry entries without mounters, the machine of a service whose
  // configuration entity goes away, and the service's readiness, which follows its ready flag.
  EXPECT_EQ(registry->mountEntrySize(), 2u);
  mountConfig->entityPtrDel("m");
  EXPECT_TRUE(sm->serviceMountConfigSm("m"));
  EXPECT_TRUE(registry->servicePublishReady("p"));
}

}  // namespace
}  // namespace Controller::testing
