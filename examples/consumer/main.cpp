// The three top-level machines over their directories and entities, without switches, run for a
// few seconds of virtual time.
#include <iostream>

#include "ControllerdbTypes.h"
#include "HeartbeatConfig.h"
#include "MountsRegistry.h"
#include "OobTypes.h"
#include "initialmount/InitialMountSm.h"
#include "kiv/Clock.h"
#include "registry/MountsRegistrySm.h"
#include "serviceconfig/ServiceConfigDirSm.h"

int main() {
  // First: the machines take their timers from the current loop and assert that there is one.
  // Declared first, it also goes last.
  Kiv::EventLoop loop(Kiv::EventLoop::Mode::virtualTime);

  auto root = Kiv::Dir::DirIs("root");
  auto mountConfig = root->subdirIs("mountConfig");
  auto mountStatus = root->subdirIs("mountStatus");
  auto publishConfig = root->subdirIs("publishConfig");
  auto publishStatus = root->subdirIs("publishStatus");
  auto proxyMountConfig = root->subdirIs("proxyMountConfig");
  auto proxyMountStatus = root->subdirIs("proxyMountStatus");
  auto heartbeat = Controller::Heartbeat::Config::ConfigIs("heartbeat");
  auto oobConfig = ControllerOob::Config::ConfigIs("oobConfig");
  auto oob = ControllerOob::Status::StatusIs("oob");
  auto db = Controllerdb::Status::StatusIs("controllerdb");
  auto dbPublish = Controllerdb::PublishStatus::PublishStatusIs("publish");
  auto registry = Controller::MountsRegistry::MountsRegistryIs(root->subdirIs("mounts"), "mounts", root, "", 3, 10);
  heartbeat->heartbeatIntervalIs(2);
  oobConfig->heartbeatConfigIs(heartbeat);
  db->leaderGenIdIs("gen1");

  // Then the machines, in the host's order, over what is already configured.
  Kiv::Ptr<Controller::ServiceConfigDirSm> serviceConfig = new Controller::ServiceConfigDirSm(
      db, mountConfig, mountStatus, publishConfig, publishStatus, proxyMountConfig, proxyMountStatus, dbPublish,
      registry);
  Kiv::Ptr<Controller::MountsRegistrySm> registrySm =
      new Controller::MountsRegistrySm(registry, oob, heartbeat, mountStatus, dbPublish);
  Kiv::Ptr<Controller::InitialMountSm> initialMount =
      new Controller::InitialMountSm(mountConfig, mountStatus, oobConfig, oob, db);

  loop.advanceBy(10);
  bool const ok = serviceConfig && registrySm->initialized() && initialMount->initialized();
  std::cout << "consumer: service configuration, registry and initial mount machines ran to t=" << loop.now()
            << " s\n";

  // Machines before what they watch, as the host tears down.
  initialMount = nullptr;
  registrySm = nullptr;
  serviceConfig = nullptr;
  return ok ? 0 : 1;
}
