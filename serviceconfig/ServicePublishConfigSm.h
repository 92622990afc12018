#pragma once

#include <array>
#include <tuple>

#include "ControllerdbTypes.h"
#include "MountInterface.h"
#include "MountsRegistry.h"
#include "kiv/Reactor.h"
#include "serviceconfig/ServicePublishGroupSm.h"

namespace Controller {

class ServiceConfigDirSm;

// One service's publish configuration: a ServicePublishGroupSm and a group status per publish
// group, and the service's readiness in the registry while its leader generation is current.
// Owned by ServiceConfigDirSm, which runs doCleanup() before it deletes the machine.
class ServicePublishConfigSm : public Kiv::PtrInterface {
 public:
  ServicePublishConfigSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                         Kiv::PtrConst<ServicePublishConfig> const& servicePublishConfig,
                         Kiv::Ptr<ServicePublishStatus> const& servicePublishStatus,
                         Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
                         Kiv::Ptr<MountsRegistry> const& mountsRegistry, ServiceConfigDirSm* parent);
  ~ServicePublishConfigSm() override;

  static constexpr std::array kivParamNames{"controllerdbStatus", "servicePublishConfig", "servicePublishStatus",
                                            "controllerdbPublishStatus", "mountsRegistry"};
  auto kivParams() const {
    return std::tie(controllerdbStatus_, servicePublishConfig_, servicePublishStatus_, controllerdbPublishStatus_,
                    mountsRegistry_);
  }

  Kiv::PtrConst<ServicePublishConfig> const& servicePublishConfig() const { return servicePublishConfig_; }
  Kiv::Ptr<MountsRegistry> const& mountsRegistry() const { return mountsRegistry_; }
  ServiceConfigDirSm* parent() const { return parent_; }
  bool initialized() const { return initialized_; }
  Kiv::Ptr<ServicePublishGroupSm> publishGroupSm(Kiv::Name const& group) const { return publishGroupSm_.get(group); }

  void handleServiceName();
  void handleLeaderGenId();
  void handlePublishGroupConfig(Kiv::Name const& group);
  void handlePublishGroupConfig();
  void handlePublishReady();
  void handleInitialized();
  void doCleanup();
  // Only while the service's leader generation is the controller's, which must be known.
  bool canPublish() const;

  Kiv::Ptr<ServicePublishGroupSm> publishGroupSmIs(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                                                   Kiv::PtrConst<ServicePublishConfig> const& servicePublishConfig,
                                                   Kiv::PtrConst<ServicePublishGroupConfig> const& publishGroupConfig,
                                                   Kiv::Ptr<ServicePublishGroupStatus> const& publishGroupStatus,
                                                   Kiv::Ptr<MountsRegistry> const& mountsRegistry);
  void publishGroupSmDel(Kiv::Name const& group);

 private:
  class KivControllerdbStatus : public Controllerdb::Status::NotifieeConst {
   public:
    KivControllerdbStatus(Kiv::PtrConst<Controllerdb::Status> const& s, ServicePublishConfigSm* owner)
        : NotifieeConst(s), owner_(owner) {}
    void onLeaderGenId() override { owner_->handleLeaderGenId(); }

   private:
    ServicePublishConfigSm* owner_;
  };
  class KivServicePublishConfig : public ServicePublishConfig::NotifieeConst {
   public:
    KivServicePublishConfig(Kiv::PtrConst<ServicePublishConfig> const& c, ServicePublishConfigSm* owner)
        : NotifieeConst(c), owner_(owner) {}
    void onLeaderGenId() override { owner_->handleLeaderGenId(); }
    void onServiceName() override { owner_->handleServiceName(); }
    void onReady() override { owner_->handlePublishReady(); }
    void onPublishGroupConfig(Kiv::Name const& group) override { owner_->handlePublishGroupConfig(group); }
    void onPublishGroupConfigkivImmediate() override { owner_->handlePublishGroupConfig(); }

   private:
    ServicePublishConfigSm* owner_;
  };

  Kiv::PtrConst<Controllerdb::Status> controllerdbStatus_;
  Kiv::PtrConst<ServicePublishConfig> servicePublishConfig_;
  Kiv::Ptr<ServicePublishStatus> servicePublishStatus_;
  Kiv::Ptr<Controllerdb::PublishStatus> controllerdbPublishStatus_;
  Kiv::Ptr<MountsRegistry> mountsRegistry_;
  ServiceConfigDirSm* parent_;
  Kiv::Ptr<KivControllerdbStatus> kivControllerdbStatus_;
  Kiv::Ptr<KivServicePublishConfig> kivServicePublishConfig_;
  Kiv::ChildMap<Kiv::Name, ServicePublishGroupSm> publishGroupSm_;
  bool initialized_ = false;
};

}  // namespace Controller
