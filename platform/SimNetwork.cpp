#include "platform/SimNetwork.h"

#include "kiv/Exception.h"
#include "kiv/Reactor.h"
#include "platform/Timer.h"

namespace Sim {

namespace {
Network* currentNetwork = nullptr;
}  // namespace

// --- Switch ---

Switch::Switch(Network& network, Controller::SystemId const& id, Ovel::IpAndPort const& address)
    : network_(network),
      systemId_(id),
      name_(id.stringValue()),
      address_(address),
      root_(Kiv::Dir::DirIs(name_)),
      peerDemuxer_(Kiv::NboAttrLog::Demuxer::DemuxerIs(name_, false)),
      handshakeTimer_(Platform::Timer::TimerIs([this] { handshakeDone(); })),
      reconnectTimer_(Platform::Timer::TimerIs([this] { connect(); })) {}

Switch::~Switch() {
  handshakeTimer_->disarm();
  reconnectTimer_->disarm();
}

Switch& Switch::addressIs(Ovel::IpAndPort const& address) {
  address_ = address;
  network_.addressesIndex();
  return *this;
}

Kiv::Ptr<Record> Switch::entityIs(std::string_view path) {
  Kiv::Ptr<Kiv::Dir> dir = root_;
  Kiv::Name leaf;
  while (!path.empty()) {
    std::size_t slash = path.find('/');
    std::string_view component = path.substr(0, slash);
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    if (component.empty()) continue;
    if (!leaf.empty()) dir = dir->subdirIs(leaf);
    leaf = Kiv::Name(component);
  }
  if (leaf.empty()) Kiv::throwRangeException("empty path for a switch entity");
  return dir->entryIs<Record>(leaf);
}

void Switch::connect() {
  reconnectTimer_->disarm();
  if (serviceStatusDir_) return;
  ControllerOob::Status& oob = *network_.oobStatus();

  auto config = Controller::ConnectionConfig::ConnectionConfigIs(name_);
  config->addressIs(address_);
  config->generationIs(++generation_);

  // The service status is complete before the connection points at it, and the connection
  // exists before the peer appears, so that a reactor to either finds the rest in place.
  serviceStatusDir_ = Controller::ServiceStatusDir::ServiceStatusDirIs(name_);
  for (auto const& [service, version] : serviceVersions_) publish(service, version);
  auto connection = oob.connectionIs(name_);
  connection->addressIs(address_);
  connection->serviceStatusDirIs(serviceStatusDir_);

  // Without a handshake to wait for, the switch answers mounts as soon as it is a peer.
  if (handshakeLatency_ <= 0) connected_ = true;
  oob.peerTable()->peerIs(systemId_, address_, config);

  Kiv::NboAttrLog::ConnectionDir::instance()->connectionIs(name_, true);
  demuxer_ = Kiv::globalNboAttrLogDemuxerManager()->demuxerIs(name_, true);

  if (handshakeLatency_ > 0) {
    handshakeTimer_->armIn(handshakeLatency_);
  } else {
    handshakeDone();
  }
}

void Switch::handshakeDone() {
  connected_ = true;
  // The attribute log first: a reactor to the peer's connection may go straight to it.
  // The hellos cross on the loop's next turn; later traffic takes the latency.
  attrLogStream_ = Kiv::NboAttrLog::InProcessStream::InProcessStreamIs(demuxer_, peerDemuxer_);
  attrLogStream_->latencyIs(kAttrLogLatency);
  if (auto peer = network_.peerTable()->peer(systemId_)) peer->connectedIs(true);
}

void Switch::disconnect() {
  reconnectTimer_->disarm();
  if (!serviceStatusDir_) return;
  handshakeTimer_->disarm();
  connected_ = false;
  serviceStatusDir_ = nullptr;
  ControllerOob::Status& oob = *network_.oobStatus();
  attrLogStream_ = nullptr;
  Kiv::NboAttrLog::ConnectionDir::instance()->connectionDel(name_);
  if (auto peer = oob.peerTable()->peer(systemId_)) {
    peer->connectedIs(false);
    oob.peerTable()->peerDel(systemId_);
  }
  oob.connectionDel(name_);
}

void Switch::flap(Kiv::Seconds downFor) {
  disconnect();
  reconnectTimer_->armIn(downFor);
}

Switch& Switch::serviceVersionIs(Kiv::Name const& service, std::uint32_t version) {
  serviceVersions_[service] = version;
  if (serviceStatusDir_) publish(service, version);
  return *this;
}

Switch& Switch::serviceVersionDel(Kiv::Name const& service) {
  serviceVersions_.erase(service);
  if (!serviceStatusDir_) return *this;
  if (auto status = serviceStatusDir_->service(service)) {
    status->enabledIs(false);
    serviceStatusDir_->serviceDel(service);
  }
  return *this;
}

void Switch::publish(Kiv::Name const& service, std::uint32_t version) {
  auto status = serviceStatusDir_->serviceIs(service);
  auto versionStatus = status->versionStatus();
  if (!versionStatus) {
    versionStatus = Controller::ServiceVersionStatusV1::ServiceVersionStatusV1Is(service);
  } else if (versionStatus->version() != version) {
    // A renegotiation: the outcome is withdrawn while it runs, then announced with the new version.
    versionStatus->versionNegotiationCompleteIs(false);
    versionStatus->versionCompatibleIs(false);
  }
  versionStatus->versionIs(version);
  versionStatus->versionCompatibleIs(true);
  versionStatus->versionNegotiationCompleteIs(true);
  status->versionStatusIs(versionStatus);
  status->enabledIs(true);
}

void Switch::attrLogDel() {
  if (serviceStatusDir_) Kiv::NboAttrLog::ConnectionDir::instance()->connectionDel(name_);
  auto manager = Kiv::globalNboAttrLogDemuxerManager();
  if (demuxer_ && manager->demuxer(name_) == demuxer_) manager->demuxerDel(name_);
}

Switch& Switch::mountLatencyIs(Kiv::Seconds s) {
  mountLatency_ = s;
  return *this;
}

Switch& Switch::unmountLatencyIs(Kiv::Seconds s) {
  unmountLatency_ = s;
  return *this;
}

Switch& Switch::failingIs(bool f) {
  failing_ = f;
  return *this;
}

Switch& Switch::handshakeLatencyIs(Kiv::Seconds s) {
  handshakeLatency_ = s;
  return *this;
}

// --- Network ---

Network::Network(Kiv::Ptr<ControllerOob::Status> oobStatus, Kiv::Ptr<Controller::Heartbeat::Config> heartbeatConfig)
    : oobStatus_(std::move(oobStatus)), heartbeatConfig_(std::move(heartbeatConfig)), previous_(currentNetwork) {
  Kiv::nullCheck(oobStatus_, "oobStatus", "Sim::Network");
  Kiv::nullCheck(heartbeatConfig_, "heartbeatConfig", "Sim::Network");
  if (!oobStatus_->peerTable()) oobStatus_->peerTableIs(Controller::PeerTable::PeerTableIs("peerTable"));
  currentNetwork = this;
}

Network::~Network() {
  // The attribute-log registries are process-wide; the out-of-band status belongs to the owner.
  for (auto const& s : switches_) s->attrLogDel();
  if (currentNetwork == this) currentNetwork = previous_;
}

Network* Network::current() { return currentNetwork; }

void Network::establish() { oobStatus_->establishedIs(true); }

void Network::heartbeatIntervalIs(Kiv::Seconds s) { heartbeatConfig_->heartbeatIntervalIs(s); }

Switch& Network::switchIs(std::string_view ethAddr) {
  Controller::SystemId id(ethAddr);
  if (Switch* existing = switchOf(id)) return *existing;
  auto n = static_cast<std::uint32_t>(switches_.size() + 1);
  Ovel::IpAndPort address((10u << 24) | n, Switch::kDefaultPort);
  switches_.push_back(std::unique_ptr<Switch>(new Switch(*this, id, address)));
  byId_.emplace(id, switches_.back().get());
  byAddress_.emplace(address, switches_.back().get());
  return *switches_.back();
}

void Network::addressesIndex() {
  byAddress_.clear();
  for (auto const& s : switches_) byAddress_.emplace(s->address(), s.get());
}

Switch* Network::switchOf(Controller::SystemId const& id) const {
  auto it = byId_.find(id);
  return it == byId_.end() ? nullptr : it->second;
}

Switch* Network::switchAt(Ovel::IpAndPort const& address) const {
  auto it = byAddress_.find(address);
  return it == byAddress_.end() ? nullptr : it->second;
}

}  // namespace Sim
