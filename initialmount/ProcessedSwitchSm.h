#pragma once

#include <array>
#include <tuple>

#include "InitialMountTypes.h"
#include "MountInterface.h"
#include "kiv/Reactor.h"

namespace Controller {

// Records one switch in a mount group's ProcessedSwitchSet once the group's status on that switch
// says it has been processed. The entry stays when the flag goes back to false. Owned by
// SystemProcessedSm.
class GroupProcessedSm : public Kiv::PtrInterface {
 public:
  GroupProcessedSm(Kiv::Name const& systemName, Kiv::Name const& groupName,
                   Kiv::PtrConst<ServiceMountGroupStatus> const& serviceMountGroupStatus,
                   Kiv::Ptr<ProcessedSwitchSet> const& processedSwitchSet);
  ~GroupProcessedSm() override;

  Kiv::Name const& systemName() const { return systemName_; }
  Kiv::Name const& groupName() const { return groupName_; }
  Kiv::PtrConst<ServiceMountGroupStatus> const& serviceMountGroupStatus() const { return serviceMountGroupStatus_; }
  Kiv::Ptr<ProcessedSwitchSet> const& processedSwitchSet() const { return processedSwitchSet_; }
  bool initialized() const { return initialized_; }

  void handleProcessed();
  void handleInitialized();

 private:
  class KivServiceMountGroupStatus : public ServiceMountGroupStatus::NotifieeConst {
   public:
    KivServiceMountGroupStatus(Kiv::PtrConst<ServiceMountGroupStatus> const& s, GroupProcessedSm* owner)
        : NotifieeConst(s), owner_(owner) {}
    void onProcessed() override { owner_->handleProcessed(); }

   private:
    GroupProcessedSm* owner_;
  };

  Kiv::Name systemName_;
  Kiv::Name groupName_;
  Kiv::PtrConst<ServiceMountGroupStatus> serviceMountGroupStatus_;
  Kiv::Ptr<ProcessedSwitchSet> processedSwitchSet_;
  Kiv::Ptr<KivServiceMountGroupStatus> kivServiceMountGroupStatus_;
  bool initialized_ = false;
};

// Watches one switch's system status of a service for the status of one mount group and keeps a
// GroupProcessedSm on it; the statuses of other groups are ignored. Owned by
// MountGroupInitialMountSm, one per system status entry of the service.
class SystemProcessedSm : public Kiv::PtrInterface {
 public:
  SystemProcessedSm(Kiv::Name const& systemName, Kiv::Name const& groupName,
                    Kiv::PtrConst<SystemStatus> const& systemStatus,
                    Kiv::Ptr<ProcessedSwitchSet> const& processedSwitchSet);
  ~SystemProcessedSm() override;

  static constexpr std::array kivParamNames{"systemName", "groupName", "systemStatus", "processedSwitchSet"};
  auto kivParams() const { return std::tie(systemName_, groupName_, systemStatus_, processedSwitchSet_); }

  Kiv::Name const& systemName() const { return systemName_; }
  Kiv::Name const& groupName() const { return groupName_; }
  Kiv::PtrConst<SystemStatus> const& systemStatus() const { return systemStatus_; }
  Kiv::Ptr<ProcessedSwitchSet> const& processedSwitchSet() const { return processedSwitchSet_; }
  Kiv::Ptr<GroupProcessedSm> const& groupProcessedSm() const { return groupProcessedSm_; }
  bool initialized() const { return initialized_; }

  void handleServiceMountGroupStatus(Kiv::Name const& group);
  void handleServiceMountGroupStatus();
  void handleInitialized();
  void doCleanup();

 private:
  class KivSystemStatus : public SystemStatus::NotifieeConst {
   public:
    KivSystemStatus(Kiv::PtrConst<SystemStatus> const& s, SystemProcessedSm* owner) : NotifieeConst(s), owner_(owner) {}
    void onServiceMountGroupStatus(Kiv::Name const& group) override { owner_->handleServiceMountGroupStatus(group); }
    void onServiceMountGroupStatuskivImmediate() override { owner_->handleServiceMountGroupStatus(); }

   private:
    SystemProcessedSm* owner_;
  };

  Kiv::Name systemName_;
  Kiv::Name groupName_;
  Kiv::PtrConst<SystemStatus> systemStatus_;
  Kiv::Ptr<ProcessedSwitchSet> processedSwitchSet_;
  Kiv::Ptr<KivSystemStatus> kivSystemStatus_;
  Kiv::Ptr<GroupProcessedSm> groupProcessedSm_;
  bool initialized_ = false;
};

}  // namespace Controller
