#include "serviceconfig/ServiceConfigDirSm.h"

#include <vector>

#include "serviceconfig/ServiceConfigTrace.h"
#include "serviceconfig/ServiceMountConfigSm.h"
#include "serviceconfig/ServicePublishConfigSm.h"

namespace Controller {

namespace {
std::vector<Kiv::Name> namesIn(Kiv::PtrConst<Kiv::Dir> const& dir) {
  std::vector<Kiv::Name> names;
  for (auto it = dir->entityPtrIter(); it; ++it) names.push_back(it.key());
  return names;
}
}  // namespace

ServiceConfigDirSm::ServiceConfigDirSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                                       Kiv::PtrConst<Kiv::Dir> const& mountConfigDir,
                                       Kiv::Ptr<Kiv::Dir> const& mountStatusDir,
                                       Kiv::PtrConst<Kiv::Dir> const& publishConfigDir,
                                       Kiv::Ptr<Kiv::Dir> const& publishStatusDir,
                                       Kiv::PtrConst<Kiv::Dir> const& proxyMountConfigDir,
                                       Kiv::Ptr<Kiv::Dir> const& proxyMountStatusDir,
                                       Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
                                       Kiv::Ptr<MountsRegistry> const& mountsRegistry)
    : controllerdbStatus_(Kiv::ValidPtr<Controllerdb::Status const>(controllerdbStatus)),
      mountConfigDir_(Kiv::ValidPtr<Kiv::Dir const>(mountConfigDir)),
      mountStatusDir_(Kiv::ValidPtr<Kiv::Dir>(mountStatusDir)),
      publishConfigDir_(Kiv::ValidPtr<Kiv::Dir const>(publishConfigDir)),
      publishStatusDir_(Kiv::ValidPtr<Kiv::Dir>(publishStatusDir)),
      proxyMountConfigDir_(Kiv::ValidPtr<Kiv::Dir const>(proxyMountConfigDir)),
      proxyMountStatusDir_(Kiv::ValidPtr<Kiv::Dir>(proxyMountStatusDir)),
      controllerdbPublishStatus_(Kiv::ValidPtr<Controllerdb::PublishStatus>(controllerdbPublishStatus)),
      mountsRegistry_(Kiv::ValidPtr<MountsRegistry>(mountsRegistry)),
      kivMountConfigDir_(new KivDir(mountConfigDir, this, &ServiceConfigDirSm::handleServiceMount,
                                    &ServiceConfigDirSm::handleServiceMount)),
      kivMountStatusDir_(new KivDir(mountStatusDir, this, &ServiceConfigDirSm::handleServiceMount,
                                    &ServiceConfigDirSm::handleServiceMount)),
      kivPublishConfigDir_(new KivDir(publishConfigDir, this, &ServiceConfigDirSm::handleServicePublish,
                                      &ServiceConfigDirSm::handleServicePublish)),
      kivPublishStatusDir_(new KivDir(publishStatusDir, this, &ServiceConfigDirSm::handleServicePublish,
                                      &ServiceConfigDirSm::handleServicePublish)),
      kivProxyMountConfigDir_(new KivDir(proxyMountConfigDir, this, &ServiceConfigDirSm::handleProxyServiceMount,
                                         &ServiceConfigDirSm::handleProxyServiceMount)),
      kivProxyMountStatusDir_(new KivDir(proxyMountStatusDir, this, &ServiceConfigDirSm::handleProxyServiceMount,
                                         &ServiceConfigDirSm::handleProxyServiceMount)) {
  handleInitialized();
}

ServiceConfigDirSm::~ServiceConfigDirSm() {
  serviceMountConfigSm_.clear();
  servicePublishConfigSm_.clear();
}

void ServiceConfigDirSm::handleInitialized() {
  if (initialized_) return;
  initialized_ = true;
  handleServiceMount();
  handleProxyServiceMount();
  handleServicePublish();
}

void ServiceConfigDirSm::handleServiceMount() {
  SCD_TRACE(8, "handleServiceMount", "ServiceConfigDirSm::" << "handleServiceMount");
  if (!initialized_) return;
  for (Kiv::Name const& name : namesIn(mountConfigDir_)) handleServiceMount(name);
}

void ServiceConfigDirSm::handleProxyServiceMount() {
  SCD_TRACE(8, "handleProxyServiceMount", "ServiceConfigDirSm::" << "handleProxyServiceMount");
  if (!initialized_) return;
  for (Kiv::Name const& name : namesIn(proxyMountConfigDir_)) handleProxyServiceMount(name);
}

void ServiceConfigDirSm::handleServicePublish() {
  SCD_TRACE(8, "handleServicePublish", "ServiceConfigDirSm::" << "handleServicePublish");
  if (!initialized_) return;
  for (Kiv::Name const& name : namesIn(publishConfigDir_)) handleServicePublish(name);
}

void ServiceConfigDirSm::handleServiceMount(Kiv::Name const& service) {
  SCD_TRACE(8, "handleServiceMount", "ServiceConfigDirSm::" << "handleServiceMount" << ": " << service);
  handleServiceMountCommon(false, service, mountConfigDir_->entry(service), mountStatusDir_->entityPtr(service));
}

void ServiceConfigDirSm::handleProxyServiceMount(Kiv::Name const& service) {
  SCD_TRACE(8, "handleProxyServiceMount", "ServiceConfigDirSm::" << "handleProxyServiceMount" << ": " << service);
  handleServiceMountCommon(true, service, proxyMountConfigDir_->entry(service),
                           proxyMountStatusDir_->entityPtr(service));
}

