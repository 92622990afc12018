#pragma once

#include "ControllerdbTypes.h"
#include "MountInterface.h"
#include "MountsRegistry.h"
#include "kiv/Reactor.h"
#include "serviceconfig/ServiceMountConfigSm.h"
#include "serviceconfig/ServicePublishConfigSm.h"

namespace Controller {


// The top of the service configuration side, constructed by the host: for every service whose
// configuration and status entities both exist with the right types, in the ordinary or proxy
// mount directories or in the publish directories, one ServiceMountConfigSm or
// ServicePublishConfigSm. A machine is deleted only when one of its two entities is replaced by
// one of another type; a service whose entities disappear keeps its machine.
class ServiceConfigDirSm : public Kiv::PtrInterface {
 public:
  ServiceConfigDirSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                     Kiv::PtrConst<Kiv::Dir> const& mountConfigDir, Kiv::Ptr<Kiv::Dir> const& mountStatusDir,
                     Kiv::PtrConst<Kiv::Dir> const& publishConfigDir, Kiv::Ptr<Kiv::Dir> const& publishStatusDir,
                     Kiv::PtrConst<Kiv::Dir> const& proxyMountConfigDir, Kiv::Ptr<Kiv::Dir> const& proxyMountStatusDir,
                     Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
                     Kiv::Ptr<MountsRegistry> const& mountsRegistry);
  ~ServiceConfigDirSm() override;

  bool initialized() const { return initialized_; }
  Kiv::Ptr<ServiceMountConfigSm> serviceMountConfigSm(Kiv::Name const& service) const {
    return serviceMountConfigSm_.get(service);
  }
  std::size_t serviceMountConfigSms() const { return serviceMountConfigSm_.size(); }
  Kiv::Ptr<ServicePublishConfigSm> servicePublishConfigSm(Kiv::Name const& service) const {
    return servicePublishConfigSm_.get(service);
  }
  std::size_t servicePublishConfigSms() const { return servicePublishConfigSm_.size(); }

  void handleInitialized();
  void handleServiceMount(Kiv::Name const& service);
  void handleServiceMount();
  void handleProxyServiceMount(Kiv::Name const& service);
  void handleProxyServiceMount();
  void handleServicePublish(Kiv::Name const& service);
  void handleServicePublish();
  void handleServiceMountCommon(bool isProxyService, Kiv::Name const& service,
                                Kiv::Ptr<Kiv::Entity const> const& config, Kiv::Ptr<Kiv::Entity> const& status);

  Kiv::Ptr<ServiceMountConfigSm> serviceMountConfigSmIs(bool isProxyService,
                                                        Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                                                        Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig,
                                                        Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                                                        Kiv::Ptr<MountsRegistry> const& mountsRegistry);
  void serviceMountConfigSmDel(Kiv::Name const& service);
  Kiv::Ptr<ServicePublishConfigSm> servicePublishConfigSmIs(
      Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
      Kiv::PtrConst<ServicePublishConfig> const& servicePublishConfig,
      Kiv::Ptr<ServicePublishStatus> const& servicePublishStatus,
      Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
      Kiv::Ptr<MountsRegistry> const& mountsRegistry);
  void servicePublishConfigSmDel(Kiv::Name const& service);

 private:
  // Watches one of the six directories and forwards to its pair's handler.
  class KivDir : public Kiv::Dir::NotifieeConst {
   public:
    using Handler = void (ServiceConfigDirSm::*)(Kiv::Name const&);
    using AllHandler = void (ServiceConfigDirSm::*)();
    KivDir(Kiv::PtrConst<Kiv::Dir> const& dir, ServiceConfigDirSm* owner, Handler one, AllHandler all)
        : NotifieeConst(dir), owner_(owner), one_(one), all_(all) {}
    void onEntityPtr(Kiv::Name const& name) override { (owner_->*one_)(name); }
    void onEntityPtrkivImmediate() override { (owner_->*all_)(); }

   private:
    ServiceConfigDirSm* owner_;
    Handler one_;
    AllHandler all_;
  };

  Kiv::PtrConst<Controllerdb::Status> controllerdbStatus_;
  Kiv::PtrConst<Kiv::Dir> mountConfigDir_;
  Kiv::Ptr<Kiv::Dir> mountStatusDir_;
  Kiv::PtrConst<Kiv::Dir> publishConfigDir_;
  Kiv::Ptr<Kiv::Dir> publishStatusDir_;
  Kiv::PtrConst<Kiv::Dir> proxyMountConfigDir_;
  Kiv::Ptr<Kiv::Dir> proxyMountStatusDir_;
  Kiv::Ptr<Controllerdb::PublishStatus> controllerdbPublishStatus_;
  Kiv::Ptr<MountsRegistry> mountsRegistry_;
  Kiv::Ptr<KivDir> kivMountConfigDir_, kivMountStatusDir_, kivPublishConfigDir_, kivPublishStatusDir_,
      kivProxyMountConfigDir_, kivProxyMountStatusDir_;
  Kiv::ChildMap<Kiv::Name, ServiceMountConfigSm> serviceMountConfigSm_;
  Kiv::ChildMap<Kiv::Name, ServicePublishConfigSm> servicePublishConfigSm_;
  bool initialized_ = false;
};

}  // namespace Controller
