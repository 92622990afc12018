#pragma once

#include <array>
#include <tuple>

#include "MountInterface.h"

namespace Controller {

class ServicePublishGroupSm;

// One published directory of a publish group: it enters the registry with an empty remote path,
// not ready, and this machine completes it from the directory's remote target path and
// readiness. Owned by ServicePublishGroupSm, which runs doCleanup() before it deletes it.
class PublishDirSm : public Kiv::PtrInterface {
 public:
  PublishDirSm(Kiv::PtrConst<PublishDir> const& publishDir, ServicePublishGroupSm* parent);

  static constexpr std::array kivParamNames{"publishDir"};
  auto kivParams() const { return std::tie(publishDir_); }

  Kiv::PtrConst<PublishDir> const& publishDir() const { return publishDir_; }
  bool initialized() const { return initialized_; }

  void handlePublishDir();
  void handleReadyToPublish();
  void handleInitialized();
  void doCleanup();

 private:
  class KivPublishDir : public PublishDir::NotifieeConst {
   public:
    KivPublishDir(Kiv::PtrConst<PublishDir> const& d, PublishDirSm* owner) : NotifieeConst(d), owner_(owner) {}
    void onReadyToPublish() override { owner_->handleReadyToPublish(); }
    // A new remote path reaches the registry the same way as readiness does.
    void onRemoteTargetPath() override { owner_->handleReadyToPublish(); }

   private:
    PublishDirSm* owner_;
  };

  Kiv::PtrConst<PublishDir> publishDir_;
  ServicePublishGroupSm* parent_;
  Kiv::Ptr<KivPublishDir> kivPublishDir_;
  bool initialized_ = false;
};

}  // namespace Controller
