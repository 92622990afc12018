#pragma once
// The whole mount and publish side over simulated switches: the service configuration machines
// and the registry machines, with the directories a host hands them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "kiv/AttrLog.h"
#include "platform/MountSm.h"
#include "platform/SimNetwork.h"
#include "registry/MountsRegistrySm.h"
#include "serviceconfig/tests/ServiceConfigFixture.h"

namespace Controller::testing {

class EndToEnd : public ::testing::Test, public ServiceConfigWorld {
 protected:
  EndToEnd() {
    Kiv::globalNboAttrLogDemuxerManager()->clear();
    Kiv::NboAttrLog::ConnectionDir::instance()->clear();
    MountSm::localRootDirIs(root);
    network.establish();
  }
  ~EndToEnd() override {
    registrySm = nullptr;
    MountSm::localRootDirIs(nullptr);
  }
  void startAll() {
    start();
    registrySm = new MountsRegistrySm(registry, oob, heartbeat, mountStatus, dbPublish);
  }
  Kiv::Ptr<MountStatus> statusOf(std::string const& service, Sim::Switch const& s, std::string const& group,
                                 std::string const& path, bool proxy = false) {
    auto system = mountStatusOf(service, proxy)->systemStatus(s.name());
    auto groupStatus = system ? system->serviceMountGroupStatus(group) : nullptr;
    return groupStatus ? groupStatus->mountStatus(path) : nullptr;
  }

  Kiv::Ptr<ControllerOob::Status> oob = ControllerOob::Status::StatusIs("oob");
  Kiv::Ptr<Heartbeat::Config> heartbeat = Heartbeat::Config::ConfigIs("heartbeat");
  Sim::Network network{oob, heartbeat};
  Kiv::Ptr<MountsRegistrySm> registrySm;
};

}  // namespace Controller::testing
