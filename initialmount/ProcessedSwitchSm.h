#pragma once

#include "InitialMountTypesMachines.h"

namespace Controller {

// Records one switch in a mount group's ProcessedSwitchSet once the group's status on that switch
// says it has been processed. The entry stays when the flag goes back to false. Owned by
// SystemProcessedSm.
class GroupProcessedSm : public GroupProcessedSmBase {
 public:
  GroupProcessedSm(Kiv::Name const& systemName, Kiv::Name const& groupName,
                   Kiv::PtrConst<ServiceMountGroupStatus> const& serviceMountGroupStatus,
                   Kiv::Ptr<ProcessedSwitchSet> const& processedSwitchSet);
  ~GroupProcessedSm() override;

  bool initialized() const { return initialized_; }

  void handleProcessed();
  void handleInitialized();

 private:
  bool initialized_ = false;
};

// Watches one switch's system status of a service for the status of one mount group and keeps a
// GroupProcessedSm on it; the statuses of other groups are ignored. Owned by
// MountGroupInitialMountSm, one per system status entry of the service.
class SystemProcessedSm : public SystemProcessedSmBase {
 public:
  SystemProcessedSm(Kiv::Name const& systemName, Kiv::Name const& groupName,
                    Kiv::PtrConst<SystemStatus> const& systemStatus,
                    Kiv::Ptr<ProcessedSwitchSet> const& processedSwitchSet, MountGroupInitialMountSm* parent);
  ~SystemProcessedSm() override;

  Kiv::Ptr<GroupProcessedSm> const& groupProcessedSm() const { return groupProcessedSm_; }
  bool initialized() const { return initialized_; }

  void handleServiceMountGroupStatus(Kiv::Name const& group);
  void handleServiceMountGroupStatus();
  void handleInitialized();
  void doCleanup();

 private:
  Kiv::Ptr<GroupProcessedSm> groupProcessedSm_;
  bool initialized_ = false;
};

}  // namespace Controller
