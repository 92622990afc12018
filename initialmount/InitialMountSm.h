#pragma once

#include <array>
#include <tuple>

#include "ControllerdbTypes.h"
#include "HeartbeatConfig.h"
#include "InitialMountTypes.h"
#include "MountInterface.h"
#include "OobTypes.h"
#include "SwitchTypes.h"
#include "initialmount/ServiceInitialMountSm.h"
#include "kiv/Clock.h"
#include "kiv/Reactor.h"

namespace Controller {

// The top of initial mount tracking, one per agent, constructed by the host. It ends the
// connection period once no new peer has turned up for three heartbeat intervals, and keeps one
// ServiceInitialMountSm per service that has both a mount configuration and a mount status, each
// handed the shared, read-only ConnectionPeriod.
//
// Its own InitialSwitchSet is written only here. It is offered read-only through
// initialSwitchSet() so that the host can see which switches counted as present at start-up;
// nothing else in initial mount tracking reads it, since each mount group takes its own snapshot
// of the peer table when the period ends.
class InitialMountSm : public Kiv::PtrInterface {
 public:
  static constexpr float timeoutHeartbeatMultiple = 3.0f;
  // The names of the owned entities, for whoever shows them.
  static constexpr char const* kConnectionPeriodName = "connectionPeriod";
  static constexpr char const* kInitialSwitchSetName = "initialSwitchSet";

  InitialMountSm(Kiv::PtrConst<Kiv::Dir> const& mountConfigDir, Kiv::Ptr<Kiv::Dir> const& mountStatusDir,
                 Kiv::PtrConst<ControllerOob::Config> const& oobConfig,
                 Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                 Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus);
  ~InitialMountSm() override;

  Kiv::PtrConst<Kiv::Dir> const& mountConfigDir() const { return mountConfigDir_; }
  Kiv::Ptr<Kiv::Dir> const& mountStatusDir() const { return mountStatusDir_; }
  Kiv::PtrConst<ControllerOob::Config> const& oobConfig() const { return oobConfig_; }
  Kiv::PtrConst<ControllerOob::Status> const& oobStatus() const { return oobStatus_; }
  Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus() const { return controllerdbStatus_; }
  Kiv::PtrConst<PeerTable> const& peerTable() const { return peerTable_; }
  // Rebinds the peer reactor and records every peer of the new table.
  void peerTableIs(Kiv::PtrConst<PeerTable> const& peerTable);
  Kiv::PtrConst<Kiv::Clock> connectionClock() const;
  // The end of the connection period; +infinity while it has no deadline (or it has passed).
  Kiv::Seconds connectionTimeMin() const;
  Kiv::PtrConst<ConnectionPeriod> connectionPeriod() const { return connectionPeriod_; }
  Kiv::PtrConst<InitialSwitchSet> initialSwitchSet() const { return initialSwitchSet_; }
  bool initialized() const { return initialized_; }
  Kiv::Ptr<ServiceInitialMountSm> serviceInitialMountSm(Kiv::Name const& service) const {
    return serviceInitialMountSm_.get(service);
  }
  std::size_t serviceInitialMountSms() const { return serviceInitialMountSm_.size(); }

  // Null without an out-of-band configuration; 0 s then, or without a heartbeat configuration.
  Kiv::PtrConst<Heartbeat::Config> heartbeatConfig() const;
  Kiv::Seconds heartbeatInterval() const;

  void handleInitialized();
  void handlePeer(SystemId const& id);
  void handlePeer();
  void handleConnectionTimeout();
  void handleServiceMount(Kiv::Name const& service);
  void handleServiceMount();
  // Withdraws every service machine (and with them every completion flag they wrote).
  void doCleanup();

  Kiv::Ptr<ServiceInitialMountSm> serviceInitialMountSmIs(
      Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig,
      Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus, Kiv::PtrConst<ConnectionPeriod> const& connectionPeriod,
      Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
      Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus);
  // Runs the machine's doCleanup() first.
  void serviceInitialMountSmDel(Kiv::Name const& service);

 private:
  // Both service directories lead to the same handlers: a machine needs both entities.
  class KivDir : public Kiv::Dir::NotifieeConst {
   public:
    KivDir(Kiv::PtrConst<Kiv::Dir> const& dir, InitialMountSm* owner) : NotifieeConst(dir), owner_(owner) {}
    void onEntityPtr(Kiv::Name const& name) override { owner_->handleServiceMount(name); }
    void onEntityPtrkivImmediate() override { owner_->handleServiceMount(); }

   private:
    InitialMountSm* owner_;
  };
  class KivOobStatus : public ControllerOob::Status::NotifieeConst {
   public:
    KivOobStatus(Kiv::PtrConst<ControllerOob::Status> const& s, InitialMountSm* owner)
        : NotifieeConst(s), owner_(owner) {}
    void onEstablished() override { owner_->peerTableIs(owner_->oobStatus()->peerTable()); }
    // A table handed in after establishment is taken as well.
    void onPeerTable() override { owner_->peerTableIs(owner_->oobStatus()->peerTable()); }

   private:
    InitialMountSm* owner_;
  };
  class KivPeerTable : public PeerTable::NotifieeConst {
   public:
    explicit KivPeerTable(InitialMountSm* owner) : owner_(owner) {}
    void onPeer(SystemId const& id) override { owner_->handlePeer(id); }
    void onPeerkivImmediate() override { owner_->handlePeer(); }

   private:
    InitialMountSm* owner_;
  };
  class KivConnectionClock : public Kiv::Clock::NotifieeConst {
   public:
    KivConnectionClock(Kiv::PtrConst<Kiv::Clock> const& clock, InitialMountSm* owner)
        : NotifieeConst(clock), owner_(owner) {}
    void onTime() override { owner_->handleConnectionTimeout(); }

   private:
    InitialMountSm* owner_;
  };

  void connectionTimeMinIs(Kiv::Seconds t);

  Kiv::PtrConst<Kiv::Dir> mountConfigDir_;
  Kiv::Ptr<Kiv::Dir> mountStatusDir_;
  Kiv::PtrConst<ControllerOob::Config> oobConfig_;
  Kiv::PtrConst<ControllerOob::Status> oobStatus_;
  Kiv::PtrConst<Controllerdb::Status> controllerdbStatus_;
  Kiv::PtrConst<PeerTable> peerTable_;
  Kiv::Ptr<KivConnectionClock> connectionClock_;
  // The framework disarms a clock before calling it, so the deadline it was armed for is kept
  // here for the timeout handler.
  Kiv::Seconds connectionDeadline_ = Kiv::kInfinity;
  Kiv::Ptr<ConnectionPeriod> connectionPeriod_;
  Kiv::Ptr<InitialSwitchSet> initialSwitchSet_;
  Kiv::Ptr<KivDir> kivMountConfigDir_;
  Kiv::Ptr<KivDir> kivMountStatusDir_;
  Kiv::Ptr<KivOobStatus> kivOobStatus_;
  Kiv::Ptr<KivPeerTable> kivPeerTable_;
  Kiv::ChildMap<Kiv::Name, ServiceInitialMountSm> serviceInitialMountSm_;
  bool initialized_ = false;
};

}  // namespace Controller
