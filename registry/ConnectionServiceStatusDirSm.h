#pragma once

#include "MountsRegistryMachines.h"

namespace Controller {

// Follows one connection's service status directory, so that a change of a service's version
// situation re-evaluates the switch in every registry entry, and the switch's publish status
// records that the service's published paths were processed. One per connected peer, owned by
// MountsRegistrySm, which reads serviceStatus() to answer version queries.
class ConnectionServiceStatusDirSm : public ConnectionServiceStatusDirSmBase {
 public:
  ConnectionServiceStatusDirSm(Kiv::Name const& name, Kiv::PtrConst<ServiceStatusDir> const& controllerServiceStatusDir,
                               MountsRegistrySm* mountsRegistrySm);
  ~ConnectionServiceStatusDirSm() override;

  bool initialized() const { return initialized_; }
  // Set by doCleanup().
  bool goingAway() const { return goingAway_; }

  // Follows the service's status. Unlike the generated mutator it hides, another status replaces
  // the machine rather than being refused (a replaced status is a new one to follow), and a new
  // machine starts once it is in the collection, where the version queries its handlers cause
  // look for it.
  Kiv::Ptr<ServiceStatusSm> serviceStatusIs(Kiv::Name const& service, Kiv::PtrConst<ServiceStatusV1> const& status);
  void handleService(Kiv::Name const& service);
  // Follows the services already in the directory. The owner runs it once the machine is in its
  // collection, where version queries that the services' handlers cause look for it.
  void handleInitialized();
  void doCleanup();

 private:
  bool initialized_ = false;
  bool goingAway_ = false;
};

// Watches one service of a connection's directory. Owned by ConnectionServiceStatusDirSm, keyed
// by the service's name.
class ServiceStatusSm : public ServiceStatusSmBase {
 public:
  ServiceStatusSm(Kiv::Name const& name, Kiv::PtrConst<ServiceStatusV1> const& serviceStatus,
                  ConnectionServiceStatusDirSm* connectionSm);
  ~ServiceStatusSm() override;

  // Set by doCleanup(): the service is leaving and offers no version any more.
  bool goingAway() const { return goingAway_; }

  void handleEnabled();
  // The status took another version status, or none.
  void handleServiceVersionStatus();
  void handleVersionStatus();
  void handleInitialized();
  void doCleanup();

 private:
  bool goingAway_ = false;
};

}  // namespace Controller
