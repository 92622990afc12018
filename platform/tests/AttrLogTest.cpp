#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "kiv/Clock.h"
#include "platform/AttrLog.h"

namespace {

using namespace Kiv::NboAttrLog;
using ::testing::ElementsAre;
using ::testing::Pair;
using Rounds = std::vector<std::pair<std::uint64_t, Kiv::Seconds>>;

// The applied rounds with the virtual time each was reported.
class RoundLog : public Kiv::MountTable::NotifieeConst {
 public:
  using NotifieeConst::NotifieeConst;
  void onRound() override { rounds.push_back({notifier()->round(), Kiv::System::currentTime()}); }
  Rounds rounds;
};

// Forgets what an earlier test left in the process-wide singletons. A base, so that it runs before
// any member is built (GCC 12 with the sanitizers at -O2 ran a lambda member initializer doing this
// after the later members).
struct FreshAttrLog {
  FreshAttrLog() {
    Kiv::globalNboAttrLogDemuxerManager()->clear();
    Kiv::NboAttrLog::ConnectionDir::instance()->clear();
  }
};

class AttrLogTest : public ::testing::Test, FreshAttrLog {
 protected:
  ~AttrLogTest() override {
    manager->clear();
    Kiv::NboAttrLog::ConnectionDir::instance()->clear();
  }
  void request(std::uint64_t round) { demuxer->mountTable(Demuxer::kRequestTable)->nextRoundIs(round); }

  Kiv::EventLoop loop;
  Kiv::Ptr<DemuxerManager> manager = Kiv::globalNboAttrLogDemuxerManager();
  Kiv::Ptr<Demuxer> demuxer = manager->demuxerIs("s1");
  Kiv::Ptr<RoundLog> applied{new RoundLog(demuxer->mountTable(Demuxer::kAppliedTable))};
};

TEST_F(AttrLogTest, ARoundCompletesAfterTheLatencyWhileConnected) {
  EXPECT_EQ(manager->demuxerIs("s1"), demuxer);
  EXPECT_EQ(demuxer->mountTable(2), nullptr);
  EXPECT_EQ(demuxer->syncLatency(), 0.5);
  demuxer->connectStatusIs(connectStatusConnected);
  request(1);
  loop.advanceTo(0.49);
  EXPECT_TRUE(applied->rounds.empty());
  loop.advanceTo(1);
  request(2);
  loop.advanceTo(1.2);
  request(3);
  loop.advanceTo(5);
  EXPECT_THAT(applied->rounds, ElementsAre(Pair(1, 0.5), Pair(2, 1.5), Pair(3, 1.7)));
  EXPECT_EQ(demuxer->mountTable(Demuxer::kRequestTable)->round(), 0u);  // the client's to keep
}

TEST_F(AttrLogTest, NothingCompletesWhileDisconnectedOrStalledButItCatchesUpAfter) {
  demuxer->syncLatencyIs(1);
  demuxer->connectStatusIs(connectStatusConnected);
  request(1);
  loop.advanceTo(0.5);
  demuxer->connectStatusIs(connectStatusDisconnected);
  request(2);
  loop.advanceTo(10);
  EXPECT_TRUE(applied->rounds.empty());
  demuxer->connectStatusIs(connectStatusConnected);
  loop.advanceTo(20);
  EXPECT_THAT(applied->rounds, ElementsAre(Pair(2, 11)));

  demuxer->stalledIs(true);
  request(3);
  loop.advanceTo(100);
  EXPECT_THAT(applied->rounds, ElementsAre(Pair(2, 11)));
  demuxer->stalledIs(false);
  loop.advanceTo(200);
  EXPECT_THAT(applied->rounds, ElementsAre(Pair(2, 11), Pair(3, 101)));
  EXPECT_EQ(loop.pendingTimerCount(), 0u);
}

TEST_F(AttrLogTest, ManagerAndConnectionDirectory) {
  demuxer->connectStatusIs(connectStatusConnected);
  request(1);
  manager->demuxerDel("s1");
  EXPECT_EQ(manager->demuxer("s1"), nullptr);
  EXPECT_EQ(demuxer->connectStatus(), connectStatusDisconnected);  // what a holder is left with
  loop.advanceTo(5);
  EXPECT_TRUE(applied->rounds.empty());

  auto connections = ConnectionDir::instance();
  connections->connectionIs("s2", true);
  connections->connectionIs("s1", true);
  connections->connectionIs("active", false);
  EXPECT_THAT(connections->passiveConnectionNames(), ElementsAre("s1", "s2"));
  connections->connectionIs("s2", false);
  EXPECT_THAT(connections->passiveConnectionNames(), ElementsAre("s1"));
  EXPECT_THAT(connections->connectionNames(), ElementsAre("active", "s1", "s2"));
  connections->clear();
  EXPECT_EQ(connections->connections(), 0u);
}

}  // namespace
