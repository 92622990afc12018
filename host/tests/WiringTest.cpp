#include <gtest/gtest.h>

#include "host/Wiring.h"
#include "platform/MountSm.h"

namespace Host {
namespace {

// The machines' tests each take part of the world: what they leave out must stay out, and a world
// without switches must not disturb the process-wide state that one with switches sets and puts back.
TEST(HostWiring, OnlyTheNamedPartsAreBuiltAndTheProcessWideStateIsPutBack) {
  {
    Wiring w({.establish = false, .registrySm = false});
    EXPECT_EQ(Controller::MountSm::localRootDir(), w.root);
    EXPECT_EQ(Sim::Network::current(), w.net.get());
    EXPECT_FALSE(w.oob->established());
    w.start();
    EXPECT_TRUE(w.serviceConfig);
    EXPECT_FALSE(w.registrySm);
    EXPECT_TRUE(w.initialMount);
    {
      Wiring alone({.network = false});
      EXPECT_FALSE(alone.net);
      alone.start();
    }
    EXPECT_EQ(Controller::MountSm::localRootDir(), w.root);
    EXPECT_EQ(Sim::Network::current(), w.net.get());
  }
  EXPECT_EQ(Controller::MountSm::localRootDir(), nullptr);
  EXPECT_EQ(Sim::Network::current(), nullptr);
}

}  // namespace
}  // namespace Host
