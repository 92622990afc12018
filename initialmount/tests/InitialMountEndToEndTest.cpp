#include <gtest/gtest.h>

#include "ControllerdbTypes.h"
#include "MountsRegistry.h"
#include "initialmount/InitialMountSm.h"
#include "kiv/Clock.h"
#include "kiv/AttrLog.h"
#include "platform/MountSm.h"
#include "platform/SimNetwork.h"
#include "registry/MountsRegistrySm.h"
#include "serviceconfig/ServiceConfigDirSm.h"

namespace Controller {
namespace {

// The three top-level machines as a host runs them, against simulated switches: a service
// declares one mount group, and the registry mounts it from every switch.
class InitialMountEndToEndTest : public ::testing::Test {
 protected:
  InitialMountEndToEndTest() {
    Kiv::globalNboAttrLogDemuxerManager()->clear();
    Kiv::NboAttrLog::ConnectionDir::instance()->clear();
    MountSm::localRootDirIs(root);
    oobConfig->heartbeatConfigIs(heartbeat);
    net.heartbeatIntervalIs(2);
    net.establish();
    db->leaderGenIdIs("gen1");
  }
  ~InitialMountEndToEndTest() override {
    initialMount = nullptr;
    registrySm = nullptr;
    serviceConfig = nullptr;
    MountSm::localRootDirIs(nullptr);
    Kiv::globalNboAttrLogDemuxerManager()->clear();
    Kiv::NboAttrLog::ConnectionDir::instance()->clear();
  }

  Sim::Switch& offering(char const* addr, Kiv::Seconds mountLatency) {
    Sim::Switch& s = net.switchIs(addr).mountLatencyIs(mountLatency).serviceVersionIs("svc", 1);
    s.entityIs("sys/a");
    return s;
  }
  void start() {
    serviceConfig = new ServiceConfigDirSm(db, mountConfig, mountStatus, root->subdirIs("publishConfig"),
                                           root->subdirIs("publishStatus"), root->subdirIs("proxyMountConfig"),
                                           root->subdirIs("proxyMountStatus"), dbPublish, registry);
    registrySm = new MountsRegistrySm(registry, oob, heartbeat, mountStatus, dbPublish);
    initialMount = new InitialMountSm(mountConfig, mountStatus, oobConfig, oob, db);
    auto config = mountConfig->entryIs<ServiceMountConfig>("svc");
    config->serviceNameIs("svc");
    config->leaderGenIdIs("gen1");
    config->mountGroupConfigIs("g")->mountConfigIs("/sys/a", "Sim::Record", "r", "");
    mountStatus->entryIs<ServiceMountStatus>("svc");
  }
  bool complete() {
    return Kiv::entityCast<ServiceMountStatus>(mountStatus->entityPtr("svc"))->initialMountsComplete("g");
  }

  Kiv::EventLoop loop;
  Kiv::Ptr<Kiv::Dir> root = Kiv::Dir::DirIs("root");
  Kiv::Ptr<Kiv::Dir> mountConfig = root->subdirIs("mountConfig");
  Kiv::Ptr<Kiv::Dir> mountStatus = root->subdirIs("mountStatus");
  Kiv::Ptr<Heartbeat::Config> heartbeat = Heartbeat::Config::ConfigIs("heartbeat");
  Kiv::Ptr<ControllerOob::Config> oobConfig = ControllerOob::Config::ConfigIs("oobConfig");
  Kiv::Ptr<ControllerOob::Status> oob = ControllerOob::Status::StatusIs("oob");
  Kiv::Ptr<Controllerdb::Status> db = Controllerdb::Status::StatusIs("controllerdb");
  Kiv::Ptr<Controllerdb::PublishStatus> dbPublish = Controllerdb::PublishStatus::PublishStatusIs("publish");
  // Retries and a timeout long enough that a slow mount is still in progress after the window.
  Kiv::Ptr<MountsRegistry> registry =
      MountsRegistry::MountsRegistryIs(root->subdirIs("mounts"), "mounts", root, "", 0, 1000.0);
  Sim::Network net{oob, heartbeat};
  Kiv::Ptr<ServiceConfigDirSm> serviceConfig;
  Kiv::Ptr<MountsRegistrySm> registrySm;
  Kiv::Ptr<InitialMountSm> initialMount;
};

TEST_F(InitialMountEndToEndTest, ASlowSwitchDelaysCompletionToTheEndOfTheMountWindowAndNoFurther) {
  offering("00:00:00:00:00:01", 1).connect();
  offering("00:00:00:00:00:02", 500).connect();
  start();
  loop.advanceTo(245.999);
  EXPECT_TRUE(initialMount->connectionPeriod()->complete());
  EXPECT_FALSE(complete());
  // The window ends at 246; the flush's round is applied half a second later, seen at the next poll.
  loop.advanceTo(247);
  EXPECT_TRUE(complete());
  auto slow = Kiv::entityCast<ServiceMountStatus>(mountStatus->entityPtr("svc"))->systemStatus("00:00:00:00:00:02");
  ASSERT_NE(slow, nullptr);
  EXPECT_EQ(slow->serviceMountGroupStatus("g")->mountState(), mountStateMounting);
}

TEST_F(InitialMountEndToEndTest, CompletionComesWhenThePeriodEndsAndTheLogsAreFlushed) {
  offering("00:00:00:00:00:01", 1).connect();
  start();
  loop.advanceTo(3);
  offering("00:00:00:00:00:02", 1).connect();  // moves the period's end to 3 + 3 x 2 s
  loop.advanceTo(8.999);
  EXPECT_FALSE(initialMount->connectionPeriod()->complete());
  loop.advanceTo(9);
  EXPECT_TRUE(initialMount->connectionPeriod()->complete());
  // Both switches are mounted by then: straight to the flush, whose round is applied after half a
  // second and seen at the poll one second after the period's end.
  EXPECT_FALSE(complete());
  loop.advanceTo(9.999);
  EXPECT_FALSE(complete());
  loop.advanceTo(10);
  EXPECT_TRUE(complete());
}

}  // namespace
}  // namespace Controller
