#pragma once

#include "InitialMountTypesMachines.h"
#include "initialmount/MountGroupInitialMountSm.h"

namespace Controller {

// One service in initial mount tracking: one MountGroupInitialMountSm per configured mount group,
// but only while the service's configuration belongs to the controller database's current leader
// generation; a leader change discards every group's progress until the configuration catches up.
// Owned by InitialMountSm, which runs doCleanup() before deleting it. It writes nothing itself:
// its group machines write, and withdraw, their own completion flags.
class ServiceInitialMountSm : public ServiceInitialMountSmBase {
 public:
  ServiceInitialMountSm(Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig,
                        Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                        Kiv::PtrConst<ConnectionPeriod> const& connectionPeriod,
                        Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                        Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus, InitialMountSm* parent);
  ~ServiceInitialMountSm() override;

  bool initialized() const { return initialized_; }

  // Whether the configuration was written under the controller database's current leader.
  bool canHandleMountGroup() const;
  void handleLeaderGenId();
  void handleMountGroupConfig(Kiv::Name const& group);
  void handleMountGroupConfig();
  void handleInitialized();
  // Withdraws every group machine, and with it the group's completion flag.
  void doCleanup();

 private:
  void withdrawMountGroups();

  bool initialized_ = false;
};

}  // namespace Controller
