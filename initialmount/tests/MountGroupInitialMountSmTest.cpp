#include "InitialMountFixture.h"

namespace Controller::testing {
namespace {

using Kiv::NboAttrLog::Demuxer;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr char const* kGroupSm = "void Controller::MountGroupInitialMountSm::";

class MountGroupInitialMountTest : public InitialMountTest {
 protected:
  // Starts with one service and the first `n` switches connected at t = 0: the period ends at 6.
  void startWith(int n) {
    service();
    start();
    traceEvents();
    for (int i = 1; i <= n; ++i) sw(i).connect();
    loop.runUntilIdle();  // the attribute logs' hellos
  }
  std::uint64_t requested(int n) { return sw(n).demuxer()->mountTable(Demuxer::kRequestTable)->nextRound(); }
  Kiv::Ptr<ServiceMountGroupStatus> groupStatus(int n, char const* g = "g") {
    return status()->systemStatus(name(n))->serviceMountGroupStatus(g);
  }
};

TEST_F(MountGroupInitialMountTest, FinishedInitialSwitchesGoStraightToFlushingWithoutAMountWindow) {
  startWith(3);
  groupStatusIs(1, mountStateMounted);
  groupStatusIs(2, mountStateFailed);
  groupStatusIs(3, mountStateMounted);
  loop.advanceTo(6);
  EXPECT_THAT(capture.messages(5), Not(Contains(HasSubstr("Adding remaining switch"))));
  EXPECT_THAT(capture.messages(5), Contains("flushLocalPassiveEntityLogs: Flushing Demuxer:00:00:00:00:00:02"));
  EXPECT_EQ(requested(1) + requested(2) + requested(3), 3u);
  // The demuxers apply the round at 6.5; the next poll sees it.
  completesAt(7);
  EXPECT_FALSE(complete("h"));
  EXPECT_THAT(capture.messages(8),
              Contains("MountGroupInitialMountSm::handleAttrlogFlushTimer Attrlog flush completed for svc:g"));
}

TEST_F(MountGroupInitialMountTest, AnUnfinishedSwitchIsGivenUpExactly240sAfterTheRemainingSwitchesArePopulated) {
  startWith(2);
  loop.advanceTo(6);
  groupStatusIs(1, mountStateMounted);
  groupStatusIs(2, mountStateMounting, false);
  loop.advanceTo(10);
  groupStatus(2)->processedIs(true);
  EXPECT_THAT(capture.messages(5),
              Contains(std::string(kGroupSm) + "doPopulateRemainingSwitch(): Adding remaining switch: 00:00:00:00:00:02"));
  // Neither an unfinished state nor another group's mount strikes it off.
  groupStatus(2)->mountStateIs(mountStateUnmounting);
  groupStatusIs(2, mountStateMounted, true, "h");
  loop.advanceTo(249.999);
  EXPECT_EQ(group()->remainingSwitchSize(), 1u);

  loop.advanceTo(250);
  EXPECT_TRUE(group()->localInitialMountsComplete());
  EXPECT_THAT(capture.messages(5), Contains(std::string(kGroupSm) + "handleMountTimeout(): "));
  // A switch processed during the flush populates the remaining switches again, but the flush
  // under way completes all the same.
  loop.advanceTo(250.2);
  sw(3).connect();
  groupStatusIs(3, mountStateMounted);
  loop.advanceTo(251);
  EXPECT_TRUE(complete());
}

// A remaining switch is struck off from its own callbacks: a finished state ends the window early.
TEST_F(MountGroupInitialMountTest, ARemainingSwitchFollowsAReplacedGroupStatusAndAFinishedOneEndsTheWindowEarly) {
  startWith(2);
  groupStatusIs(1, mountStateMounting);
  groupStatusIs(2, mountStateMounting);
  loop.advanceTo(6);
  ASSERT_EQ(group()->remainingSwitchSize(), 2u);
  EXPECT_EQ(group()->mountClockTimeMin(), 246);

  // A status taken away is no longer followed; its replacement is, from when it appears.
  auto gone = groupStatus(1);
  status()->systemStatus(name(1))->serviceMountGroupStatusDel("g");
  gone->mountStateIs(mountStateMounted);
  EXPECT_NE(group()->remainingSwitch(name(1)), nullptr);
  groupStatusIs(1, mountStateMounted);
  EXPECT_EQ(group()->remainingSwitch(name(1)), nullptr);

  loop.advanceTo(20);
  groupStatus(2)->mountStateIs(mountStateFailed);
  EXPECT_THAT(capture.messages(5), Contains(std::string(kGroupSm) +
                                            "handleMountState(Kiv::Name, Kiv::Name): : deleting remaining switch "
                                            "00:00:00:00:00:02"));
  completesAt(21);
}

TEST_F(MountGroupInitialMountTest, AConnectedDemuxerThatNeverCatchesUpTimesTheFlushOutAfter120Polls) {
  startWith(2);
  groupStatusIs(1, mountStateMounted);
  groupStatusIs(2, mountStateMounted);
  sw(1).attrLogStream()->stalledIs(true);
  completesAt(126);
  EXPECT_THAT(capture.messages(8),
              Contains("MountGroupInitialMountSm::handleAttrlogFlushTimer Attrlog flush timed out for svc:g"));
  EXPECT_THAT(capture.messages(5), Contains("isLocalPassiveCurrentRoundSyncComplete: Demuxer:00:00:00:00:00:01 "
                                            "connectStatus:1 round:0 nextRound:1"));
}

TEST_F(MountGroupInitialMountTest, WithoutConnectedPassiveDemuxersCompletionIsWrittenWhenThePeriodEnds) {
  startWith(1);
  loop.advanceTo(3);
  // Gone before the period ends: not waited for.
  sw(1).disconnect();
  auto connections = Kiv::NboAttrLog::ConnectionDir::instance();
  auto manager = Kiv::globalNboAttrLogDemuxerManager();
  connections->connectionIs("ghost", true);
  connections->connectionIs("idle", true);
  manager->demuxerIs("idle");
  connections->connectionIs("active", false);
  auto active = manager->demuxerIs("active", false);
  auto far = Kiv::NboAttrLog::Demuxer::DemuxerIs("far", true);
  auto stream = Kiv::NboAttrLog::InProcessStream::InProcessStreamIs(active, far);
  loop.runUntilIdle();
  ASSERT_EQ(active->connectStatus(), Kiv::NboAttrLog::connectStatusConnected);
  stream->stalledIs(true);
  completesAt(6);
  EXPECT_EQ(active->mountTable(Demuxer::kRequestTable)->nextRound(), 0u);
  // Passive ones are asked all the same, once for each of the two groups.
  EXPECT_EQ(manager->demuxer("idle")->mountTable(Demuxer::kRequestTable)->nextRound(), 2u);
  EXPECT_TRUE(complete("h"));
  EXPECT_THAT(capture.messages(5), Contains("isLocalPassiveCurrentRoundSyncComplete: No Demuxer for:ghost"));
}

TEST_F(MountGroupInitialMountTest, AnInitialSwitchThatLostItsSystemStatusIsSkippedWithAProblemTrace) {
  startWith(2);
  initialMountSmTrace.levelsIs((1u << 1) | (1u << 5));
  groupStatusIs(1, mountStateMounting);
  loop.advanceTo(6);
  // Counts, not membership: another switch's processed status completes the count for switch 2,
  // which has no system status at all (it left after the connection period).
  groupStatusIs(9, mountStateMounted);
  EXPECT_THAT(capture.messages(1), Contains(std::string(kGroupSm) +
                                            "doPopulateRemainingSwitch(): Initial switch 00:00:00:00:00:02 has no "
                                            "system status; group g does not wait for it"));
  // Only switch 1, which has one, is waited for.
  EXPECT_EQ(group()->remainingSwitchSize(), 1u);
  groupStatusIs(1, mountStateMounted);
  loop.advanceTo(7);
  EXPECT_TRUE(complete());
}

}  // namespace
}  // namespace Controller::testing
