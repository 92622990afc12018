#include "registry/MountsRegistrySm.h"

#include <algorithm>
#include <vector>

#include "platform/ProxyService.h"
#include "registry/RegistryTrace.h"

namespace Controller {

Kiv::TraceHandle mountsRegistrySmTrace("ControllerMountsRegistrySm");

namespace {
constexpr char const* kServicePublishReady =
    "void Controller::MountsRegistrySm::handleServicePublishReady(Kiv::String)";

std::vector<SystemId> peersOf(Kiv::PtrConst<PeerTable> const& table) {
  std::vector<SystemId> ids;
  if (table)
    for (auto it = table->peerIter(); it; ++it) ids.push_back(it.key());
  return ids;
}
}  // namespace

MountsRegistrySm::MountsRegistrySm(Kiv::Ptr<MountsRegistry> const& mountsRegistry,
                                   Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                                   Kiv::PtrConst<Heartbeat::Config> const& heartbeatConfig,
                                   Kiv::Ptr<Kiv::Dir> const& serviceMountStatusDir,
                                   Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus)
    : mountsRegistry_(Kiv::ValidPtr<MountsRegistry>(mountsRegistry)),
      oobStatus_(Kiv::ValidPtr<ControllerOob::Status const>(oobStatus)),
      heartbeatConfig_(heartbeatConfig),
      serviceMountStatusDir_(Kiv::ValidPtr<Kiv::Dir>(serviceMountStatusDir)),
      controllerdbPublishStatus_(Kiv::ValidPtr<Controllerdb::PublishStatus>(controllerdbPublishStatus)),
      kivMountsRegistry_(new KivMountsRegistry(mountsRegistry, this)),
      kivOobStatus_(new KivOobStatus(oobStatus, this)) {
  handleMountEntry();
  handlePublishEntry();
  peerTableIs(oobStatus_->peerTable());
  handleInitialized();
}

MountsRegistrySm::~MountsRegistrySm() {
  // Every row, group and system status the mounters wrote goes with the registry. Each service's
  // system statuses are emptied in one pass, table by table, so that the entries' clean-ups find
  // nothing left to withdraw rather than looking up every row of every switch.
  std::vector<Kiv::Ptr<ServiceMountStatus>> statuses;
  for (auto it = mountsRegistry_->mountEntryIter(); it; ++it)
    for (auto m = it.value()->mounterIter(); m; ++m)
      if (Kiv::Ptr<ServiceMountStatus> const& status = m.value()->serviceMountStatus())
        if (std::find(statuses.begin(), statuses.end(), status) == statuses.end()) statuses.push_back(status);
  for (Kiv::Ptr<ServiceMountStatus> const& status : statuses) status->systemStatusDelAll();
  // The mounts end switch by switch, the order they were made in, which keeps the walk over their
  // memory close; a mount from a switch no longer in the table ends in its entry's clean-up.
  std::vector<MountsRegistryEntrySm*> entries;
  for (auto it = mountsRegistryEntrySm_.begin(); it; ++it) entries.push_back(it.value().ptr());
  for (MountsRegistryEntrySm* entry : entries) entry->mountsEndBegin();
  for (auto it = kivPeer_.begin(); it; ++it)
    for (MountsRegistryEntrySm* entry : entries) entry->mountEnd(it.key());
  // The entries first: their clean-ups still ask the connection machines for versions.
  mountsRegistryEntrySm_.clear();
  publishRegistryEntrySm_.clear();
  // Then as if every peer left, and no service's readiness stands any more.
  std::vector<Kiv::Name> connections;
  for (auto it = connectionServiceStatusDirSm_.begin(); it; ++it) connections.push_back(it.key());
  for (Kiv::Name const& connection : connections) controllerdbPublishStatus_->systemDel(SystemId(connection.view()));
  connectionServiceStatusDirSm_.clear();
  controllerdbPublishStatus_->servicePublishReadyDelAll();
}

void MountsRegistrySm::KivOobStatus::onEstablished() { owner_->peerTableIs(notifier()->peerTable()); }
// A table replaced after the connection was established is followed too.
void MountsRegistrySm::KivOobStatus::onPeerTable() { owner_->peerTableIs(notifier()->peerTable()); }

// The peers are handled here, as the table is taken, rather than in handleInitialized(): the
// connection machines must exist before the first evaluation of the switches, since the version
// queries read them.
void MountsRegistrySm::peerTableIs(Kiv::PtrConst<PeerTable> const& peerTable) {
  if (peerTable == peerTable_) return;
  peerTable_ = peerTable;
  kivPeerTable_ = peerTable ? new KivPeerTable(peerTable, this) : nullptr;
  // Peers of a table that went away are handled as gone.
  std::vector<SystemId> gone;
  for (auto it = kivPeer_.begin(); it; ++it)
    if (!peerTable || !peerTable->peer(it.key())) gone.push_back(it.key());
  for (SystemId const& id : gone) handlePeer(id);
  handlePeer();
}

void MountsRegistrySm::handleInitialized() {
  initialized_ = true;
  handleSwitchConnection();
  // Readiness is decided only now that every publish entry has its machine: the first machines
  // built would otherwise find their services' other entries missing.
  std::vector<Kiv::String> services;
  for (auto it = mountsRegistry_->servicePublishReadyIter(); it; ++it) services.push_back(it.key());
  for (Kiv::String const& service : services) handleServicePublishReady(service);
}

void MountsRegistrySm::handleSwitchConnection() {
  MR_TRACE_AT(8, 630, "handleSwitchConnection", "MountsRegistrySm::" << "handleSwitchConnection");
  for (SystemId const& id : peersOf(peerTable_)) handleSwitchConnection(id);
}

void MountsRegistrySm::handleSwitchConnection(SystemId const& systemId) {
  MR_TRACE_AT(8, 616, "handleSwitchConnection", "MountsRegistrySm::" << "handleSwitchConnection" << " " << systemId);
  std::vector<Kiv::Ptr<MountsRegistryEntrySm>> entries;
  for (auto it = mountsRegistryEntrySm_.begin(); it; ++it) entries.push_back(it.value());
  for (auto const& sm : entries) sm->handleSwitchConnection(systemId);
  std::vector<Kiv::Ptr<PublishRegistryEntrySm>> publishers;
  for (auto it = publishRegistryEntrySm_.begin(); it; ++it) publishers.push_back(it.value());
  for (auto const& sm : publishers) sm->handleSwitchConnection(systemId);
}

void MountsRegistrySm::handleServiceVersion(Kiv::String const& serviceName, Kiv::String const& connectionName) {
  MR_TRACE_AT(8, 666, "handleServiceVersion",
              "MountsRegistrySm::" << "handleServiceVersion" << " " << serviceName << " " << connectionName);
  handleSwitchConnection(SystemId(connectionName.view()));
}

void MountsRegistrySm::handleMountEntry() {
  std::vector<Kiv::Name> keys;
  for (auto it = mountsRegistry_->mountEntryIter(); it; ++it) keys.push_back(it.key());
  for (Kiv::Name const& key : keys) handleMountEntry(key);
}

void MountsRegistrySm::handleMountEntry(Kiv::Name const& remotePath) {
  Kiv::Ptr<MountsRegistryEntry> entry = mountsRegistry_->mountEntry(remotePath);
  MR_TRACE_AT(8, 741, "handleMountEntry",
              "MountsRegistrySm::" << "handleMountEntry" << ": " << remotePath << " Remote Path:"
                                   << (entry ? entry->remotePath() : remotePath));
  if (entry) {
    mountsRegistryEntrySmIs(entry, oobStatus_, serviceMountStatusDir_);
  } else if (mountsRegistryEntrySm_.get(remotePath)) {
    MR_TRACE_AT(8, 750, "handleMountEntry",
                "MountsRegistrySm::" << "handleMountEntry" << ": " << remotePath
                                     << " Deleting registry entry sm for :" << remotePath);
    mountsRegistryEntrySmDel(remotePath);
  }
}

void MountsRegistrySm::handlePublishEntry() {
  MR_TRACE_AT(8, 732, "handlePublishEntry", "MountsRegistrySm::" << "handlePublishEntry");
  std::vector<Kiv::Name> keys;
  for (auto it = mountsRegistry_->publishEntryIter(); it; ++it) keys.push_back(it.key());
  for (Kiv::Name const& key : keys) handlePublishEntry(key);
}

void MountsRegistrySm::handlePublishEntry(Kiv::Name const& path) {
  Kiv::Ptr<PublishRegistryEntry> pe = mountsRegistry_->publishEntry(path);
  MR_TRACE_AT(8, 713, "handlePublishEntry",
              "MountsRegistrySm::" << "handlePublishEntry" << ": " << path << " Controller Path:" << path);
  if (pe) {
    Kiv::Ptr<PublishRegistryEntrySm> preSm = publishRegistryEntrySm_.get(path);
    KIV_ASSERT(!preSm || pe->serviceName() == preSm->publishEntry()->serviceName());
    Kiv::Ptr<PublishRegistryEntrySm> sm = publishRegistryEntrySmIs(pe, oobStatus_, controllerdbPublishStatus_);
    // A new entry not processed yet holds the service's readiness back (a processed one has
    // already had it decided).
    if (!preSm && !sm->processed()) handleServicePublishReady(pe->serviceName());
  } else if (publishRegistryEntrySm_.get(path)) {
    MR_TRACE_AT(8, 723, "handlePublishEntry",
                "MountsRegistrySm::" << "handlePublishEntry" << ": " << path << " Deleting publish sm for: " << path);
    Kiv::String const service = publishRegistryEntrySm_.get(path)->publishEntry()->serviceName();
    publishRegistryEntrySmDel(path);
    // The entry may have been the one the service's readiness waited for.
    handleServicePublishReady(service);
  }
}

void MountsRegistrySm::handleServicePublishReady(Kiv::String const& serviceName) {
  MR_TRACE_AT(8, 767, "handleServicePublishReady",
              "MountsRegistrySm::" << "handleServicePublishReady" << ": " << serviceName);
  if (!initialized_) return;
  // The readiness stands exactly while the service says it is ready (the configuration side
  // withdraws that while the generation is stale) and every entry of the service is processed:
  // setting it waits for the entries, withdrawing it never does.
  bool ready = mountsRegistry_->servicePublishReady(serviceName);
  for (auto it = publishRegistryEntrySm_.begin(); ready && it; ++it) {
    PublishRegistryEntrySm const& sm = *it.value();
    if (sm.publishEntry()->serviceName() != serviceName || sm.processed()) continue;
    MR_DUALLOG_AT(5, 788, kServicePublishReady, "Publish entry %s not yet processed", it.key());
    ready = false;
  }
  if (ready) {
    MR_DUALLOG_AT(5, 795, kServicePublishReady, "Setting publishReady for %s", serviceName);
    controllerdbPublishStatus_->servicePublishReadyIs(serviceName, true);
  } else {
    controllerdbPublishStatus_->servicePublishReadyDel(serviceName);
  }
}

Kiv::PtrConst<ControllerOob::Connection> MountsRegistrySm::connectionOf(Kiv::PtrConst<Peer> const& peer) const {
  for (auto it = oobStatus_->connectionIter(); it; ++it)
    if (it.value()->address() == peer->connectionAddress()) return it.value();
  return nullptr;
}

void MountsRegistrySm::handlePeer() {
  for (SystemId const& id : peersOf(peerTable_)) handlePeer(id);
}

// Every arrival and departure of a peer re-evaluates the switch everywhere, whatever services it
// negotiated: a switch without any still gets (or loses) its system status.
void MountsRegistrySm::handlePeer(SystemId const& systemId) {
  MR_TRACE_AT(8, 640, "handlePeer", "MountsRegistrySm::" << "handlePeer" << " " << systemId);
  Kiv::Name const name(systemId.stringValue());
  Kiv::PtrConst<Peer> peer = peerTable_ ? peerTable_->peer(systemId) : nullptr;
  if (peer) {
    MR_TRACE_AT(8, 642, "handlePeer", "MountsRegistrySm::" << "handlePeer" << " peer:" << systemId << " added");
    Kiv::Ptr<KivPeer> watcher = kivPeer_.get(systemId);
    if (!watcher || watcher->notifier() != peer) kivPeer_.assign(systemId, new KivPeer(peer, systemId, this));
    Kiv::PtrConst<ControllerOob::Connection> connection = connectionOf(peer);
    // The connection layer fills in a connection's service status before it adds the peer; a
    // connection without one has no versions to follow.
    if (connection && connection->serviceStatusDir()) {
      controllerdbPublishStatus_->systemIs(systemId);
      connectionServiceStatusDirSmIs(name, connection->serviceStatusDir());
    }
  } else {
    Kiv::Ptr<KivPeer> gone;
    kivPeer_.erase(systemId, &gone);
    if (connectionServiceStatusDirSm_.get(name)) {
      MR_TRACE_AT(8, 648, "handlePeer", "MountsRegistrySm::" << "handlePeer" << " peer:" << systemId << " removed");
      controllerdbPublishStatus_->systemDel(systemId);
      // Its clean-up re-evaluates the switch.
      connectionServiceStatusDirSmDel(name);
      return;
    }
  }
  if (initialized_) handleSwitchConnection(systemId);
}

void MountsRegistrySm::KivPeer::onConnected() { owner_->handleSwitchConnection(systemId_); }

Kiv::Name MountsRegistrySm::switchName(SystemId const& systemId) const {
  Kiv::Ptr<KivPeer> const* peer = kivPeer_.find(systemId);
  return peer ? (*peer)->name() : Kiv::Name(systemId.stringValue());
}

std::uint32_t MountsRegistrySm::negotiatedServiceVersionForConnection(Kiv::String serviceName,
                                                                      Kiv::String connectionName) const {
  MR_TRACE_AT(8, 677, "negotiatedServiceVersionForConnection",
              "MountsRegistrySm::" << "negotiatedServiceVersionForConnection" << " " << serviceName << " "
                                   << connectionName);
  Ovel::EthAddr addr;
  if (!peerTable_ || !Ovel::EthAddr::parse(connectionName.view(), addr)) return 0;
  Kiv::PtrConst<Peer> peer = peerTable_->peer(SystemId(addr));
  if (!peer) return 0;
  Kiv::String const service = isProxyServiceName(serviceName.view()) ? realServiceNameOfProxy(serviceName) : serviceName;
  Kiv::PtrConst<ServiceVersionStatusV1> version;
  if (Kiv::PtrConst<ControllerOob::Connection> connection = connectionOf(peer)) {
    if (auto sm = connectionServiceStatusDirSm_.get(Kiv::Name(SystemId(addr).stringValue()))) {
      if (auto reactor = sm->serviceStatus(service); reactor && !reactor->goingAway()) {
        Kiv::PtrConst<ServiceStatusV1> status = reactor->notifier();
        if (status && status->enabled()) version = status->versionStatus();
      }
    }
  }
  if (version && version->versionNegotiationComplete()) {
    MR_TRACE_AT(8, 700, "negotiatedServiceVersionForConnection",
                "MountsRegistrySm::" << "negotiatedServiceVersionForConnection" << " negotiated service version for "
                                     << connectionName << " for service " << service << " = " << version->version());
    return version->version();
  }
  MR_TRACE_AT(8, 705, "negotiatedServiceVersionForConnection",
              "MountsRegistrySm::" << "negotiatedServiceVersionForConnection" << " no version negotiated for "
                                   << connectionName << " for service " << service);
  return 0;
}

Kiv::Ptr<MountsRegistryEntrySm> MountsRegistrySm::mountsRegistryEntrySmIs(
    Kiv::Ptr<MountsRegistryEntry> const& registryEntry, Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
    Kiv::Ptr<Kiv::Dir> const& serviceMountStatusDir) {
  Kiv::ValidPtr<MountsRegistryEntry> entry(registryEntry);
  return mountsRegistryEntrySm_.instantiate(
      entry->name(), std::make_tuple(registryEntry, oobStatus, serviceMountStatusDir), [&] {
        return Kiv::Ptr<MountsRegistryEntrySm>(
            new MountsRegistryEntrySm(registryEntry, oobStatus, serviceMountStatusDir, this));
      });
}

void MountsRegistrySm::mountsRegistryEntrySmDel(Kiv::Name const& remotePath) {
  mountsRegistryEntrySm_.erase(remotePath);
}

Kiv::Ptr<PublishRegistryEntrySm> MountsRegistrySm::publishRegistryEntrySmIs(
    Kiv::Ptr<PublishRegistryEntry> const& publishEntry, Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
    Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus) {
  Kiv::ValidPtr<PublishRegistryEntry> entry(publishEntry);
  return publishRegistryEntrySm_.instantiate(
      entry->name(), std::make_tuple(publishEntry, oobStatus, controllerdbPublishStatus), [&] {
        return Kiv::Ptr<PublishRegistryEntrySm>(
            new PublishRegistryEntrySm(publishEntry, oobStatus, controllerdbPublishStatus, this));
      });
}

void MountsRegistrySm::publishRegistryEntrySmDel(Kiv::Name const& path) { publishRegistryEntrySm_.erase(path); }

Kiv::Ptr<ConnectionServiceStatusDirSm> MountsRegistrySm::connectionServiceStatusDirSmIs(
    Kiv::Name const& connectionName, Kiv::PtrConst<ServiceStatusDir> const& controllerServiceStatusDir) {
  bool const created = !connectionServiceStatusDirSm_.get(connectionName);
  Kiv::Ptr<ConnectionServiceStatusDirSm> sm = connectionServiceStatusDirSm_.instantiate(
      connectionName, std::make_tuple(controllerServiceStatusDir), [&] {
        return Kiv::Ptr<ConnectionServiceStatusDirSm>(
            new ConnectionServiceStatusDirSm(connectionName, controllerServiceStatusDir, this));
      });
  if (created) sm->handleInitialized();
  return sm;
}

void MountsRegistrySm::connectionServiceStatusDirSmDel(Kiv::Name const& connectionName) {
  connectionServiceStatusDirSm_.erase(connectionName);
}

}  // namespace Controller
