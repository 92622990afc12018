#include "registry/MountsRegistrySm.h"

#include <algorithm>
#include <vector>

#include "platform/ProxyService.h"

namespace Controller {

namespace {
Kiv::Snapshot<SystemId> peersOf(Kiv::PtrConst<PeerTable> const& table) {
  return table ? Kiv::keysOf(table->peerIter()) : Kiv::Snapshot<SystemId>();
}
}  // namespace

MountsRegistrySm::MountsRegistrySm(Kiv::Ptr<MountsRegistry> const& mountsRegistry,
                                   Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                                   Kiv::PtrConst<Heartbeat::Config> const& heartbeatConfig,
                                   Kiv::Ptr<Kiv::Dir> const& serviceMountStatusDir,
                                   Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus)
    : MountsRegistrySmBase(mountsRegistry, oobStatus, heartbeatConfig, serviceMountStatusDir,
                           controllerdbPublishStatus) {
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
  groupStateTally_.clear();
  // The mounts end switch by switch, the order they were made in, which keeps the walk over their
  // memory close; a mount from a switch no longer in the table ends in its entry's clean-up.
  std::vector<MountsRegistryEntrySm*> entries;
  for (auto it = mountsRegistryEntrySm_.begin(); it; ++it) entries.push_back(it.value().ptr());
  for (MountsRegistryEntrySm* entry : entries) entry->mountsEndBegin();
  for (auto it = peerIter(); it; ++it)
    for (MountsRegistryEntrySm* entry : entries) entry->mountEnd(it.key());
  // The entries first: their clean-ups still ask the connection machines for versions.
  mountsRegistryEntrySmDelAll();
  publishRegistryEntrySmDelAll();
  // Then as if every peer left, and no service's readiness stands any more.
  for (Kiv::Name const& connection : Kiv::keysOf(connectionServiceStatusDirSm_.begin()))
    controllerdbPublishStatus_->systemDel(SystemId(connection.view()));
  connectionServiceStatusDirSmDelAll();
  controllerdbPublishStatus_->servicePublishReadyDelAll();
}

void MountsRegistrySm::handleOobPeerTable() { peerTableIs(oobStatus_->peerTable()); }

// The peers are handled here, as the table is taken, rather than in handleInitialized(): the
// connection machines must exist before the first evaluation of the switches, since the version
// queries read them.
void MountsRegistrySm::handlePeerTable() {
  // Peers of a table that went away are handled as gone.
  std::vector<SystemId> gone;
  for (auto it = peerIter(); it; ++it)
    if (!peerTable_ || !peerTable_->peer(it.key())) gone.push_back(it.key());
  for (SystemId const& id : gone) handlePeer(id);
  handlePeer();
}

void MountsRegistrySm::handleInitialized() {
  initialized_ = true;
  handleSwitchConnection();
  // Readiness is decided only now that every publish entry has its machine: the first machines
  // built would otherwise find their services' other entries missing.
  for (Kiv::String const& service : Kiv::keysOf(mountsRegistry_->servicePublishReadyIter()))
    handleServicePublishReady(service);
}

void MountsRegistrySm::handleSwitchConnection() {
  // A fixed line: the message's identity, not this file's line; keep it.
  KIV_SM_TRACE_AT(8, 630, "handleSwitchConnection", "");
  for (SystemId const& id : peersOf(peerTable_)) handleSwitchConnection(id);
}

void MountsRegistrySm::handleSwitchConnection(SystemId const& systemId) {
  KIV_SM_TRACE_AT(8, 616, "handleSwitchConnection", " " << systemId);
  for (auto const& sm : Kiv::valuesOf(mountsRegistryEntrySm_.begin())) sm->handleSwitchConnection(systemId);
  for (auto const& sm : Kiv::valuesOf(publishRegistryEntrySm_.begin())) sm->handleSwitchConnection(systemId);
}

void MountsRegistrySm::handleServiceVersion(Kiv::String const& serviceName, Kiv::String const& connectionName) {
  KIV_SM_TRACE_AT(8, 666, "handleServiceVersion", " " << serviceName << " " << connectionName);
  handleSwitchConnection(SystemId(connectionName.view()));
}

void MountsRegistrySm::handleMountEntry() {
  for (Kiv::Name const& key : Kiv::keysOf(mountsRegistry_->mountEntryIter())) handleMountEntry(key);
}

void MountsRegistrySm::handleMountEntry(Kiv::Name const& remotePath) {
  Kiv::Ptr<MountsRegistryEntry> entry = mountsRegistry_->mountEntry(remotePath);
  KIV_SM_TRACE_AT(8, 741, "handleMountEntry",
                  ": " << remotePath << " Remote Path:" << (entry ? entry->remotePath() : remotePath));
  if (entry) {
    mountsRegistryEntrySmIs(entry, oobStatus_, serviceMountStatusDir_);
  } else if (mountsRegistryEntrySm(remotePath)) {
    KIV_SM_TRACE_AT(8, 750, "handleMountEntry",
                    ": " << remotePath << " Deleting registry entry sm for :" << remotePath);
    mountsRegistryEntrySmDel(remotePath);
  }
}

void MountsRegistrySm::handlePublishEntry() {
  KIV_SM_TRACE_AT(8, 732, "handlePublishEntry", "");
  for (Kiv::Name const& key : Kiv::keysOf(mountsRegistry_->publishEntryIter())) handlePublishEntry(key);
}

void MountsRegistrySm::handlePublishEntry(Kiv::Name const& path) {
  Kiv::Ptr<PublishRegistryEntry> pe = mountsRegistry_->publishEntry(path);
  KIV_SM_TRACE_AT(8, 713, "handlePublishEntry", ": " << path << " Controller Path:" << path);
  if (pe) {
    Kiv::Ptr<PublishRegistryEntrySm> preSm = publishRegistryEntrySm(path);
    KIV_ASSERT(!preSm || pe->serviceName() == preSm->publishEntry()->serviceName());
    Kiv::Ptr<PublishRegistryEntrySm> sm = publishRegistryEntrySmIs(pe, oobStatus_, controllerdbPublishStatus_);
    // A new entry not processed yet holds the service's readiness back (a processed one has
    // already had it decided).
    if (!preSm && !sm->processed()) handleServicePublishReady(pe->serviceName());
  } else if (publishRegistryEntrySm(path)) {
    KIV_SM_TRACE_AT(8, 723, "handlePublishEntry", ": " << path << " Deleting publish sm for: " << path);
    Kiv::String const service = publishRegistryEntrySm(path)->publishEntry()->serviceName();
    publishRegistryEntrySmDel(path);
    // The entry may have been the one the service's readiness waited for.
    handleServicePublishReady(service);
  }
}

void MountsRegistrySm::handleServicePublishReady(Kiv::String const& serviceName) {
  KIV_SM_TRACE_AT(8, 767, "handleServicePublishReady", ": " << serviceName);
  if (!initialized_) return;
  // The readiness stands exactly while the service says it is ready (the configuration side
  // withdraws that while the generation is stale) and every entry of the service is processed:
  // setting it waits for the entries, withdrawing it never does.
  bool ready = mountsRegistry_->servicePublishReady(serviceName);
  for (auto it = publishRegistryEntrySm_.begin(); ready && it; ++it) {
    PublishRegistryEntrySm const& sm = *it.value();
    if (sm.publishEntry()->serviceName() != serviceName || sm.processed()) continue;
    KIV_SM_DUALLOG_AT(5, 788, kivSigHandleServicePublishReady, "Publish entry %s not yet processed", it.key());
    ready = false;
  }
  if (ready) {
    KIV_SM_DUALLOG_AT(5, 795, kivSigHandleServicePublishReady, "Setting publishReady for %s", serviceName);
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

bool MountsRegistrySm::hasConnection(Kiv::PtrConst<Peer> const& peer, Kiv::Name const& name) const {
  Kiv::PtrConst<ControllerOob::Connection> const named = oobStatus_->connection(name);
  return (named && named->address() == peer->connectionAddress()) || connectionOf(peer);
}

void MountsRegistrySm::handlePeer() {
  for (SystemId const& id : peersOf(peerTable_)) handlePeer(id);
}

// Every arrival and departure of a peer re-evaluates the switch everywhere, whatever services it
// negotiated: a switch without any still gets (or loses) its system status.
void MountsRegistrySm::handlePeer(SystemId const& systemId) {
  KIV_SM_TRACE_AT(8, 640, "handlePeer", " " << systemId);
  unwatchedNames_.clear();
  Kiv::Name const name(systemId.stringValue());
  Kiv::PtrConst<Peer> const current = peerTable_ ? peerTable_->peer(systemId) : nullptr;
  if (current) {
    KIV_SM_TRACE_AT(8, 642, "handlePeer", " peer:" << systemId << " added");
    peerIs(systemId, current);
    Kiv::PtrConst<ControllerOob::Connection> connection = connectionOf(current);
    // The connection layer fills in a connection's service status before it adds the peer; a
    // connection without one has no versions to follow.
    if (connection && connection->serviceStatusDir()) {
      controllerdbPublishStatus_->systemIs(systemId);
      // A new machine starts once it is in the collection, where the version queries its
      // services cause look for it.
      bool const created = !connectionServiceStatusDirSm(name);
      Kiv::Ptr<ConnectionServiceStatusDirSm> sm = connectionServiceStatusDirSmIs(name, connection->serviceStatusDir());
      if (created) sm->handleInitialized();
    }
  } else {
    peerDel(systemId);
    if (connectionServiceStatusDirSm(name)) {
      KIV_SM_TRACE_AT(8, 648, "handlePeer", " peer:" << systemId << " removed");
      controllerdbPublishStatus_->systemDel(systemId);
      // Its clean-up re-evaluates the switch.
      connectionServiceStatusDirSmDel(name);
      return;
    }
  }
  if (initialized_) handleSwitchConnection(systemId);
}

void MountsRegistrySm::handlePeerConnected(SystemId const& systemId) { handleSwitchConnection(systemId); }

Kiv::PtrConst<ServiceVersionStatusV1> MountsRegistrySm::versionStatus(Kiv::PtrConst<Peer> const& peer,
                                                                       Kiv::Name const& name,
                                                                       Kiv::String const& service) const {
  if (!hasConnection(peer, name)) return nullptr;
  Kiv::Ptr<ConnectionServiceStatusDirSm> const sm = connectionServiceStatusDirSm(name);
  auto const follower = sm ? sm->serviceStatus(service) : nullptr;
  if (!follower || follower->goingAway()) return nullptr;
  Kiv::PtrConst<ServiceStatusV1> const status = follower->serviceStatus();
  Kiv::PtrConst<ServiceVersionStatusV1> const version = status && status->enabled() ? status->versionStatus() : nullptr;
  return version && version->versionNegotiationComplete() ? version : nullptr;
}

std::uint32_t MountsRegistrySm::negotiatedVersion(Kiv::String const& serviceName, SystemId const& systemId) const {
  Kiv::PtrConst<Peer> const current = peerTable_ ? peerTable_->peer(systemId) : nullptr;
  if (!current) return 0;
  Kiv::String const service = isProxyServiceName(serviceName.view()) ? realServiceNameOfProxy(serviceName) : serviceName;
  Kiv::PtrConst<ServiceVersionStatusV1> const version = versionStatus(current, Kiv::Name(systemId.stringValue()), service);
  return version ? version->version() : 0;
}

Kiv::Name MountsRegistrySm::switchName(SystemId const& systemId) const {
  if (Kiv::Ptr<KivPeer> const watcher = peer(systemId)) return watcher->name();
  // No watcher: the entries evaluate before the table is taken at start-up, and a switch's mounts
  // report their unmounts after it left. The name is made once and kept until the table changes.
  if (Kiv::Name const* name = unwatchedNames_.find(systemId)) return *name;
  Kiv::Name const name(systemId.stringValue());
  unwatchedNames_.insert(systemId, name);
  return name;
}

std::uint32_t MountsRegistrySm::negotiatedServiceVersionForConnection(Kiv::String serviceName,
                                                                      Kiv::String connectionName) const {
  KIV_SM_TRACE_AT(8, 677, "negotiatedServiceVersionForConnection", " " << serviceName << " " << connectionName);
  Ovel::EthAddr addr;
  if (!peerTable_ || !Ovel::EthAddr::parse(connectionName.view(), addr)) return 0;
  SystemId const id(addr);
  Kiv::PtrConst<Peer> const current = peerTable_->peer(id);
  if (!current) return 0;
  Kiv::String const service = isProxyServiceName(serviceName.view()) ? realServiceNameOfProxy(serviceName) : serviceName;
  if (Kiv::PtrConst<ServiceVersionStatusV1> const version = versionStatus(current, switchName(id), service)) {
    KIV_SM_TRACE_AT(8, 700, "negotiatedServiceVersionForConnection",
                    " negotiated service version for " << connectionName << " for service " << service << " = "
                                                       << version->version());
    return version->version();
  }
  KIV_SM_TRACE_AT(8, 705, "negotiatedServiceVersionForConnection",
                  " no version negotiated for " << connectionName << " for service " << service);
  return 0;
}

}  // namespace Controller
