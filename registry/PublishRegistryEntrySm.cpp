#include "registry/PublishRegistryEntrySm.h"

#include <vector>

#include "registry/MountsRegistrySm.h"

namespace Controller {

PublishRegistryEntrySm::PublishRegistryEntrySm(Kiv::Ptr<PublishRegistryEntry> const& publishEntry,
                                               Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                                               Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
                                               MountsRegistrySm* mountsRegistrySm)
    : PublishRegistryEntrySmBase(publishEntry, oobStatus, controllerdbPublishStatus, mountsRegistrySm) {
  systemFilterIs(publishEntry_->systemFilter());
  versionFilterIs(publishEntry_->versionFilter());
  handleInitialized();
}

PublishRegistryEntrySm::~PublishRegistryEntrySm() = default;

Kiv::String PublishRegistryEntrySm::publishedPath(SystemId const& systemId) const {
  if (!publishEntry_->isPrefixPath()) return publishEntry_->controllerdbPath();
  return publishEntry_->controllerdbPath() + "/" + Kiv::String(systemId.stringValue());
}

Kiv::Ptr<Kiv::Entity> PublishRegistryEntrySm::publishEntity() const {
  MountsRegistry* registry = publishEntry_->registry();
  if (!registry || !registry->rootDir()) return nullptr;
  return registry->rootDir()->entityAtPath(publishEntry_->controllerdbPath().view());
}

bool PublishRegistryEntrySm::publishEntityExists() const { return bool(publishEntity()); }

bool PublishRegistryEntrySm::canPublishToConnection(Kiv::String connection) {
  Kiv::Name const& key = publishEntry_->name();
  KIV_SM_TRACE(8, "canPublishToConnection", " " << key);
  std::uint32_t version =
      mountsRegistrySm_->negotiatedServiceVersionForConnection(publishEntry_->serviceName(), connection);
  if (version == 0) {
    KIV_SM_DUALLOG(5, kivSigCanPublishToConnection, " no version negotiated:%s", connection);
    return false;
  }
  if (publishEntry_->versionFilter()) {
    if (!hasVersion(connection, version)) return false;
  } else {
    KIV_SM_DUALLOG(5, kivSigCanPublishToConnection, "no versionFilter for %s", key);
  }
  if (Kiv::PtrConst<MountFilterSystem> const& systems = publishEntry_->systemFilter()) {
    if (systems->includedSystem(connection)) {
      KIV_SM_DUALLOG(5, kivSigCanPublishToConnection, " matched systemFilter connection:%s", connection);
      return true;
    }
    KIV_SM_DUALLOG(5, kivSigCanPublishToConnection, " no matched system for connection: %s", connection);
    return false;
  }
  KIV_SM_DUALLOG(5, kivSigCanPublishToConnection, " no systemfilter for %s", key);
  return true;
}

bool PublishRegistryEntrySm::hasVersion(Kiv::String connection, std::uint32_t version) {
  KIV_SM_TRACE(8, "hasVersion", " " << publishEntry_->name());
  Kiv::String const& service = publishEntry_->serviceName();
  if (publishEntry_->versionFilter() && publishEntry_->versionFilter()->includedServiceVersion(version)) {
    KIV_SM_DUALLOG(5, kivSigHasVersion, " matched version: %s service:%s connection:%s", version, service, connection);
    return true;
  }
  KIV_SM_DUALLOG(5, kivSigHasVersion, " version not in filter:%s service:%s connection:%s", version, service,
                 connection);
  return false;
}

void PublishRegistryEntrySm::handleInitialized() {
  KIV_SM_TRACE(8, "handleInitialized", " " << publishEntry_->name());
  initialized_ = true;
  entityPresenceCheckTimeMinIs(Kiv::kInfinity);
  handleSwitchConnection();
}

void PublishRegistryEntrySm::handleSwitchConnection() {
  KIV_SM_TRACE(8, "handleSwitchConnection", " " << publishEntry_->name());
  if (!initialized_) return;
  std::vector<SystemId> switches;
  if (Kiv::PtrConst<PeerTable> peers = mountsRegistrySm_->peerTable())
    for (auto it = peers->peerIter(); it; ++it) switches.push_back(it.key());
  // Switches that left still hold what was published to them.
  for (auto it = controllerdbPublishStatus_->systemIter(); it; ++it)
    if (std::find(switches.begin(), switches.end(), it.key()) == switches.end()) switches.push_back(it.key());
  for (SystemId const& id : switches) handleSwitchConnection(id);

  if (publishEntityExists()) {
    processed_ = true;
    mountsRegistrySm_->handleServicePublishReady(publishEntry_->serviceName());
    return;
  }
  KIV_SM_DUALLOG(1, kivSigHandleSwitchConnection0, "Entity at %s doesn't exist.", publishEntry_->controllerdbPath());
  entityPresenceCheckTimeMinIs(Kiv::System::currentTime() + entityCheckInterval);
}

void PublishRegistryEntrySm::handleEntityPresenceCheckClock() {
  KIV_SM_DUALLOG(5, kivSigHandleEntityPresenceCheckClock, " checking %s", publishEntry_->controllerdbPath());
  handleSwitchConnection();
}

void PublishRegistryEntrySm::handleSwitchConnection(SystemId const& systemId) {
  Kiv::Name const& key = publishEntry_->name();
  KIV_SM_TRACE(8, "handleSwitchConnection", " " << key);
  if (!initialized_) return;
  Kiv::PtrConst<PeerTable> peers = mountsRegistrySm_->peerTable();
  Kiv::PtrConst<Peer> peer = peers ? peers->peer(systemId) : nullptr;
  if (!peer) {
    doDisconnectSwitch(systemId);
    return;
  }
  bool const exists = publishEntityExists();
  // Without the directory there is nothing to add a subdirectory to yet; the presence check
  // comes back to it.
  if (publishEntry_->isPrefixPath() && exists) addSwitchToPublishEntryDir(systemId);
  Kiv::String const connection(systemId.stringValue());
  if (peer->connected() && canPublishToConnection(connection) && exists && publishEntry_->readyToPublish()) {
    doConnectSwitch(systemId);
  } else {
    KIV_SM_DUALLOG(5, kivSigHandleSwitchConnection1, " Cannot publish:%s to:%s", key, systemId);
    doDisconnectSwitch(systemId);
  }
}

void PublishRegistryEntrySm::addSwitchToPublishEntryDir(SystemId const& systemId) {
  KIV_ASSERT(publishEntry()->isPrefixPath());
  Kiv::Ptr<Kiv::Dir> publishEntryDir = Kiv::entityCast<Kiv::Dir>(publishEntity());
  KIV_ASSERT(publishEntryDir && "Publish path doesn't exist or its type is not Kiv::Dir");
  Kiv::Name const name(systemId.stringValue());
  try {
    publishEntryDir->subdirIs(name);
  } catch (Kiv::Exception const&) {
    KIV_SM_TRACE_TEXT(1, "addSwitchToPublishEntryDir",
                      "could not create subdir " << publishEntry_->controllerdbPath() << "/" << name);
  }
}

void PublishRegistryEntrySm::doConnectSwitch(SystemId const& systemId) {
  Kiv::String const connection(systemId.stringValue());
  if (!canPublishToConnection(connection)) return;
  Kiv::Ptr<Kiv::Entity> publishEntity = this->publishEntity();
  KIV_ASSERT(publishEntity && "Publish entity doesn't exist");
  MountDesc const mdesc(publishedPath(systemId), publishEntry_->remotePath(), publishEntry_->kivType(),
                        publishEntry_->serviceName());
  KIV_ASSERT(!!mdesc);
  Kiv::Ptr<Controllerdb::SystemPublishedMount> system = controllerdbPublishStatus_->system(systemId);
  if (!system) {
    KIV_SM_DUALLOG(5, kivSigDoConnectSwitch, " Cannot publish to:system%s", systemId);
    return;
  }
  KIV_SM_TRACE(8, "doConnectSwitch",
               " " << publishEntry_->name() << " publishing ssm:" << mdesc.path() << " to:" << systemId
                   << " type: " << mdesc.kivType() << " service: " << mdesc.serviceName());
  // Switches are evaluated again on every change of their connection: a publication already in
  // place is neither written nor logged again.
  if (system->publishedMount(mdesc.path()) == mdesc) return;
  KIV_SM_DUALLOG(5, kivSigDoConnectSwitch, " publishing:%s on:%s", mdesc.path(), systemId);
  system->publishedMountIs(mdesc);
}

void PublishRegistryEntrySm::doDisconnectSwitch(SystemId const& systemId) {
  Kiv::Ptr<Controllerdb::SystemPublishedMount> system = controllerdbPublishStatus_->system(systemId);
  Kiv::String const path = publishedPath(systemId);
  // Likewise nothing is logged for a switch that holds no publication of the entry.
  if (!system || !system->publishedMount(path)) return;
  KIV_SM_DUALLOG(5, kivSigDoDisconnectSwitch, " un-publishing:%s from:%s", path, systemId);
  system->publishedMountDel(path);
  if (system->publishedMountSize() == 0)
    KIV_SM_DUALLOG(5, kivSigDoDisconnectSwitch, " All published mounts gone for %s", systemId);
}

void PublishRegistryEntrySm::handleSystemFilter() {
  KIV_SM_TRACE(8, "handleSystemFilter", " " << publishEntry_->name());
  Kiv::PtrConst<MountFilterSystem> const& filter = publishEntry_->systemFilter();
  systemFilterIs(filter);
  handleSwitchConnection();
}

void PublishRegistryEntrySm::handleVersionFilter() {
  KIV_SM_TRACE(8, "handleVersionFilter", " " << publishEntry_->name());
  Kiv::PtrConst<MountFilterServiceVersion> const& filter = publishEntry_->versionFilter();
  versionFilterIs(filter);
  handleSwitchConnection();
}

void PublishRegistryEntrySm::handleIncludedSystem(Kiv::String const& /*systemName*/) {
  KIV_SM_TRACE(8, "handleIncludedSystem", " " << publishEntry_->name());
  handleSwitchConnection();
}

void PublishRegistryEntrySm::handleIncludedServiceVersion(std::uint32_t /*version*/) {
  KIV_SM_TRACE(8, "handleIncludedServiceVersion", " " << publishEntry_->name());
  handleSwitchConnection();
}

void PublishRegistryEntrySm::handleReadyToPublish() {
  KIV_SM_TRACE(8, "handleReadyToPublish", " " << publishEntry_->name());
  handleSwitchConnection();
}

void PublishRegistryEntrySm::doCleanup() {
  KIV_SM_TRACE(8, "doCleanup", " " << publishEntry_->name());
  for (SystemId const& id : Kiv::keysOf(controllerdbPublishStatus_->systemIter())) doDisconnectSwitch(id);
  entityPresenceCheckTimeMinIs(Kiv::kInfinity);
}

}  // namespace Controller
