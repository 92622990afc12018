#include "serviceconfig/ServicePublishGroupSm.h"

#include <vector>

#include "serviceconfig/PublishDirSm.h"
#include "serviceconfig/ServiceConfigTrace.h"
#include "serviceconfig/ServicePublishConfigSm.h"

namespace Controller {

namespace {
constexpr char const* kAddPublishDirOrConfig =
    "void Controller::ServicePublishGroupSm::addPublishDirOrConfig(Kiv::String, Kiv::String, Kiv::String, bool, "
    "bool, Kiv::PtrConst<Controller::ServicePublishGroupConfig>)";
constexpr char const* kRemovePublishDirOrConfig =
    "void Controller::ServicePublishGroupSm::removePublishDirOrConfig(Kiv::String)";
}  // namespace

ServicePublishGroupSm::ServicePublishGroupSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                                             Kiv::PtrConst<ServicePublishConfig> const& servicePublishConfig,
                                             Kiv::PtrConst<ServicePublishGroupConfig> const& publishGroupConfig,
                                             Kiv::Ptr<ServicePublishGroupStatus> const& publishGroupStatus,
                                             Kiv::Ptr<MountsRegistry> const& mountsRegistry,
                                             ServicePublishConfigSm* parent)
    : controllerdbStatus_(controllerdbStatus),
      servicePublishConfig_(servicePublishConfig),
      publishGroupConfig_(publishGroupConfig),
      publishGroupStatus_(publishGroupStatus),
      mountsRegistry_(mountsRegistry),
      parent_(parent),
      kivControllerdbStatus_(new KivControllerdbStatus(controllerdbStatus, this)),
      kivServicePublishConfig_(new KivServicePublishConfig(servicePublishConfig, this)),
      kivPublishGroupConfig_(new KivPublishGroupConfig(publishGroupConfig, this)) {
  handleInitialized();
}

ServicePublishGroupSm::~ServicePublishGroupSm() = default;

void ServicePublishGroupSm::handleInitialized() {
  SCD_TRACE(8, "handleInitialized", "ServicePublishGroupSm::" << "handleInitialized");
  if (initialized_) return;
  initialized_ = true;
  handleLeaderGenId();
}

void ServicePublishGroupSm::handleLeaderGenId() {
  SCD_TRACE(8, "handleLeaderGenId",
            "ServicePublishGroupSm::" << "handleLeaderGenId" << " " << servicePublishConfig_->leaderGenId());
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
  SCD_TRACE(8, "handleSystemFilter",
            "ServicePublishGroupSm::" << "handleSystemFilter" << " " << (filter ? filter->filterName() : "None"));
  for (auto const& entry : ownEntries()) entry->systemFilterIs(filter);
}

void ServicePublishGroupSm::handleVersionFilter() {
  if (!initialized_) return;
  Kiv::Ptr<MountFilterServiceVersion> const& filter = publishGroupConfig_->versionFilter();
  SCD_TRACE(8, "handleVersionFilter",
            "ServicePublishGroupSm::" << "handleVersionFilter" << " " << (filter ? filter->filterName() : "None"));
  for (auto const& entry : ownEntries()) entry->versionFilterIs(filter);
}

void ServicePublishGroupSm::handlePublishConfig() {
  std::vector<Kiv::Name> paths;
  for (auto it = publishGroupConfig_->publishConfigIter(); it; ++it) paths.push_back(it.key());
  for (Kiv::Name const& path : paths) handlePublishConfig(path);
}

void ServicePublishGroupSm::handlePublishConfig(Kiv::Name const& path) {
  SCD_TRACE(8, "handlePublishConfig", "ServicePublishGroupSm::" << "handlePublishConfig" << ": " << path);
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
  std::vector<Kiv::Name> dirs;
  for (auto it = publishGroupConfig_->publishDirIter(); it; ++it) dirs.push_back(it.key());
  for (Kiv::Name const& dir : dirs) handlePublishDir(dir);
}

void ServicePublishGroupSm::handlePublishDir(Kiv::Name const& dir) {
  SCD_TRACE(8, "handlePublishDir", "ServicePublishGroupSm::" << "handlePublishDir" << ": " << dir);
  if (!parent_->canPublish()) return;
  if (Kiv::PtrConst<PublishDir> publishDir = publishGroupConfig_->publishDir(dir)) {
    publishDirSm_.instantiate(dir, std::make_tuple(publishDir),
                              [&] { return Kiv::Ptr<PublishDirSm>(new PublishDirSm(publishDir, this)); });
  } else {
    publishDirSm_.erase(dir);
  }
}

// A path this group holds already is in place: re-evaluations come back to it silently. Any other
// holder, this service's other groups included, keeps it, and this publisher is ignored.
void ServicePublishGroupSm::addPublishConfig(Kiv::PtrConst<PublishConfig> const& publishConfig,
                                             Kiv::PtrConst<ServicePublishGroupConfig> const& groupConfig) {
  Kiv::Name const& cpath = publishConfig->name();
  if (published_.contains(cpath)) return;
  if (mountsRegistry_->publishEntry(cpath)) {
    SCD_TRACE(1, "addPublishConfig",
              "addPublishConfig" << cpath << " already published. Ignoring publish from:" << serviceName());
    return;
  }
  addPublishDirOrConfig(cpath, publishConfig->remotePath(), publishConfig->kivcType(), false, true, groupConfig);
}

void ServicePublishGroupSm::addPublishDir(Kiv::PtrConst<PublishDir> const& publishDir,
                                          Kiv::PtrConst<ServicePublishGroupConfig> const& groupConfig) {
  Kiv::Name const& cpath = publishDir->name();
  SCD_TRACE(8, "addPublishDir", "ServicePublishGroupSm::" << "addPublishDir" << " " << cpath);
  if (published_.contains(cpath)) return;
  if (mountsRegistry_->publishEntry(cpath)) {
    SCD_TRACE(1, "addPublishDir",
              "addPublishDir" << cpath << " already published. Ignoring publishDir from: " << serviceName());
    return;
  }
  // Its PublishDirSm completes the remote path and the ready flag.
  addPublishDirOrConfig(cpath, "", publishDir->kivType(), true, false, groupConfig);
}

void ServicePublishGroupSm::addPublishDirOrConfig(Kiv::String cpath, Kiv::String rpath, Kiv::String type, bool isDir,
                                                  bool ready,
                                                  Kiv::PtrConst<ServicePublishGroupConfig> const& groupConfig) {
  SCD_DUALLOG(kAddPublishDirOrConfig, " adding: service:%s cpath:%s rpath:%s type:%s", serviceName(), cpath, rpath,
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
  SCD_DUALLOG(kRemovePublishDirOrConfig, " removing cpath:%s", cpath);
  mountsRegistry_->publishEntryDel(cpath);
}

void ServicePublishGroupSm::doCleanup() {
  SCD_TRACE(8, "doCleanup", "ServicePublishGroupSm::" << "doCleanup");
  std::vector<Kiv::Name> paths;
  for (auto it = published_.begin(); it; ++it) paths.push_back(it.key());
  for (Kiv::Name const& path : paths) removePublishDirOrConfig(path);
  publishDirSm_.clear();
}

}  // namespace Controller
