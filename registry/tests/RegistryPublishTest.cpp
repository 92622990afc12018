#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MountsRegistryMachines.h"
#include "kiv/Exception.h"
#include "registry/tests/RegistryWorld.h"

namespace Controller::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::ThrowsMessage;

class RegistryPublish : public ::testing::Test, public RegistryWorld {};

TEST_F(RegistryPublish, PeersBringTheirConnectionMachinesAndPublishStatus) {
  auto& s1 = switchWith("00:00:00:00:00:01", "pub");
  start();
  EXPECT_TRUE(published(s1));
  auto connection = sm->connectionServiceStatusDirSm(s1.name());
  ASSERT_TRUE(connection);
  EXPECT_EQ(sm->negotiatedServiceVersionForConnection("pub", s1.name()), 1u);
  EXPECT_EQ(sm->negotiatedServiceVersionForConnection("pub-proxy", s1.name()), 1u);  // a proxy asks for its service
  EXPECT_EQ(sm->negotiatedServiceVersionForConnection("other", s1.name()), 0u);
  EXPECT_EQ(sm->negotiatedServiceVersionForConnection("pub", "00:00:00:00:00:09"), 0u);
  EXPECT_EQ(sm->negotiatedServiceVersionForConnection("pub", "not an address"), 0u);
  EXPECT_TRUE(published(s1)->registeredPublishedPathsProcessed("pub"));
}

// A connection machine follows the status and version status a service has now, whichever
// entities they are.
TEST_F(RegistryPublish, ConnectionMachinesFollowReplacedStatusesAndRefuseNone) {
  root->subdirIs("local")->entryIs<Kiv::Dir>("a");
  auto& s1 = switchWith("00:00:00:00:00:01", "pub");
  auto versions = MountFilterServiceVersion::MountFilterServiceVersionIs("versions");
  versions->includedServiceVersionIs(2, true);
  start();
  publish("/local/a", nullptr, versions);
  EXPECT_EQ(published(s1)->publishedMountSize(), 0u);  // version 1 is filtered out

  // A new version status, negotiated only later: its completion re-evaluates the switch.
  auto status = oob->connection(s1.name())->serviceStatusDir()->service("pub");
  auto renegotiated = ServiceVersionStatusV1::ServiceVersionStatusV1Is("pub-2");
  renegotiated->versionIs(2);
  status->versionStatusIs(renegotiated);
  EXPECT_EQ(sm->negotiatedServiceVersionForConnection("pub", s1.name()), 0u);
  renegotiated->versionNegotiationCompleteIs(true);
  EXPECT_EQ(published(s1)->publishedMountSize(), 1u);

  auto connection = sm->connectionServiceStatusDirSm(s1.name());
  auto follower = connection->serviceStatus("pub");
  EXPECT_EQ(connection->serviceStatusIs("pub", status), follower);
  // Another status of the service replaces the machine rather than being refused.
  auto elsewhere = ServiceStatusDir::ServiceStatusDirIs("elsewhere");
  auto third = ServiceVersionStatusV1::ServiceVersionStatusV1Is("pub-3");
  third->versionIs(3);
  third->versionNegotiationCompleteIs(true);
  elsewhere->serviceIs("pub")->versionStatusIs(third);
  elsewhere->service("pub")->enabledIs(true);
  EXPECT_NE(connection->serviceStatusIs("pub", elsewhere->service("pub")), follower);
  EXPECT_TRUE(follower->goingAway());
  EXPECT_EQ(sm->negotiatedServiceVersionForConnection("pub", s1.name()), 3u);
  EXPECT_EQ(published(s1)->publishedMountSize(), 0u);
  // The closing quote is part of the established text.
  EXPECT_THAT([&] { connection->serviceStatusIs("pub", nullptr); },
              ThrowsMessage<Kiv::RangeException>(
                  "null _serviceStatus parameter to mutator for "
                  "Controller::ConnectionServiceStatusDirSm::serviceStatus not allowed\""));
}

