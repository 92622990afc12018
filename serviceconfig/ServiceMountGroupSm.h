#pragma once

#include <array>
#include <tuple>

#include "ControllerdbTypes.h"
#include "MountInterface.h"
#include "MountsRegistry.h"
#include "ServiceConfigMachines.h"

namespace Controller {

class ServiceMountConfigSm;

// One mount group of a service: while the service may mount (its leader generation is current,
// or it is a proxy), every remote path of the group has a registry entry with this service's
// mounter and a mounted path prefix in the service's status. Owned by ServiceMountConfigSm, which
// runs doCleanup() before it deletes the machine.
class ServiceMountGroupSm : public ServiceMountGroupSmBase {
 public:
  ServiceMountGroupSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                      Kiv::PtrConst<ServiceMountGroupConfig> const& mountGroupConfig,
                      Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig,
                      Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                      Kiv::Ptr<MountsRegistry> const& mountsRegistry, ServiceMountConfigSm* parent);

  bool initialized() const { return initialized_; }

  void handleLeaderGenId();
  void handleMountConfig(Kiv::Name const& remotePath);
  void handleMountConfig();
  void handleInitialized();
  bool canMount() const;
  void doCleanup();

 private:
  // The steps the handlers take for one remote path; not API.
  void addMountConfig(Kiv::Name const& remotePath);
  void removeMountConfig(Kiv::Name const& remotePath);
  MounterName mounterName() const;

  bool initialized_ = false;
};

}  // namespace Controller
