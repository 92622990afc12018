#include "host/Wiring.h"

#include "kiv/AttrLog.h"
#include "platform/MountSm.h"

namespace Host {

namespace {

// The attribute-log registries are process-wide: a world starts without what an earlier one left.
void clearAttrLog() {
  Kiv::globalNboAttrLogDemuxerManager()->clear();
  Kiv::NboAttrLog::ConnectionDir::instance()->clear();
}

}  // namespace

Wiring::Wiring(WiringOptions const& o)
    : options(o),
      loop(o.mode),
      registry(Controller::MountsRegistry::MountsRegistryIs(root->subdirIs("mounts"), "mounts", root, "", o.retries,
                                                            o.timeout)) {
  if (o.network) {
    clearAttrLog();
    Controller::MountSm::localRootDirIs(root);
    net = std::make_unique<Sim::Network>(oob, heartbeat);
  }
  oobConfig->heartbeatConfigIs(heartbeat);
  if (o.heartbeat) heartbeat->heartbeatIntervalIs(*o.heartbeat);
  if (net && o.establish) net->establish();
  db->leaderGenIdIs(o.leader);
}

Wiring::~Wiring() {
  initialMount = nullptr;
  registrySm = nullptr;
  serviceConfig = nullptr;
  if (!net) return;
  net.reset();
  Controller::MountSm::localRootDirIs(nullptr);
  if (options.clearAttrLogAtEnd) clearAttrLog();
}

void Wiring::start() {
  if (options.serviceConfig)
    serviceConfig = new Controller::ServiceConfigDirSm(db, mountConfig, mountStatus, publishConfig, publishStatus,
                                                       proxyMountConfig, proxyMountStatus, dbPublish, registry);
  if (options.registrySm)
    registrySm = new Controller::MountsRegistrySm(registry, oob, heartbeat, mountStatus, dbPublish);
  if (options.initialMount)
    initialMount = new Controller::InitialMountSm(mountConfig, mountStatus, oobConfig, oob, db);
}

}  // namespace Host
