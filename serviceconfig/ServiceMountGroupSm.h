#pragma once

#include <array>
#include <tuple>

#include "ControllerdbTypes.h"
#include "MountInterface.h"
#include "MountsRegistry.h"

namespace Controller {

class ServiceMountConfigSm;

// One mount group of a service: while the service may mount (its leader generation is current,
// or it is a proxy), every remote path of the group has a registry entry with this service's
// mounter and a mounted path prefix in the service's status. Owned by ServiceMountConfigSm, which
// runs doCleanup() before it deletes the machine.
class ServiceMountGroupSm : public Kiv::PtrInterface {
 public:
  ServiceMountGroupSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                      Kiv::PtrConst<ServiceMountGroupConfig> const& mountGroupConfig,
                      Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig,
                      Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                      Kiv::Ptr<MountsRegistry> const& mountsRegistry, ServiceMountConfigSm* parent);

  static constexpr std::array kivParamNames{"controllerdbStatus", "mountGroupConfig", "serviceMountConfig",
                                            "serviceMountStatus", "mountsRegistry"};
  auto kivParams() const {
    return std::tie(controllerdbStatus_, mountGroupConfig_, serviceMountConfig_, serviceMountStatus_, mountsRegistry_);
  }

  Kiv::PtrConst<ServiceMountGroupConfig> const& mountGroupConfig() const { return mountGroupConfig_; }
  ServiceMountConfigSm* parent() const { return parent_; }
  bool initialized() const { return initialized_; }

  void handleLeaderGenId();
  void handleMountConfig(Kiv::Name const& remotePath);
  void handleMountConfig();
  void handleInitialized();
  bool canMount() const;
  void addMountConfig(Kiv::Name const& remotePath);
  void removeMountConfig(Kiv::Name const& remotePath);
  void doCleanup();

 private:
  class KivControllerdbStatus : public Controllerdb::Status::NotifieeConst {
   public:
    KivControllerdbStatus(Kiv::PtrConst<Controllerdb::Status> const& s, ServiceMountGroupSm* owner)
        : NotifieeConst(s), owner_(owner) {}
    void onLeaderGenId() override { owner_->handleLeaderGenId(); }

   private:
    ServiceMountGroupSm* owner_;
  };
  class KivMountGroupConfig : public ServiceMountGroupConfig::NotifieeConst {
   public:
    KivMountGroupConfig(Kiv::PtrConst<ServiceMountGroupConfig> const& c, ServiceMountGroupSm* owner)
        : NotifieeConst(c), owner_(owner) {}
    void onMountConfig(Kiv::Name const& remotePath) override { owner_->handleMountConfig(remotePath); }
    void onMountConfigkivImmediate() override { owner_->handleMountConfig(); }

   private:
    ServiceMountGroupSm* owner_;
  };
  class KivServiceMountConfig : public ServiceMountConfig::NotifieeConst {
   public:
    KivServiceMountConfig(Kiv::PtrConst<ServiceMountConfig> const& c, ServiceMountGroupSm* owner)
        : NotifieeConst(c), owner_(owner) {}
    void onLeaderGenId() override { owner_->handleLeaderGenId(); }

   private:
    ServiceMountGroupSm* owner_;
  };

  MounterName mounterName() const;

  Kiv::PtrConst<Controllerdb::Status> controllerdbStatus_;
  Kiv::PtrConst<ServiceMountGroupConfig> mountGroupConfig_;
  Kiv::PtrConst<ServiceMountConfig> serviceMountConfig_;
  Kiv::Ptr<ServiceMountStatus> serviceMountStatus_;
  Kiv::Ptr<MountsRegistry> mountsRegistry_;
  ServiceMountConfigSm* parent_;
  Kiv::Ptr<KivControllerdbStatus> kivControllerdbStatus_;
  Kiv::Ptr<KivMountGroupConfig> kivMountGroupConfig_;
  Kiv::Ptr<KivServiceMountConfig> kivServiceMountConfig_;
  bool initialized_ = false;
};

}  // namespace Controller
