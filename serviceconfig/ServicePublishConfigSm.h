#pragma once

#include <array>
#include <tuple>

#include "ControllerdbTypes.h"
#include "MountInterface.h"
#include "MountsRegistry.h"
#include "ServiceConfigMachines.h"
#include "serviceconfig/ServicePublishGroupSm.h"

namespace Controller {

class ServiceConfigDirSm;

// One service's publish configuration: a ServicePublishGroupSm and a group status per publish
// group, and the service's readiness in the registry while its leader generation is current.
// Owned by ServiceConfigDirSm, which runs doCleanup() before it deletes the machine.
class ServicePublishConfigSm : public ServicePublishConfigSmBase {
 public:
  ServicePublishConfigSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                         Kiv::PtrConst<ServicePublishConfig> const& servicePublishConfig,
                         Kiv::Ptr<ServicePublishStatus> const& servicePublishStatus,
                         Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
                         Kiv::Ptr<MountsRegistry> const& mountsRegistry, ServiceConfigDirSm* parent);
  ~ServicePublishConfigSm() override;

  bool initialized() const { return initialized_; }

  void handleServiceName();
  void handleLeaderGenId();
  void handlePublishGroupConfig(Kiv::Name const& group);
  void handlePublishGroupConfig();
  void handlePublishReady();
  void handleInitialized();
  void doCleanup();
  // Only while the service's leader generation is the controller's, which must be known.
  bool canPublish() const;


 private:
  bool initialized_ = false;
};

}  // namespace Controller
