#include "initialmount/InitialMountSm.h"

#include <vector>

namespace Controller {

InitialMountSm::InitialMountSm(Kiv::PtrConst<Kiv::Dir> const& mountConfigDir, Kiv::Ptr<Kiv::Dir> const& mountStatusDir,
                               Kiv::PtrConst<ControllerOob::Config> const& oobConfig,
                               Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                               Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus)
    : InitialMountSmBase(mountConfigDir, mountStatusDir, oobConfig, oobStatus, controllerdbStatus) {
  if (oobStatus_) peerTableIs(oobStatus_->peerTable());
  handleInitialized();
}

InitialMountSm::~InitialMountSm() { doCleanup(); }

void InitialMountSm::connectionDeadlineIs(Kiv::Seconds t) {
  connectionDeadline_ = t;
  connectionClockTimeMinIs(t);
}

Kiv::PtrConst<Heartbeat::Config> InitialMountSm::heartbeatConfig() const {
  return oobConfig_ ? Kiv::PtrConst<Heartbeat::Config>(oobConfig_->heartbeatConfig()) : nullptr;
}

Kiv::Seconds InitialMountSm::heartbeatInterval() const {
  Kiv::PtrConst<Heartbeat::Config> config = heartbeatConfig();
  return config ? config->heartbeatInterval() : 0.0;
}

void InitialMountSm::handleOobPeerTable() { peerTableIs(oobStatus_->peerTable()); }

void InitialMountSm::handleInitialized() {
  KIV_SM_TRACE(8, "handleInitialized", "");
  if (initialized_) return;
  initialized_ = true;
  initialSwitchSet_ = InitialSwitchSet::InitialSwitchSetIs(kInitialSwitchSetName);
  connectionPeriod_ = ConnectionPeriod::ConnectionPeriodIs(kConnectionPeriodName);
  // No deadline until the first peer turns up.
  connectionDeadlineIs(Kiv::kInfinity);
  handlePeer();
  handleServiceMount();
}

void InitialMountSm::handlePeer() {
  KIV_SM_TRACE(8, "handlePeer", "");
  if (!peerTable_) return;
  for (SystemId const& id : Kiv::keysOf(peerTable_->peerIter())) handlePeer(id);
}

void InitialMountSm::handlePeer(SystemId const& id) {
  if (!initialized_) return;
  KIV_SM_TRACE(8, "handlePeer", " " << id);
  // A peer that left stays in the set; one that returns is no news.
  if (!peerTable_ || !peerTable_->peer(id)) return;
  if (initialSwitchSet_->initialSwitch(id)) {
    KIV_SM_DUALLOG(5, kivSigHandlePeer, ": already in initial switch set");
    return;
  }
  initialSwitchSet_->initialSwitchIs(id, true);
  connectionDeadlineIs(Kiv::System::currentTime() + heartbeatInterval() * timeoutHeartbeatMultiple);
  KIV_SM_DUALLOG(5, kivSigHandlePeer, ": reset timeMin to %s", connectionDeadline_);
}

void InitialMountSm::handleConnectionTimeout() {
  KIV_SM_TRACE(8, "handleConnectionTimeout",
               ": timeMin=" << connectionDeadline_ << " connection period complete=" << connectionPeriod_->complete());
  // A deadline of exactly 0 comes from a clock whose time has not started; it ends nothing.
  if (connectionDeadline_ == 0) return;
  if (connectionPeriod_->complete()) return;
  KIV_SM_DUALLOG(5, kivSigHandleConnectionTimeout, "initial switch set complete");
  connectionPeriod_->completeIs(true);
}

void InitialMountSm::handleServiceMount() {
  KIV_SM_TRACE(8, "handleServiceMount", "");
  if (!initialized_) return;
  for (Kiv::Name const& name : Kiv::keysOf(mountConfigDir_->entityPtrIter())) handleServiceMount(name);
}

void InitialMountSm::handleServiceMount(Kiv::Name const& service) {
  KIV_SM_TRACE(8, "handleServiceMount", ": " << service);
  if (!initialized_) return;
  // An entry of another type counts as absent.
  Kiv::PtrConst<ServiceMountConfig> config = Kiv::entityCast<ServiceMountConfig const>(mountConfigDir_->entry(service));
  Kiv::Ptr<ServiceMountStatus> status = Kiv::entityCast<ServiceMountStatus>(mountStatusDir_->entityPtr(service));
  if (config && status) {
    if (serviceInitialMountSm(service)) return;
    KIV_SM_TRACE_TEXT(8, "handleServiceMount", "handleServiceMount(" << service << "): creating serviceInitialMountSm");
    serviceInitialMountSmIs(config, status, connectionPeriod_, oobStatus_, controllerdbStatus_);
  } else if (serviceInitialMountSm(service)) {
    KIV_SM_TRACE_TEXT(8, "handleServiceMount", "handleServiceMount(" << service << "): deleting serviceInitialMountSm");
    serviceInitialMountSmDel(service);
  }
}

void InitialMountSm::doCleanup() {
  // In the collection's order, which serviceInitialMountSmDelAll() does not keep, so that the
  // services' flags are withdrawn in that order.
  for (Kiv::Name const& name : Kiv::keysOf(serviceInitialMountSm_.begin())) serviceInitialMountSmDel(name);
}

}  // namespace Controller
