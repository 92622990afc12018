#include "registry/MountsRegistryEntrySm.h"

#include <algorithm>
#include <vector>

#include "registry/MountsRegistrySm.h"

namespace Controller {

MountsRegistryEntrySm::MountsRegistryEntrySm(Kiv::Ptr<MountsRegistryEntry> const& registryEntry,
                                             Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                                             Kiv::Ptr<Kiv::Dir> const& serviceMountStatusDir,
                                             MountsRegistrySm* mountsRegistrySm)
    : MountsRegistryEntrySmBase(registryEntry, oobStatus, serviceMountStatusDir, mountsRegistrySm) {
  handleMounter();
  handleInitialized();
}

MountsRegistryEntrySm::~MountsRegistryEntrySm() = default;

// --- tables ---

void MountsRegistryEntrySm::connectionFilterIs(Kiv::String const& systemName, std::uint32_t count) {
  connectionFilter_.assign(systemName, count);
}

void MountsRegistryEntrySm::connectionFilterDel(Kiv::String const& systemName) {
  Kiv::String const key = systemName;
  connectionFilter_.erase(key);
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

void MountsRegistryEntrySm::mountSmDataIs(SystemId const& systemId, Kiv::ValidPtr<MountSmData> data) {
  SystemId const id = systemId;
  mountSmData_.assign(id, Kiv::Ptr<MountSmData>(data));
  mountSmDataSmIs(id, data);
}

void MountsRegistryEntrySm::mountSmDataDel(SystemId const& systemId) {
  SystemId const id = systemId;
  mountSmDataSmDel(id);
  mountSmData_.erase(id);
}

void MountsRegistryEntrySm::mountSmIs(SystemId const& systemId, Kiv::ValidPtr<MountSm> sm) {
  mountSm_.adopt(systemId, Kiv::Ptr<MountSm>(sm));
}

void MountsRegistryEntrySm::mountSmDel(SystemId const& systemId) {
  SystemId const id = systemId;
  mountSm_.erase(id);
}

// --- mounters ---

void MountsRegistryEntrySm::handleInitialized() {
  // The misspelt class name is the message's established text.
  KIV_SM_TRACE_TEXT(8, "handleInitialized", "MoutnsRegistryEntrySm::" << "handleInitialized" << " " << entryName());
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
  KIV_SM_TRACE(8, "handleMounter", " " << entryName());
  evaluateMounters();
  if (Kiv::Ptr<Mounter> mounter = registryEntry_->mounter(service)) {
    KIV_SM_DUALLOG(5, kivSigHandleMounter, " new mounter: service:%s group:%s", service, mounter->groupName());
    mounterConfigSmIs(mounter);
  } else {
    KIV_SM_DUALLOG(5, kivSigHandleMounter, " mounter gone: service:%s", service);
    mounterConfigSmDel(service);
  }
  handleSwitchConnection();
}

void MountsRegistryEntrySm::evaluateMounters() {
  KIV_SM_TRACE(8, "evaluateMounters", " " << entryName());
  wildCardMount_ = false;
  for (auto it = registryEntry_->mounterIter(); it; ++it) {
    Mounter const& mounter = *it.value();
    Kiv::PtrConst<ServiceMountGroupConfig> const& config = mounter.mountGroupConfig();
    if (!config || (!config->systemFilter() && !config->versionFilter())) {
      KIV_SM_DUALLOG(5, kivSigEvaluateMounters, " wildcard mount: service:%s group:%s", mounter.serviceName(),
                     mounter.groupName());
      wildCardMount_ = true;
      break;
    }
  }
}

// --- decisions ---

bool MountsRegistryEntrySm::canMountFromConnection(Kiv::String connection) {
  KIV_SM_TRACE(8, "canMountFromConnection", " " << entryName());
  std::uint32_t version = 0;
  for (auto it = registryEntry_->mounterIter(); it && !version; ++it)
    version = mountsRegistrySm_->negotiatedServiceVersionForConnection(it.value()->serviceName(), connection);
  if (!version) {
    KIV_SM_DUALLOG(5, kivSigCanMountFromConnection, " no version negotiated:%s", connection);
    return false;
  }
  if (wildCardMount_) {
    KIV_SM_DUALLOG(5, kivSigCanMountFromConnection, " wildcard mount:%s", connection);
    return true;
  }
  if (versionFilter_.empty()) {
    KIV_SM_DUALLOG(5, kivSigCanMountFromConnection, " no versionfilter for %s", entryName());
  } else if (!connectionMatchesVersionFilter(connection)) {
    KIV_SM_DUALLOG(5, kivSigCanMountFromConnection, " version filter not matched for %s", entryName());
    return false;
  } else {
    KIV_SM_DUALLOG(5, kivSigCanMountFromConnection, " matched versionFilter:%s", connection);
  }
  if (connectionFilter_.empty()) {
    KIV_SM_DUALLOG(5, kivSigCanMountFromConnection, " no connectionFilter for %s", entryName());
    return true;
  }
  if (connectionFilter(connection) != 0) {
    KIV_SM_DUALLOG(5, kivSigCanMountFromConnection, " matched connectionFilter:%s", connection);
    return true;
  }
  KIV_SM_DUALLOG(5, kivSigCanMountFromConnection, " not in connectionFilter:%s", connection);
  return false;
}

bool MountsRegistryEntrySm::connectionMatchesVersionFilter(Kiv::String connection) {
  KIV_SM_TRACE(8, "connectionMatchesVersionFilter", " " << entryName());
  std::vector<Kiv::Name> services;
  for (auto it = versionFilter_.begin(); it; ++it) services.push_back(it.key());
  return std::any_of(services.begin(), services.end(),
                     [&](Kiv::Name const& service) { return matchingServiceVersionFilter(service, connection); });
}

bool MountsRegistryEntrySm::matchingServiceVersionFilter(Kiv::String service, Kiv::String connection) {
  KIV_SM_TRACE(8, "matchingServiceVersionFilter", "");
  Kiv::Ptr<ServiceVersionFilter> filter = versionFilter(Kiv::Name(service));
  if (!filter) {
    KIV_SM_TRACE_TEXT(8, "matchingServiceVersionFilter", " no version filter for service " << service);
    return true;
  }
  std::uint32_t const version = mountsRegistrySm_->negotiatedServiceVersionForConnection(service, connection);
  KIV_SM_TRACE_TEXT(8, "matchingServiceVersionFilter", "Supported version for " << service << " for " << connection);
  if (version && filter->version(version)) {
    KIV_SM_DUALLOG(5, kivSigMatchingServiceVersionFilter, " matched version:%s service:%s connection:%s", version,
                   service, connection);
    return true;
  }
  if (version) {
    KIV_SM_DUALLOG(5, kivSigMatchingServiceVersionFilter, " version:%s not in filter service:%s connection:%s", version,
                   service, connection);
    return false;
  }
  KIV_SM_DUALLOG(5, kivSigMatchingServiceVersionFilter, " no version service:%s connection:%s", service, connection);
  return false;
}

bool MountsRegistryEntrySm::mounterIsInterestedInConnection(Kiv::PtrConst<Mounter> const& mounter,
                                                            Kiv::String connection) {
  KIV_SM_TRACE(8, "mounterIsInterestedInConnection", " " << entryName());
  Kiv::PtrConst<MountFilterSystem> systems = mounter->systemFilter();
  if (systems && !systems->includedSystem(connection)) return false;
  return matchingServiceVersionFilter(mounter->serviceName(), connection);
}

bool MountsRegistryEntrySm::preserveMountsOnDisconnect(Kiv::String connection) {
  KIV_SM_TRACE(8, "preserveMountsOnDisconnect", ": " << connection);
  for (auto it = registryEntry_->mounterIter(); it; ++it) {
    Mounter const& mounter = *it.value();
    if (!mounter.preserveMountsOnDisconnect()) continue;
    KIV_SM_TRACE_TEXT(8, "preserveMountsOnDisconnect",
                      "preserveMountsOnDisconnect"
                          << ": mounter for group " << mounter.groupName() << " and service " << mounter.serviceName()
                          << " has preserve=1");
    return true;
  }
  return false;
}

// --- switches ---

void MountsRegistryEntrySm::handleSwitchConnection() {
  KIV_SM_TRACE(8, "handleSwitchConnection", " " << entryName());
  Kiv::PtrConst<PeerTable> const table = peerTable();
  Kiv::Snapshot<SystemId> ids;
  if (table) ids = Kiv::keysOf(table->peerIter());
  // Switches that left the table still have their mount to take down.
  for (auto it = mountSm_.begin(); it; ++it)
    if (!table || !table->peer(it.key())) ids.push_back(it.key());
  for (SystemId const& id : ids) handleSwitchConnection(id);
}

void MountsRegistryEntrySm::handleSwitchConnection(SystemId const& systemId) {
  SystemId const id = systemId;
  KIV_SM_TRACE(8, "handleSwitchConnection", " " << entryName() << " Peer:" << id);
  if (!initialized_) return;
  Kiv::PtrConst<PeerTable> table = peerTable();
  // Made once for the whole evaluation: every status of the switch is keyed by it.
  Kiv::Name const name = mountsRegistrySm_->switchName(id);
  if (table && table->peer(id)) {
    updateSystemStatus(id, name);
    if (canMountFromConnection(name)) {
      doConnectSwitch(id, name);
    } else {
      KIV_SM_DUALLOG(5, kivSigHandleSwitchConnection, " Cannot mount:%s from:%s", entryName(), id);
      doDisconnectSwitch(id, name);
    }
  } else {
    KIV_SM_DUALLOG(5, kivSigHandleSwitchConnection, " connection:%s registered:%s", id, "false");
    doDisconnectSwitch(id, name);
    // Withdrawn only now, so that the unmount above still found the statuses it reports to.
    updateSystemStatus(id, name);
  }
}

void MountsRegistryEntrySm::handleNamedSwitchConnection(Kiv::String connectionName) {
  handleSwitchConnection(SystemId(connectionName.view()));
}

void MountsRegistryEntrySm::doConnectSwitch(SystemId const& systemId, Kiv::Name const& systemName) {
  KIV_SM_TRACE(8, "doConnectSwitch", " " << entryName());
  Kiv::PtrConst<PeerTable> table = peerTable();
  Kiv::PtrConst<Peer> peer = table ? table->peer(systemId) : nullptr;
  if (Kiv::Ptr<MountSm> sm = mountSm(systemId)) {
    Kiv::Ptr<MountSmData> data = mountSmData(systemId);
    if (data->mountState() == mountStateMounted && !sm->pendingRequest()) {
      KIV_SM_DUALLOG(5, kivSigDoConnectSwitch, " updating status:%s from:%s", entryName(), systemId);
      updateMountersStatus(systemId, systemName, mountStateMounted);
      return;
    }
    KIV_SM_DUALLOG(5, kivSigDoConnectSwitch, " remounting:%s from:%s", entryName(), systemId);
    KIV_ASSERT(peer);
    KIV_ASSERT(peer->connectionConfig());
    // The switch may have reconnected since: the attempt goes out on its current connection.
    sm->connectionConfigIs(peer->connectionConfig());
    sm->doRemount();
    return;
  }
  KIV_SM_DUALLOG(5, kivSigDoConnectSwitch, " mounting:%s from:%s", entryName(), systemId);
  KIV_ASSERT(peer);
  KIV_ASSERT(peer->connectionConfig());
  MountsRegistry const& registry = *mountsRegistrySm_->mountsRegistry();
  Kiv::Ptr<Kiv::Dir> prefixDir =
      Kiv::entityCast<Kiv::Dir>(registry.rootDir()->entityAtPath(registryEntry_->targetPath().view()));
  KIV_ASSERT(prefixDir);
  Kiv::Name const& connTargetDirName = systemName;
  Kiv::Ptr<Kiv::Dir> connectionTargetDir = prefixDir->subdirIs(connTargetDirName);
  KIV_ASSERT(connectionTargetDir);
  Kiv::String const targetPath = registryEntry_->targetPath() + "/" + connTargetDirName;
  KIV_SM_TRACE_TEXT(8, "doConnectSwitch", "connTargetDirName=" << connTargetDirName << "  targetPath=" << targetPath);
  mountSmDataIs(systemId, MountSmData::MountSmDataIs(connTargetDirName, systemId, ""));
  Kiv::Ptr<MountSm> sm = MountSm::MountSmIs(
      systemId, peer->connectionConfig(), mountsRegistrySm_->heartbeatConfig(), registry.remoteRootPath(),
      registryEntry_->remotePath(), targetPath, connTargetDirName, registry.reconnectRetries(),
      registry.mountTimeout(), mountSmData(systemId));
  mountSmIs(systemId, sm);
}

void MountsRegistryEntrySm::doDisconnectSwitch(SystemId const& systemId, Kiv::Name const& systemName) {
  KIV_SM_TRACE(8, "doDisconnectSwitch", " " << entryName());
  Kiv::Ptr<MountSm> sm = mountSm(systemId);
  if (!sm) {
    KIV_SM_DUALLOG(5, kivSigDoDisconnectSwitch, " already unmounted:%s from:%s", entryName(), systemId);
    updateMountersStatus(systemId, systemName, mountStateUnmounted);
    return;
  }
  KIV_SM_DUALLOG(5, kivSigDoDisconnectSwitch, " unmounting:%s from:%s", entryName(), systemId);
  // The machine itself goes once its state is back at unmounted (handleMountState).
  if (preserveMountsOnDisconnect(systemName)) {
    KIV_SM_TRACE_TEXT(8, "doDisconnectSwitch", ": unmount is state-preserving");
    sm->doStatePreservingUnmount();
  } else {
    KIV_SM_TRACE_TEXT(8, "doDisconnectSwitch", ": unmount is not state-preserving");
    sm->doUnmount();
  }
}

void MountsRegistryEntrySm::handleMountState(SystemId const& systemId) {
  Kiv::Ptr<KivMountSmDataSm> const watcher = mountSmDataSm(systemId);
  Kiv::PtrConst<MountSmData> data = watcher ? watcher->notifier() : nullptr;
  if (!data) return;
  SystemId const connectionId = systemId;
  MountState const newState = data->mountState();
  KIV_SM_DUALLOG(5, kivSigHandleMountState, " %s connection:%s oldMountState:%s newMountState:%s", entryName(),
                 connectionId, watcher->mountState(), newState);
  updateMountersStatus(connectionId, mountsRegistrySm_->switchName(connectionId), newState);
  if (watcher->mountState() != mountStateUnmounted && newState == mountStateUnmounted) {
    KIV_SM_TRACE(8, "handleMountState", ": Deleting mountSm for " << connectionId);
    // The text of the reactor that once made this check.
    KIV_ASSERT_TEXT(mountSm(connectionId), "mountsRegistryEntrySm()->mountSm( connectionId )");
    mountSmDel(connectionId);
    mountSmDataDel(connectionId);
  }
  watcher->mountStateIs(newState);
}

// --- status ---

void MountsRegistryEntrySm::updateMountersStatus(SystemId const& systemId, Kiv::Name const& systemName,
                                                 MountState state) {
  KIV_SM_DUALLOG(5, kivSigUpdateMountersStatus, " %s connection:%s", entryName(), systemId);
  for (Kiv::Ptr<Mounter> const& mounter : Kiv::valuesOf(registryEntry_->mounterIter()))
    updateMounterStatus(mounter, systemId, systemName, state);
}

void MountsRegistryEntrySm::updateMounterStatus(Kiv::PtrConst<Mounter> const& mounter, SystemId const& systemId,
                                                Kiv::Name const& systemName, MountState state) {
  Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus = mounter->serviceMountStatus();
  KIV_ASSERT(serviceMountStatus);
  Kiv::Ptr<SystemStatus> systemStatus = serviceMountStatus->systemStatus(systemName);
  if (!systemStatus) return;
  Kiv::PtrConst<ServiceMountGroupConfig> const& mountGroupConfig = mounter->mountGroupConfig();
  KIV_ASSERT(mountGroupConfig);
  Kiv::Name const group(mounter->groupName());
  // Created if missing: the withdrawal of the group's last other path may have taken it.
  Kiv::Ptr<ServiceMountGroupStatus> groupStatus = systemStatus->serviceMountGroupStatusIs(group);
  // "%s config: " is literal text of the message, not a format.
  KIV_SM_TRACE_TEXT(8, "updateMounterStatus",
                    "group: " << group << " mount: " << mounter->mountConfig() << "%s config: ");
  Kiv::Name const path = registryEntry_->remotePath();
  GroupStateTally& tally = mountsRegistrySm_->groupStateTally();
  Kiv::Ptr<MountStatus> row;
  if (mounterIsInterestedInConnection(mounter, systemName)) {
    row = tally.rowIs(*groupStatus, path);
  } else if (tally.rowDel(*groupStatus, path)) {
    // A withdrawn row no longer counts towards the group's state.
    if (groupStatus->mountStatusSize() != 0) updateMountGroupMountState(groupStatus, state);
  }
  handleMountState(mounter, systemId, groupStatus, row, state);
  groupStatus->processedIs(true);
}

// Nothing watches the rows, so the group and row found above are still the ones in place.
void MountsRegistryEntrySm::handleMountState(Kiv::PtrConst<Mounter> const& mounter, SystemId const& systemId,
                                             Kiv::Ptr<ServiceMountGroupStatus> const& groupStatus,
                                             Kiv::Ptr<MountStatus> const& row, MountState state) {
  KIV_SM_TRACE_TEXT(8, "handleMountState",
                    "mount state:" << state << " connection:" << systemId << " service:" << mounter->serviceName()
                                   << " mountGroup:" << mounter->groupName()
                                   << " remote path:" << registryEntry_->remotePath());
  if (!row) return;
  if (state == mountStateMounted) {
    // Where the mount machine placed the copy, as it reports it.
    if (Kiv::Ptr<MountSmData> data = mountSmData(systemId)) row->mountedPathIs(data->mountedPath());
  }
  mountsRegistrySm_->groupStateTally().rowStateIs(*groupStatus, *row, state);
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
  KIV_SM_TRACE(8, "updateMountGroupMountState", " " << entryName() << " " << state);
  groupStatus->mountStateIs(mountsRegistrySm_->groupStateTally().combined(*groupStatus));
}

void MountsRegistryEntrySm::updateSystemStatus(SystemId const& systemId, Kiv::Name const& systemName) {
  KIV_SM_TRACE(8, "updateSystemStatus", " " << entryName());
  Kiv::PtrConst<PeerTable> table = peerTable();
  bool const registered = table && table->peer(systemId);
  for (Kiv::Ptr<Mounter> const& mounter : Kiv::valuesOf(registryEntry_->mounterIter())) {
    Kiv::Ptr<ServiceMountStatus> const& status = mounter->serviceMountStatus();
    if (!status) continue;
    if (registered) {
      status->systemStatusIs(systemName)->serviceMountGroupStatusIs(Kiv::Name(mounter->groupName()));
    } else if (Kiv::Ptr<SystemStatus> system = status->systemStatus(systemName)) {
      mountsRegistrySm_->groupStateTally().systemDel(*system);
      status->systemStatusDel(systemName);
    }
  }
}

MountsRegistryEntrySm::SwitchView MountsRegistryEntrySm::switchView(SystemId const& systemId) const {
  SwitchView v;
  Kiv::PtrConst<PeerTable> const table = peerTable();
  v.registered = table && table->peer(systemId);
  Kiv::String const name(systemId.stringValue());
  auto const versionOf = [&](Kiv::String const& service) { return mountsRegistrySm_->negotiatedVersion(service, systemId); };
  std::uint32_t entryVersion = 0;
  for (auto it = registryEntry_->mounterIter(); it; ++it) {
    Mounter const& m = *it.value();
    SwitchView::MounterView mv{m.serviceName(), m.groupName(), versionOf(m.serviceName())};
    Kiv::PtrConst<MountFilterSystem> const systems = m.systemFilter();
    mv.inSystems = !systems || systems->includedSystem(name);
    Kiv::PtrConst<MountFilterServiceVersion> const versions = m.versionFilter();
    mv.inVersions = !versions || versions->includedServiceVersion(mv.version);
    mv.preserve = m.preserveMountsOnDisconnect();
    if (!entryVersion) entryVersion = mv.version;
    v.mounters.push_back(std::move(mv));
  }
  v.wildcard = wildCardMount_;
  v.versionFilterEmpty = versionFilter_.empty();
  v.versionFilterPassed = v.versionFilterEmpty;
  for (auto it = versionFilter_.begin(); it && !v.versionFilterPassed; ++it) {
    std::uint32_t const version = versionOf(it.key());
    v.versionFilterPassed = !it.value() || (version && it.value()->version(version));
  }
  v.connectionFilterSize = static_cast<std::uint32_t>(connectionFilter_.size());
  v.connectionFilterCount = connectionFilter_.get(name);
  v.wanted = v.registered && entryVersion &&
             (v.wildcard || (v.versionFilterPassed && (!v.connectionFilterSize || v.connectionFilterCount)));
  if (Kiv::Ptr<MountSm> const sm = mountSm(systemId)) {
    v.hasMount = true;
    v.pendingRequest = sm->pendingRequest();
    if (Kiv::Ptr<MountSmData> const data = mountSmData(systemId)) v.mountState = data->mountState();
  }
  return v;
}

// Every mount is taken down at once, not through one more evaluation of every switch: nobody would
// see an unmount finish, and the filter machines' clean-ups withdraw every row and status that
// such an evaluation would. Copies of a preserving entry stay, as on any of its disconnects.
void MountsRegistryEntrySm::doCleanup() {
  KIV_SM_TRACE(8, "doCleanup", " " << entryName());
  mountsEndBegin();
  for (SystemId const& id : Kiv::keysOf(mountSm_.begin())) mountEnd(id);
  // The filter machines withdraw what their mounters were given.
  mounterConfigSmDelAll();
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
  mountSmDel(systemId);
  mountSmDataDel(systemId);
}

}  // namespace Controller
