#pragma once

#include "InitialMountTypesMachines.h"
#include "initialmount/ProcessedSwitchSm.h"

namespace Controller {

// The mount states after which a switch's mount of a group is no longer waited for: failed (3)
// and mounted (4). Compared by number, as the mount machinery defines them.
bool isFinishedMountState(MountState state);

// Decides when the initial mounts of one mount group of one service are complete, and then sets
// the group's initialMountsComplete entry in the service's status. Four stages: when the
// connection period ends, the peers then present become the group's initial switch set; once as
// many switches have processed the group, the initial switches whose mount is not finished become
// remaining switches, given up on 240 s later at the latest; with none left, every local passive
// attribute-log connection is asked for one more round, and the flag is written once all have
// applied it or 120 one-second polls have passed. Owned by ServiceInitialMountSm, which runs
// doCleanup() (withdrawing the flag) before deleting it.
class MountGroupInitialMountSm : public MountGroupInitialMountSmBase {
 public:
  static constexpr Kiv::Seconds attrlogFlushTimeout = 120;
  static constexpr Kiv::Seconds mountWindow = 240;

  MountGroupInitialMountSm(Kiv::Name const& groupName, Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                           Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                           Kiv::PtrConst<ConnectionPeriod> const& connectionPeriod, ServiceInitialMountSm* parent);
  ~MountGroupInitialMountSm() override;

  Kiv::PtrConst<PeerTable> peerTable() const;
  Kiv::String serviceName() const;
  Kiv::PtrConst<InitialSwitchSet> mountGroupInitialSwitchSet() const { return mountGroupInitialSwitchSet_; }
  bool localInitialMountsComplete() const { return localInitialMountsComplete_; }
  // Calls handleInitialMountsComplete() when the value changes.
  void localInitialMountsCompleteIs(bool complete);
  Kiv::Seconds attrlogFlushWaitPeriod() const { return attrlogFlushWaitPeriod_; }
  Kiv::Seconds attrlogFlushRemainingTime() const { return attrlogFlushRemainingTime_; }
  void attrlogFlushRemainingTimeIs(Kiv::Seconds t) { attrlogFlushRemainingTime_ = t; }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleSystemStatus(Kiv::Name const& systemName);
  void handleSystemStatus();
  void handleConnectionPeriodComplete();
  void handleProcessed(Kiv::Name const& systemName);
  void handleProcessed();
  void doPopulateRemainingSwitch();
  void handleMountTimeout();
  void checkSwitchMountsPending();
  void handleInitialMountsComplete();
  void flushLocalPassiveEntityLogs();
  bool isLocalPassiveCurrentRoundSyncComplete() const;
  void handleAttrlogFlushTimer();
  // Withdraws the group's completion flag and stops both clocks.
  void doCleanup();

 private:
  friend class RemainingSwitchSm;
  // By value: the call may delete the remaining switch whose names were handed in.
  void handleMountState(Kiv::Name systemName, Kiv::Name groupName);
  void handleMountState();

  Kiv::Ptr<InitialSwitchSet> mountGroupInitialSwitchSet_;
  bool localInitialMountsComplete_ = false;
  Kiv::Seconds attrlogFlushWaitPeriod_ = 1.0;
  Kiv::Seconds attrlogFlushRemainingTime_ = 0.0;
  Kiv::Ptr<ProcessedSwitchSet> processedSwitchSetInternal_;
  bool initialized_ = false;
};

// Watches one remaining switch of a mount group: its system status and, per group status, the
// mount state; every change goes to the group's handleMountState(). A status that appears, or is
// replaced, may already be finished, so it goes there at once. The group may strike the switch
// off from there, so each handler keeps this machine alive until it returns.
class RemainingSwitchSm : public RemainingSwitchSmBase {
 public:
  RemainingSwitchSm(Kiv::PtrConst<SystemStatus> const& systemStatus, MountGroupInitialMountSm* parent);
  ~RemainingSwitchSm() override;

  void handleServiceMountGroupStatus(Kiv::Name const& group);
  void handleServiceMountGroupStatus();
  void handleMountState(Kiv::Name const& group);
  // Nothing to withdraw: it only watches.
  void doCleanup() {}

 private:
  // Brings the watcher of one group status in line with the collection.
  void follow(Kiv::Name const& group);
};

}  // namespace Controller
