#pragma once

#include <cstdint>

#include "MountsRegistryMachines.h"
#include "platform/SystemId.h"

namespace Controller {

// Publishes one publish entry to every connected switch that may receive it (a negotiated
// version of the entry's service, its version and system filters, the entry ready, the local
// entity present), by recording a published mount in the switch's publish status, and withdraws
// it when that no longer holds. A missing entity is looked for again every second. Owned by
// MountsRegistrySm, which runs doCleanup() before it deletes the machine.
//
// The published mount of a switch is keyed by its local path: the entry's path, or for a
// directory (a prefix-path entry) the switch's own subdirectory of it, "<path>/<system id>".
class PublishRegistryEntrySm : public PublishRegistryEntrySmBase {
 public:
  PublishRegistryEntrySm(Kiv::Ptr<PublishRegistryEntry> const& publishEntry,
                         Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                         Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
                         MountsRegistrySm* mountsRegistrySm);
  ~PublishRegistryEntrySm() override;

  static constexpr Kiv::Seconds entityCheckInterval = 1.0;

  bool initialized() const { return initialized_; }
  // Whether the entry has been processed: a pass over every switch has run with the entity
  // present. Until then the service's readiness is withheld.
  bool processed() const { return processed_; }

  bool canPublishToConnection(Kiv::String connection);
  bool hasVersion(Kiv::String connection, std::uint32_t version);
  bool publishEntityExists() const;
  void addSwitchToPublishEntryDir(SystemId const& systemId);
  void doConnectSwitch(SystemId const& systemId);
  void doDisconnectSwitch(SystemId const& systemId);
  void handleSwitchConnection();
  void handleSwitchConnection(SystemId const& systemId);
  void handleSystemFilter();
  void handleVersionFilter();
  void handleIncludedSystem(Kiv::String const& systemName);
  void handleIncludedServiceVersion(std::uint32_t version);
  void handleReadyToPublish();
  void handleEntityPresenceCheckClock();
  void handleInitialized();
  void doCleanup();

 private:
  Kiv::String publishedPath(SystemId const& systemId) const;
  Kiv::Ptr<Kiv::Entity> publishEntity() const;

  bool initialized_ = false;
  bool processed_ = false;
};

}  // namespace Controller
