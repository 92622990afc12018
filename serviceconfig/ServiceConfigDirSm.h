#pragma once

#include "ControllerdbTypes.h"
#include "MountInterface.h"
#include "MountsRegistry.h"
#include "ServiceConfigMachines.h"
#include "serviceconfig/ServiceMountConfigSm.h"
#include "serviceconfig/ServicePublishConfigSm.h"

namespace Controller {

// The top of the service configuration side, constructed by the host: for every service whose
// configuration and status entities both exist with the right types, in the ordinary or proxy
// mount directories or in the publish directories, one ServiceMountConfigSm or
// ServicePublishConfigSm. A machine is deleted only when one of its two entities is replaced by
// one of another type; a service whose entities disappear keeps its machine.
class ServiceConfigDirSm : public ServiceConfigDirSmBase {
 public:
  ServiceConfigDirSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                     Kiv::PtrConst<Kiv::Dir> const& mountConfigDir, Kiv::Ptr<Kiv::Dir> const& mountStatusDir,
                     Kiv::PtrConst<Kiv::Dir> const& publishConfigDir, Kiv::Ptr<Kiv::Dir> const& publishStatusDir,
                     Kiv::PtrConst<Kiv::Dir> const& proxyMountConfigDir, Kiv::Ptr<Kiv::Dir> const& proxyMountStatusDir,
                     Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
                     Kiv::Ptr<MountsRegistry> const& mountsRegistry);
  ~ServiceConfigDirSm() override;

  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleServiceMount(Kiv::Name const& service);
  void handleServiceMount();
  void handleProxyServiceMount(Kiv::Name const& service);
  void handleProxyServiceMount();
  void handleServicePublish(Kiv::Name const& service);
  void handleServicePublish();
  void handleServiceMountCommon(bool isProxyService, Kiv::Name const& service,
                                Kiv::Ptr<Kiv::Entity const> const& config, Kiv::Ptr<Kiv::Entity> const& status);

 private:
  bool initialized_ = false;
};

}  // namespace Controller
