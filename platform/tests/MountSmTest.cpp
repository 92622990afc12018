#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "SimFixture.h"

namespace {

using namespace Controller;

// Every mountState change with the virtual time since the log began: "Mounting@0 Mounted@2".
class StateLog : public MountSmData::NotifieeConst {
 public:
  using NotifieeConst::NotifieeConst;
  void onMountState() override {
    std::ostringstream entry;
    entry << (text.empty() ? "" : " ") << valueToStrep(notifier()->mountState()).substr(10) << "@"
          << Kiv::System::currentTime() - since;
    text += entry.str();
  }
  Kiv::Seconds const since = Kiv::System::currentTime();
  std::string text;
};

class MountSmTest : public SimFixture {
 protected:
  MountSmTest() {
    MountSm::localRootDirIs(local);
    sw.mountLatencyIs(2).unmountLatencyIs(3);
    sw.entityIs("state/ports/eth1")->attrIs("speed", "100G");
    sw.entityIs("state/ports/lag/po1");
    sw.connect();
  }
  // Every machine is ended by its owner; here the fixture is the owner.
  ~MountSmTest() override {
    for (auto const& m : machines) m->doCleanup();
  }

  // A fresh data entity and machine mounting the switch's "state/ports" at "mounts/s1".
  Kiv::Ptr<MountSm> mount(std::uint32_t retries = 2, Kiv::Seconds timeout = 5) {
    data = MountSmData::MountSmDataIs("data", sw.systemId(), "ports");
    log = new StateLog(data);
    auto config = ConnectionConfig::ConnectionConfigIs("config");
    config->addressIs(sw.address());
    machines.push_back(MountSm::MountSmIs(sw.systemId(), config, heartbeat, "state", "/ports", "mounts/s1", "s1",
                                          retries, timeout, data));
    return machines.back();
  }
  Kiv::Ptr<Sim::Record> copied(char const* member) {
    return Kiv::entityCast<Sim::Record>(local->entityAtPath(std::string("mounts/s1/ports/") + member));
  }

