#include "serviceconfig/PublishDirSm.h"

#include "serviceconfig/ServicePublishGroupSm.h"

namespace Controller {

PublishDirSm::PublishDirSm(Kiv::PtrConst<PublishDir> const& publishDir, ServicePublishGroupSm* parent)
    : PublishDirSmBase(publishDir, parent) {
  handleInitialized();
}

void PublishDirSm::handleInitialized() {
  initialized_ = true;
  handlePublishDir();
  handleReadyToPublish();
}

void PublishDirSm::handlePublishDir() {
  KIV_SM_TRACE(8, "handlePublishDir", "");
  Kiv::PtrConst<ServicePublishGroupConfig> const& group = parent_->publishGroupConfig();
  if (group->publishDir(publishDir_->name()) == publishDir_) {
    parent_->addPublishDir(publishDir_, group);
  } else {
    parent_->removePublishDir(publishDir_->name());
  }
}

void PublishDirSm::handleReadyToPublish() {
  if (!initialized_) return;
  KIV_SM_TRACE(8, "handleReadyToPublish", publishDir_->name());
  if (parent_->publishGroupConfig()->publishDir(publishDir_->name()) != publishDir_) return;
  if (Kiv::Ptr<PublishRegistryEntry> entry = parent_->ownEntry(publishDir_->name())) {
    entry->remotePathIs(publishDir_->remoteTargetPath());
    entry->readyToPublishIs(publishDir_->readyToPublish());
  }
}

void PublishDirSm::doCleanup() {
  KIV_SM_TRACE(8, "doCleanup", "");
  parent_->removePublishDir(publishDir_->name());
}

}  // namespace Controller
