#pragma once

#include "InitialMountTypesMachines.h"
#include "initialmount/ServiceInitialMountSm.h"

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
class InitialMountSm : public InitialMountSmBase {
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

  Kiv::PtrConst<ConnectionPeriod> connectionPeriod() const { return connectionPeriod_; }
  Kiv::PtrConst<InitialSwitchSet> initialSwitchSet() const { return initialSwitchSet_; }
  bool initialized() const { return initialized_; }

  // Null without an out-of-band configuration; 0 s then, or without a heartbeat configuration.
  Kiv::PtrConst<Heartbeat::Config> heartbeatConfig() const;
  Kiv::Seconds heartbeatInterval() const;

  void handleInitialized();
  // Follows the out-of-band status's peer table, recording every peer of a new one.
  void handleOobPeerTable();
  void handlePeer(SystemId const& id);
  void handlePeer();
  void handleConnectionTimeout();
  void handleServiceMount(Kiv::Name const& service);
  void handleServiceMount();
  // Withdraws every service machine (and with them every completion flag they wrote).
  void doCleanup();

 private:
  void connectionDeadlineIs(Kiv::Seconds t);

  // The framework disarms a clock before calling it, so the deadline it was armed for is kept
  // here for the timeout handler.
  Kiv::Seconds connectionDeadline_ = Kiv::kInfinity;
  Kiv::Ptr<ConnectionPeriod> connectionPeriod_;
  Kiv::Ptr<InitialSwitchSet> initialSwitchSet_;
  bool initialized_ = false;
};

}  // namespace Controller
