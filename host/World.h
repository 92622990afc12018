#pragma once
// A scenario applied to the host's world: its switches, services and local entities declared,
// then its events one by one. The host program and the simulation both drive it.

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "MountInterface.h"
#include "host/Scenario.h"
#include "host/Wiring.h"

namespace Host {

struct World : Wiring {
  Scenario const& s;
  std::map<std::string, Sim::Switch*> switches;
  std::map<std::pair<std::string, std::string>, double> completedAt;

  World(Scenario const& scenario, Kiv::EventLoop::Mode mode);

  // The scenario's declarations; start() then builds the machines.
  void configure();
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
