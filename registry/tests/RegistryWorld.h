#pragma once
// A controller's registry side with simulated switches: the entities the host hands to
// MountsRegistrySm, the network of switches, and the local tree that mounts land in.

#include <string>

#include "MountsRegistry.h"
#include "kiv/Clock.h"
#include "kiv/AttrLog.h"
#include "platform/MountSm.h"
#include "platform/SimNetwork.h"
#include "registry/MountsRegistrySm.h"

namespace Controller::testing {

struct RegistryWorld {
  Kiv::EventLoop loop;
  Kiv::Ptr<Kiv::Dir> root = Kiv::Dir::DirIs("root");
  Kiv::Ptr<Kiv::Dir> mountStatus = root->subdirIs("mountStatus");
  Kiv::Ptr<ControllerOob::Status> oob = ControllerOob::Status::StatusIs("oob");
  Kiv::Ptr<Heartbeat::Config> heartbeat = Heartbeat::Config::ConfigIs("heartbeat");
  Kiv::Ptr<Controllerdb::PublishStatus> dbPublish = Controllerdb::PublishStatus::PublishStatusIs("publish");
  Kiv::Ptr<MountsRegistry> registry =
      MountsRegistry::MountsRegistryIs(root->subdirIs("mounts"), "mounts", root, "", 2, 5.0);
  Sim::Network network{oob, heartbeat};
  Kiv::Ptr<MountsRegistrySm> sm;

  RegistryWorld() {
    Kiv::globalNboAttrLogDemuxerManager()->clear();
    Kiv::NboAttrLog::ConnectionDir::instance()->clear();
    MountSm::localRootDirIs(root);
    network.establish();
  }
  ~RegistryWorld() { MountSm::localRootDirIs(nullptr); }
  void start() { sm = new MountsRegistrySm(registry, oob, heartbeat, mountStatus, dbPublish); }

  // A switch that offers `service` at `version`, connected.
  Sim::Switch& switchWith(std::string const& addr, std::string const& service, std::uint32_t version = 1) {
    Sim::Switch& s = network.switchIs(addr);
    s.serviceVersionIs(Kiv::Name(service), version);
    s.connect();
    return s;
  }
  Kiv::Ptr<Controllerdb::SystemPublishedMount> published(Sim::Switch const& s) {
    return dbPublish->system(s.systemId());
  }
};

}  // namespace Controller::testing
