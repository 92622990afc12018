#include "serviceconfig/ServicePublishGroupSm.h"

#include <vector>

#include "serviceconfig/PublishDirSm.h"
#include "serviceconfig/ServicePublishConfigSm.h"

namespace Controller {

ServicePublishGroupSm::ServicePublishGroupSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                                             Kiv::PtrConst<ServicePublishConfig> const& servicePublishConfig,
                                             Kiv::PtrConst<ServicePublishGroupConfig> const& publishGroupConfig,
                                             Kiv::Ptr<ServicePublishGroupStatus> const& publishGroupStatus,
                                             Kiv::Ptr<MountsRegistry> const& mountsRegistry,
                                             ServicePublishConfigSm* parent)
    : ServicePublishGroupSmBase(controllerdbStatus, servicePublishConfig, publishGroupConfig, publishGroupStatus, mountsRegistry, parent) {
  handleInitialized();
}

ServicePublishGroupSm::~ServicePublishGroupSm() = default;

void ServicePublishGroupSm::handleInitialized() {
  KIV_SM_TRACE(8, "handleInitialized", "");
  if (initialized_) return;
  initialized_ = true;
  handleLeaderGenId();
}

void ServicePublishGroupSm::handleLeaderGenId() {
  KIV_SM_TRACE(8, "handleLeaderGenId", " " << servicePublishConfig_->leaderGenId());
  if (parent_->canPublish()) {
    handleSystemFilter();
    handleVersionFilter();
    handlePublishDir();
    handlePublishConfig();
  } else {
    doCleanup();
  }
}

Kiv::Ptr<PublishRegistryEntry> ServicePublishGroupSm::ownEntry(Kiv::Name const& cpath) const {
  return published_.contains(cpath) ? mountsRegistry_->publishEntry(cpath) : nullptr;
}

std::vector<Kiv::Ptr<PublishRegistryEntry>> ServicePublishGroupSm::ownEntries() const {
  std::vector<Kiv::Ptr<PublishRegistryEntry>> entries;
  for (auto it = published_.begin(); it; ++it)
    if (auto entry = mountsRegistry_->publishEntry(it.key())) entries.push_back(entry);
  return entries;
}

void ServicePublishGroupSm::handleSystemFilter() {
  if (!initialized_) return;
  Kiv::Ptr<MountFilterSystem> const& filter = publishGroupConfig_->systemFilter();
  KIV_SM_TRACE(8, "handleSystemFilter", " " << (filter ? filter->filterName() : "None"));
  for (auto const& entry : ownEntries()) entry->systemFilterIs(filter);
}

void ServicePublishGroupSm::handleVersionFilter() {
  if (!initialized_) return;
  Kiv::Ptr<MountFilterServiceVersion> const& filter = publishGroupConfig_->versionFilter();
  KIV_SM_TRACE(8, "handleVersionFilter", " " << (filter ? filter->filterName() : "None"));
  for (auto const& entry : ownEntries()) entry->versionFilterIs(filter);
}

void ServicePublishGroupSm::handlePublishConfig() {
  for (Kiv::Name const& path : Kiv::keysOf(publishGroupConfig_->publishConfigIter())) handlePublishConfig(path);
}

void ServicePublishGroupSm::handlePublishConfig(Kiv::Name const& path) {
  KIV_SM_TRACE(8, "handlePublishConfig", ": " << path);
  if (!parent_->canPublish()) return;
  if (Kiv::PtrConst<PublishConfig> config = publishGroupConfig_->publishConfig(path)) {
    publishGroupStatus_->publishStatusIs(path)->publishStateIs(publishStateComplete);
    addPublishConfig(config, publishGroupConfig_);
  } else {
    publishGroupStatus_->publishStatusDel(path);
    removePublishConfig(path);
  }
}

void ServicePublishGroupSm::handlePublishDir() {
  for (Kiv::Name const& dir : Kiv::keysOf(publishGroupConfig_->publishDirIter())) handlePublishDir(dir);
}

