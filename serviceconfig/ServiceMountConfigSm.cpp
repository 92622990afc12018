#include "serviceconfig/ServiceMountConfigSm.h"

#include <vector>

#include "serviceconfig/ServiceConfigTrace.h"
#include "serviceconfig/ServiceMountGroupSm.h"

namespace Controller {

ServiceMountConfigSm::ServiceMountConfigSm(bool isProxyService,
                                           Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                                           Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig,
                                           Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                                           Kiv::Ptr<MountsRegistry> const& mountsRegistry, ServiceConfigDirSm* parent)
    : isProxyService_(isProxyService),
      controllerdbStatus_(controllerdbStatus),
      serviceMountConfig_(serviceMountConfig),
      serviceMountStatus_(serviceMountStatus),
      mountsRegistry_(mountsRegistry),
      parent_(parent),
      kivServiceMountConfig_(new KivServiceMountConfig(serviceMountConfig, this)) {
  // A name the service set before this machine existed reaches its status too.
  if (!serviceMountConfig_->serviceName().empty()) serviceMountStatus_->serviceNameIs(serviceMountConfig_->serviceName());
  handleInitialized();
}

ServiceMountConfigSm::~ServiceMountConfigSm() = default;

// Withdraws what the groups wrote (their mounters and path prefixes), for a service whose
// configuration or status entity was replaced by one of another type.
void ServiceMountConfigSm::doCleanup() {
  SCD_TRACE(8, "doCleanup", "ServiceMountConfigSm::" << "doCleanup");
  mountGroupSm_.clear();
}

void ServiceMountConfigSm::handleInitialized() {
  SCD_TRACE(8, "handleInitialized", "ServiceMountConfigSm::" << "handleInitialized");
  if (initialized_ || serviceMountConfig_->serviceName().empty()) return;
  initialized_ = true;
  handleMountGroupConfig();
}

void ServiceMountConfigSm::handleServiceName() {
  SCD_DUALLOG("void Controller::ServiceMountConfigSm::handleServiceName()", " serviceName:%s",
              serviceMountConfig_->serviceName());
  serviceMountStatus_->serviceNameIs(serviceMountConfig_->serviceName());
  handleInitialized();
}

void ServiceMountConfigSm::handleMountGroupConfig() {
  SCD_TRACE(8, "handleMountGroupConfig", "ServiceMountConfigSm::" << "handleMountGroupConfig");
  if (!initialized_) return;
  std::vector<Kiv::Name> groups;
  for (auto it = serviceMountConfig_->mountGroupConfigIter(); it; ++it) groups.push_back(it.key());
  for (Kiv::Name const& group : groups) handleMountGroupConfig(group);
}

void ServiceMountConfigSm::handleMountGroupConfig(Kiv::Name const& group) {
  SCD_TRACE(8, "handleMountGroupConfig", "ServiceMountConfigSm::" << "handleMountGroupConfig" << ": " << group);
  if (!initialized_) return;
  if (Kiv::PtrConst<ServiceMountGroupConfig> config = serviceMountConfig_->mountGroupConfig(group)) {
    mountGroupSmIs(controllerdbStatus_, config, serviceMountConfig_, serviceMountStatus_, mountsRegistry_);
  } else {
    // The group's mounters and prefixes are withdrawn before its machine goes.
    mountGroupSmDel(group);
  }
}

Kiv::Ptr<ServiceMountGroupSm> ServiceMountConfigSm::mountGroupSmIs(
    Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
    Kiv::PtrConst<ServiceMountGroupConfig> const& mountGroupConfig,
    Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig, Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
    Kiv::Ptr<MountsRegistry> const& mountsRegistry) {
  Kiv::nullCheck(mountGroupConfig, "mountGroupConfig", "Controller::ServiceMountConfigSm::mountGroupSm");
  return mountGroupSm_.instantiate(
      mountGroupConfig->name(),
      std::make_tuple(controllerdbStatus, mountGroupConfig, serviceMountConfig, serviceMountStatus, mountsRegistry),
      [&] {
        return Kiv::Ptr<ServiceMountGroupSm>(new ServiceMountGroupSm(
            controllerdbStatus, mountGroupConfig, serviceMountConfig, serviceMountStatus, mountsRegistry, this));
      });
}

void ServiceMountConfigSm::mountGroupSmDel(Kiv::Name const& group) { mountGroupSm_.erase(group); }

}  // namespace Controller
