#pragma once
// The directories and entities the service configuration machines work on, built the way a host
// and its services would, with helpers that declare services in a few readable lines.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ControllerdbTypes.h"
#include "MountInterface.h"
#include "MountsRegistry.h"
#include "kiv/Clock.h"
#include "serviceconfig/ServiceConfigDirSm.h"
#include "ServiceConfigMachines.h"

namespace Controller::testing {

struct ServiceConfigWorld {
  Kiv::EventLoop loop;
  Kiv::Ptr<Kiv::Dir> root = Kiv::Dir::DirIs("root");
  Kiv::Ptr<Controllerdb::Status> db = Controllerdb::Status::StatusIs("controllerdb");
  Kiv::Ptr<Kiv::Dir> mountConfig = root->subdirIs("mountConfig");
  Kiv::Ptr<Kiv::Dir> mountStatus = root->subdirIs("mountStatus");
  Kiv::Ptr<Kiv::Dir> publishConfig = root->subdirIs("publishConfig");
  Kiv::Ptr<Kiv::Dir> publishStatus = root->subdirIs("publishStatus");
  Kiv::Ptr<Kiv::Dir> proxyMountConfig = root->subdirIs("proxyMountConfig");
  Kiv::Ptr<Kiv::Dir> proxyMountStatus = root->subdirIs("proxyMountStatus");
  Kiv::Ptr<Controllerdb::PublishStatus> dbPublish = Controllerdb::PublishStatus::PublishStatusIs("publish");
  Kiv::Ptr<MountsRegistry> registry =
      MountsRegistry::MountsRegistryIs(root->subdirIs("mounts"), "mounts", root, "", 3, 10.0);
  Kiv::Ptr<ServiceConfigDirSm> sm;

  ServiceConfigWorld() { db->leaderGenIdIs("gen1"); }
  void start() {
    sm = new ServiceConfigDirSm(db, mountConfig, mountStatus, publishConfig, publishStatus, proxyMountConfig,
                                proxyMountStatus, dbPublish, registry);
  }

  // A service's mount configuration and status; proxy services go to the proxy directories.
  Kiv::Ptr<ServiceMountConfig> mountService(std::string const& name, std::string const& genId = "gen1",
                                            bool proxy = false) {
    auto config = (proxy ? proxyMountConfig : mountConfig)->entryIs<ServiceMountConfig>(name);
    config->leaderGenIdIs(genId);
    config->serviceNameIs(name);
    (proxy ? proxyMountStatus : mountStatus)->entryIs<ServiceMountStatus>(name);
    return config;
  }
  Kiv::Ptr<ServiceMountStatus> mountStatusOf(std::string const& name, bool proxy = false) {
    return Kiv::entityCast<ServiceMountStatus>((proxy ? proxyMountStatus : mountStatus)->entityPtr(name));
  }
  Kiv::Ptr<ServicePublishConfig> publishService(std::string const& name, std::string const& genId = "gen1") {
    auto config = publishConfig->entryIs<ServicePublishConfig>(name);
    config->leaderGenIdIs(genId);
    config->serviceNameIs(name);
    publishStatus->entryIs<ServicePublishStatus>(name);
    return config;
  }
  Kiv::Ptr<ServicePublishStatus> publishStatusOf(std::string const& name) {
    return Kiv::entityCast<ServicePublishStatus>(publishStatus->entityPtr(name));
  }

  // "service/group" of every mounter of a path, and every path with mounters.
  std::vector<std::string> mountersOf(std::string const& path) {
    std::vector<std::string> out;
    if (auto entry = registry->mountEntry(path))
      for (auto it = entry->mounterIter(); it; ++it)
        out.push_back(it.value()->serviceName().stdString() + "/" + it.value()->groupName().stdString());
    std::sort(out.begin(), out.end());
    return out;
  }
  std::size_t mounterCount() {
    std::size_t n = 0;
    for (auto it = registry->mountEntryIter(); it; ++it) n += it.value()->mounterSize();
    return n;
  }
};

}  // namespace Controller::testing
