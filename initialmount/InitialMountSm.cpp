#include "initialmount/InitialMountSm.h"

#include <vector>

#include "initialmount/InitialMountTrace.h"

namespace Controller {

Kiv::TraceHandle initialMountSmTrace("ControllerInitialMountSm");

namespace {
constexpr char const* kHandlePeer = "void Controller::InitialMountSm::handlePeer(Controller::SystemId)";
constexpr char const* kHandleConnectionTimeout = "void Controller::InitialMountSm::handleConnectionTimeout()";
}  // namespace

InitialMountSm::InitialMountSm(Kiv::PtrConst<Kiv::Dir> const& mountConfigDir, Kiv::Ptr<Kiv::Dir> const& mountStatusDir,
                               Kiv::PtrConst<ControllerOob::Config> const& oobConfig,
                               Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                               Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus)
    : mountConfigDir_(Kiv::ValidPtr<Kiv::Dir const>(mountConfigDir)),
      mountStatusDir_(Kiv::ValidPtr<Kiv::Dir>(mountStatusDir)),
      oobConfig_(oobConfig),
      oobStatus_(oobStatus),
      controllerdbStatus_(controllerdbStatus),
      kivMountConfigDir_(new KivDir(mountConfigDir, this)),
      kivMountStatusDir_(new KivDir(mountStatusDir, this)),
      kivOobStatus_(new KivOobStatus(oobStatus, this)),
      kivPeerTable_(new KivPeerTable(this)) {
  if (oobStatus_) peerTableIs(oobStatus_->peerTable());
  handleInitialized();
}

InitialMountSm::~InitialMountSm() { doCleanup(); }

Kiv::PtrConst<Kiv::Clock> InitialMountSm::connectionClock() const {
  return connectionClock_ ? connectionClock_->notifier() : nullptr;
}

Kiv::Seconds InitialMountSm::connectionTimeMin() const {
  return connectionClock_ ? connectionClock_->timeMin() : Kiv::kInfinity;
}

void InitialMountSm::connectionTimeMinIs(Kiv::Seconds t) {
  connectionDeadline_ = t;
  connectionClock_->timeMinIs(t);
}

Kiv::PtrConst<Heartbeat::Config> InitialMountSm::heartbeatConfig() const {
  return oobConfig_ ? Kiv::PtrConst<Heartbeat::Config>(oobConfig_->heartbeatConfig()) : nullptr;
}

Kiv::Seconds InitialMountSm::heartbeatInterval() const {
  Kiv::PtrConst<Heartbeat::Config> config = heartbeatConfig();
  return config ? config->heartbeatInterval() : 0.0;
}

void InitialMountSm::peerTableIs(Kiv::PtrConst<PeerTable> const& peerTable) {
  if (peerTable == peerTable_) return;
  peerTable_ = peerTable;
  kivPeerTable_->notifierIs(peerTable);
  handlePeer();
}

void InitialMountSm::handleInitialized() {
  IM_TRACE(8, "handleInitialized", "InitialMountSm::" << "handleInitialized");
  if (initialized_) return;
  initialized_ = true;
  initialSwitchSet_ = InitialSwitchSet::InitialSwitchSetIs(kInitialSwitchSetName);
  connectionPeriod_ = ConnectionPeriod::ConnectionPeriodIs(kConnectionPeriodName);
  // No deadline until the first peer turns up.
  connectionClock_ = new KivConnectionClock(Kiv::ActivityManagerConfig::instance()->clock(), this);
  connectionTimeMinIs(Kiv::kInfinity);
  handlePeer();
  handleServiceMount();
}

void InitialMountSm::handlePeer() {
  IM_TRACE(8, "handlePeer", "InitialMountSm::" << "handlePeer");
  if (!peerTable_) return;
  std::vector<SystemId> ids;
  for (auto it = peerTable_->peerIter(); it; ++it) ids.push_back(it.key());
  for (SystemId const& id : ids) handlePeer(id);
}

void InitialMountSm::handlePeer(SystemId const& id) {
  if (!initialized_) return;
  IM_TRACE(8, "handlePeer", "InitialMountSm::" << "handlePeer " << id);
  // A peer that left stays in the set; one that returns is no news.
  if (!peerTable_ || !peerTable_->peer(id)) return;
  if (initialSwitchSet_->initialSwitch(id)) {
    IM_DUALLOG(kHandlePeer, ": already in initial switch set");
    return;
  }
  initialSwitchSet_->initialSwitchIs(id, true);
  connectionTimeMinIs(Kiv::System::currentTime() + heartbeatInterval() * timeoutHeartbeatMultiple);
  IM_DUALLOG(kHandlePeer, ": reset timeMin to %s", connectionDeadline_);
}

void InitialMountSm::handleConnectionTimeout() {
  IM_TRACE(8, "handleConnectionTimeout",
           "InitialMountSm::" << "handleConnectionTimeout" << ": timeMin=" << connectionDeadline_
                              << " connection period complete=" << connectionPeriod_->complete());
  // A deadline of exactly 0 comes from a clock whose time has not started; it ends nothing.
  if (connectionDeadline_ == 0) return;
  if (connectionPeriod_->complete()) return;
  IM_DUALLOG(kHandleConnectionTimeout, "initial switch set complete");
  connectionPeriod_->completeIs(true);
}

void InitialMountSm::handleServiceMount() {
  IM_TRACE(8, "handleServiceMount", "InitialMountSm::" << "handleServiceMount");
  if (!initialized_) return;
  std::vector<Kiv::Name> names;
  for (auto it = mountConfigDir_->entityPtrIter(); it; ++it) names.push_back(it.key());
  for (Kiv::Name const& name : names) handleServiceMount(name);
}

void InitialMountSm::handleServiceMount(Kiv::Name const& service) {
  IM_TRACE(8, "handleServiceMount", "InitialMountSm::" << "handleServiceMount" << ": " << service);
  if (!initialized_) return;
  // An entry of another type counts as absent.
  Kiv::PtrConst<ServiceMountConfig> config = Kiv::entityCast<ServiceMountConfig const>(mountConfigDir_->entry(service));
  Kiv::Ptr<ServiceMountStatus> status = Kiv::entityCast<ServiceMountStatus>(mountStatusDir_->entityPtr(service));
  if (config && status) {
    if (serviceInitialMountSm_.get(service)) return;
    IM_TRACE(8, "handleServiceMount", "handleServiceMount(" << service << "): creating serviceInitialMountSm");
    serviceInitialMountSmIs(config, status, connectionPeriod_, oobStatus_, controllerdbStatus_);
  } else if (serviceInitialMountSm_.get(service)) {
    IM_TRACE(8, "handleServiceMount", "handleServiceMount(" << service << "): deleting serviceInitialMountSm");
    serviceInitialMountSmDel(service);
  }
}

void InitialMountSm::doCleanup() {
  std::vector<Kiv::Name> names;
  for (auto it = serviceInitialMountSm_.begin(); it; ++it) names.push_back(it.key());
  for (Kiv::Name const& name : names) serviceInitialMountSmDel(name);
}

Kiv::Ptr<ServiceInitialMountSm> InitialMountSm::serviceInitialMountSmIs(
    Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig, Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
    Kiv::PtrConst<ConnectionPeriod> const& connectionPeriod, Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
    Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus) {
  Kiv::nullCheck(serviceMountConfig, "serviceMountConfig", "Controller::InitialMountSm::serviceInitialMountSm");
  return serviceInitialMountSm_.instantiate(
      serviceMountConfig->name(),
      std::make_tuple(serviceMountConfig, serviceMountStatus, connectionPeriod, oobStatus, controllerdbStatus), [&] {
        return Kiv::Ptr<ServiceInitialMountSm>(new ServiceInitialMountSm(
            serviceMountConfig, serviceMountStatus, connectionPeriod, oobStatus, controllerdbStatus));
      });
}

void InitialMountSm::serviceInitialMountSmDel(Kiv::Name const& service) {
  serviceInitialMountSm_.erase(service);
}

}  // namespace Controller
