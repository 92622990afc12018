#pragma once

#include <array>
#include <tuple>

#include "ControllerdbTypes.h"
#include "MountInterface.h"
#include "MountsRegistry.h"
#include "kiv/Reactor.h"
#include "serviceconfig/ServiceMountGroupSm.h"

namespace Controller {

class ServiceConfigDirSm;

// One service's mount configuration (ordinary or proxy): keeps one ServiceMountGroupSm per mount
// group once the service has a name. Owned by ServiceConfigDirSm, which runs doCleanup() before
// it deletes the machine.
class ServiceMountConfigSm : public Kiv::PtrInterface {
 public:
  ServiceMountConfigSm(bool isProxyService, Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                       Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig,
                       Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                       Kiv::Ptr<MountsRegistry> const& mountsRegistry, ServiceConfigDirSm* parent);
  ~ServiceMountConfigSm() override;

  static constexpr std::array kivParamNames{"isProxyService", "controllerdbStatus", "serviceMountConfig",
                                            "serviceMountStatus", "mountsRegistry"};
  auto kivParams() const {
    return std::tie(isProxyService_, controllerdbStatus_, serviceMountConfig_, serviceMountStatus_, mountsRegistry_);
  }

  bool isProxyService() const { return isProxyService_; }
  Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus() const { return controllerdbStatus_; }
  Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig() const { return serviceMountConfig_; }
  Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus() const { return serviceMountStatus_; }
  Kiv::Ptr<MountsRegistry> const& mountsRegistry() const { return mountsRegistry_; }
  ServiceConfigDirSm* parent() const { return parent_; }
  bool initialized() const { return initialized_; }
  Kiv::Ptr<ServiceMountGroupSm> mountGroupSm(Kiv::Name const& group) const { return mountGroupSm_.get(group); }
  std::size_t mountGroupSms() const { return mountGroupSm_.size(); }

  void handleServiceName();
  void handleMountGroupConfig(Kiv::Name const& group);
  void handleMountGroupConfig();
  void handleInitialized();
  void doCleanup();

  Kiv::Ptr<ServiceMountGroupSm> mountGroupSmIs(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                                               Kiv::PtrConst<ServiceMountGroupConfig> const& mountGroupConfig,
                                               Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig,
                                               Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                                               Kiv::Ptr<MountsRegistry> const& mountsRegistry);
  void mountGroupSmDel(Kiv::Name const& group);

 private:
  class KivServiceMountConfig : public ServiceMountConfig::NotifieeConst {
   public:
    KivServiceMountConfig(Kiv::PtrConst<ServiceMountConfig> const& c, ServiceMountConfigSm* owner)
        : NotifieeConst(c), owner_(owner) {}
    void onServiceName() override { owner_->handleServiceName(); }
    void onMountGroupConfig(Kiv::Name const& group) override { owner_->handleMountGroupConfig(group); }
    void onMountGroupConfigkivImmediate() override { owner_->handleMountGroupConfig(); }

   private:
    ServiceMountConfigSm* owner_;
  };

  bool isProxyService_;
  Kiv::PtrConst<Controllerdb::Status> controllerdbStatus_;
  Kiv::PtrConst<ServiceMountConfig> serviceMountConfig_;
  Kiv::Ptr<ServiceMountStatus> serviceMountStatus_;
  Kiv::Ptr<MountsRegistry> mountsRegistry_;
  ServiceConfigDirSm* parent_;
  Kiv::Ptr<KivServiceMountConfig> kivServiceMountConfig_;
  Kiv::ChildMap<Kiv::Name, ServiceMountGroupSm> mountGroupSm_;
  bool initialized_ = false;
};

}  // namespace Controller
