#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "serviceconfig/DirPath.h"
#include "serviceconfig/tests/ServiceConfigFixture.h"

namespace Controller::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ServiceMount : public ::testing::Test, public ServiceConfigWorld {};

TEST_F(ServiceMount, OneMachinePerCompletePairDeletedOnlyOnATypeMismatch) {
  mountConfig->entryIs<ServiceMountConfig>("svc");  // no status yet
  start();
  EXPECT_EQ(sm->serviceMountConfigSmSize(), 0u);
  mountStatus->entryIs<ServiceMountStatus>("svc");
  auto machine = sm->serviceMountConfigSm("svc");
  ASSERT_TRUE(machine);
  EXPECT_FALSE(machine->isProxyService());

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

TEST_F(ServiceMount, GroupsAndPathsReachTheRegistryWithTheirTargetsAndShareAnEntry) {
  auto svc = mountService("svcA");
  auto group = svc->mountGroupConfigIs("g1");
  group->mountConfigIs("/sys/a", "Sim::Record", "r", "");            // under the registry's directory
  group->mountConfigIs("/sys/b", "Sim::Record", "r", "local/b/here");  // under the root, where it says
  start();

  auto a = registry->mountEntry("/sys/a");
  ASSERT_TRUE(a);
  EXPECT_EQ(a->targetPath(), "mounts//sys/a");
  EXPECT_TRUE(root->entityAtPath("mounts/sys/a"));
  EXPECT_EQ(registry->mountEntry("/sys/b")->targetPath(), "local/b/here");
  EXPECT_TRUE(Kiv::entityCast<Kiv::Dir>(root->entityAtPath("local/b/here")));
  auto status = mountStatusOf("svcA");
  EXPECT_EQ(status->mountedPathPrefix("/sys/a")->pathPrefix(), "mounts//sys/a");
  EXPECT_EQ(status->mountedPathPrefix("/sys/b")->pathPrefix(), "local/b/here");
  svc->serviceNameIs("svcA2");
  EXPECT_EQ(status->serviceName(), "svcA2");
  svc->serviceNameIs("svcA");

  // Another service shares the entry and its prefix: its own target is not made.
  mountService("svcB")->mountGroupConfigIs("h")->mountConfigIs("/sys/a", "Sim::Record", "r", "ignored/for/second");
  EXPECT_THAT(mountersOf("/sys/a"), ElementsAre("svcA/g1", "svcB/h"));
  EXPECT_EQ(mountStatusOf("svcB")->mountedPathPrefix("/sys/a")->pathPrefix(), "mounts//sys/a");
  EXPECT_FALSE(root->entityAtPath("ignored"));

  // A path withdrawn from the configuration leaves its entry in place.
  group->mountConfigDel("/sys/b");
  EXPECT_TRUE(registry->mountEntry("/sys/b"));
}

TEST_F(ServiceMount, TheFirstGroupOfAServiceWinsAndARemovedGroupWithdrawsOnlyItsOwn) {
  start();
  auto b = mountService("svcB");
  b->mountGroupConfigIs("g1")->mountConfigIs("/p", "T", "r", "");
  b->mountGroupConfigIs("g2")->mountConfigIs("/p", "T", "r", "");
  EXPECT_THAT(mountersOf("/p"), ElementsAre("svcB/g1"));

  // The losing group's withdrawal leaves the winner's mounter and prefix alone; the winner's takes them.
  auto status = mountStatusOf("svcB");
  b->mountGroupConfigDel("g2");
  EXPECT_THAT(mountersOf("/p"), ElementsAre("svcB/g1"));
  EXPECT_TRUE(status->mountedPathPrefix("/p"));
  b->mountGroupConfigDel("g1");
  EXPECT_THAT(mountersOf("/p"), IsEmpty());
  EXPECT_EQ(status->mountedPathPrefixSize(), 0u);
  EXPECT_FALSE(sm->serviceMountConfigSm("svcB")->mountGroupSm("g1"));
}

TEST_F(ServiceMount, EventsWorthKeepingAreLoggedWithTheirSignature) {
  Kiv::TraceCapture capture;
  serviceConfigDirSmTrace.levelIs(5, true);
  start();
  auto a = mountService("svcA");
  a->mountGroupConfigIs("g")->mountConfigIs("/p", "T", "r", "");
  mountService("svcB")->mountGroupConfigIs("h")->mountConfigIs("/p", "T", "r", "");
  a->mountGroupConfigIs("g")->mountConfigDel("/p");
  mountService("svcB")->mountGroupConfigIs("h")->mountConfigDel("/p");
  serviceConfigDirSmTrace.levelsIs(0);
  std::string const add = "void Controller::ServiceMountGroupSm::addMountConfig(Kiv::Name): ";
  std::string const del = "void Controller::ServiceMountGroupSm::removeMountConfig(Kiv::Name): ";
  EXPECT_THAT(capture.messages(5),
              ElementsAre(add + " add registry entry service:svcA group:g rpath:/p tpath:mounts//p",
                          add + " add mounter service:svcA group:g rpath:/p path prefix:mounts//p",
                          add + " dup registry entry service:svcB group:h rpath:/p",
                          add + " add mounter service:svcB group:h rpath:/p path prefix:mounts//p",
                          del + " del registry entry: service:svcA group:g path:/p",
                          del + " del registry entry: service:svcB group:h path:/p",
                          del + " all mounters gone path:/p"));
}

TEST(ServiceMountDeathTest, ADuplicateEntryMustAgreeOnTypeAndFlags) {
  auto secondMount = [](char const* type, char const* flags) {
    ServiceConfigWorld w;
    w.start();
    w.mountService("a")->mountGroupConfigIs("g")->mountConfigIs("/p", "T", "r", "");
    w.mountService("b")->mountGroupConfigIs("g")->mountConfigIs("/p", type, flags, "");
  };
  EXPECT_DEATH(secondMount("U", "r"), "mre->kivType\\(\\) == mountConfig->kivcType\\(\\)");
  EXPECT_DEATH(secondMount("T", "rw"), "mre->mountFlags\\(\\) == mountConfig->mountFlags\\(\\)");
}

TEST(DirPath, CreatesWhatIsMissingOnceAndStopsAtANonDirectory) {
  auto root = Kiv::Dir::DirIs("root");
  Kiv::Ptr<Kiv::Dir> b = root->subdirIs("a")->subdirIs("b");
  doCreateDirPath(root, "/a/b/c/d");
  doCreateDirPath(root, "a//b/c/d");
  EXPECT_EQ(root->entityAtPath("a/b"), b);
  EXPECT_EQ(b->entityPtrs(), 1u);
  EXPECT_TRUE(Kiv::entityCast<Kiv::Dir>(root->entityAtPath("a/b/c/d")));

  auto svc = root->entryIs<ServiceMountConfig>("file");
  doCreateDirPath(root, "file/x/y");
  EXPECT_FALSE(root->entityAtPath("file/x"));
  EXPECT_EQ(root->entityPtr("file"), svc);
}

}  // namespace
}  // namespace Controller::testing
