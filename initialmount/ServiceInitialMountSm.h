#pragma once

#include <array>
#include <tuple>

#include "ControllerdbTypes.h"
#include "InitialMountTypes.h"
#include "MountInterface.h"
#include "OobTypes.h"
#include "initialmount/MountGroupInitialMountSm.h"
#include "kiv/Reactor.h"

namespace Controller {

// One service in initial mount tracking: one MountGroupInitialMountSm per configured mount group,
// but only while the service's configuration belongs to the controller database's current leader
// generation; a leader change discards every group's progress until the configuration catches up.
// Owned by InitialMountSm, which runs doCleanup() before deleting it. It writes nothing itself:
// its group machines write, and withdraw, their own completion flags.
class ServiceInitialMountSm : public Kiv::PtrInterface {
 public:
  ServiceInitialMountSm(Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig,
                        Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                        Kiv::PtrConst<ConnectionPeriod> const& connectionPeriod,
                        Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                        Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus);
  ~ServiceInitialMountSm() override;

  static constexpr std::array kivParamNames{"serviceMountConfig", "serviceMountStatus", "connectionPeriod",
                                            "oobStatus", "controllerdbStatus"};
  auto kivParams() const {
    return std::tie(serviceMountConfig_, serviceMountStatus_, connectionPeriod_, oobStatus_, controllerdbStatus_);
  }

  Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig() const { return serviceMountConfig_; }
  Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus() const { return serviceMountStatus_; }
  Kiv::PtrConst<ConnectionPeriod> const& connectionPeriod() const { return connectionPeriod_; }
  Kiv::PtrConst<ControllerOob::Status> const& oobStatus() const { return oobStatus_; }
  Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus() const { return controllerdbStatus_; }
  bool initialized() const { return initialized_; }
  Kiv::Ptr<MountGroupInitialMountSm> mountGroupInitialMountSm(Kiv::Name const& group) const {
    return mountGroupInitialMountSm_.get(group);
  }
  std::size_t mountGroupInitialMountSms() const { return mountGroupInitialMountSm_.size(); }

  // Whether the configuration was written under the controller database's current leader.
  bool canHandleMountGroup() const;
  void handleLeaderGenId();
  void handleMountGroupConfig(Kiv::Name const& group);
  void handleMountGroupConfig();
  void handleInitialized();
  void doCleanup();

  Kiv::Ptr<MountGroupInitialMountSm> mountGroupInitialMountSmIs(
      Kiv::Name const& groupName, Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
      Kiv::PtrConst<ControllerOob::Status> const& oobStatus, Kiv::PtrConst<ConnectionPeriod> const& connectionPeriod);
  // Each runs the machine's doCleanup() first, which withdraws the group's completion flag.
  void mountGroupInitialMountSmDel(Kiv::Name const& group);
  void mountGroupInitialMountSmDelAll();

 private:
  class KivServiceMountConfig : public ServiceMountConfig::NotifieeConst {
   public:
    KivServiceMountConfig(Kiv::PtrConst<ServiceMountConfig> const& c, ServiceInitialMountSm* owner)
        : NotifieeConst(c), owner_(owner) {}
    void onMountGroupConfig(Kiv::Name const& group) override { owner_->handleMountGroupConfig(group); }
    void onMountGroupConfigkivImmediate() override { owner_->handleMountGroupConfig(); }
    void onLeaderGenId() override { owner_->handleLeaderGenId(); }

   private:
    ServiceInitialMountSm* owner_;
  };
  class KivControllerdbStatus : public Controllerdb::Status::NotifieeConst {
   public:
    KivControllerdbStatus(Kiv::PtrConst<Controllerdb::Status> const& s, ServiceInitialMountSm* owner)
        : NotifieeConst(s), owner_(owner) {}
    void onLeaderGenId() override { owner_->handleLeaderGenId(); }

   private:
    ServiceInitialMountSm* owner_;
  };

  Kiv::PtrConst<ServiceMountConfig> serviceMountConfig_;
  Kiv::Ptr<ServiceMountStatus> serviceMountStatus_;
  Kiv::PtrConst<ConnectionPeriod> connectionPeriod_;
  Kiv::PtrConst<ControllerOob::Status> oobStatus_;
  Kiv::PtrConst<Controllerdb::Status> controllerdbStatus_;
  Kiv::Ptr<KivServiceMountConfig> kivServiceMountConfig_;
  Kiv::Ptr<KivControllerdbStatus> kivControllerdbStatus_;
  Kiv::ChildMap<Kiv::Name, MountGroupInitialMountSm> mountGroupInitialMountSm_;
  bool initialized_ = false;
};

}  // namespace Controller
