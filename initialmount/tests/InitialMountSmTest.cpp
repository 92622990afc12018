#include "InitialMountFixture.h"

namespace Controller::testing {
namespace {

using ::testing::Contains;

constexpr char const* kHandlePeer = "void Controller::InitialMountSm::handlePeer(Controller::SystemId): ";

using ConnectionPeriodTest = InitialMountTest;
using ServiceInitialMountTest = InitialMountTest;

TEST_F(ConnectionPeriodTest, EndsThreeHeartbeatsAfterTheLastNewPeerAndReturningPeersDoNotMoveIt) {
  traceEvents();
  start();
  EXPECT_EQ(sm->connectionClockTimeMin(), Kiv::kInfinity);

  sw(1).connect();
  loop.advanceTo(5);
  sw(2).connect();
  loop.advanceTo(7);
  sw(1).flap(1);
  loop.advanceTo(10.999);
  EXPECT_FALSE(sm->connectionPeriod()->complete());
  loop.advanceTo(11);
  EXPECT_TRUE(sm->connectionPeriod()->complete());
  EXPECT_EQ(sm->initialSwitchSet()->initialSwitchSize(), 2u);
  EXPECT_EQ(capture.messages(5),
            (std::vector<std::string>{std::string(kHandlePeer) + ": reset timeMin to 6",
                                      std::string(kHandlePeer) + ": reset timeMin to 11",
                                      std::string(kHandlePeer) + ": already in initial switch set",
                                      "void Controller::InitialMountSm::handleConnectionTimeout(): initial switch set "
                                      "complete"}));

  // A late peer is recorded and moves the clock, but the period stays complete and its callback
  // says so only at level 8.
  capture.clear();
  loop.advanceTo(20);
  sw(3).connect();
  loop.advanceTo(30);
  EXPECT_EQ(sm->initialSwitchSet()->initialSwitchSize(), 3u);
  EXPECT_EQ(capture.messages(5), (std::vector<std::string>{std::string(kHandlePeer) + ": reset timeMin to 26"}));
  EXPECT_THAT(capture.messages(8), Contains("InitialMountSm::handleConnectionTimeout: timeMin=26 connection period "
                                            "complete=1"));
}

TEST_F(ConnectionPeriodTest, CountsPeersFromBeforeTheStartAndNeverEndsWithoutAny) {
  start();
  loop.advanceTo(1000);
  EXPECT_FALSE(sm->connectionPeriod()->complete());

  // Connected before the machine: its deadline runs from the start.
  sm = nullptr;
  sw(1).connect();
  start();
  EXPECT_EQ(sm->connectionClockTimeMin(), 1006);

  // Without a heartbeat configuration the interval is 0: the deadline is the moment of the peer.
  sm = new InitialMountSm(mountConfig, mountStatus, nullptr, oob, db);
  EXPECT_EQ(sm->heartbeatInterval(), 0);
  loop.advanceTo(1000);
  EXPECT_TRUE(sm->connectionPeriod()->complete());
}

TEST_F(ServiceInitialMountTest, AServiceHasAMachineWhileItHasConfigurationAndStatusOfTheRightTypes) {
  auto before = mountConfig->entryIs<ServiceMountConfig>("early");
  mountStatus->entryIs<ServiceMountStatus>("early");
  mountStatus->entryIs<ServiceMountStatus>("svc");
  mountConfig->entryIs<ServiceMountConfig>("odd");
  mountStatus->subdirIs("odd");
  start();
  EXPECT_NE(sm->serviceInitialMountSm("early"), nullptr);
  EXPECT_EQ(sm->serviceInitialMountSm("svc"), nullptr);
  EXPECT_EQ(sm->serviceInitialMountSm("odd"), nullptr);

  mountConfig->entryIs<ServiceMountConfig>("svc");
  EXPECT_NE(sm->serviceInitialMountSm("svc"), nullptr);
  mountStatus->entityPtrDel("svc");
  EXPECT_EQ(sm->serviceInitialMountSm("svc"), nullptr);
}

TEST_F(ServiceInitialMountTest, ARemovedGroupOrServiceTakesOnlyItsOwnCompletionWithIt) {
  auto config = service();
  start();
  sw(1).connect();
  groupStatusIs(1, mountStateMounted);
  groupStatusIs(1, mountStateMounted, true, "h");
  loop.advanceTo(7);
  EXPECT_TRUE(complete("g"));
  EXPECT_TRUE(complete("h"));
  config->mountGroupConfigDel("g");
  EXPECT_EQ(status()->initialMountsCompleteSize(), 1u);
  EXPECT_TRUE(complete("h"));
  mountConfig->entityPtrDel("svc");
  EXPECT_EQ(status()->initialMountsCompleteSize(), 0u);
}

}  // namespace
}  // namespace Controller::testing
