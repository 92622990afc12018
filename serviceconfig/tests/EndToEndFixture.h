#pragma once
// The whole mount and publish side over simulated switches: the service configuration machines
// and the registry machines, with the directories a host hands them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/SimNetwork.h"
#include "serviceconfig/tests/ServiceConfigFixture.h"

namespace Controller::testing {

class EndToEnd : public ::testing::Test, public ServiceConfigWorld {
 protected:
  EndToEnd() : ServiceConfigWorld({.initialMount = false}) {}
  void startAll() { start(); }
  Kiv::Ptr<MountStatus> statusOf(std::string const& service, Sim::Switch const& s, std::string const& group,
                                 std::string const& path, bool proxy = false) {
    auto system = mountStatusOf(service, proxy)->systemStatus(s.name());
    auto groupStatus = system ? system->serviceMountGroupStatus(group) : nullptr;
    return groupStatus ? groupStatus->mountStatus(path) : nullptr;
  }

  Sim::Network& network = *net;
};

}  // namespace Controller::testing
