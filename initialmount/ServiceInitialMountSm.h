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
  Kiv::Ptr<MountGroupInitialMountSm> mountGroupInitialMountSm(Kiv::Name const& group) const {
    return mountGroupInitialMountSm_.get(group);
  }
  std::size_t mountGroupInitialMountSms() const { return mountGroupInitialMountSm_.size(); }

  // Whether the configuration was written under the controller database's current leader.
  bool canHandleMountGroup() const;
  void handleLeaderGenId();
  void handleMountGroupConfig(Kiv::Name const& group);
  void handleMountGroupConfig();
  void handleInitialized();
  void doCleanup();

  Kiv::Ptr<MountGroupInitialMountSm> mountGroupInitialMountSmIs(
      Kiv::Name const& groupName, Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
      Kiv::PtrConst<ControllerOob::Status> const& oobStatus, Kiv::PtrConst<ConnectionPeriod> const& connectionPeriod);
  // Each runs the machine's doCleanup() first, which withdraws the group's completion flag.
  void mountGroupInitialMountSmDel(Kiv::Name const& group);
  void mountGroupInitialMountSmDelAll();

 private:
  Kiv::ChildMap<Kiv::Name, MountGroupInitialMountSm> mountGroupInitialMountSm_;
  bool initialized_ = false;
};

}  // namespace Controller
