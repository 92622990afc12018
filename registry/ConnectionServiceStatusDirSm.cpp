#include "registry/ConnectionServiceStatusDirSm.h"

#include <vector>

#include "registry/MountsRegistrySm.h"

namespace Controller {

ConnectionServiceStatusDirSm::ConnectionServiceStatusDirSm(
    Kiv::Name const& name, Kiv::PtrConst<ServiceStatusDir> const& controllerServiceStatusDir,
    MountsRegistrySm* mountsRegistrySm)
    : ConnectionServiceStatusDirSmBase(name, controllerServiceStatusDir, mountsRegistrySm) {}

void ConnectionServiceStatusDirSm::handleInitialized() {
  if (initialized_) return;
  for (Kiv::Name const& service : Kiv::keysOf(controllerServiceStatusDir_->serviceIter()))
    serviceStatusIs(service, controllerServiceStatusDir_->service(service));
  initialized_ = true;
}

ConnectionServiceStatusDirSm::~ConnectionServiceStatusDirSm() = default;

void ConnectionServiceStatusDirSm::handleService(Kiv::Name const& service) {
  if (Kiv::PtrConst<ServiceStatusV1> status = controllerServiceStatusDir_->service(service)) {
    serviceStatusIs(service, status);
  } else {
    serviceStatusDel(service);
  }
}

Kiv::Ptr<ServiceStatusSm> ConnectionServiceStatusDirSm::serviceStatusIs(Kiv::Name const& service,
                                                                        Kiv::PtrConst<ServiceStatusV1> const& status) {
  if (!status) {
    // The closing quote is part of the established text.
    Kiv::throwRangeException(
        "null _serviceStatus parameter to mutator for Controller::ConnectionServiceStatusDirSm::serviceStatus not "
        "allowed\"");
  }
  Kiv::Ptr<ServiceStatusSm> existing = serviceStatus(service);
  if (existing && existing->serviceStatus() == status) return existing;
  if (existing) serviceStatusDel(service);
  Kiv::Ptr<ServiceStatusSm> sm = ConnectionServiceStatusDirSmBase::serviceStatusIs(service, status);
  sm->handleInitialized();
  return sm;
}

void ConnectionServiceStatusDirSm::doCleanup() {
  // A fixed line: the message's identity, not this file's line; keep it.
  KIV_SM_TRACE_AT(8, 607, "doCleanup", " " << name_);
  // The services' own clean-ups leave the switch to the one re-evaluation below.
  goingAway_ = true;
  serviceStatusDelAll();
  // Every registry entry re-evaluates the switch now that its service status is going away.
  mountsRegistrySm_->handleSwitchConnection(SystemId(name_.view()));
}

ServiceStatusSm::ServiceStatusSm(Kiv::Name const& name, Kiv::PtrConst<ServiceStatusV1> const& serviceStatus,
                                 ConnectionServiceStatusDirSm* connectionSm)
    : ServiceStatusSmBase(name, serviceStatus, connectionSm) {
  versionStatusIs(serviceStatus_->versionStatus());
}

ServiceStatusSm::~ServiceStatusSm() = default;

void ServiceStatusSm::handleServiceVersionStatus() {
  versionStatusIs(serviceStatus_->versionStatus());
  // A replacement may arrive negotiated already: it counts as it stands.
  handleVersionStatus();
}

void ServiceStatusSm::handleEnabled() {
  KIV_SM_TRACE_AT(8, 586, "handleEnabled",
                  " " << name_ << ": " << connectionSm_->name() << " enabled: " << serviceStatus_->enabled());
  handleVersionStatus();
}

void ServiceStatusSm::handleInitialized() {
  KIV_SM_TRACE_AT(8, 600, "handleInitialized", " " << name_);
  handleVersionStatus();
}

void ServiceStatusSm::doCleanup() {
  KIV_SM_TRACE_AT(8, 593, "doCleanup", " " << name_);
  // The re-evaluation below must not find the version of a service that is leaving.
  goingAway_ = true;
  handleVersionStatus();
}

void ServiceStatusSm::handleVersionStatus() {
  KIV_SM_TRACE_AT(8, 561, "handleVersionStatus", " " << name_ << " " << connectionSm_->name());
  Kiv::PtrConst<ServiceVersionStatusV1> version = serviceStatus_->versionStatus();
  // Negotiation having finished is what makes a version usable, so it gates the re-evaluation
  // as it gates the version query.
  if (!version || !version->versionNegotiationComplete()) return;
  MountsRegistrySm* mrSm = connectionSm_->mountsRegistrySm();
  if (!connectionSm_->goingAway()) mrSm->handleServiceVersion(name_, connectionSm_->name());
  SystemId const systemId(connectionSm_->name().view());
  KIV_ASSERT(mrSm->controllerdbPublishStatus());
  if (Kiv::Ptr<Controllerdb::SystemPublishedMount> system = mrSm->controllerdbPublishStatus()->system(systemId))
    system->registeredPublishedPathsProcessedIs(name_, true);
}

}  // namespace Controller