void ServiceConfigDirSm::handleServiceMountCommon(bool isProxyService, Kiv::Name const& service,
                                                  Kiv::Ptr<Kiv::Entity const> const& config,
                                                  Kiv::Ptr<Kiv::Entity> const& status) {
  if (!initialized_) return;
  SCD_TRACE(8, "handleServiceMountCommon", "ServiceConfigDirSm::" << "handleServiceMountCommon" << ": " << service);
  if (!config || !status) return;
  Kiv::PtrConst<ServiceMountConfig> mountConfig = Kiv::entityCast<ServiceMountConfig const>(config);
  Kiv::Ptr<ServiceMountStatus> mountStatus = Kiv::entityCast<ServiceMountStatus>(status);
  if (mountConfig && mountStatus) {
    if (serviceMountConfigSm_.get(service)) return;
    SCD_TRACE(8, "handleServiceMountCommon",
              "ServiceConfigDirSm::" << "handleServiceMountCommon" << " creating serviceMountConfigSm for " << service);
    serviceMountConfigSmIs(isProxyService, controllerdbStatus_, mountConfig, mountStatus, mountsRegistry_);
  } else if (serviceMountConfigSm_.get(service)) {
    SCD_TRACE(8, "handleServiceMountCommon",
              "ServiceConfigDirSm::" << "handleServiceMountCommon" << " deleting " << service << " serviceMountConfigSm");
    serviceMountConfigSmDel(service);
  } else {
    SCD_TRACE(8, "handleServiceMountCommon",
              "ServiceConfigDirSm::" << "handleServiceMountCommon" << " mounts not complete ");
  }
}

void ServiceConfigDirSm::handleServicePublish(Kiv::Name const& service) {
  SCD_TRACE(8, "handleServicePublish", "ServiceConfigDirSm::" << "handleServicePublish" << ": " << service);
  if (!initialized_) return;
  Kiv::Ptr<Kiv::Entity const> config = publishConfigDir_->entry(service);
  Kiv::Ptr<Kiv::Entity> status = publishStatusDir_->entityPtr(service);
  if (!config || !status) return;
  Kiv::PtrConst<ServicePublishConfig> publishConfig = Kiv::entityCast<ServicePublishConfig const>(config);
  Kiv::Ptr<ServicePublishStatus> publishStatus = Kiv::entityCast<ServicePublishStatus>(status);
  if (publishConfig && publishStatus) {
    if (servicePublishConfigSm_.get(service)) return;
    SCD_TRACE(8, "handleServicePublish",
              "ServiceConfigDirSm::" << "handleServicePublish" << " creating servicePublishConfigSm for " << service);
    servicePublishConfigSmIs(controllerdbStatus_, publishConfig, publishStatus, controllerdbPublishStatus_,
                             mountsRegistry_);
  } else if (servicePublishConfigSm_.get(service)) {
    SCD_TRACE(8, "handleServicePublish",
              "ServiceConfigDirSm::" << "handleServicePublish" << " deleting " << service << " servicePublishConfigSm");
    servicePublishConfigSmDel(service);
  } else {
    SCD_TRACE(8, "handleServicePublish", "ServiceConfigDirSm::" << "handleServicePublish" << " mounts not complete ");
  }
}

Kiv::Ptr<ServiceMountConfigSm> ServiceConfigDirSm::serviceMountConfigSmIs(
    bool isProxyService, Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
    Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig, Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
    Kiv::Ptr<MountsRegistry> const& mountsRegistry) {
  Kiv::nullCheck(serviceMountConfig, "serviceMountConfig", "Controller::ServiceConfigDirSm::serviceMountConfigSm");
  return serviceMountConfigSm_.instantiate(
      serviceMountConfig->name(),
      std::make_tuple(isProxyService, controllerdbStatus, serviceMountConfig, serviceMountStatus, mountsRegistry), [&] {
        return Kiv::Ptr<ServiceMountConfigSm>(new ServiceMountConfigSm(
            isProxyService, controllerdbStatus, serviceMountConfig, serviceMountStatus, mountsRegistry, this));
      });
}

void ServiceConfigDirSm::serviceMountConfigSmDel(Kiv::Name const& service) { serviceMountConfigSm_.erase(service); }

Kiv::Ptr<ServicePublishConfigSm> ServiceConfigDirSm::servicePublishConfigSmIs(
    Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
    Kiv::PtrConst<ServicePublishConfig> const& servicePublishConfig,
    Kiv::Ptr<ServicePublishStatus> const& servicePublishStatus,
    Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
    Kiv::Ptr<MountsRegistry> const& mountsRegistry) {
  Kiv::nullCheck(servicePublishConfig, "servicePublishConfig",
                 "Controller::ServiceConfigDirSm::servicePublishConfigSm");
  return servicePublishConfigSm_.instantiate(
      servicePublishConfig->name(),
      std::make_tuple(controllerdbStatus, servicePublishConfig, servicePublishStatus, controllerdbPublishStatus,
                      mountsRegistry),
      [&] {
        return Kiv::Ptr<ServicePublishConfigSm>(new ServicePublishConfigSm(
            controllerdbStatus, servicePublishConfig, servicePublishStatus, controllerdbPublishStatus, mountsRegistry,
            this));
      });
}

void ServiceConfigDirSm::servicePublishConfigSmDel(Kiv::Name const& service) {
  servicePublishConfigSm_.erase(service);
}

}  // namespace Controller
