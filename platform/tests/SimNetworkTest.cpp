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

TEST_F(SimNetworkTest, SwitchesAreFoundByIdAndAddressAndGoWithTheirNetwork) {
  EXPECT_EQ(Sim::Network::current(), &net);
  Sim::Switch& s1 = net.switchIs("00:00:00:00:00:01");
  Sim::Switch& s2 = net.switchIs("0:0:0:0:0:2");
  EXPECT_EQ(&net.switchIs("00:00:00:00:00:01"), &s1);
  EXPECT_NE(s1.address(), s2.address());
  EXPECT_EQ(net.switchAt(s2.address()), &s2);
  EXPECT_EQ(net.switchOf(SystemId("00:00:00:00:00:02")), &s2);
  EXPECT_THROW(net.switchIs("not-an-address"), Kiv::RangeException);

  {
    Sim::Network inner(ControllerOob::Status::StatusIs("inner"), heartbeat);
    EXPECT_EQ(Sim::Network::current(), &inner);
    inner.switchIs("00:00:00:00:00:09").connect();
    EXPECT_NE(Kiv::globalNboAttrLogDemuxerManager()->demuxer("00:00:00:00:00:09"), nullptr);
  }
  EXPECT_EQ(Sim::Network::current(), &net);
  EXPECT_EQ(Kiv::globalNboAttrLogDemuxerManager()->demuxer("00:00:00:00:00:09"), nullptr);
}

TEST_F(SimNetworkTest, ConnectAndDisconnectMaintainWhatTheConnectionLayerPublishes) {
  Sim::Switch& s = net.switchIs("00:00:00:00:00:01").serviceVersionIs("mount", 3).serviceVersionIs("publish", 1);
  s.connect();
  auto peer = net.peerTable()->peer(s.systemId());
  ASSERT_NE(peer, nullptr);
  EXPECT_TRUE(peer->connected());
  auto firstConfig = peer->connectionConfig();
  EXPECT_EQ(firstConfig->address(), s.address());
  EXPECT_EQ(firstConfig->generation(), 1u);
  auto mount = versionOf(s, "mount");
  ASSERT_NE(mount, nullptr);
  EXPECT_EQ(mount->version(), 3u);
  EXPECT_TRUE(mount->versionCompatible());
  EXPECT_TRUE(mount->versionNegotiationComplete());
  EXPECT_THAT(attrLogConnections->passiveConnectionNames(), ElementsAre(s.name()));
  // The attribute log's hellos cross on the loop's next turn.
  EXPECT_EQ(s.demuxer()->connectStatus(), connectStatusDisconnected);
  loop.runUntilIdle();
  EXPECT_EQ(s.demuxer()->connectStatus(), connectStatusConnected);

  auto withdrawn = oob->connection(s.name())->serviceStatusDir()->service("publish");
  s.serviceVersionDel("publish");
  EXPECT_FALSE(withdrawn->enabled());
  EXPECT_EQ(oob->connection(s.name())->serviceStatusDir()->service("publish"), nullptr);

  s.disconnect();
  EXPECT_FALSE(peer->connected());
  EXPECT_EQ(net.peerTable()->peer(s.systemId()), nullptr);
  EXPECT_EQ(oob->connection(s.name()), nullptr);
  EXPECT_TRUE(attrLogConnections->passiveConnectionNames().empty());
  EXPECT_EQ(s.demuxer()->connectStatus(), connectStatusDisconnected);

  // Versions set while down, and those from before, come back with the next connection.
  s.serviceVersionIs("mount", 4).serviceVersionIs("status", 2);
  s.connect();
  auto config = net.peerTable()->peer(s.systemId())->connectionConfig();
  EXPECT_EQ(config->generation(), 2u);
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
