#include "serviceconfig/ServiceMountGroupSm.h"

#include <vector>

#include "serviceconfig/DirPath.h"
#include "serviceconfig/ServiceMountConfigSm.h"

namespace Controller {

ServiceMountGroupSm::ServiceMountGroupSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                                         Kiv::PtrConst<ServiceMountGroupConfig> const& mountGroupConfig,
                                         Kiv::PtrConst<ServiceMountConfig> const& serviceMountConfig,
                                         Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                                         Kiv::Ptr<MountsRegistry> const& mountsRegistry, ServiceMountConfigSm* parent)
    : ServiceMountGroupSmBase(controllerdbStatus, mountGroupConfig, serviceMountConfig, serviceMountStatus, mountsRegistry, parent) {
  handleInitialized();
}

void ServiceMountGroupSm::handleInitialized() {
  KIV_SM_TRACE(8, "handleInitialized", " mountConfig genId:" << serviceMountConfig_->leaderGenId()
                                    << " controller genId:" << controllerdbStatus_->leaderGenId());
  if (initialized_) return;
  initialized_ = true;
  handleLeaderGenId();
}

bool ServiceMountGroupSm::canMount() const {
  KIV_SM_TRACE(8, "canMount", " mountConfig genId:" << serviceMountConfig_->leaderGenId()
                                    << " controller genId:" << controllerdbStatus_->leaderGenId());
  Kiv::String const& controller = controllerdbStatus_->leaderGenId();
  if (controller.empty()) return parent_->isProxyService();
  return serviceMountConfig_->leaderGenId() == controller || parent_->isProxyService();
}

void ServiceMountGroupSm::handleLeaderGenId() {
  KIV_SM_TRACE(8, "handleLeaderGenId", " " << serviceMountConfig_->leaderGenId());
  if (canMount()) {
    handleMountConfig();
  } else if (!parent_->isProxyService()) {
    doCleanup();
  }
}

void ServiceMountGroupSm::handleMountConfig() {
  if (!initialized_) return;
  KIV_SM_TRACE(8, "handleMountConfig", "");
  for (Kiv::Name const& path : Kiv::keysOf(mountGroupConfig_->mountConfigIter())) handleMountConfig(path);
}

void ServiceMountGroupSm::handleMountConfig(Kiv::Name const& remotePath) {
  KIV_SM_TRACE(8, "handleMountConfig", ": " << remotePath);
  if (!initialized_ || !canMount()) return;
  if (mountGroupConfig_->mountConfig(remotePath)) {
    addMountConfig(remotePath);
  } else {
    removeMountConfig(remotePath);
  }
}

MounterName ServiceMountGroupSm::mounterName() const {
  return MounterName(serviceMountConfig_->serviceName(), mountGroupConfig_->name());
}

void ServiceMountGroupSm::addMountConfig(Kiv::Name const& remotePath) {
  KIV_SM_TRACE(8, "addMountConfig", ": " << remotePath);
  Kiv::String const serviceName = serviceMountConfig_->serviceName();
  Kiv::String const groupName = mountGroupConfig_->name();
  Kiv::PtrConst<MountConfig> mountConfig = mountGroupConfig_->mountConfig(remotePath);
  Kiv::Ptr<MountsRegistryEntry> mre = mountsRegistry_->mountEntry(remotePath);
  Kiv::String pathPrefix;
  if (mre) {
    KIV_SM_DUALLOG(5, kivSigAddMountConfig, " dup registry entry service:%s group:%s rpath:%s", serviceName, groupName,
                remotePath);
    KIV_ASSERT(mre->kivType() == mountConfig->kivcType());
    KIV_ASSERT(mre->mountFlags() == mountConfig->mountFlags());
    pathPrefix = mre->targetPath();
  } else {
    Kiv::String targetPath;
    if (!mountConfig->targetMountPath().empty()) {
      targetPath = mountConfig->targetMountPath();
      doCreateDirPath(mountsRegistry_->rootDir(), mountConfig->targetMountPath());
    } else {
      targetPath = mountsRegistry_->registryDirPath() + "/" + remotePath;
      doCreateDirPath(mountsRegistry_->registryDir(), remotePath);
    }
    KIV_SM_DUALLOG(5, kivSigAddMountConfig, " add registry entry service:%s group:%s rpath:%s tpath:%s", serviceName, groupName,
                remotePath, targetPath);
    mre = mountsRegistry_->mountEntryIs(remotePath, targetPath, mountConfig->kivcType(), mountConfig->mountFlags());
    KIV_ASSERT(mre);
    pathPrefix = targetPath;
  }
  MounterName const name = mounterName();
  if (mre->mounter(name.serviceName())) {
    // The first request of a (service, group) for a path wins.
    KIV_SM_TRACE(8, "addMountConfig", " Service:" << serviceName
                                      << " has already requested a mount for " << remotePath);
    return;
  }
  KIV_SM_DUALLOG(5, kivSigAddMountConfig, " add mounter service:%s group:%s rpath:%s path prefix:%s", serviceName, groupName,
              remotePath, pathPrefix);
  // The prefix first: whoever reacts to the new mounter finds it in place.
  serviceMountStatus_->mountedPathPrefixIs(remotePath, pathPrefix);
  mre->mounterIs(name, mountConfig, mountGroupConfig_, serviceMountStatus_);
}

void ServiceMountGroupSm::removeMountConfig(Kiv::Name const& remotePath) {
  KIV_SM_TRACE(8, "removeMountConfig", ": " << remotePath);
  Kiv::Ptr<MountsRegistryEntry> mre = mountsRegistry_->mountEntry(remotePath);
  if (!mre) return;
  MounterName const name = mounterName();
  KIV_SM_DUALLOG(5, kivSigRemoveMountConfig, " del registry entry: service:%s group:%s path:%s", name.serviceName(),
              name.groupName(), remotePath);
  // Mounters are keyed by service: when another group of this service requested the path first,
  // the mounter and the prefix are that group's and stay.
  Kiv::Ptr<Mounter> mounter = mre->mounter(name.serviceName());
  if (mounter && mounter->mounterName() == name) {
    serviceMountStatus_->mountedPathPrefixDel(remotePath);
    mre->mounterDel(name.serviceName());
  }
  if (mre->mounterSize() == 0) KIV_SM_DUALLOG(5, kivSigRemoveMountConfig, " all mounters gone path:%s", remotePath);
}

void ServiceMountGroupSm::doCleanup() {
  KIV_SM_TRACE(8, "doCleanup", "");
  for (Kiv::Name const& path : Kiv::keysOf(mountGroupConfig_->mountConfigIter())) removeMountConfig(path);
}

}  // namespace Controller
