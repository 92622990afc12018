#include "registry/ConnectionServiceStatusDirSm.h"

#include <vector>

#include "registry/MountsRegistrySm.h"
#include "registry/RegistryTrace.h"

namespace Controller {

ConnectionServiceStatusDirSm::ConnectionServiceStatusDirSm(
    Kiv::Name const& name, Kiv::PtrConst<ServiceStatusDir> const& controllerServiceStatusDir, MountsRegistrySm* owner)
    : name_(name),
      controllerServiceStatusDir_(Kiv::ValidPtr<ServiceStatusDir const>(controllerServiceStatusDir)),
      owner_(owner),
      kivControllerServiceStatusDir_(new KivControllerServiceStatusDir(controllerServiceStatusDir, this)) {}

void ConnectionServiceStatusDirSm::handleInitialized() {
  if (initialized_) return;
  std::vector<Kiv::Name> services;
  for (auto it = controllerServiceStatusDir_->serviceIter(); it; ++it) services.push_back(it.key());
  for (Kiv::Name const& service : services) serviceStatusIs(service, controllerServiceStatusDir_->service(service));
  initialized_ = true;
}

ConnectionServiceStatusDirSm::~ConnectionServiceStatusDirSm() = default;

void ConnectionServiceStatusDirSm::KivControllerServiceStatusDir::onService(Kiv::Name const& service) {
  if (Kiv::PtrConst<ServiceStatusV1> status = notifier()->service(service)) {
    owner_->serviceStatusIs(service, status);
  } else {
    owner_->serviceStatusDel(service);
  }
}

Kiv::Ptr<ConnectionServiceStatusDirSm::KivServiceStatus> ConnectionServiceStatusDirSm::serviceStatusIs(
    Kiv::Name const& service, Kiv::PtrConst<ServiceStatusV1> const& status) {
  if (!status) {
    // The closing quote belongs to the text as the field knows it.
    Kiv::throwRangeException(
        "null _serviceStatus parameter to mutator for Controller::ConnectionServiceStatusDirSm::serviceStatus not "
        "allowed\"");
  }
  Kiv::Ptr<KivServiceStatus> existing = serviceStatus_.get(service);
  if (existing && existing->notifier() == status) return existing;
  if (existing) serviceStatusDel(service);  // a replaced status is a new one to follow
  Kiv::Ptr<KivServiceStatus> reactor = serviceStatus_.instantiate(
      service, std::make_tuple(status), [&] { return Kiv::Ptr<KivServiceStatus>(new KivServiceStatus(service, status, this)); });
  reactor->handleInitialized();
  return reactor;
}

void ConnectionServiceStatusDirSm::serviceStatusDel(Kiv::Name const& service) { serviceStatus_.erase(service); }

void ConnectionServiceStatusDirSm::doCleanup() {
  MR_TRACE_AT(8, 607, "doCleanup", "ConnectionServiceStatusDirSm::" << "doCleanup" << " " << name_);
  // The services' own clean-ups leave the switch to the one re-evaluation below.
  goingAway_ = true;
  serviceStatus_.clear();
  // Every registry entry re-evaluates the switch now that its service status is going away.
  owner_->handleSwitchConnection(SystemId(name_.view()));
}

ConnectionServiceStatusDirSm::KivServiceStatus::KivServiceStatus(Kiv::Name const& name,
                                                                 Kiv::PtrConst<ServiceStatusV1> const& status,
                                                                 ConnectionServiceStatusDirSm* owner)
    : NotifieeConst(status), name_(name), owner_(owner) {
  if (status->versionStatus()) versionStatus_ = new KivVersionStatus(status->versionStatus(), this);
}

void ConnectionServiceStatusDirSm::KivServiceStatus::onVersionStatus() {
  Kiv::PtrConst<ServiceStatusV1> status = notifier();
  Kiv::PtrConst<ServiceVersionStatusV1> current = status ? status->versionStatus() : nullptr;
  versionStatus_ = current ? new KivVersionStatus(current, this) : nullptr;
  // A replacement may arrive negotiated already: it counts as it stands.
  handleVersionStatus();
}

void ConnectionServiceStatusDirSm::KivServiceStatus::handleEnabled() {
  Kiv::PtrConst<ServiceStatusV1> status = notifier();
  MR_TRACE_AT(8, 586, "handleEnabled",
              "ConnectionServiceStatusDirSm::" << "handleEnabled" << " " << name_ << ": " << owner_->name()
                                               << " enabled: " << (status && status->enabled()));
  handleVersionStatus();
}

void ConnectionServiceStatusDirSm::KivServiceStatus::handleInitialized() {
  MR_TRACE_AT(8, 600, "handleInitialized", "ConnectionServiceStatusDirSm::" << "handleInitialized" << " " << name_);
  handleVersionStatus();
}

void ConnectionServiceStatusDirSm::KivServiceStatus::doCleanup() {
  MR_TRACE_AT(8, 593, "doCleanup", "ConnectionServiceStatusDirSm::" << "doCleanup" << " " << name_);
  // The re-evaluation below must not find the version of a service that is leaving.
  goingAway_ = true;
  handleVersionStatus();
}

void ConnectionServiceStatusDirSm::KivServiceStatus::handleVersionStatus() {
  MR_TRACE_AT(8, 561, "handleVersionStatus",
              "ConnectionServiceStatusDirSm::" << "handleVersionStatus" << " " << name_ << " " << owner_->name());
  Kiv::PtrConst<ServiceStatusV1> status = notifier();
  Kiv::PtrConst<ServiceVersionStatusV1> version = status ? status->versionStatus() : nullptr;
  // Negotiation having finished is what makes a version usable, so it gates the re-evaluation
  // as it gates the version query.
  if (!version || !version->versionNegotiationComplete()) return;
  MountsRegistrySm* mrSm = owner_->owner();
  if (!owner_->goingAway()) mrSm->handleServiceVersion(name_, owner_->name());
  SystemId const systemId(owner_->name().view());
  KIV_ASSERT(mrSm->controllerdbPublishStatus());
  if (Kiv::Ptr<Controllerdb::SystemPublishedMount> system = mrSm->controllerdbPublishStatus()->system(systemId))
    system->registeredPublishedPathsProcessedIs(name_, true);
}

}  // namespace Controller
