#include "serviceconfig/ServiceConfigDirSm.h"

#include <vector>

#include "serviceconfig/ServiceMountConfigSm.h"
#include "serviceconfig/ServicePublishConfigSm.h"

namespace Controller {

ServiceConfigDirSm::ServiceConfigDirSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                                       Kiv::PtrConst<Kiv::Dir> const& mountConfigDir,
                                       Kiv::Ptr<Kiv::Dir> const& mountStatusDir,
                                       Kiv::PtrConst<Kiv::Dir> const& publishConfigDir,
                                       Kiv::Ptr<Kiv::Dir> const& publishStatusDir,
                                       Kiv::PtrConst<Kiv::Dir> const& proxyMountConfigDir,
                                       Kiv::Ptr<Kiv::Dir> const& proxyMountStatusDir,
                                       Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
                                       Kiv::Ptr<MountsRegistry> const& mountsRegistry)
    : ServiceConfigDirSmBase(controllerdbStatus, mountConfigDir, mountStatusDir, publishConfigDir, publishStatusDir, proxyMountConfigDir,
                         proxyMountStatusDir, controllerdbPublishStatus, mountsRegistry) {
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
  KIV_SM_TRACE(8, "handleServiceMount", "");
  if (!initialized_) return;
  for (Kiv::Name const& name : Kiv::keysOf(mountConfigDir_->entityPtrIter())) handleServiceMount(name);
}

void ServiceConfigDirSm::handleProxyServiceMount() {
  KIV_SM_TRACE(8, "handleProxyServiceMount", "");
  if (!initialized_) return;
  for (Kiv::Name const& name : Kiv::keysOf(proxyMountConfigDir_->entityPtrIter())) handleProxyServiceMount(name);
}

void ServiceConfigDirSm::handleServicePublish() {
  KIV_SM_TRACE(8, "handleServicePublish", "");
  if (!initialized_) return;
  for (Kiv::Name const& name : Kiv::keysOf(publishConfigDir_->entityPtrIter())) handleServicePublish(name);
}

void ServiceConfigDirSm::handleServiceMount(Kiv::Name const& service) {
  KIV_SM_TRACE(8, "handleServiceMount", ": " << service);
  handleServiceMountCommon(false, service, mountConfigDir_->entry(service), mountStatusDir_->entityPtr(service));
}

void ServiceConfigDirSm::handleProxyServiceMount(Kiv::Name const& service) {
  KIV_SM_TRACE(8, "handleProxyServiceMount", ": " << service);
  handleServiceMountCommon(true, service, proxyMountConfigDir_->entry(service),
                           proxyMountStatusDir_->entityPtr(service));
}

void ServiceConfigDirSm::handleServiceMountCommon(bool isProxyService, Kiv::Name const& service,
                                                  Kiv::Ptr<Kiv::Entity const> const& config,
                                                  Kiv::Ptr<Kiv::Entity> const& status) {
  if (!initialized_) return;
  KIV_SM_TRACE(8, "handleServiceMountCommon", ": " << service);
  if (!config || !status) return;
  Kiv::PtrConst<ServiceMountConfig> mountConfig = Kiv::entityCast<ServiceMountConfig const>(config);
  Kiv::Ptr<ServiceMountStatus> mountStatus = Kiv::entityCast<ServiceMountStatus>(status);
  if (mountConfig && mountStatus) {
    if (serviceMountConfigSm_.get(service)) return;
    KIV_SM_TRACE(8, "handleServiceMountCommon", " creating serviceMountConfigSm for " << service);
    serviceMountConfigSmIs(isProxyService, controllerdbStatus_, mountConfig, mountStatus, mountsRegistry_);
  } else if (serviceMountConfigSm_.get(service)) {
    KIV_SM_TRACE(8, "handleServiceMountCommon", " deleting " << service << " serviceMountConfigSm");
    serviceMountConfigSmDel(service);
  } else {
    KIV_SM_TRACE(8, "handleServiceMountCommon", " mounts not complete ");
  }
}

void ServiceConfigDirSm::handleServicePublish(Kiv::Name const& service) {
  KIV_SM_TRACE(8, "handleServicePublish", ": " << service);
  if (!initialized_) return;
  Kiv::Ptr<Kiv::Entity const> config = publishConfigDir_->entry(service);
  Kiv::Ptr<Kiv::Entity> status = publishStatusDir_->entityPtr(service);
  if (!config || !status) return;
  Kiv::PtrConst<ServicePublishConfig> publishConfig = Kiv::entityCast<ServicePublishConfig const>(config);
  Kiv::Ptr<ServicePublishStatus> publishStatus = Kiv::entityCast<ServicePublishStatus>(status);
  if (publishConfig && publishStatus) {
    if (servicePublishConfigSm_.get(service)) return;
    KIV_SM_TRACE(8, "handleServicePublish", " creating servicePublishConfigSm for " << service);
    servicePublishConfigSmIs(controllerdbStatus_, publishConfig, publishStatus, controllerdbPublishStatus_,
                             mountsRegistry_);
  } else if (servicePublishConfigSm_.get(service)) {
    KIV_SM_TRACE(8, "handleServicePublish", " deleting " << service << " servicePublishConfigSm");
    servicePublishConfigSmDel(service);
  } else {
    KIV_SM_TRACE(8, "handleServicePublish", " mounts not complete ");
  }
}

}  // namespace Controller
