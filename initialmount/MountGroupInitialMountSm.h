#pragma once

#include <array>
#include <tuple>

#include "InitialMountTypes.h"
#include "MountInterface.h"
#include "OobTypes.h"
#include "SwitchTypes.h"
#include "initialmount/ProcessedSwitchSm.h"
#include "kiv/Clock.h"
#include "kiv/HashMap.h"
#include "kiv/Reactor.h"

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
class MountGroupInitialMountSm : public Kiv::PtrInterface {
 public:
  static constexpr Kiv::Seconds attrlogFlushTimeout = 120;
  static constexpr Kiv::Seconds mountWindow = 240;

  MountGroupInitialMountSm(Kiv::Name const& groupName, Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                           Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                           Kiv::PtrConst<ConnectionPeriod> const& connectionPeriod);
  ~MountGroupInitialMountSm() override;

  static constexpr std::array kivParamNames{"groupName", "serviceMountStatus", "oobStatus", "connectionPeriod"};
  auto kivParams() const { return std::tie(groupName_, serviceMountStatus_, oobStatus_, connectionPeriod_); }

  Kiv::Name const& groupName() const { return groupName_; }
  Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus() const { return serviceMountStatus_; }
  Kiv::PtrConst<ControllerOob::Status> const& oobStatus() const { return oobStatus_; }
  Kiv::PtrConst<ConnectionPeriod> const& connectionPeriod() const { return connectionPeriod_; }
  Kiv::PtrConst<PeerTable> peerTable() const;
  Kiv::String serviceName() const;
  Kiv::PtrConst<InitialSwitchSet> mountGroupInitialSwitchSet() const { return mountGroupInitialSwitchSet_; }
  bool localInitialMountsComplete() const { return localInitialMountsComplete_; }
  // Calls handleInitialMountsComplete() when the value changes.
  void localInitialMountsCompleteIs(bool complete);
  Kiv::PtrConst<Kiv::Clock> attrlogFlushTimer() const;
  Kiv::Seconds attrlogFlushTimeMin() const;
  Kiv::Seconds attrlogFlushWaitPeriod() const { return attrlogFlushWaitPeriod_; }
  Kiv::Seconds attrlogFlushRemainingTime() const { return attrlogFlushRemainingTime_; }
  void attrlogFlushRemainingTimeIs(Kiv::Seconds t) { attrlogFlushRemainingTime_ = t; }
  Kiv::PtrConst<SystemStatus> remainingSwitch(Kiv::Name const& systemName) const;
  std::size_t remainingSwitches() const { return remainingSwitch_.size(); }
  Kiv::PtrConst<Kiv::Clock> mountClock() const;
  // The end of the mount window; +infinity when no window is open.
  Kiv::Seconds mountTimeMin() const;
  Kiv::PtrConst<ProcessedSwitchSet> processedSwitchSet() const { return processedSwitchSet_; }
  void processedSwitchSetIs(Kiv::Ptr<ProcessedSwitchSet> const& set);
  Kiv::Ptr<SystemProcessedSm> systemProcessedSm(Kiv::Name const& systemName) const {
    return systemProcessedSm_.get(systemName);
  }
  std::size_t systemProcessedSms() const { return systemProcessedSm_.size(); }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleSystemStatus(Kiv::Name const& systemName);
  void handleSystemStatus();
  void handleConnectionPeriodComplete();
  void handleProcessed(Kiv::Name const& systemName);
  void handleProcessed();
  void doPopulateRemainingSwitch();
  // By value: the call may delete the reactor whose names were handed in.
  void handleMountState(Kiv::Name systemName, Kiv::Name groupName);
  void handleMountState();
  void handleMountTimeout();
  void checkSwitchMountsPending();
  void handleInitialMountsComplete();
  void flushLocalPassiveEntityLogs();
  bool isLocalPassiveCurrentRoundSyncComplete() const;
  void handleAttrlogFlushTimer();
  // Withdraws the group's completion flag and stops both clocks.
  void doCleanup();

