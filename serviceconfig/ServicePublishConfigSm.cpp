#include "serviceconfig/ServicePublishConfigSm.h"

#include <vector>

#include "serviceconfig/ServicePublishGroupSm.h"

namespace Controller {

ServicePublishConfigSm::ServicePublishConfigSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                                               Kiv::PtrConst<ServicePublishConfig> const& servicePublishConfig,
                                               Kiv::Ptr<ServicePublishStatus> const& servicePublishStatus,
                                               Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
                                               Kiv::Ptr<MountsRegistry> const& mountsRegistry,
                                               ServiceConfigDirSm* parent)
    : ServicePublishConfigSmBase(controllerdbStatus, servicePublishConfig, servicePublishStatus, controllerdbPublishStatus, mountsRegistry,
                                 parent) {
  handleInitialized();
}

ServicePublishConfigSm::~ServicePublishConfigSm() = default;

// Withdraws what the machine and its groups wrote: the entries, the group statuses and the
// service's readiness.
void ServicePublishConfigSm::doCleanup() {
  KIV_SM_TRACE(8, "doCleanup", "");
  for (Kiv::Name const& group : Kiv::keysOf(publishGroupSm_.begin())) {
    publishGroupSmDel(group);
    servicePublishStatus_->servicePublishGroupStatusDel(group);
  }
  if (initialized_) mountsRegistry_->servicePublishReadyDel(servicePublishConfig_->serviceName());
  initialized_ = false;
}

bool ServicePublishConfigSm::canPublish() const {
  Kiv::String const& controller = controllerdbStatus_->leaderGenId();
  bool can = !controller.empty() && servicePublishConfig_->leaderGenId() == controller;
  KIV_SM_TRACE(8, "canPublish", " can:" << can << " publishConfig genId:"
                                       << servicePublishConfig_->leaderGenId() << " controller genId:" << controller);
  return can;
}

void ServicePublishConfigSm::handleInitialized() {
  KIV_SM_TRACE(8, "handleInitialized", "");
  if (initialized_ || servicePublishConfig_->serviceName().empty()) return;
  initialized_ = true;
  handlePublishGroupConfig();
  handleLeaderGenId();
}

void ServicePublishConfigSm::handleServiceName() {
  KIV_SM_DUALLOG(5, kivSigHandleServiceName, " serviceName:%s",
              servicePublishConfig_->serviceName());
  handleInitialized();
}

void ServicePublishConfigSm::handleLeaderGenId() {
  if (!initialized_) return;
  KIV_SM_TRACE(8, "handleLeaderGenId", " " << servicePublishConfig_->leaderGenId());
  if (canPublish()) {
    // The entries come back before the readiness, so that the registry has them to wait for;
    // the groups' own reactors then find them in place.
    for (auto const& group : Kiv::valuesOf(publishGroupSm_.begin())) group->handleLeaderGenId();
    handlePublishReady();
    return;
  }
  KIV_SM_DUALLOG(5, kivSigHandleLeaderGenId,
              "Stale leaderGenId, cleanup publishReady flag for %s", servicePublishConfig_->serviceName());
  mountsRegistry_->servicePublishReadyDel(servicePublishConfig_->serviceName());
}

void ServicePublishConfigSm::handlePublishReady() {
  KIV_SM_TRACE(8, "handlePublishReady", ": " << servicePublishConfig_->serviceName());
  if (!initialized_ || !canPublish()) return;
  mountsRegistry_->servicePublishReadyIs(servicePublishConfig_->serviceName(), servicePublishConfig_->ready());
}

void ServicePublishConfigSm::handlePublishGroupConfig() {
  KIV_SM_TRACE(8, "handlePublishGroupConfig", "");
  if (!initialized_) return;
  for (Kiv::Name const& group : Kiv::keysOf(servicePublishConfig_->publishGroupConfigIter()))
    handlePublishGroupConfig(group);
}

void ServicePublishConfigSm::handlePublishGroupConfig(Kiv::Name const& group) {
  KIV_SM_TRACE(8, "handlePublishGroupConfig", ": " << servicePublishConfig_->serviceName()
                                       << ", " << group);
  if (!initialized_) return;
  if (Kiv::PtrConst<ServicePublishGroupConfig> config = servicePublishConfig_->publishGroupConfig(group)) {
    Kiv::Ptr<ServicePublishGroupStatus> status = servicePublishStatus_->servicePublishGroupStatusIs(group);
    status->publishStateIs(publishStateComplete);
    publishGroupSmIs(controllerdbStatus_, servicePublishConfig_, config, status, mountsRegistry_);
  } else if (publishGroupSm_.get(group)) {
    // The group's entries leave the registry (its clean-up) before its status goes.
    publishGroupSmDel(group);
    servicePublishStatus_->servicePublishGroupStatusDel(group);
  }
}

}  // namespace Controller
