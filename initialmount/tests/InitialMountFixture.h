#pragma once
// The world the initial mount machines work in: a virtual-time loop, the service directories,
// the out-of-band configuration and status with simulated switches (2 s heartbeat), and the
// controller database's status. Per-switch mount status is written directly, as the registry
// would write it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "host/Wiring.h"
#include "initialmount/InitialMountSm.h"
#include "kiv/Trace.h"
#include "platform/SimNetwork.h"

namespace Controller::testing {

// The host's world with the initial mount machine alone.
class InitialMountTest : public ::testing::Test, public Host::Wiring {
 protected:
  InitialMountTest() : Wiring({.heartbeat = 2, .serviceConfig = false, .registrySm = false}) {}
  ~InitialMountTest() override {
    sm = nullptr;
    initialMountSmTrace.levelsIs(0);
  }

  // Traces of levels 5 and 8 from here on, into `capture`.
  void traceEvents() { initialMountSmTrace.levelsIs((1u << 5) | (1u << 8)); }

  Sim::Switch& sw(int n) { return net->switchIs("00:00:00:00:00:0" + std::to_string(n)); }
  std::string name(int n) { return sw(n).name().stdString(); }

  // A service of the current generation with mount groups `g` and `h`.
  Kiv::Ptr<ServiceMountConfig> service(std::string const& svc = "svc") {
    auto config = mountConfig->entryIs<ServiceMountConfig>(svc);
    config->leaderGenIdIs("gen1");
    config->mountGroupConfigIs("g");
    config->mountGroupConfigIs("h");
    mountStatus->entryIs<ServiceMountStatus>(svc);
    return config;
  }
  Kiv::Ptr<ServiceMountStatus> status(std::string const& svc = "svc") {
    return Kiv::entityCast<ServiceMountStatus>(mountStatus->entityPtr(svc));
  }
  // Switch n's status of a group, processed or not, in the given mount state.
  void groupStatusIs(int n, MountState state, bool processed = true, std::string const& group = "g") {
    auto groupStatus = status()->systemStatusIs(name(n))->serviceMountGroupStatusIs(group);
    groupStatus->mountStateIs(state);
    groupStatus->processedIs(processed);
  }
  Kiv::Ptr<MountGroupInitialMountSm> group(std::string const& g = "g") {
    auto service = sm->serviceInitialMountSm("svc");
    return service ? service->mountGroupInitialMountSm(g) : nullptr;
  }
  bool complete(std::string const& g = "g") { return status()->initialMountsComplete(g); }
  // Completion is written at t and not a millisecond before.
  void completesAt(Kiv::Seconds t) {
    loop.advanceTo(t - 0.001);
    EXPECT_FALSE(complete()) << "before " << t;
    loop.advanceTo(t);
    EXPECT_TRUE(complete()) << "at " << t;
  }

  Kiv::TraceCapture capture;
  Kiv::Ptr<InitialMountSm>& sm = initialMount;
};

}  // namespace Controller::testing
