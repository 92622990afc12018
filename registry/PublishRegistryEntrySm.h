#pragma once

#include <array>
#include <tuple>

#include "ControllerdbTypes.h"
#include "MountsRegistry.h"
#include "OobTypes.h"
#include "kiv/Clock.h"
#include "platform/SystemId.h"

namespace Controller {

class MountsRegistrySm;

// Publishes one publish entry to every connected switch that may receive it (a negotiated
// version of the entry's service, its version and system filters, the entry ready, the local
// entity present), by recording a published mount in the switch's publish status, and withdraws
// it when that no longer holds. A missing entity is looked for again every second. Owned by
// MountsRegistrySm, which runs doCleanup() before it deletes the machine.
//
// The published mount of a switch is keyed by its local path: the entry's path, or for a
// directory (a prefix-path entry) the switch's own subdirectory of it, "<path>/<system id>".
class PublishRegistryEntrySm : public Kiv::PtrInterface {
 public:
  PublishRegistryEntrySm(Kiv::Ptr<PublishRegistryEntry> const& publishEntry,
                         Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                         Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
                         MountsRegistrySm* mountsRegistrySm);
  ~PublishRegistryEntrySm() override;

  static constexpr std::array kivParamNames{"publishEntry", "oobStatus", "controllerdbPublishStatus"};
  auto kivParams() const { return std::tie(publishEntry_, oobStatus_, controllerdbPublishStatus_); }
  static constexpr Kiv::Seconds entityCheckInterval = 1.0;

  Kiv::Ptr<PublishRegistryEntry> const& publishEntry() const { return publishEntry_; }
  bool initialized() const { return initialized_; }
  // Whether the entry has been processed: a pass over every switch has run with the entity
  // present. Until then the service's readiness is withheld.
  bool processed() const { return processed_; }
  Kiv::Seconds entityPresenceCheckTime() const { return clock_->timeMin(); }

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
  class KivPublishEntry : public PublishRegistryEntry::NotifieeConst {
   public:
    KivPublishEntry(Kiv::PtrConst<PublishRegistryEntry> const& e, PublishRegistryEntrySm* owner)
        : NotifieeConst(e), owner_(owner) {}
    void onReadyToPublish() override { owner_->handleReadyToPublish(); }
    void onSystemFilter() override { owner_->handleSystemFilter(); }
    void onVersionFilter() override { owner_->handleVersionFilter(); }
    // The published mount carries the remote path: a new one is published again.
    void onRemotePath() override { owner_->handleSwitchConnection(); }

   private:
    PublishRegistryEntrySm* owner_;
  };
  class KivSystemFilter : public MountFilterSystem::NotifieeConst {
   public:
    KivSystemFilter(Kiv::PtrConst<MountFilterSystem> const& f, PublishRegistryEntrySm* owner)
        : NotifieeConst(f), owner_(owner) {}
    void onIncludedSystem(Kiv::String const& s) override { owner_->handleIncludedSystem(s); }

   private:
    PublishRegistryEntrySm* owner_;
  };
  class KivVersionFilter : public MountFilterServiceVersion::NotifieeConst {
   public:
    KivVersionFilter(Kiv::PtrConst<MountFilterServiceVersion> const& f, PublishRegistryEntrySm* owner)
        : NotifieeConst(f), owner_(owner) {}
    void onIncludedServiceVersion(std::uint32_t v) override { owner_->handleIncludedServiceVersion(v); }

   private:
    PublishRegistryEntrySm* owner_;
  };
  class KivEntityPresenceCheckClock : public Kiv::Clock::NotifieeConst {
   public:
    KivEntityPresenceCheckClock(Kiv::PtrConst<Kiv::Clock> const& c, PublishRegistryEntrySm* owner)
        : NotifieeConst(c), owner_(owner) {}
    void onTime() override { owner_->handleEntityPresenceCheckClock(); }

   private:
    PublishRegistryEntrySm* owner_;
  };

  Kiv::String publishedPath(SystemId const& systemId) const;
  Kiv::Ptr<Kiv::Entity> publishEntity() const;

  Kiv::Ptr<PublishRegistryEntry> publishEntry_;
  Kiv::PtrConst<ControllerOob::Status> oobStatus_;
  Kiv::Ptr<Controllerdb::PublishStatus> controllerdbPublishStatus_;
  MountsRegistrySm* mountsRegistrySm_;
  Kiv::Ptr<KivPublishEntry> kivPublishEntry_;
  Kiv::Ptr<KivSystemFilter> systemFilter_;
  Kiv::Ptr<KivVersionFilter> versionFilter_;
  Kiv::Ptr<KivEntityPresenceCheckClock> clock_;
  bool initialized_ = false;
  bool processed_ = false;
};

}  // namespace Controller
