#include "serviceconfig/ServiceMountConfigSm.h"

#include <vector>

#include "serviceconfig/ServiceMountGroupSm.h"

namespace Controller {

ServiceMountConfigSm::ServiceMountConfigSm(bool isProxyService,
                                           Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                                           Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig,
                                           Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                                           Kiv::Ptr<MountsRegistry> const& mountsRegistry, ServiceConfigDirSm* parent)
    : ServiceMountConfigSmBase(isProxyService, controllerdbStatus, serviceMountConfig, serviceMountStatus, mountsRegistry, parent) {
  // A name the service set before this machine existed reaches its status too.
  if (!serviceMountConfig_->serviceName().empty()) serviceMountStatus_->serviceNameIs(serviceMountConfig_->serviceName());
  handleInitialized();
}

ServiceMountConfigSm::~ServiceMountConfigSm() = default;

// Withdraws what the groups wrote (their mounters and path prefixes), for a service whose
// configuration or status entity was replaced by one of another type.
void ServiceMountConfigSm::doCleanup() {
  KIV_SM_TRACE(8, "doCleanup", "");
  mountGroupSm_.clear();
}

void ServiceMountConfigSm::handleInitialized() {
  KIV_SM_TRACE(8, "handleInitialized", "");
  if (initialized_ || serviceMountConfig_->serviceName().empty()) return;
  initialized_ = true;
  handleMountGroupConfig();
}

void ServiceMountConfigSm::handleServiceName() {
  KIV_SM_DUALLOG(5, kivSigHandleServiceName, " serviceName:%s",
              serviceMountConfig_->serviceName());
  serviceMountStatus_->serviceNameIs(serviceMountConfig_->serviceName());
  handleInitialized();
}

void ServiceMountConfigSm::handleMountGroupConfig() {
  KIV_SM_TRACE(8, "handleMountGroupConfig", "");
  if (!initialized_) return;
  for (Kiv::Name const& group : Kiv::keysOf(serviceMountConfig_->mountGroupConfigIter())) handleMountGroupConfig(group);
}

void ServiceMountConfigSm::handleMountGroupConfig(Kiv::Name const& group) {
  KIV_SM_TRACE(8, "handleMountGroupConfig", ": " << group);
  if (!initialized_) return;
  if (Kiv::PtrConst<ServiceMountGroupConfig> config = serviceMountConfig_->mountGroupConfig(group)) {
    mountGroupSmIs(controllerdbStatus_, config, serviceMountConfig_, serviceMountStatus_, mountsRegistry_);
  } else {
    // The group's mounters and prefixes are withdrawn before its machine goes.
    mountGroupSmDel(group);
  }
}

}  // namespace Controller
