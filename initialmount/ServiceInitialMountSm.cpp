#include "initialmount/ServiceInitialMountSm.h"

#include <vector>

namespace Controller {

ServiceInitialMountSm::ServiceInitialMountSm(Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig,
                                             Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                                             Kiv::PtrConst<ConnectionPeriod> const& connectionPeriod,
                                             Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                                             Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                                             InitialMountSm* parent)
    : ServiceInitialMountSmBase(serviceMountConfig, serviceMountStatus, connectionPeriod, oobStatus, controllerdbStatus,
                                parent) {
  handleInitialized();
}

ServiceInitialMountSm::~ServiceInitialMountSm() = default;

bool ServiceInitialMountSm::canHandleMountGroup() const {
  KIV_SM_TRACE(8, "canHandleMountGroup",
               " mountConfig genId:" << serviceMountConfig_->leaderGenId() << " controller genId:"
                                     << (controllerdbStatus_ ? controllerdbStatus_->leaderGenId() : Kiv::String()));
  if (!controllerdbStatus_) return false;
  return serviceMountConfig_->leaderGenId() == controllerdbStatus_->leaderGenId();
}

void ServiceInitialMountSm::handleInitialized() {
  KIV_SM_TRACE(8, "handleInitialized", "");
  if (initialized_) return;
  initialized_ = true;
  handleLeaderGenId();
}

void ServiceInitialMountSm::handleLeaderGenId() {
  KIV_SM_TRACE(8, "handleLeaderGenId", "");
  if (canHandleMountGroup()) {
    handleMountGroupConfig();
  } else {
    withdrawMountGroups();
  }
}

void ServiceInitialMountSm::handleMountGroupConfig() {
  KIV_SM_TRACE(8, "handleMountGroupConfig", "");
  for (Kiv::Name const& group : Kiv::keysOf(serviceMountConfig_->mountGroupConfigIter())) handleMountGroupConfig(group);
}

void ServiceInitialMountSm::handleMountGroupConfig(Kiv::Name const& group) {
  if (!initialized_ || !canHandleMountGroup()) return;
  KIV_SM_TRACE(8, "handleMountGroupConfig", " " << group);
  if (serviceMountConfig_->mountGroupConfig(group)) {
    if (mountGroupInitialMountSm(group)) return;
    KIV_SM_TRACE(8, "handleMountGroupConfig", ": adding mountGroupInitialMountSm");
    mountGroupInitialMountSmIs(group, serviceMountStatus_, oobStatus_, connectionPeriod_);
  } else {
    mountGroupInitialMountSmDel(group);
  }
}

void ServiceInitialMountSm::doCleanup() { withdrawMountGroups(); }

// In the collection's order, which mountGroupInitialMountSmDelAll() does not keep, so that the
// groups' flags are withdrawn in that order.
void ServiceInitialMountSm::withdrawMountGroups() {
  for (Kiv::Name const& group : Kiv::keysOf(mountGroupInitialMountSm_.begin())) mountGroupInitialMountSmDel(group);
}

}  // namespace Controller