TEST_F(RegistryPublish, EntriesReachOnlyAdmittedSwitches) {
  root->subdirIs("local")->entryIs<Kiv::Dir>("a");
  auto& s1 = switchWith("00:00:00:00:00:01", "pub");
  auto& s2 = switchWith("00:00:00:00:00:02", "pub", 2);
  auto& s3 = switchWith("00:00:00:00:00:03", "other");  // no version of the service
  auto systems = MountFilterSystem::MountFilterSystemIs("systems");
  systems->includedSystemIs(s1.name(), true);
  systems->includedSystemIs(s2.name(), true);
  auto versions = MountFilterServiceVersion::MountFilterServiceVersionIs("versions");
  versions->includedServiceVersionIs(1, true);
  start();
  publish("/local/a", systems, versions);

  MountDesc const expected("/local/a", "/remote/local/a", "Sim::Record", "pub");
  EXPECT_EQ(published(s1)->publishedMount("/local/a"), expected);
  EXPECT_EQ(published(s2)->publishedMountSize(), 0u);  // version 2 is filtered out
  EXPECT_EQ(published(s3)->publishedMountSize(), 0u);

  versions->includedServiceVersionIs(2, true);
  EXPECT_EQ(published(s2)->publishedMountSize(), 1u);
  systems->includedSystemDel(s1.name());
  EXPECT_EQ(published(s1)->publishedMountSize(), 0u);
  registry->publishEntry("/local/a")->readyToPublishIs(false);
  EXPECT_EQ(published(s2)->publishedMountSize(), 0u);
  registry->publishEntry("/local/a")->readyToPublishIs(true);
  EXPECT_EQ(published(s2)->publishedMountSize(), 1u);
}

TEST_F(RegistryPublish, AMissingEntityIsLookedForEverySecondAndReadinessWaitsForIt) {
  Kiv::TraceCapture capture;
  mountsRegistrySmTrace.levelIs(1, true);
  auto& s1 = switchWith("00:00:00:00:00:01", "pub");
  start();
  publish("/local/late");
  registry->servicePublishReadyIs("pub", true);
  EXPECT_FALSE(dbPublish->servicePublishReady("pub"));  // the entry is not processed yet
  loop.advanceTo(2.5);
  EXPECT_EQ(sm->publishRegistryEntrySm("/local/late")->entityPresenceCheckTimeMin(), 3.0);
  EXPECT_EQ(capture.messages(1).size(), 4u);  // at creation, on readiness, at 1 s and at 2 s
  EXPECT_EQ(capture.messages(1).front(),
            "void Controller::PublishRegistryEntrySm::handleSwitchConnection(): Entity at /local/late doesn't exist.");

  root->subdirIs("local")->entryIs<Kiv::Dir>("late");
  loop.advanceTo(3.0);
  EXPECT_EQ(published(s1)->publishedMountSize(), 1u);
  EXPECT_TRUE(dbPublish->servicePublishReady("pub"));
  EXPECT_EQ(sm->publishRegistryEntrySm("/local/late")->entityPresenceCheckTimeMin(), Kiv::kInfinity);
  mountsRegistrySmTrace.levelsIs(0);
}

TEST_F(RegistryPublish, DirectoriesArePublishedPerSwitch) {
  auto dir = root->subdirIs("dirs")->subdirIs("d");
  auto& s1 = switchWith("00:00:00:00:00:01", "pub");
  start();
  auto entry = registry->publishEntryIs("/dirs/d", "/remote/d", "Kiv::Dir", true, "pub", nullptr, nullptr);
  entry->readyToPublishIs(true);
  EXPECT_TRUE(dir->entityPtr(s1.name()));
  EXPECT_EQ(published(s1)->publishedMount("/dirs/d/" + s1.name().stdString()).remotePath(), "/remote/d");
}

}  // namespace
}  // namespace Controller::testing
