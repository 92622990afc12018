#pragma once
// The host's world: the controller's directories and the three top-level machines over simulated
// switches, built from a scenario, with its events applied one by one. The host program and the
// simulation both drive it.

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ControllerdbTypes.h"
#include "MountInterface.h"
#include "MountsRegistry.h"
#include "host/Scenario.h"
#include "initialmount/InitialMountSm.h"
#include "kiv/Clock.h"
#include "platform/SimNetwork.h"
#include "registry/MountsRegistrySm.h"
#include "serviceconfig/ServiceConfigDirSm.h"

namespace Host {

// Members in the order a host builds them; destroyed in reverse.
struct World {
  Kiv::EventLoop loop;
  Kiv::Ptr<Kiv::Dir> root = Kiv::Dir::DirIs("root");
  Kiv::Ptr<Kiv::Dir> mountConfig = root->subdirIs("mountConfig");
  Kiv::Ptr<Kiv::Dir> mountStatus = root->subdirIs("mountStatus");
  Kiv::Ptr<Kiv::Dir> publishConfig = root->subdirIs("publishConfig");
  Kiv::Ptr<Kiv::Dir> publishStatus = root->subdirIs("publishStatus");
  Kiv::Ptr<Kiv::Dir> proxyMountConfig = root->subdirIs("proxyMountConfig");
  Kiv::Ptr<Kiv::Dir> proxyMountStatus = root->subdirIs("proxyMountStatus");
  Kiv::Ptr<Controller::Heartbeat::Config> heartbeat = Controller::Heartbeat::Config::ConfigIs("heartbeat");
  Kiv::Ptr<ControllerOob::Config> oobConfig = ControllerOob::Config::ConfigIs("oobConfig");
  Kiv::Ptr<ControllerOob::Status> oob = ControllerOob::Status::StatusIs("oob");
  Kiv::Ptr<Controllerdb::Status> db = Controllerdb::Status::StatusIs("controllerdb");
  Kiv::Ptr<Controllerdb::PublishStatus> dbPublish = Controllerdb::PublishStatus::PublishStatusIs("publish");
  Kiv::Ptr<Controller::MountsRegistry> registry;
  std::unique_ptr<Sim::Network> net;
  Kiv::Ptr<Controller::ServiceConfigDirSm> serviceConfig;
  Kiv::Ptr<Controller::MountsRegistrySm> registrySm;
  Kiv::Ptr<Controller::InitialMountSm> initialMount;

  Scenario const& s;
  std::map<std::string, Sim::Switch*> switches;
  std::map<std::pair<std::string, std::string>, double> completedAt;

  World(Scenario const& scenario, Kiv::EventLoop::Mode mode);
  ~World();
  World(World const&) = delete;
  World& operator=(World const&) = delete;

  // The scenario's declarations, then the machines.
  void configure();
  void start();
  void apply(Event const& e);
  // Notes when each group's initial mounts became complete.
  void checkCompletion();

  Kiv::Ptr<Kiv::Dir> statusDir(ServiceDecl const& d) const { return d.proxy ? proxyMountStatus : mountStatus; }
  Kiv::Ptr<Controller::ServiceMountStatus> mountStatusOf(ServiceDecl const& d) const;
  // Creates the local entity at `path` with the directories on the way.
  void localIs(std::string const& path);

 private:
  Kiv::Ptr<Controller::ServiceMountConfig> mountService(ServiceDecl const& d);
  Kiv::Ptr<Controller::ServicePublishConfig> publishService(ServiceDecl const& d);
  template <class Config, class GroupConfig>
  void filters(Kiv::Ptr<Config> const& svc, std::string const& group, std::vector<std::string> const& systems,
               std::vector<unsigned> const& versions, GroupConfig const& groupConfig);
};

}  // namespace Host
