#include "serviceconfig/PublishDirSm.h"

#include "serviceconfig/ServiceConfigTrace.h"
#include "serviceconfig/ServicePublishGroupSm.h"

namespace Controller {

PublishDirSm::PublishDirSm(Kiv::PtrConst<PublishDir> const& publishDir, ServicePublishGroupSm* parent)
    : publishDir_(publishDir), parent_(parent), kivPublishDir_(new KivPublishDir(publishDir, this)) {
  handleInitialized();
}

void PublishDirSm::handleInitialized() {
  initialized_ = true;
  handlePublishDir();
  handleReadyToPublish();
}

void PublishDirSm::handlePublishDir() {
  SCD_TRACE(8, "handlePublishDir", "PublishDirSm::" << "handlePublishDir");
  Kiv::PtrConst<ServicePublishGroupConfig> const& group = parent_->publishGroupConfig();
  if (group->publishDir(publishDir_->name()) == publishDir_) {
    parent_->addPublishDir(publishDir_, group);
  } else {
    parent_->removePublishDir(publishDir_->name());
  }
}

void PublishDirSm::handleReadyToPublish() {
  if (!initialized_) return;
  SCD_TRACE(8, "handleReadyToPublish", "PublishDirSm::" << "handleReadyToPublish" << publishDir_->name());
  if (parent_->publishGroupConfig()->publishDir(publishDir_->name()) != publishDir_) return;
  if (Kiv::Ptr<PublishRegistryEntry> entry = parent_->ownEntry(publishDir_->name())) {
    entry->remotePathIs(publishDir_->remoteTargetPath());
    entry->readyToPublishIs(publishDir_->readyToPublish());
  }
}

void PublishDirSm::doCleanup() {
  SCD_TRACE(8, "doCleanup", "PublishDirSm::" << "doCleanup");
  parent_->removePublishDir(publishDir_->name());
}

}  // namespace Controller
