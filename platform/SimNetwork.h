#pragma once
// Simulated switches, as the controller's stand-in libraries see them. A Network stands for the
// controller's side of the out-of-band connections: it owns the switches and writes what the
// connection layer would publish (the peer table, one connection with its service status per
// switch, the heartbeat settings) and the attribute-log entries of each switch. Tests and the
// host program create one Network and drive the switches through it:
//
//   Sim::Network net(oobStatus, heartbeatConfig);
//   net.establish();
//   Sim::Switch& s1 = net.switchIs("00:00:00:00:00:01").mountLatencyIs(2).serviceVersionIs("mount", 3);
//   s1.entityIs("sys/config")->attrIs("mtu", "9000");
//   s1.connect();
//   ...
//   s1.flap(5);
//
// The mount machinery (platform/MountSm.h) finds switches through Network::current().

#include <cstdint>
#include <map>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "HeartbeatConfig.h"
#include "OobTypes.h"
#include "SimTypes.h"
#include "SwitchTypes.h"
#include "kiv/Clock.h"
#include "kiv/Dir.h"
#include "kiv/AttrLog.h"
#include "kiv/AttrLogStream.h"
#include "platform/SystemId.h"

namespace Platform {
class Timer;
}

namespace Sim {

class Network;

// One simulated switch: identity, address, its own entity tree and the knobs a test turns.
// Owned by its Network; the setters return the switch so that they chain.
class Switch {
 public:
  static constexpr Kiv::Seconds kDefaultMountLatency = 1;
  static constexpr std::uint16_t kDefaultPort = 6042;

  Switch(Switch const&) = delete;
  Switch& operator=(Switch const&) = delete;
  ~Switch();

  Controller::SystemId const& systemId() const { return systemId_; }
  // The system id text: the name of its connection, its peer-table key's text and the name of
  // its attribute-log connection and demuxer.
  Kiv::Name const& name() const { return name_; }
  Ovel::IpAndPort const& address() const { return address_; }
  // Takes effect at the next connect().
  Switch& addressIs(Ovel::IpAndPort const& address);

  // The switch's own state; mounts copy from here.
  Kiv::Ptr<Kiv::Dir> const& root() const { return root_; }
  // The record at `path` ("a/b/c"), created with the directories on the way when absent.
  Kiv::Ptr<Record> entityIs(std::string_view path);

  // Adds the switch's connection (address, a fresh service status directory with the versions it
  // negotiates), its peer (address, a new connection configuration one generation on) and its
  // attribute-log connection and demuxer; after handshakeLatency() the peer is connected and the
  // attribute-log stream to the switch's own demuxer starts (its demuxers connect once their hellos
  // have crossed, on the loop's next turn). Nothing happens while a connection exists already.
  void connect();
  // Removes its connection, its peer and its attribute-log connection, and disconnects its
  // demuxer. Cancels a pending handshake or reconnection.
  void disconnect();
  // Disconnects now and connects again after `downFor` seconds.
  void flap(Kiv::Seconds downFor);
  // Connected and the handshake done.
  bool connected() const { return connected_; }
  // Connections made so far: the generation of the newest connection configuration.
  std::uint32_t generation() const { return generation_; }
  // A mount attempt started now can succeed.
  bool mountable() const { return connected_ && !failing_; }
  // The controller's end of the switch's attribute log (in the process-wide manager, passive).
  // Null before the first connect(); kept (disconnected) while the switch is down.
  Kiv::Ptr<Kiv::NboAttrLog::Demuxer> const& demuxer() const { return demuxer_; }
  // The switch's end.
  Kiv::Ptr<Kiv::NboAttrLog::Demuxer> const& peerDemuxer() const { return peerDemuxer_; }
  // The stream between the two ends, from the handshake to the disconnection; null otherwise.
  Kiv::Ptr<Kiv::NboAttrLog::InProcessStream> const& attrLogStream() const { return attrLogStream_; }
  // One-way delay of the attribute log once connected: a synchronisation round takes twice that.
  static constexpr Kiv::Seconds kAttrLogLatency = 0.25;

