#include <gmock/gmock.h>

#include "SimFixture.h"

namespace {

using namespace Controller;
using Kiv::NboAttrLog::connectStatusConnected;
using Kiv::NboAttrLog::connectStatusDisconnected;
using ::testing::ElementsAre;

class SimNetworkTest : public SimFixture {
 protected:
  Kiv::Ptr<ServiceVersionStatusV1> versionOf(Sim::Switch& s, char const* service) {
    auto connection = oob->connection(s.name());
    auto status = connection ? connection->serviceStatusDir()->service(service) : nullptr;
    return status && status->enabled() ? status->versionStatus() : nullptr;
  }
  Kiv::Ptr<Kiv::NboAttrLog::ConnectionDir> attrLogConnections = Kiv::NboAttrLog::ConnectionDir::instance();
};

TEST_F(SimNetworkTest, ConnectAndDisconnectMaintainWhatTheConnectionLayerPublishes) {
  Sim::Switch& s = net.switchIs("00:00:00:00:00:01").serviceVersionIs("mount", 3).serviceVersionIs("publish", 1);
  s.connect();
  auto peer = net.peerTable()->peer(s.systemId());
  ASSERT_NE(peer, nullptr);
  EXPECT_TRUE(peer->connected());
  EXPECT_EQ(peer->connectionConfig()->generation(), 1u);
  ASSERT_NE(versionOf(s, "mount"), nullptr);
  EXPECT_EQ(versionOf(s, "mount")->version(), 3u);
  EXPECT_THAT(attrLogConnections->passiveConnectionNames(), ElementsAre(s.name()));

  s.disconnect();
  EXPECT_FALSE(peer->connected());
  EXPECT_EQ(net.peerTable()->peer(s.systemId()), nullptr);
  EXPECT_EQ(oob->connection(s.name()), nullptr);
  EXPECT_TRUE(attrLogConnections->passiveConnectionNames().empty());
  EXPECT_EQ(s.demuxer()->connectStatus(), connectStatusDisconnected);

  // Versions set or withdrawn while down, and those from before, take effect with the next connection.
  s.serviceVersionDel("publish").serviceVersionIs("mount", 4).serviceVersionIs("status", 2);
  s.connect();
  EXPECT_EQ(net.peerTable()->peer(s.systemId())->connectionConfig()->generation(), 2u);
  EXPECT_EQ(versionOf(s, "mount")->version(), 4u);
  EXPECT_EQ(versionOf(s, "status")->version(), 2u);
  EXPECT_EQ(versionOf(s, "publish"), nullptr);
}

TEST_F(SimNetworkTest, HandshakeLatencyAndFlaps) {
  Sim::Switch& s = net.switchIs("00:00:00:00:00:01").handshakeLatencyIs(2);
  s.connect();
  EXPECT_FALSE(s.connected());
  auto peer = net.peerTable()->peer(s.systemId());
  ASSERT_NE(peer, nullptr);
  EXPECT_FALSE(peer->connected());
  EXPECT_EQ(s.demuxer()->connectStatus(), connectStatusDisconnected);
  loop.advanceTo(2);
  EXPECT_TRUE(peer->connected());
  EXPECT_EQ(s.demuxer()->connectStatus(), connectStatusConnected);

  // A flap comes back on its own (the registry's tests count on that); an explicit disconnect while
  // down cancels the reconnection; one during the handshake, the handshake.
  loop.advanceTo(3);
  s.flap(5);
  loop.advanceTo(4);
  s.disconnect();
  loop.advanceTo(30);
  EXPECT_EQ(net.peerTable()->peer(s.systemId()), nullptr);
  s.connect();
  s.disconnect();
  loop.advanceTo(40);
  EXPECT_FALSE(s.connected());
  EXPECT_EQ(s.demuxer()->connectStatus(), connectStatusDisconnected);
  EXPECT_EQ(loop.pendingTimerCount(), 0u);
}

}  // namespace