  Sim::Switch& sw = net.switchIs("00:00:00:00:00:01");
  Kiv::Ptr<MountSmData> data;
  Kiv::Ptr<StateLog> log;
  std::vector<Kiv::Ptr<MountSm>> machines;
};

TEST_F(MountSmTest, MountsAReadOnlyCopyAfterTheLatency) {
  auto sm = mount();
  loop.advanceTo(10);
  EXPECT_EQ(log->text, "Mounting@0 Mounted@2");
  EXPECT_EQ(data->mountedPath(), "mounts/s1/ports");

  ASSERT_NE(copied("lag/po1"), nullptr);
  EXPECT_EQ(copied("eth1")->attr("speed"), "100G");
  EXPECT_TRUE(copied("lag/po1")->kivReadOnly());  // each level is made read-only on the way down
}

TEST_F(MountSmTest, GivesUpAfterTheRetriesEachTakingTheTimeout) {
  // Each way an attempt can fail costs the full timeout, three attempts in all.
  std::vector<std::pair<char const*, std::function<void()>>> faults = {
      {"failing", [&] { sw.failingIs(true); }},
      {"slower than the timeout", [&] { sw.failingIs(false).mountLatencyIs(6); }},
  };
  for (auto& [fault, apply] : faults) {
    SCOPED_TRACE(fault);
    apply();
    auto sm = mount(2, 5);
    loop.advanceBy(20);
    EXPECT_EQ(log->text, "Mounting@0 Failed@15");
  }
}

TEST_F(MountSmTest, RetriesReachASwitchThatComesBackAndNotOneThatLeftMidAttempt) {
  sw.disconnect();
  auto sm = mount(2, 5);
  loop.advanceTo(7);
  sw.connect();  // during the second attempt, which had already given up on it
  loop.advanceTo(20);
  EXPECT_EQ(log->text, "Mounting@0 Mounted@12");

  sm = mount(0, 5);
  loop.advanceTo(21);
  sw.flap(0.5);  // back before the latency is over, but the attempt in flight is lost
  loop.advanceTo(40);
  EXPECT_EQ(log->text, "Mounting@0 Failed@5");
}

TEST_F(MountSmTest, UnmountsAreRequestsActedOnAtTheNextTurnAndOnlyTheOrdinaryOneDropsTheCopy) {
  for (bool preserving : {false, true}) {
    SCOPED_TRACE(preserving);
    auto sm = mount();
    loop.advanceBy(2);
    preserving ? sm->doStatePreservingUnmount() : sm->doUnmount();
    EXPECT_TRUE(sm->pendingRequest());
    EXPECT_EQ(data->mountState(), mountStateMounted);
    loop.advanceBy(8);
    EXPECT_EQ(log->text, "Mounting@0 Mounted@2 Unmounting@2 Unmounted@5");
    EXPECT_EQ(data->mountedPath(), preserving ? "mounts/s1/ports" : "");
    EXPECT_EQ(copied("eth1") != nullptr, preserving);
    sm->doCleanup();
  }

  // The next machine for the switch, as after a reconnect, replaces the kept copy.
  sw.entityIs("state/ports/eth1")->attrIs("speed", "400G");
  mount();
  loop.advanceBy(10);
  EXPECT_EQ(copied("eth1")->attr("speed"), "400G");
}

TEST_F(MountSmTest, RemountCancelsAPendingUnmountAndReachesOnlyTheConfiguredAddress) {
  // A remount while unmounting is the registry's switch-back-before-its-unmount-ends case.
  auto sm = mount();
  loop.advanceTo(2);
  sm->doUnmount();
  sm->doRemount();
  loop.advanceTo(10);
  EXPECT_EQ(log->text, "Mounting@0 Mounted@2 Mounting@2 Mounted@4");

  // After a reconnect at a new address only the new configuration reaches the switch.
  sw.disconnect();
  sw.addressIs(Ovel::IpAndPort("10.0.0.9:6042")).connect();
  sm->doRemount();
  loop.advanceTo(40);
  EXPECT_EQ(data->mountState(), mountStateFailed);
  sm->connectionConfigIs(net.peerTable()->peer(sw.systemId())->connectionConfig());
  sm->doRemount();
  loop.advanceTo(50);
  EXPECT_EQ(data->mountState(), mountStateMounted);

  // Mid-attempt, a remount on the same configuration lets an attempt that reached the switch end;
  // one on another configuration, or after an attempt that can only time out, starts over.
  for (char const* c : {"same", "fresh", "doomed"}) {
    std::string const why = c;
    sw.failingIs(why == "doomed");
    auto m = mount();
    loop.advanceBy(1);
    sw.failingIs(false);
    auto config = ConnectionConfig::ConnectionConfigIs("config");
    config->addressIs(sw.address());
    if (why == "fresh") m->connectionConfigIs(config);
    m->doRemount();
    loop.advanceBy(5);
    EXPECT_EQ(log->text, why == "same" ? "Mounting@0 Mounted@2" : "Mounting@0 Mounted@3") << why;
  }
}

TEST_F(MountSmTest, CleanupEndsEveryRequestAndTakesTheCopyAlongUnlessAskedToPreserveIt) {
  // Mounting, mounted, or with an ordinary unmount still pending: the copy goes with the machine,
  // and nothing asked of the machine after it does anything.
  for (auto [after, unmountFirst, states] : std::vector<std::tuple<Kiv::Seconds, bool, std::string>>{
           {1, true, "Mounting@0"}, {5, false, "Mounting@0 Mounted@2"}, {5, true, "Mounting@0 Mounted@2"}}) {
    SCOPED_TRACE(states + (unmountFirst ? ", unmounting" : ""));
    auto sm = mount();
    loop.advanceBy(after);
    if (unmountFirst) sm->doUnmount();
    sm->doCleanup();
    EXPECT_FALSE(sm->pendingRequest());
    sm->doRemount();
    loop.advanceBy(50);
    EXPECT_EQ(log->text, states);
    EXPECT_EQ(local->entityAtPath("mounts/s1/ports"), nullptr);
    EXPECT_EQ(data->mountedPath(), "");
    EXPECT_EQ(loop.pendingTimerCount(), 0u);
  }
  // A state-preserving unmount keeps it (the registry's tests check that); a remount since makes
  // it ordinary again.
  auto sm = mount();
  loop.advanceBy(5);
  sm->doStatePreservingUnmount();
  loop.runUntilIdle();
  sm->doRemount();
  loop.advanceBy(5);
  sm->doCleanup();
  EXPECT_EQ(copied("eth1"), nullptr);
}

}  // namespace
