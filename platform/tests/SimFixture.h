#pragma once
// The world most platform tests start from: a virtual-time loop, the out-of-band status, a
// simulated network and a local tree, with the attribute-log singletons cleared around each test.

#include <gtest/gtest.h>

#include "kiv/Clock.h"
#include "kiv/Dir.h"
#include "kiv/AttrLog.h"
#include "platform/MountSm.h"
#include "platform/SimNetwork.h"

class SimFixture : public ::testing::Test {
 protected:
  SimFixture() { clearAttrLog(); }
  ~SimFixture() override {
    Controller::MountSm::localRootDirIs(nullptr);
    clearAttrLog();
  }
  static void clearAttrLog() {
    Kiv::globalNboAttrLogDemuxerManager()->clear();
    Kiv::NboAttrLog::ConnectionDir::instance()->clear();
  }

  Kiv::EventLoop loop;
  Kiv::Ptr<ControllerOob::Status> oob = ControllerOob::Status::StatusIs("oob");
  Kiv::Ptr<Controller::Heartbeat::Config> heartbeat = Controller::Heartbeat::Config::ConfigIs("heartbeat");
  Sim::Network net{oob, heartbeat};
  Kiv::Ptr<Kiv::Dir> local = Kiv::Dir::DirIs("local");
};