  void remainingSwitchIs(Kiv::PtrConst<SystemStatus> const& systemStatus);
  void remainingSwitchDel(Kiv::Name const& systemName);
  void remainingSwitchDelAll();
  Kiv::Ptr<SystemProcessedSm> systemProcessedSmIs(Kiv::Name const& systemName, Kiv::Name const& groupName,
                                                  Kiv::PtrConst<SystemStatus> const& systemStatus,
                                                  Kiv::Ptr<ProcessedSwitchSet> const& processedSwitchSet);
  void systemProcessedSmDel(Kiv::Name const& systemName);

 private:
  class KivServiceMountStatus : public ServiceMountStatus::NotifieeConst {
   public:
    KivServiceMountStatus(Kiv::PtrConst<ServiceMountStatus> const& s, MountGroupInitialMountSm* owner)
        : NotifieeConst(s), owner_(owner) {}
    void onSystemStatus(Kiv::Name const& systemName) override { owner_->handleSystemStatus(systemName); }
    void onSystemStatuskivImmediate() override { owner_->handleSystemStatus(); }

   private:
    MountGroupInitialMountSm* owner_;
  };
  class KivConnectionPeriod : public ConnectionPeriod::NotifieeConst {
   public:
    KivConnectionPeriod(Kiv::PtrConst<ConnectionPeriod> const& p, MountGroupInitialMountSm* owner)
        : NotifieeConst(p), owner_(owner) {}
    void onComplete() override { owner_->handleConnectionPeriodComplete(); }

   private:
    MountGroupInitialMountSm* owner_;
  };
  class KivProcessedSwitchSet : public ProcessedSwitchSet::NotifieeConst {
   public:
    explicit KivProcessedSwitchSet(MountGroupInitialMountSm* owner) : owner_(owner) {}
    void onProcessed(Kiv::Name const& systemName) override { owner_->handleProcessed(systemName); }
    void onProcessedkivImmediate() override { owner_->handleProcessed(); }

   private:
    MountGroupInitialMountSm* owner_;
  };
  // The mount clock and the flush timer.
  class KivClock : public Kiv::Clock::NotifieeConst {
   public:
    using Handler = void (MountGroupInitialMountSm::*)();
    KivClock(Kiv::PtrConst<Kiv::Clock> const& clock, MountGroupInitialMountSm* owner, Handler handler)
        : NotifieeConst(clock), owner_(owner), handler_(handler) {}
    void onTime() override { (owner_->*handler_)(); }

   private:
    MountGroupInitialMountSm* owner_;
    Handler handler_;
  };
  class KivRemainingSwitch;

  Kiv::Name groupName_;
  Kiv::Ptr<ServiceMountStatus> serviceMountStatus_;
  Kiv::PtrConst<ControllerOob::Status> oobStatus_;
  Kiv::PtrConst<ConnectionPeriod> connectionPeriod_;
  Kiv::Ptr<InitialSwitchSet> mountGroupInitialSwitchSet_;
  bool localInitialMountsComplete_ = false;
  Kiv::Ptr<KivClock> attrlogFlushTimer_;
  Kiv::Seconds attrlogFlushWaitPeriod_ = 1.0;
  Kiv::Seconds attrlogFlushRemainingTime_ = 0.0;
  Kiv::HashMap<Kiv::Name, Kiv::Ptr<KivRemainingSwitch>> remainingSwitch_;
  Kiv::Ptr<KivClock> mountClock_;
  Kiv::Ptr<ProcessedSwitchSet> processedSwitchSetInternal_;
  Kiv::Ptr<ProcessedSwitchSet> processedSwitchSet_;
  Kiv::Ptr<KivServiceMountStatus> kivServiceMountStatus_;
  Kiv::Ptr<KivConnectionPeriod> kivConnectionPeriod_;
  Kiv::Ptr<KivProcessedSwitchSet> kivProcessedSwitchSet_;
  Kiv::ChildMap<Kiv::Name, SystemProcessedSm> systemProcessedSm_;
  bool initialized_ = false;
};

}  // namespace Controller
