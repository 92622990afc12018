#include "registry/MounterConfigSm.h"

#include <vector>

#include "registry/MountsRegistryEntrySm.h"
#include "registry/MountsRegistrySm.h"
#include "registry/RegistryTrace.h"

namespace Controller {

namespace {
constexpr char const* kAddSystemToConnectionFilter =
    "void Controller::MounterConfigSm::addSystemToConnectionFilter(Kiv::String)";
constexpr char const* kRemoveSystemFromConnectionFilter =
    "void Controller::MounterConfigSm::removeSystemFromConnectionFilter(Kiv::String)";
}  // namespace

MounterConfigSm::MounterConfigSm(Kiv::Ptr<Mounter> const& mounter, MountsRegistryEntrySm* mountsRegistryEntrySm)
    : mounter_(Kiv::ValidPtr<Mounter>(mounter)), mountsRegistryEntrySm_(mountsRegistryEntrySm) {
  if (Kiv::PtrConst<MountFilterSystem> systems = mounter_->systemFilter())
    systemFilter_ = new KivSystemFilter(systems, this);
  if (Kiv::PtrConst<MountFilterServiceVersion> versions = mounter_->versionFilter())
    versionFilter_ = new KivVersionFilter(versions, this);
  if (Kiv::PtrConst<ServiceMountGroupConfig> group = mounter_->mountGroupConfig())
    kivMountGroupConfig_ = new KivMountGroupConfig(group, this);
  handleInitialized();
}

MounterConfigSm::~MounterConfigSm() = default;

// The reactor on the new filter (a bound-to-nothing one when there is none) reconciles what this
// mounter counted with what the filter holds.
void MounterConfigSm::handleSystemFilter() {
  MR_TRACE(8, "handleSystemFilter", "MounterConfigSm::" << "handleSystemFilter" << " " << serviceName());
  Kiv::PtrConst<MountFilterSystem> filter = mounter_->systemFilter();
  if (systemFilter_ && systemFilter_->notifier() == filter) return;
  Kiv::Ptr<KivSystemFilter> reactor(new KivSystemFilter(filter, this));
  systemFilter_ = filter ? reactor : nullptr;
  reactor->handleIncludedSystem();
  filtersChanged();
}

void MounterConfigSm::handleVersionFilter() {
  MR_TRACE(8, "handleVersionFilter", "MounterConfigSm::" << "handleVersionFilter" << " " << serviceName());
  Kiv::PtrConst<MountFilterServiceVersion> filter = mounter_->versionFilter();
  if (versionFilter_ && versionFilter_->notifier() == filter) return;
  Kiv::Ptr<KivVersionFilter> reactor(new KivVersionFilter(filter, this));
  versionFilter_ = filter ? reactor : nullptr;
  reactor->handleIncludedServiceVersion();
  filtersChanged();
}

// Whether the entry is a wildcard may change with a filter coming or going.
void MounterConfigSm::filtersChanged() {
  mountsRegistryEntrySm_->evaluateMounters();
  mountsRegistryEntrySm_->handleSwitchConnection();
}

Kiv::Name MounterConfigSm::remotePath() const { return mountsRegistryEntrySm_->registryEntry()->remotePath(); }

void MounterConfigSm::handleInitialized() {
  MR_TRACE(8, "handleInitialized", "MounterConfigSm::" << "handleInitialized" << " " << serviceName());
  initialized_ = true;
  if (systemFilter_) systemFilter_->handleIncludedSystem();
  if (versionFilter_) versionFilter_->handleIncludedServiceVersion();
}

void MounterConfigSm::KivSystemFilter::handleIncludedSystem() {
  std::vector<Kiv::String> systems;
  if (Kiv::PtrConst<MountFilterSystem> filter = notifier())
    for (auto it = filter->includedSystemIter(); it; ++it) systems.push_back(it.key());
  for (auto it = owner_->countedSystem_.begin(); it; ++it)
    if (!notifier() || !notifier()->includedSystem(it.key())) systems.push_back(it.key());
  for (Kiv::String const& system : systems) handleIncludedSystem(system);
}

void MounterConfigSm::KivSystemFilter::handleIncludedSystem(Kiv::String const& systemName) {
  MR_TRACE_AT(8, 925, "handleIncludedSystem",
              "MounterConfigSm::KivSystemFilter::" << "handleIncludedSystem" << ": " << systemName);
  Kiv::PtrConst<MountFilterSystem> filter = notifier();
  bool const included = filter && filter->includedSystem(systemName);
  bool const counted = owner_->countedSystem_.contains(systemName);
  if (included && !counted) {
    owner_->addSystemToConnectionFilter(systemName);
  } else if (!included && counted) {
    owner_->removeSystemFromConnectionFilter(systemName);
  }
}

void MounterConfigSm::KivVersionFilter::handleIncludedServiceVersion() {
  std::vector<std::uint32_t> versions;
  if (Kiv::PtrConst<MountFilterServiceVersion> filter = notifier())
    for (auto it = filter->includedServiceVersionIter(); it; ++it) versions.push_back(it.key());
  for (auto it = owner_->countedVersion_.begin(); it; ++it)
    if (!notifier() || !notifier()->includedServiceVersion(it.key())) versions.push_back(it.key());
  for (std::uint32_t version : versions) handleIncludedServiceVersion(version);
}

void MounterConfigSm::KivVersionFilter::handleIncludedServiceVersion(std::uint32_t version) {
  MR_TRACE_AT(8, 937, "handleIncludedServiceVersion",
              "MounterConfigSm::KivVersionFilter::" << "handleIncludedServiceVersion" << ": version=" << version);
  Kiv::PtrConst<MountFilterServiceVersion> filter = notifier();
  bool const included = filter && filter->includedServiceVersion(version);
  bool const counted = owner_->countedVersion_.contains(version);
  if (included && !counted) {
    owner_->addVersionToVersionFilter(version);
  } else if (!included && counted) {
    owner_->removeVersionFromVersionFilter(version);
  }
}

void MounterConfigSm::addSystemToConnectionFilter(Kiv::String systemName) {
  MR_TRACE_AT(8, 821, "addSystemToConnectionFilter",
              "MounterConfigSm::" << "addSystemToConnectionFilter" << " " << systemName);
  countedSystem_.insert(systemName, true);
  MountsRegistryEntrySm& entrySm = *mountsRegistryEntrySm_;
  if (entrySm.connectionFilterContains(systemName)) {
    std::uint32_t const count = entrySm.connectionFilter(systemName) + 1;
    MR_DUALLOG_AT(5, 830, kAddSystemToConnectionFilter, " refcount:%s filter:%s path:%s", count, systemName,
                  remotePath());
    entrySm.connectionFilterIs(systemName, count);
  } else {
    MR_DUALLOG_AT(5, 836, kAddSystemToConnectionFilter, " new filter:%s path:%s", systemName, remotePath());
    entrySm.connectionFilterIs(systemName, 1);
  }
  entrySm.handleSwitchConnection();
}

void MounterConfigSm::removeSystemFromConnectionFilter(Kiv::String systemName) {
  MR_TRACE_AT(8, 844, "removeSystemFromConnectionFilter",
              "MounterConfigSm::" << "removeSystemFromConnectionFilter" << " " << systemName);
  countedSystem_.erase(systemName);
  MountsRegistryEntrySm& entrySm = *mountsRegistryEntrySm_;
  if (!entrySm.connectionFilterContains(systemName)) return;
  std::uint32_t const refCount = entrySm.connectionFilter(systemName);
  if (refCount == 1) {
    MR_DUALLOG_AT(5, 852, kRemoveSystemFromConnectionFilter, " del filter:%s path:%s", systemName, remotePath());
    entrySm.connectionFilterDel(systemName);
    entrySm.handleSwitchConnection();
    return;
  }
  MR_DUALLOG_AT(5, 861, kRemoveSystemFromConnectionFilter, " refcount:%s filter:%s path:%s", refCount - 1,
                systemName, remotePath());
  KIV_ASSERT(refCount > 1);
  // Another mounter still includes the system, so no switch changes its verdict.
  entrySm.connectionFilterIs(systemName, refCount - 1);
}

void MounterConfigSm::addVersionToVersionFilter(std::uint32_t version) {
  MR_TRACE_AT(8, 802, "addVersionToVersionFilter",
              "MounterConfigSm::" << "addVersionToVersionFilter" << " " << version);
  countedVersion_.insert(version, true);
  MountsRegistryEntrySm& entrySm = *mountsRegistryEntrySm_;
  entrySm.versionFilterIs(Kiv::Name(serviceName()))->versionIs(version, true);
  entrySm.handleSwitchConnection();
}

void MounterConfigSm::removeVersionFromVersionFilter(std::uint32_t version) {
  MR_TRACE_AT(8, 810, "removeVersionFromVersionFilter",
              "MounterConfigSm::" << "removeVersionFromVersionFilter" << " " << version);
  countedVersion_.erase(version);
  MountsRegistryEntrySm& entrySm = *mountsRegistryEntrySm_;
  Kiv::Name const service(serviceName());
  Kiv::Ptr<ServiceVersionFilter> filter = entrySm.versionFilterIs(service);
  filter->versionDel(version);
  if (filter->versionSize() == 0) entrySm.versionFilterDel(service);
  entrySm.handleSwitchConnection();
}

void MounterConfigSm::doCleanup() {
  MR_TRACE_AT(8, 870, "doCleanup", "MounterConfigSm::" << "doCleanup" << " " << serviceName());
  // What this mounter counted is exactly what its filters included.
  std::vector<Kiv::String> systems;
  for (auto it = countedSystem_.begin(); it; ++it) systems.push_back(it.key());
  for (Kiv::String const& system : systems) removeSystemFromConnectionFilter(system);
  std::vector<std::uint32_t> versions;
  for (auto it = countedVersion_.begin(); it; ++it) versions.push_back(it.key());
  for (std::uint32_t version : versions) removeVersionFromVersionFilter(version);
  // A machine that has cleaned up must not count again if someone still holds it.
  systemFilter_ = nullptr;
  versionFilter_ = nullptr;
  kivMountGroupConfig_ = nullptr;
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
  std::vector<Kiv::Name> systems;
  for (auto it = status->systemStatusIter(); it; ++it) systems.push_back(it.key());
  for (Kiv::Name const& system : systems) {
    Kiv::Ptr<SystemStatus> systemStatus = status->systemStatus(system);
    Kiv::Ptr<ServiceMountGroupStatus> groupStatus = systemStatus->serviceMountGroupStatus(group);
    if (!groupStatus) continue;
    if (groupStatus->mountStatus(path)) {
      MR_TRACE_AT(8, 897, "doCleanup", "MounterConfigSm::" << "doCleanup" << ": Deleting mount status for " << path);
      groupStatus->mountStatusDel(path);
    }
    if (groupStays || groupStatus->mountStatusSize() != 0) continue;
    MR_TRACE_AT(8, 902, "doCleanup", "MounterConfigSm::" << "doCleanup" << ": Deleting mount group status for " << group);
    systemStatus->serviceMountGroupStatusDel(group);
    if (systemStatus->serviceMountGroupStatusSize() == 0) {
      MR_TRACE_AT(8, 907, "doCleanup", "MounterConfigSm::" << "doCleanup" << ": Deleting system status for " << system);
      status->systemStatusDel(system);
    }
  }
}

}  // namespace Controller
