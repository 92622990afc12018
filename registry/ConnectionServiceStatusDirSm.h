#pragma once

#include <array>
#include <tuple>

#include "SwitchTypes.h"
#include "kiv/Reactor.h"

namespace Controller {

class MountsRegistrySm;

// Follows one connection's service status directory, so that a change of a service's version
// situation re-evaluates the switch in every registry entry, and the switch's publish status
// records that the service's published paths were processed. One per connected peer, owned by
// MountsRegistrySm, which reads serviceStatus() to answer version queries.
class ConnectionServiceStatusDirSm : public Kiv::PtrInterface {
 public:
  // Watches one service of the directory.
  class KivServiceStatus : public ServiceStatusV1::NotifieeConst {
   public:
    KivServiceStatus(Kiv::Name const& name, Kiv::PtrConst<ServiceStatusV1> const& status,
                     ConnectionServiceStatusDirSm* owner);
    static constexpr std::array kivParamNames{"serviceStatus"};
    auto kivParams() const { return std::make_tuple(notifier()); }
    Kiv::Name const& name() const { return name_; }
    void onEnabled() override { handleEnabled(); }
    void onVersionStatus() override;
    void handleEnabled();
    void handleVersionStatus();
    void handleInitialized() override;
    void doCleanup() override;
    // Set by doCleanup(): the service is leaving and offers no version any more.
    bool goingAway() const { return goingAway_; }

   private:
    class KivVersionStatus : public ServiceVersionStatusV1::NotifieeConst {
     public:
      KivVersionStatus(Kiv::PtrConst<ServiceVersionStatusV1> const& v, KivServiceStatus* owner)
          : NotifieeConst(v), owner_(owner) {}
      void onVersionCompatible() override { owner_->handleVersionStatus(); }
      void onVersionNegotiationComplete() override { owner_->handleVersionStatus(); }

     private:
      KivServiceStatus* owner_;
    };

    Kiv::Name name_;
    ConnectionServiceStatusDirSm* owner_;
    Kiv::Ptr<KivVersionStatus> versionStatus_;
    bool goingAway_ = false;
  };

  ConnectionServiceStatusDirSm(Kiv::Name const& name, Kiv::PtrConst<ServiceStatusDir> const& controllerServiceStatusDir,
                               MountsRegistrySm* owner);
  ~ConnectionServiceStatusDirSm() override;

  static constexpr std::array kivParamNames{"controllerServiceStatusDir"};
  auto kivParams() const { return std::tie(controllerServiceStatusDir_); }

  Kiv::Name const& name() const { return name_; }
  Kiv::PtrConst<ServiceStatusDir> const& controllerServiceStatusDir() const { return controllerServiceStatusDir_; }
  Kiv::Ptr<KivServiceStatus> serviceStatus(Kiv::Name const& service) const { return serviceStatus_.get(service); }
  std::size_t serviceStatuses() const { return serviceStatus_.size(); }
  bool initialized() const { return initialized_; }
  MountsRegistrySm* owner() const { return owner_; }
  // Set by doCleanup().
  bool goingAway() const { return goingAway_; }

  Kiv::Ptr<KivServiceStatus> serviceStatusIs(Kiv::Name const& service, Kiv::PtrConst<ServiceStatusV1> const& status);
  void serviceStatusDel(Kiv::Name const& service);
  // Follows the services already in the directory. The owner runs it once the machine is in its
  // collection, where version queries that the services' handlers cause look for it.
  void handleInitialized();
  void doCleanup();

 private:
  class KivControllerServiceStatusDir : public ServiceStatusDir::NotifieeConst {
   public:
    KivControllerServiceStatusDir(Kiv::PtrConst<ServiceStatusDir> const& d, ConnectionServiceStatusDirSm* owner)
        : NotifieeConst(d), owner_(owner) {}
    void onService(Kiv::Name const& service) override;

   private:
    ConnectionServiceStatusDirSm* owner_;
  };

  Kiv::Name name_;
  Kiv::PtrConst<ServiceStatusDir> controllerServiceStatusDir_;
  MountsRegistrySm* owner_;
  Kiv::Ptr<KivControllerServiceStatusDir> kivControllerServiceStatusDir_;
  Kiv::ChildMap<Kiv::Name, KivServiceStatus> serviceStatus_;
  bool initialized_ = false;
  bool goingAway_ = false;
};

}  // namespace Controller
