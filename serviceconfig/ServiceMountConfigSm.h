#pragma once

#include <array>
#include <tuple>

#include "ControllerdbTypes.h"
#include "MountInterface.h"
#include "MountsRegistry.h"
#include "ServiceConfigMachines.h"
#include "serviceconfig/ServiceMountGroupSm.h"

namespace Controller {

class ServiceConfigDirSm;

// One service's mount configuration (ordinary or proxy): keeps one ServiceMountGroupSm per mount
// group once the service has a name. Owned by ServiceConfigDirSm, which runs doCleanup() before
// it deletes the machine.
class ServiceMountConfigSm : public ServiceMountConfigSmBase {
 public:
  ServiceMountConfigSm(bool isProxyService, Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                       Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig,
                       Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                       Kiv::Ptr<MountsRegistry> const& mountsRegistry, ServiceConfigDirSm* parent);
  ~ServiceMountConfigSm() override;

  bool initialized() const { return initialized_; }

  void handleServiceName();
  void handleMountGroupConfig(Kiv::Name const& group);
  void handleMountGroupConfig();
  void handleInitialized();
  void doCleanup();
 private:
  bool initialized_ = false;
};

}  // namespace Controller
