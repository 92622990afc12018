#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "serviceconfig/tests/ServiceConfigFixture.h"

namespace Controller::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ServicePublish : public ::testing::Test, public ServiceConfigWorld {
 protected:
  // A service with one group publishing one entity and one directory, filtered.
  Kiv::Ptr<ServicePublishConfig> declare(std::string const& name) {
    auto svc = publishService(name);
    auto group = svc->publishGroupConfigIs("grp");
    group->systemFilterIs(svc->systemFilterIs("sys"));
    group->publishConfigIs("/local/" + name, "/remote/" + name, "Sim::Record");
    group->publishDirIs("/dir/" + name, "Kiv::Dir");
    svc->readyIs(true);
    return svc;
  }
};

TEST_F(ServicePublish, EntriesCarryTheGroupsFiltersDirectoriesWaitForReadinessAndGoWithTheGroup) {
  auto svc = declare("pub");
  start();
  auto dir = registry->publishEntry("/dir/pub");
  ASSERT_TRUE(dir);
  EXPECT_TRUE(dir->isPrefixPath());
  EXPECT_EQ(dir->remotePath(), "");
  EXPECT_FALSE(dir->readyToPublish());
  auto publishDir = svc->publishGroupConfig("grp")->publishDir("/dir/pub");
  Kiv::ptrConstCast<PublishDir>(publishDir)->remoteTargetPathIs("/remote/dir");
  Kiv::ptrConstCast<PublishDir>(publishDir)->readyToPublishIs(true);
  EXPECT_EQ(dir->remotePath(), "/remote/dir");
  EXPECT_TRUE(dir->readyToPublish());

  // The group's filters follow the configuration.
  auto versions = svc->versionFilterIs("v");
  svc->publishGroupConfig("grp")->versionFilterIs(versions);
  EXPECT_EQ(dir->versionFilter(), versions);

  auto groupStatus = publishStatusOf("pub")->servicePublishGroupStatus("grp");
  EXPECT_EQ(groupStatus->publishState(), publishStateComplete);
  EXPECT_EQ(groupStatus->publishStatus("/local/pub")->publishState(), publishStateComplete);

  // A removed group takes its entries and its status with it.
  svc->publishGroupConfigDel("grp");
  EXPECT_EQ(registry->publishEntrySize(), 0u);
  EXPECT_EQ(publishStatusOf("pub")->servicePublishGroupStatusSize(), 0u);
}

TEST_F(ServicePublish, TheFirstPublisherOfAPathKeepsItAndTheOtherIsToldAtLevelOne) {
  Kiv::TraceCapture capture;
  serviceConfigDirSmTrace.levelIs(1, true);
  start();
  auto first = publishService("first");
  first->readyIs(true);
  first->publishGroupConfigIs("g")->publishConfigIs("/shared", "/r1", "T");
  auto second = publishService("second");
  second->publishGroupConfigIs("g")->publishConfigIs("/shared", "/r2", "T");
  second->publishGroupConfigIs("g")->publishDirIs("/shared", "Kiv::Dir");
  // The first service's other group is just another publisher.
  auto other = first->publishGroupConfigIs("h");
  other->publishConfigIs("/shared", "/r3", "T");
  auto dir = other->publishDirIs("/shared", "Kiv::Dir");
  serviceConfigDirSmTrace.levelsIs(0);
  auto entry = registry->publishEntry("/shared");
  EXPECT_EQ(entry->serviceName(), "first");
  EXPECT_THAT(capture.messages(1),
              ElementsAre("addPublishConfig/shared already published. Ignoring publish from:second",
                          "addPublishDir/shared already published. Ignoring publishDir from: second",
                          "addPublishConfig/shared already published. Ignoring publish from:first",
                          "addPublishDir/shared already published. Ignoring publishDir from: first"));
  // The ignored publishers' directory readiness and withdrawal leave the first one's entry alone.
  Kiv::ptrConstCast<PublishDir>(dir)->remoteTargetPathIs("/r4");
  Kiv::ptrConstCast<PublishDir>(dir)->readyToPublishIs(false);
  first->publishGroupConfigDel("h");
  second->publishGroupConfigDel("g");
  EXPECT_EQ(registry->publishEntry("/shared"), entry);
  EXPECT_EQ(entry->remotePath(), "/r1");
  EXPECT_TRUE(entry->readyToPublish());
}

// A stale generation withdraws the entries; group statuses belong to the configuration and stay.
TEST_F(ServicePublish, EventsWorthKeepingAreLoggedAndAStaleGenerationKeepsTheGroupStatuses) {
  Kiv::TraceCapture capture;
  serviceConfigDirSmTrace.levelIs(5, true);
  auto svc = publishService("pub");
  start();
  svc->publishGroupConfigIs("g")->publishConfigIs("/l", "/r", "T");
  db->leaderGenIdIs("gen2");
  serviceConfigDirSmTrace.levelsIs(0);
  EXPECT_EQ(registry->publishEntrySize(), 0u);
  EXPECT_TRUE(publishStatusOf("pub")->servicePublishGroupStatus("g"));
  EXPECT_THAT(capture.messages(5),
              ElementsAre("void Controller::ServicePublishGroupSm::addPublishDirOrConfig(Kiv::String, Kiv::String, "
                          "Kiv::String, bool, bool, Kiv::PtrConst<Controller::ServicePublishGroupConfig>):  adding: "
                          "service:pub cpath:/l rpath:/r type:T",
                          "void Controller::ServicePublishConfigSm::handleLeaderGenId(): Stale leaderGenId, cleanup "
                          "publishReady flag for pub",
                          "void Controller::ServicePublishGroupSm::removePublishDirOrConfig(Kiv::String):  removing "
                          "cpath:/l"));
}

}  // namespace
}  // namespace Controller::testing