void ServicePublishGroupSm::handlePublishDir(Kiv::Name const& dir) {
  KIV_SM_TRACE(8, "handlePublishDir", ": " << dir);
  if (!parent_->canPublish()) return;
  if (Kiv::PtrConst<PublishDir> publishDir = publishGroupConfig_->publishDir(dir)) {
    publishDirSmIs(dir, publishDir);
  } else {
    publishDirSmDel(dir);
  }
}

// A path this group holds already is in place: re-evaluations come back to it silently. Any other
// holder, this service's other groups included, keeps it, and this publisher is ignored.
void ServicePublishGroupSm::addPublishConfig(Kiv::PtrConst<PublishConfig> const& publishConfig,
                                             Kiv::PtrConst<ServicePublishGroupConfig> const& groupConfig) {
  Kiv::Name const& cpath = publishConfig->name();
  if (published_.contains(cpath)) return;
  if (mountsRegistry_->publishEntry(cpath)) {
    KIV_SM_TRACE_TEXT(1, "addPublishConfig",
              "addPublishConfig" << cpath << " already published. Ignoring publish from:" << serviceName());
    return;
  }
  addPublishDirOrConfig(cpath, publishConfig->remotePath(), publishConfig->kivcType(), false, true, groupConfig);
}

void ServicePublishGroupSm::addPublishDir(Kiv::PtrConst<PublishDir> const& publishDir,
                                          Kiv::PtrConst<ServicePublishGroupConfig> const& groupConfig) {
  Kiv::Name const& cpath = publishDir->name();
  KIV_SM_TRACE(8, "addPublishDir", " " << cpath);
  if (published_.contains(cpath)) return;
  if (mountsRegistry_->publishEntry(cpath)) {
    KIV_SM_TRACE_TEXT(1, "addPublishDir",
              "addPublishDir" << cpath << " already published. Ignoring publishDir from: " << serviceName());
    return;
  }
  // Its PublishDirSm completes the remote path and the ready flag.
  addPublishDirOrConfig(cpath, "", publishDir->kivType(), true, false, groupConfig);
}

void ServicePublishGroupSm::addPublishDirOrConfig(Kiv::String cpath, Kiv::String rpath, Kiv::String type, bool isDir,
                                                  bool ready,
                                                  Kiv::PtrConst<ServicePublishGroupConfig> const& groupConfig) {
  KIV_SM_DUALLOG(5, kivSigAddPublishDirOrConfig, " adding: service:%s cpath:%s rpath:%s type:%s", serviceName(), cpath, rpath,
              type);
  Kiv::Ptr<PublishRegistryEntry> entry = mountsRegistry_->publishEntryIs(
      cpath, rpath, type, isDir, serviceName(), groupConfig->versionFilter(), groupConfig->systemFilter());
  published_.assign(cpath, true);
  entry->readyToPublishIs(ready);
}

void ServicePublishGroupSm::removePublishDir(Kiv::String const& cpath) { removePublishDirOrConfig(cpath); }

void ServicePublishGroupSm::removePublishConfig(Kiv::String const& cpath) { removePublishDirOrConfig(cpath); }

void ServicePublishGroupSm::removePublishDirOrConfig(Kiv::String const& cpath) {
  // Another publisher's entry for the same path is that publisher's to remove.
  if (!published_.erase(Kiv::Name(cpath))) return;
  KIV_SM_DUALLOG(5, kivSigRemovePublishDirOrConfig, " removing cpath:%s", cpath);
  mountsRegistry_->publishEntryDel(cpath);
}

void ServicePublishGroupSm::doCleanup() {
  KIV_SM_TRACE(8, "doCleanup", "");
  for (Kiv::Name const& path : Kiv::keysOf(published_.begin())) removePublishDirOrConfig(path);
  publishDirSm_.clear();
}

}  // namespace Controller
