#pragma once

#include "ServiceConfigMachines.h"

namespace Controller {

// One published directory of a publish group: it enters the registry with an empty remote path,
// not ready, and this machine completes it from the directory's remote target path and
// readiness. Owned by ServicePublishGroupSm, which runs doCleanup() before it deletes it.
class PublishDirSm : public PublishDirSmBase {
 public:
  PublishDirSm(Kiv::PtrConst<PublishDir> const& publishDir, ServicePublishGroupSm* parent);

  bool initialized() const { return initialized_; }

  void handlePublishDir();
  void handleReadyToPublish();
  void handleInitialized();
  void doCleanup();

 private:
  bool initialized_ = false;
};

}  // namespace Controller
