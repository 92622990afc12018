#pragma once
// The directories and entities the service configuration machines work on, built the way a host
// and its services would, with helpers that declare services in a few readable lines.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MountInterface.h"
#include "host/Wiring.h"
#include "serviceconfig/ServiceConfigDirSm.h"
#include "ServiceConfigMachines.h"

namespace Controller::testing {

// The host's world with the service configuration machine alone and no switches.
struct ServiceConfigWorld : Host::Wiring {
  ServiceConfigWorld() : ServiceConfigWorld({.network = false, .registrySm = false, .initialMount = false}) {}
  explicit ServiceConfigWorld(Host::WiringOptions const& options) : Wiring(options) {}

  Kiv::Ptr<ServiceConfigDirSm>& sm = serviceConfig;

  // A service's configuration, of the current generation, and its status.
  template <class Config, class Status>
  Kiv::Ptr<Config> declared(Kiv::Ptr<Kiv::Dir> const& configs, Kiv::Ptr<Kiv::Dir> const& statuses,
                            std::string const& name) {
    auto config = configs->entryIs<Config>(name);
    config->leaderGenIdIs("gen1");
    config->serviceNameIs(name);
    statuses->entryIs<Status>(name);
    return config;
  }
  Kiv::Ptr<ServiceMountConfig> mountService(std::string const& name) {
    return declared<ServiceMountConfig, ServiceMountStatus>(mountConfig, mountStatus, name);
  }
  Kiv::Ptr<ServicePublishConfig> publishService(std::string const& name) {
    return declared<ServicePublishConfig, ServicePublishStatus>(publishConfig, publishStatus, name);
  }
  Kiv::Ptr<ServiceMountStatus> mountStatusOf(std::string const& name) {
    return Kiv::entityCast<ServiceMountStatus>(mountStatus->entityPtr(name));
  }
  Kiv::Ptr<ServicePublishStatus> publishStatusOf(std::string const& name) {
    return Kiv::entityCast<ServicePublishStatus>(publishStatus->entityPtr(name));
  }

  // "service/group" of every mounter of a path.
  std::vector<std::string> mountersOf(std::string const& path) {
    std::vector<std::string> out;
    if (auto entry = registry->mountEntry(path))
      for (auto it = entry->mounterIter(); it; ++it)
        out.push_back(it.value()->serviceName().stdString() + "/" + it.value()->groupName().stdString());
    std::sort(out.begin(), out.end());
    return out;
  }
};

}  // namespace Controller::testing