  // The service's negotiated version: published on the current connection at once and on every
  // later one. A new version on a connected switch is renegotiated: the negotiation-complete flag
  // drops, then rises with the new version.
  Switch& serviceVersionIs(Kiv::Name const& service, std::uint32_t version);
  // Withdraws the service: disabled, then removed from the connection's service status.
  Switch& serviceVersionDel(Kiv::Name const& service);
  std::map<Kiv::Name, std::uint32_t> const& serviceVersions() const { return serviceVersions_; }

  Kiv::Seconds mountLatency() const { return mountLatency_; }
  Switch& mountLatencyIs(Kiv::Seconds s);
  // Follows the mount latency until set.
  Kiv::Seconds unmountLatency() const { return unmountLatency_ < 0 ? mountLatency_ : unmountLatency_; }
  Switch& unmountLatencyIs(Kiv::Seconds s);
  // A failing switch accepts connections but lets every mount attempt time out.
  bool failing() const { return failing_; }
  Switch& failingIs(bool f);
  Kiv::Seconds handshakeLatency() const { return handshakeLatency_; }
  Switch& handshakeLatencyIs(Kiv::Seconds s);

 private:
  friend class Network;
  Switch(Network& network, Controller::SystemId const& id, Ovel::IpAndPort const& address);
  void handshakeDone();
  void publish(Kiv::Name const& service, std::uint32_t version);
  // Removes what this switch added to the process-wide attribute-log registries.
  void attrLogDel();

  Network& network_;
  Controller::SystemId systemId_;
  Kiv::Name name_;
  Ovel::IpAndPort address_;
  Kiv::Ptr<Kiv::Dir> root_;
  std::map<Kiv::Name, std::uint32_t> serviceVersions_;
  Kiv::Seconds mountLatency_ = kDefaultMountLatency;
  Kiv::Seconds unmountLatency_ = -1;
  Kiv::Seconds handshakeLatency_ = 0;
  bool failing_ = false;
  bool connected_ = false;
  std::uint32_t generation_ = 0;
  // Set from connect() to disconnect().
  Kiv::Ptr<Controller::ServiceStatusDir> serviceStatusDir_;
  Kiv::Ptr<Kiv::NboAttrLog::Demuxer> demuxer_;
  Kiv::Ptr<Kiv::NboAttrLog::Demuxer> peerDemuxer_;
  Kiv::Ptr<Kiv::NboAttrLog::InProcessStream> attrLogStream_;
  Kiv::Ptr<Platform::Timer> handshakeTimer_;
  Kiv::Ptr<Platform::Timer> reconnectTimer_;
};

// The controller's view of the simulated switches. Owned by the test or host; the newest live
// one is current().
class Network {
 public:
  // Creates the peer table in `oobStatus` unless it has one.
  Network(Kiv::Ptr<ControllerOob::Status> oobStatus, Kiv::Ptr<Controller::Heartbeat::Config> heartbeatConfig);
  ~Network();
  Network(Network const&) = delete;
  Network& operator=(Network const&) = delete;
  static Network* current();

  Kiv::Ptr<ControllerOob::Status> const& oobStatus() const { return oobStatus_; }
  Kiv::Ptr<Controller::Heartbeat::Config> const& heartbeatConfig() const { return heartbeatConfig_; }
  Kiv::Ptr<Controller::PeerTable> const& peerTable() const { return oobStatus_->peerTable(); }

  // The out-of-band connection is up.
  void establish();
  void heartbeatIntervalIs(Kiv::Seconds s);

  // The switch with this Ethernet address, created on first use with the address 10.0.0.N:6042
  // (N counts switches in creation order). Throws the range exception for a malformed address.
  Switch& switchIs(std::string_view ethAddr);
  // Null when unknown.
  Switch* switchOf(Controller::SystemId const& id) const;
  Switch* switchAt(Ovel::IpAndPort const& address) const;
  std::size_t switches() const { return switches_.size(); }

 private:
  Kiv::Ptr<ControllerOob::Status> oobStatus_;
  Kiv::Ptr<Controller::Heartbeat::Config> heartbeatConfig_;
  friend class Switch;
  // Where a switch at the address is looked up (the first created, should two share it).
  void addressesIndex();

  std::vector<std::unique_ptr<Switch>> switches_;
  // Every mount attempt looks its switch up: indexed, not searched.
  std::unordered_map<Controller::SystemId, Switch*> byId_;
  std::unordered_map<Ovel::IpAndPort, Switch*> byAddress_;
  Network* previous_;
};

}  // namespace Sim
