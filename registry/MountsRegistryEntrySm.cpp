#include "registry/MountsRegistryEntrySm.h"

#include <algorithm>
#include <vector>

#include "registry/MountsRegistrySm.h"
#include "registry/RegistryTrace.h"

namespace Controller {

namespace {
constexpr char const* kHandleMounter = "void Controller::MountsRegistryEntrySm::handleMounter(Kiv::String)";
constexpr char const* kEvaluateMounters = "void Controller::MountsRegistryEntrySm::evaluateMounters()";
constexpr char const* kCanMountFromConnection =
    "bool Controller::MountsRegistryEntrySm::canMountFromConnection(Kiv::String)";
constexpr char const* kMatchingServiceVersionFilter =
    "bool Controller::MountsRegistryEntrySm::matchingServiceVersionFilter(Kiv::String, Kiv::String)";
constexpr char const* kHandleSwitchConnection =
    "void Controller::MountsRegistryEntrySm::handleSwitchConnection(Controller::SystemId)";
constexpr char const* kDoConnectSwitch =
    "void Controller::MountsRegistryEntrySm::doConnectSwitch(Controller::SystemId)";
constexpr char const* kDoDisconnectSwitch =
    "void Controller::MountsRegistryEntrySm::doDisconnectSwitch(Controller::SystemId)";
constexpr char const* kHandleMountState =
    "void Controller::MountsRegistryEntrySm::KivMountSmDataSm::handleMountState()";
constexpr char const* kUpdateMountersStatus =
    "void Controller::MountsRegistryEntrySm::updateMountersStatus(Controller::SystemId, Controller::MountState)";
}  // namespace

MountsRegistryEntrySm::MountsRegistryEntrySm(Kiv::Ptr<MountsRegistryEntry> const& registryEntry,
                                             Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                                             Kiv::Ptr<Kiv::Dir> const& serviceMountStatusDir,
                                             MountsRegistrySm* mountsRegistrySm)
    : registryEntry_(Kiv::ValidPtr<MountsRegistryEntry>(registryEntry)),
      oobStatus_(Kiv::ValidPtr<ControllerOob::Status const>(oobStatus)),
      serviceMountStatusDir_(serviceMountStatusDir),
      mountsRegistrySm_(mountsRegistrySm),
      kivRegistryEntry_(new KivRegistryEntry(registryEntry, this)) {
  handleMounter();
  handleInitialized();
}

MountsRegistryEntrySm::~MountsRegistryEntrySm() = default;

// --- collections ---

Kiv::Ptr<MounterConfigSm> MountsRegistryEntrySm::mounterConfigSmIs(Kiv::ValidPtr<Mounter> mounter) {
  Kiv::Ptr<Mounter> const m = mounter;
  return mounterConfigSm_.instantiate(m->serviceName(), std::make_tuple(m),
                                      [&] { return Kiv::Ptr<MounterConfigSm>(new MounterConfigSm(m, this)); });
}

void MountsRegistryEntrySm::mounterConfigSmDel(Kiv::String const& serviceName) {
  Kiv::String const key = serviceName;
  mounterConfigSm_.erase(key);
}

void MountsRegistryEntrySm::connectionFilterIs(Kiv::String const& systemName, std::uint32_t count) {
  connectionFilter_.assign(systemName, count);
}

void MountsRegistryEntrySm::connectionFilterDel(Kiv::String const& systemName) {
  Kiv::String const key = systemName;
  connectionFilter_.erase(key);
}

Kiv::Ptr<ServiceVersionFilter> MountsRegistryEntrySm::versionFilter(Kiv::Name const& serviceName) const {
  return versionFilter_.get(serviceName);
}

Kiv::Ptr<ServiceVersionFilter> MountsRegistryEntrySm::versionFilterIs(Kiv::Name const& serviceName) {
  if (Kiv::Ptr<ServiceVersionFilter> existing = versionFilter(serviceName)) return existing;
  Kiv::Ptr<ServiceVersionFilter> filter = ServiceVersionFilter::ServiceVersionFilterIs(serviceName);
  versionFilter_.insert(serviceName, filter);
  return filter;
}

void MountsRegistryEntrySm::versionFilterDel(Kiv::Name const& serviceName) {
  Kiv::Name const key = serviceName;
  versionFilter_.erase(key);
}

Kiv::Ptr<MountSmData> MountsRegistryEntrySm::mountSmData(SystemId const& systemId) const {
  return mountSmData_.get(systemId);
}

void MountsRegistryEntrySm::mountSmDataIs(SystemId const& systemId, Kiv::ValidPtr<MountSmData> data) {
  SystemId const id = systemId;
  mountSmData_.assign(id, Kiv::Ptr<MountSmData>(data));
  Kiv::Ptr<KivMountSmDataSm> watcher = mountSmDataSm(id);
  if (!watcher || watcher->notifier() != data)
    mountSmDataSm_.assign(id, Kiv::Ptr<KivMountSmDataSm>(new KivMountSmDataSm(data, id, this)));
}

void MountsRegistryEntrySm::mountSmDataDel(SystemId const& systemId) {
  SystemId const id = systemId;
  mountSmDataSm_.erase(id);
  mountSmData_.erase(id);
}

Kiv::Ptr<MountsRegistryEntrySm::KivMountSmDataSm> MountsRegistryEntrySm::mountSmDataSm(SystemId const& systemId) const {
  return mountSmDataSm_.get(systemId);
}

Kiv::Ptr<MountSm> MountsRegistryEntrySm::mountSm(SystemId const& systemId) const { return mountSm_.get(systemId); }

void MountsRegistryEntrySm::mountSmIs(SystemId const& systemId, Kiv::ValidPtr<MountSm> sm) {
  mountSm_.assign(SystemId(systemId), Kiv::Ptr<MountSm>(sm));
}

void MountsRegistryEntrySm::mountSmDel(SystemId const& systemId) {
  SystemId const id = systemId;
  mountSm_.erase(id);
}

// --- mounters ---

void MountsRegistryEntrySm::handleInitialized() {
  MR_TRACE(8, "handleInitialized", "MoutnsRegistryEntrySm::" << "handleInitialized" << " " << entryName());
  initialized_ = true;
  handleSwitchConnection();
}

void MountsRegistryEntrySm::handleMounter() {
  // Machines of mounters that went while nobody was told go too.
  std::vector<Kiv::String> services;
  for (auto it = registryEntry_->mounterIter(); it; ++it) services.push_back(it.key());
  for (auto it = mounterConfigSm_.begin(); it; ++it)
    if (!registryEntry_->mounter(it.key())) services.push_back(it.key());
  for (Kiv::String const& service : services) handleMounter(service);
}

void MountsRegistryEntrySm::handleMounter(Kiv::String service) {
  MR_TRACE(8, "handleMounter", "MountsRegistryEntrySm::" << "handleMounter" << " " << entryName());
  evaluateMounters();
  if (Kiv::Ptr<Mounter> mounter = registryEntry_->mounter(service)) {
    MR_DUALLOG(5, kHandleMounter, " new mounter: service:%s group:%s", service, mounter->groupName());
    mounterConfigSmIs(mounter);
  } else {
    MR_DUALLOG(5, kHandleMounter, " mounter gone: service:%s", service);
    mounterConfigSmDel(service);
  }
  handleSwitchConnection();
}

void MountsRegistryEntrySm::evaluateMounters() {
  MR_TRACE(8, "evaluateMounters", "MountsRegistryEntrySm::" << "evaluateMounters" << " " << entryName());
  wildCardMount_ = false;
  for (auto it = registryEntry_->mounterIter(); it; ++it) {
    Mounter const& mounter = *it.value();
    Kiv::PtrConst<ServiceMountGroupConfig> const& config = mounter.mountGroupConfig();
    if (!config || (!config->systemFilter() && !config->versionFilter())) {
      MR_DUALLOG(5, kEvaluateMounters, " wildcard mount: service:%s group:%s", mounter.serviceName(),
                 mounter.groupName());
      wildCardMount_ = true;
      break;
    }
  }
}

// --- decisions ---

bool MountsRegistryEntrySm::canMountFromConnection(Kiv::String connection) {
  MR_TRACE(8, "canMountFromConnection", "MountsRegistryEntrySm::" << "canMountFromConnection" << " " << entryName());
  std::uint32_t version = 0;
  for (auto it = registryEntry_->mounterIter(); it && !version; ++it)
    version = mountsRegistrySm_->negotiatedServiceVersionForConnection(it.value()->serviceName(), connection);
  if (!version) {
    MR_DUALLOG(5, kCanMountFromConnection, " no version negotiated:%s", connection);
    return false;
  }
  if (wildCardMount_) {
    MR_DUALLOG(5, kCanMountFromConnection, " wildcard mount:%s", connection);
    return true;
  }
  if (versionFilter_.empty()) {
    MR_DUALLOG(5, kCanMountFromConnection, " no versionfilter for %s", entryName());
  } else if (!connectionMatchesVersionFilter(connection)) {
    MR_DUALLOG(5, kCanMountFromConnection, " version filter not matched for %s", entryName());
    return false;
  } else {
    MR_DUALLOG(5, kCanMountFromConnection, " matched versionFilter:%s", connection);
  }
  if (connectionFilter_.empty()) {
    MR_DUALLOG(5, kCanMountFromConnection, " no connectionFilter for %s", entryName());
    return true;
  }
  if (connectionFilter(connection) != 0) {
    MR_DUALLOG(5, kCanMountFromConnection, " matched connectionFilter:%s", connection);
    return true;
  }
  MR_DUALLOG(5, kCanMountFromConnection, " not in connectionFilter:%s", connection);
  return false;
}

bool MountsRegistryEntrySm::connectionMatchesVersionFilter(Kiv::String connection) {
  MR_TRACE(8, "connectionMatchesVersionFilter",
           "MountsRegistryEntrySm::" << "connectionMatchesVersionFilter" << " " << entryName());
  std::vector<Kiv::Name> services;
  for (auto it = versionFilter_.begin(); it; ++it) services.push_back(it.key());
  return std::any_of(services.begin(), services.end(),
                     [&](Kiv::Name const& service) { return matchingServiceVersionFilter(service, connection); });
}

bool MountsRegistryEntrySm::matchingServiceVersionFilter(Kiv::String service, Kiv::String connection) {
  MR_TRACE(8, "matchingServiceVersionFilter", "MountsRegistryEntrySm::matchingServiceVersionFilter");
  Kiv::Ptr<ServiceVersionFilter> filter = versionFilter(Kiv::Name(service));
  if (!filter) {
    MR_TRACE(8, "matchingServiceVersionFilter", " no version filter for service " << service);
    return true;
  }
  std::uint32_t const version = mountsRegistrySm_->negotiatedServiceVersionForConnection(service, connection);
  MR_TRACE(8, "matchingServiceVersionFilter", "Supported version for " << service << " for " << connection);
  if (version && filter->version(version)) {
    MR_DUALLOG(5, kMatchingServiceVersionFilter, " matched version:%s service:%s connection:%s", version, service,
               connection);
    return true;
  }
  if (version) {
    MR_DUALLOG(5, kMatchingServiceVersionFilter, " version:%s not in filter service:%s connection:%s", version,
               service, connection);
    return false;
  }
  MR_DUALLOG(5, kMatchingServiceVersionFilter, " no version service:%s connection:%s", service, connection);
  return false;
}

bool MountsRegistryEntrySm::mounterIsInterestedInConnection(Kiv::PtrConst<Mounter> const& mounter,
                                                            Kiv::String connection) {
  MR_TRACE(8, "mounterIsInterestedInConnection",
           "MountsRegistryEntrySm::" << "mounterIsInterestedInConnection" << " " << entryName());
  Kiv::PtrConst<MountFilterSystem> systems = mounter->systemFilter();
  if (systems && !systems->includedSystem(connection)) return false;
  return matchingServiceVersionFilter(mounter->serviceName(), connection);
}

bool MountsRegistryEntrySm::preserveMountsOnDisconnect(Kiv::String connection) {
  MR_TRACE(8, "preserveMountsOnDisconnect", "MountsRegistryEntrySm::preserveMountsOnDisconnect" << ": " << connection);
  for (auto it = registryEntry_->mounterIter(); it; ++it) {
    Mounter const& mounter = *it.value();
    if (!mounter.preserveMountsOnDisconnect()) continue;
    MR_TRACE(8, "preserveMountsOnDisconnect",
             "preserveMountsOnDisconnect" << ": mounter for group " << mounter.groupName() << " and service "
                                          << mounter.serviceName() << " has preserve=1");
    return true;
  }
  return false;
}

// --- switches ---

void MountsRegistryEntrySm::handleSwitchConnection() {
  MR_TRACE(8, "handleSwitchConnection", "MountsRegistryEntrySm::" << "handleSwitchConnection" << " " << entryName());
  std::vector<SystemId> ids;
  if (Kiv::PtrConst<PeerTable> table = peerTable())
    for (auto it = table->peerIter(); it; ++it) ids.push_back(it.key());
  // Switches that left the table still have their mount to take down.
  for (auto it = mountSm_.begin(); it; ++it)
    if (std::find(ids.begin(), ids.end(), it.key()) == ids.end()) ids.push_back(it.key());
  for (SystemId const& id : ids) handleSwitchConnection(id);
}

void MountsRegistryEntrySm::handleSwitchConnection(SystemId const& systemId) {
  SystemId const id = systemId;
  MR_TRACE(8, "handleSwitchConnection",
           "MountsRegistryEntrySm::" << "handleSwitchConnection" << " " << entryName() << " Peer:" << id);
  if (!initialized_) return;
  Kiv::PtrConst<PeerTable> table = peerTable();
  if (table && table->peer(id)) {
    updateSystemStatus(id);
    if (canMountFromConnection(id.stringValue())) {
      doConnectSwitch(id);
    } else {
      MR_DUALLOG(5, kHandleSwitchConnection, " Cannot mount:%s from:%s", entryName(), id);
      doDisconnectSwitch(id);
    }
  } else {
    MR_DUALLOG(5, kHandleSwitchConnection, " connection:%s registered:%s", id, "false");
    doDisconnectSwitch(id);
    // Withdrawn only now, so that the unmount above still found the statuses it reports to.
    updateSystemStatus(id);
  }
}

void MountsRegistryEntrySm::handleNamedSwitchConnection(Kiv::String connectionName) {
  handleSwitchConnection(SystemId(connectionName.view()));
}

void MountsRegistryEntrySm::doConnectSwitch(SystemId const& systemId) {
  MR_TRACE(8, "doConnectSwitch", "MountsRegistryEntrySm::" << "doConnectSwitch" << " " << entryName());
  Kiv::PtrConst<PeerTable> table = peerTable();
  Kiv::PtrConst<Peer> peer = table ? table->peer(systemId) : nullptr;
  if (Kiv::Ptr<MountSm> sm = mountSm(systemId)) {
    Kiv::Ptr<MountSmData> data = mountSmData(systemId);
    if (data->mountState() == mountStateMounted && !sm->pendingRequest()) {
      MR_DUALLOG(5, kDoConnectSwitch, " updating status:%s from:%s", entryName(), systemId);
      updateMountersStatus(systemId, mountStateMounted);
      return;
    }
    MR_DUALLOG(5, kDoConnectSwitch, " remounting:%s from:%s", entryName(), systemId);
    KIV_ASSERT(peer);
    KIV_ASSERT(peer->connectionConfig());
    // The switch may have reconnected since: the attempt goes out on its current connection.
    sm->connectionConfigIs(peer->connectionConfig());
    sm->doRemount();
    return;
  }
  MR_DUALLOG(5, kDoConnectSwitch, " mounting:%s from:%s", entryName(), systemId);
  KIV_ASSERT(peer);
  KIV_ASSERT(peer->connectionConfig());
  MountsRegistry const& registry = *mountsRegistrySm_->mountsRegistry();
  Kiv::Ptr<Kiv::Dir> prefixDir =
      Kiv::entityCast<Kiv::Dir>(registry.rootDir()->entityAtPath(registryEntry_->targetPath().view()));
  KIV_ASSERT(prefixDir);
  Kiv::Name const connTargetDirName = mountsRegistrySm_->switchName(systemId);
  Kiv::Ptr<Kiv::Dir> connectionTargetDir = prefixDir->subdirIs(connTargetDirName);
  KIV_ASSERT(connectionTargetDir);
  Kiv::String const targetPath = registryEntry_->targetPath() + "/" + connTargetDirName;
  MR_TRACE(8, "doConnectSwitch", "connTargetDirName=" << connTargetDirName << "  targetPath=" << targetPath);
  mountSmDataIs(systemId, MountSmData::MountSmDataIs(connTargetDirName, systemId, ""));
  Kiv::Ptr<MountSm> sm = MountSm::MountSmIs(
      systemId, peer->connectionConfig(), mountsRegistrySm_->heartbeatConfig(), registry.remoteRootPath(),
      registryEntry_->remotePath(), targetPath, connTargetDirName, registry.reconnectRetries(),
      registry.mountTimeout(), mountSmData(systemId));
  mountSmIs(systemId, sm);
}

void MountsRegistryEntrySm::doDisconnectSwitch(SystemId const& systemId) {
  MR_TRACE(8, "doDisconnectSwitch", "MountsRegistryEntrySm::" << "doDisconnectSwitch" << " " << entryName());
  Kiv::Ptr<MountSm> sm = mountSm(systemId);
  if (!sm) {
    MR_DUALLOG(5, kDoDisconnectSwitch, " already unmounted:%s from:%s", entryName(), systemId);
    updateMountersStatus(systemId, mountStateUnmounted);
    return;
  }
  MR_DUALLOG(5, kDoDisconnectSwitch, " unmounting:%s from:%s", entryName(), systemId);
  // The machine itself goes once its state is back at unmounted (KivMountSmDataSm).
  if (preserveMountsOnDisconnect(systemId.stringValue())) {
    MR_TRACE(8, "doDisconnectSwitch", ": unmount is state-preserving");
    sm->doStatePreservingUnmount();
  } else {
    MR_TRACE(8, "doDisconnectSwitch", ": unmount is not state-preserving");
    sm->doUnmount();
  }
}

void MountsRegistryEntrySm::KivMountSmDataSm::handleMountState() {
  Kiv::PtrConst<MountSmData> data = notifier();
  if (!data) return;
  MountState const newState = data->mountState();
  MR_DUALLOG(5, kHandleMountState, " %s connection:%s oldMountState:%s newMountState:%s", owner_->entryName(),
             connectionId_, mountState_, newState);
  owner_->updateMountersStatus(connectionId_, newState);
  if (mountState_ != mountStateUnmounted && newState == mountStateUnmounted) {
    MR_TRACE(8, "handleMountState",
             "MountsRegistryEntrySm::handleMountState" << ": Deleting mountSm for " << connectionId_);
    // Deleting the data below releases this reactor.
    Kiv::Ptr<KivMountSmDataSm> self(this);
    SystemId const connectionId = connectionId_;
    KIV_ASSERT(mountsRegistryEntrySm()->mountSm( connectionId ));
    mountsRegistryEntrySm()->mountSm(connectionId)->doCleanup();
    mountsRegistryEntrySm()->mountSmDel(connectionId);
    mountsRegistryEntrySm()->mountSmDataDel(connectionId);
    mountState_ = newState;
    return;
  }
  mountState_ = newState;
}

// --- status ---

void MountsRegistryEntrySm::updateMountersStatus(SystemId const& systemId, MountState state) {
  MR_DUALLOG(5, kUpdateMountersStatus, " %s connection:%s", entryName(), systemId);
  std::vector<Kiv::Ptr<Mounter>> mounters;
  for (auto it = registryEntry_->mounterIter(); it; ++it) mounters.push_back(it.value());
  for (Kiv::Ptr<Mounter> const& mounter : mounters) updateMounterStatus(mounter, systemId, state);
}

void MountsRegistryEntrySm::updateMounterStatus(Kiv::PtrConst<Mounter> const& mounter, SystemId const& systemId,
                                                MountState state) {
  Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus = mounter->serviceMountStatus();
  KIV_ASSERT(serviceMountStatus);
  Kiv::Ptr<SystemStatus> systemStatus = serviceMountStatus->systemStatus(Kiv::Name(systemId.stringValue()));
  if (!systemStatus) return;
  Kiv::PtrConst<ServiceMountGroupConfig> const& mountGroupConfig = mounter->mountGroupConfig();
  KIV_ASSERT(mountGroupConfig);
  Kiv::Name const group(mounter->groupName());
  // Created if missing: the withdrawal of the group's last other path may have taken it.
  Kiv::Ptr<ServiceMountGroupStatus> groupStatus = systemStatus->serviceMountGroupStatusIs(group);
  MR_TRACE(8, "updateMounterStatus", "group: " << group << " mount: " << mounter->mountConfig() << "%s config: ");
  Kiv::Name const path = registryEntry_->remotePath();
  if (mounterIsInterestedInConnection(mounter, systemId.stringValue())) {
    groupStatus->mountStatusIs(path);
  } else if (groupStatus->mountStatus(path)) {
    groupStatus->mountStatusDel(path);
    // A withdrawn row no longer counts towards the group's state.
    if (groupStatus->mountStatusSize() != 0) updateMountGroupMountState(groupStatus, state);
  }
  handleMountState(mounter, systemId, state);
  groupStatus->processedIs(true);
}

void MountsRegistryEntrySm::handleMountState(Kiv::PtrConst<Mounter> const& mounter, SystemId const& systemId,
                                             MountState state) {
  Kiv::Name const path = registryEntry_->remotePath();
  MR_TRACE(8, "handleMountState",
           "mount state:" << state << " connection:" << systemId << " service:" << mounter->serviceName()
                          << " mountGroup:" << mounter->groupName() << " remote path:" << path);
  Kiv::Ptr<SystemStatus> systemStatus =
      mounter->serviceMountStatus()->systemStatus(Kiv::Name(systemId.stringValue()));
  Kiv::Ptr<ServiceMountGroupStatus> groupStatus =
      systemStatus ? systemStatus->serviceMountGroupStatus(Kiv::Name(mounter->groupName())) : nullptr;
  Kiv::Ptr<MountStatus> row = groupStatus ? groupStatus->mountStatus(path) : nullptr;
  if (!row) return;
  if (state == mountStateMounted) {
    // Where the mount machine placed the copy, as it reports it.
    if (Kiv::Ptr<MountSmData> data = mountSmData(systemId)) row->mountedPathIs(data->mountedPath());
  }
  row->mountStateIs(state);
  updateMountGroupMountState(groupStatus, state);
}

MountState MountsRegistryEntrySm::combinedMountState(ServiceMountGroupStatus const& groupStatus) {
  bool first = true;
  bool same = true;
  bool mounting = false;
  bool unmounting = false;
  bool failed = false;
  MountState common = mountStateUnmounted;
  for (auto it = groupStatus.mountStatusIter(); it; ++it) {
    MountState const s = it.value()->mountState();
    if (first) common = s;
    same = same && s == common;
    first = false;
    mounting = mounting || s == mountStateMounting;
    unmounting = unmounting || s == mountStateUnmounting;
    failed = failed || s == mountStateFailed;
  }
  if (same) return common;
  if (mounting) return mountStateMounting;
  if (unmounting) return mountStateUnmounting;
  if (failed) return mountStateFailed;
  return mountStateUnmounted;
}

void MountsRegistryEntrySm::updateMountGroupMountState(Kiv::Ptr<ServiceMountGroupStatus> const& groupStatus,
                                                       MountState state) {
  MR_TRACE(8, "updateMountGroupMountState",
           "MountsRegistryEntrySm::" << "updateMountGroupMountState" << " " << entryName() << " " << state);
  groupStatus->mountStateIs(combinedMountState(*groupStatus));
}

void MountsRegistryEntrySm::updateSystemStatus(SystemId const& systemId) {
  MR_TRACE(8, "updateSystemStatus", "MountsRegistryEntrySm::" << "updateSystemStatus" << " " << entryName());
  Kiv::PtrConst<PeerTable> table = peerTable();
  bool const registered = table && table->peer(systemId);
  Kiv::Name const systemName(systemId.stringValue());
  std::vector<Kiv::Ptr<Mounter>> mounters;
  for (auto it = registryEntry_->mounterIter(); it; ++it) mounters.push_back(it.value());
  for (Kiv::Ptr<Mounter> const& mounter : mounters) {
    Kiv::Ptr<ServiceMountStatus> const& status = mounter->serviceMountStatus();
    if (!status) continue;
    if (registered) {
      status->systemStatusIs(systemName)->serviceMountGroupStatusIs(Kiv::Name(mounter->groupName()));
    } else {
      status->systemStatusDel(systemName);
    }
  }
}

// Every mount is taken down at once, not through one more evaluation of every switch: nobody would
// see an unmount finish, and the filter machines' clean-ups withdraw every row and status that
// such an evaluation would. Copies of a preserving entry stay, as on any of its disconnects.
void MountsRegistryEntrySm::doCleanup() {
  MR_TRACE(8, "doCleanup", "MountsRegistryEntrySm::" << "doCleanup" << " " << entryName());
  mountsEndBegin();
  std::vector<SystemId> ids;
  for (auto it = mountSm_.begin(); it; ++it) ids.push_back(it.key());
  for (SystemId const& id : ids) mountEnd(id);
  // The filter machines withdraw what their mounters were given.
  mounterConfigSm_.clear();
}

void MountsRegistryEntrySm::mountsEndBegin() {
  // Nothing is evaluated any more.
  initialized_ = false;
  // The answer does not depend on the switch.
  preserveOnEnd_ = !mountSm_.empty() && preserveMountsOnDisconnect(mountSm_.begin().key().stringValue());
}

void MountsRegistryEntrySm::mountEnd(SystemId const& systemId) {
  Kiv::Ptr<MountSm> sm = mountSm(systemId);
  if (!sm) return;
  if (preserveOnEnd_) sm->doStatePreservingUnmount();
  sm->doCleanup();
  mountSmDel(systemId);
  mountSmDataDel(systemId);
}

}  // namespace Controller
