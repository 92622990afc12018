#include "registry/MounterConfigSm.h"

#include <vector>

#include "registry/MountsRegistryEntrySm.h"
#include "registry/MountsRegistrySm.h"

namespace Controller {

MounterConfigSm::MounterConfigSm(Kiv::Ptr<Mounter> const& mounter, MountsRegistryEntrySm* mountsRegistryEntrySm)
    : MounterConfigSmBase(mounter, mountsRegistryEntrySm) {
  systemFilterIs(mounter_->systemFilter());
  versionFilterIs(mounter_->versionFilter());
  mountGroupConfigIs(mounter_->mountGroupConfig());
  handleInitialized();
}

MounterConfigSm::~MounterConfigSm() = default;

// What this mounter counted is reconciled with what the new filter (or none) holds. Only a
// filter followed already is no change: going from none to none still reconciles.
void MounterConfigSm::handleSystemFilter() {
  KIV_SM_TRACE(8, "handleSystemFilter", " " << serviceName());
  Kiv::PtrConst<MountFilterSystem> filter = mounter_->systemFilter();
  if (systemFilter_ && systemFilter_ == filter) return;
  systemFilterIs(filter);
  handleIncludedSystem();
  filtersChanged();
}

void MounterConfigSm::handleVersionFilter() {
  KIV_SM_TRACE(8, "handleVersionFilter", " " << serviceName());
  Kiv::PtrConst<MountFilterServiceVersion> filter = mounter_->versionFilter();
  if (versionFilter_ && versionFilter_ == filter) return;
  versionFilterIs(filter);
  handleIncludedServiceVersion();
  filtersChanged();
}

// Whether the entry is a wildcard may change with a filter coming or going.
void MounterConfigSm::filtersChanged() {
  mountsRegistryEntrySm_->evaluateMounters();
  mountsRegistryEntrySm_->handleSwitchConnection();
}

Kiv::Name MounterConfigSm::remotePath() const { return mountsRegistryEntrySm_->registryEntry()->remotePath(); }

void MounterConfigSm::handleInitialized() {
  KIV_SM_TRACE(8, "handleInitialized", " " << serviceName());
  initialized_ = true;
  if (systemFilter_) handleIncludedSystem();
  if (versionFilter_) handleIncludedServiceVersion();
}

void MounterConfigSm::handleIncludedSystem() {
  std::vector<Kiv::String> systems;
  if (systemFilter_)
    for (auto it = systemFilter_->includedSystemIter(); it; ++it) systems.push_back(it.key());
  for (auto it = countedSystem_.begin(); it; ++it)
    if (!systemFilter_ || !systemFilter_->includedSystem(it.key())) systems.push_back(it.key());
  for (Kiv::String const& system : systems) handleIncludedSystem(system);
}

void MounterConfigSm::handleIncludedSystem(Kiv::String const& systemName) {
  // The text still names the filter's reactor, as it always has.
  // A fixed line: the message's identity, not this file's line; keep it.
  KIV_SM_TRACE_TEXT_AT(8, 925, "handleIncludedSystem",
                       "MounterConfigSm::KivSystemFilter::" << "handleIncludedSystem" << ": " << systemName);
  bool const included = systemFilter_ && systemFilter_->includedSystem(systemName);
  bool const counted = countedSystem_.contains(systemName);
  if (included && !counted) {
    addSystemToConnectionFilter(systemName);
  } else if (!included && counted) {
    removeSystemFromConnectionFilter(systemName);
  }
}

void MounterConfigSm::handleIncludedServiceVersion() {
  std::vector<std::uint32_t> versions;
  if (versionFilter_)
    for (auto it = versionFilter_->includedServiceVersionIter(); it; ++it) versions.push_back(it.key());
  for (auto it = countedVersion_.begin(); it; ++it)
    if (!versionFilter_ || !versionFilter_->includedServiceVersion(it.key())) versions.push_back(it.key());
  for (std::uint32_t version : versions) handleIncludedServiceVersion(version);
}

void MounterConfigSm::handleIncludedServiceVersion(std::uint32_t version) {
  // Likewise.
  KIV_SM_TRACE_TEXT_AT(
      8, 937, "handleIncludedServiceVersion",
      "MounterConfigSm::KivVersionFilter::" << "handleIncludedServiceVersion" << ": version=" << version);
  bool const included = versionFilter_ && versionFilter_->includedServiceVersion(version);
  bool const counted = countedVersion_.contains(version);
  if (included && !counted) {
    addVersionToVersionFilter(version);
  } else if (!included && counted) {
    removeVersionFromVersionFilter(version);
  }
}

void MounterConfigSm::addSystemToConnectionFilter(Kiv::String systemName) {
  KIV_SM_TRACE_AT(8, 821, "addSystemToConnectionFilter", " " << systemName);
  countedSystem_.insert(systemName, true);
  MountsRegistryEntrySm& entrySm = *mountsRegistryEntrySm_;
  if (entrySm.connectionFilterContains(systemName)) {
    std::uint32_t const count = entrySm.connectionFilter(systemName) + 1;
    KIV_SM_DUALLOG_AT(5, 830, kivSigAddSystemToConnectionFilter, " refcount:%s filter:%s path:%s", count, systemName,
                      remotePath());
    entrySm.connectionFilterIs(systemName, count);
  } else {
    KIV_SM_DUALLOG_AT(5, 836, kivSigAddSystemToConnectionFilter, " new filter:%s path:%s", systemName, remotePath());
    entrySm.connectionFilterIs(systemName, 1);
  }
  entrySm.handleSwitchConnection();
}

void MounterConfigSm::removeSystemFromConnectionFilter(Kiv::String systemName) {
  KIV_SM_TRACE_AT(8, 844, "removeSystemFromConnectionFilter", " " << systemName);
  countedSystem_.erase(systemName);
  MountsRegistryEntrySm& entrySm = *mountsRegistryEntrySm_;
  if (!entrySm.connectionFilterContains(systemName)) return;
  std::uint32_t const refCount = entrySm.connectionFilter(systemName);
  if (refCount == 1) {
    KIV_SM_DUALLOG_AT(5, 852, kivSigRemoveSystemFromConnectionFilter, " del filter:%s path:%s", systemName,
                      remotePath());
    entrySm.connectionFilterDel(systemName);
    entrySm.handleSwitchConnection();
    return;
  }
  KIV_SM_DUALLOG_AT(5, 861, kivSigRemoveSystemFromConnectionFilter, " refcount:%s filter:%s path:%s", refCount - 1,
                    systemName, remotePath());
  KIV_ASSERT(refCount > 1);
  // Another mounter still includes the system, so no switch changes its verdict.
  entrySm.connectionFilterIs(systemName, refCount - 1);
}

void MounterConfigSm::addVersionToVersionFilter(std::uint32_t version) {
  KIV_SM_TRACE_AT(8, 802, "addVersionToVersionFilter", " " << version);
  countedVersion_.insert(version, true);
  MountsRegistryEntrySm& entrySm = *mountsRegistryEntrySm_;
  entrySm.versionFilterIs(Kiv::Name(serviceName()))->versionIs(version, true);
  entrySm.handleSwitchConnection();
}

void MounterConfigSm::removeVersionFromVersionFilter(std::uint32_t version) {
  KIV_SM_TRACE_AT(8, 810, "removeVersionFromVersionFilter", " " << version);
  countedVersion_.erase(version);
  MountsRegistryEntrySm& entrySm = *mountsRegistryEntrySm_;
  Kiv::Name const service(serviceName());
  Kiv::Ptr<ServiceVersionFilter> filter = entrySm.versionFilterIs(service);
  filter->versionDel(version);
  if (filter->versionSize() == 0) entrySm.versionFilterDel(service);
  entrySm.handleSwitchConnection();
}

void MounterConfigSm::doCleanup() {
  KIV_SM_TRACE_AT(8, 870, "doCleanup", " " << serviceName());
  // What this mounter counted is exactly what its filters included.
  for (Kiv::String const& system : Kiv::keysOf(countedSystem_.begin())) removeSystemFromConnectionFilter(system);
  for (std::uint32_t version : Kiv::keysOf(countedVersion_.begin())) removeVersionFromVersionFilter(version);
  // A machine that has cleaned up must not count again if someone still holds it.
  systemFilterIs(nullptr);
  versionFilterIs(nullptr);
  mountGroupConfigIs(nullptr);
  withdrawMountStatus();
}

bool MounterConfigSm::groupMountsElsewhere() const {
  MountsRegistryEntry const* own = mountsRegistryEntrySm_->registryEntry().ptr();
  Kiv::String const group = mounter_->groupName();
  for (auto it = mountsRegistryEntrySm_->mountsRegistrySm()->mountsRegistry()->mountEntryIter(); it; ++it) {
    if (it.value().ptr() == own) continue;
    Kiv::Ptr<Mounter> other = it.value()->mounter(serviceName());
    if (other && other->groupName() == group) return true;
  }
  return false;
}

// Only what this mounter's group wrote goes: the entry's rows of the group, and the group's
// status on a switch once no path of the group is mounted anywhere any more (the group's other
// entries share it), then the system status if that left it empty. Another group's system
// status, empty or not, is not this mounter's to remove.
void MounterConfigSm::withdrawMountStatus() {
  Kiv::Ptr<ServiceMountStatus> status = mounter_->serviceMountStatus();
  if (!status) return;
  Kiv::Name const path = remotePath();
  // A service mounts a path through one mounter at most, so with it goes the service's prefix for
  // the path (usually withdrawn already by the configuration side, before the mounter).
  status->mountedPathPrefixDel(path);
  Kiv::Name const group(mounter_->groupName());
  bool const groupStays = groupMountsElsewhere();
  GroupStateTally& tally = mountsRegistryEntrySm_->mountsRegistrySm()->groupStateTally();
  for (Kiv::Name const& system : Kiv::keysOf(status->systemStatusIter())) {
    Kiv::Ptr<SystemStatus> systemStatus = status->systemStatus(system);
    Kiv::Ptr<ServiceMountGroupStatus> groupStatus = systemStatus->serviceMountGroupStatus(group);
    if (!groupStatus) continue;
    if (groupStatus->mountStatus(path)) {
      KIV_SM_TRACE_AT(8, 897, "doCleanup", ": Deleting mount status for " << path);
      tally.rowDel(*groupStatus, path);
      // The group's state is the rows' that are left.
      if (groupStatus->mountStatusSize() != 0) groupStatus->mountStateIs(tally.combined(*groupStatus));
    }
    if (groupStays || groupStatus->mountStatusSize() != 0) continue;
    KIV_SM_TRACE_AT(8, 902, "doCleanup", ": Deleting mount group status for " << group);
    tally.groupDel(*groupStatus);
    systemStatus->serviceMountGroupStatusDel(group);
    if (systemStatus->serviceMountGroupStatusSize() == 0) {
      KIV_SM_TRACE_AT(8, 907, "doCleanup", ": Deleting system status for " << system);
      status->systemStatusDel(system);
    }
  }
}

}  // namespace Controller
