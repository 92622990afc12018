#pragma once

#include <array>
#include <cstdint>
#include <tuple>

#include "MountInterface.h"
#include "MountsRegistry.h"
#include "kiv/HashMap.h"

namespace Controller {

class MountsRegistryEntrySm;

// Keeps one mounter's system and version filters folded into its registry entry machine's merged
// tables: the connection filter counts, per system, the mounters that include it, and the version
// filter holds, per service, the versions the service accepts. Owned by MountsRegistryEntrySm,
// keyed by the mounter's service name, which runs doCleanup() before it deletes the machine.
class MounterConfigSm : public Kiv::PtrInterface {
 public:
  // Follows the systems the mounter's group is restricted to.
  class KivSystemFilter : public MountFilterSystem::NotifieeConst {
   public:
    KivSystemFilter(Kiv::PtrConst<MountFilterSystem> const& filter, MounterConfigSm* owner)
        : NotifieeConst(filter), owner_(owner) {}
    void onIncludedSystem(Kiv::String const& systemName) override { handleIncludedSystem(systemName); }
    void onIncludedSystemkivImmediate() override { handleIncludedSystem(); }
    void handleIncludedSystem(Kiv::String const& systemName);
    // Every system the filter holds or this mounter counted.
    void handleIncludedSystem();
    MounterConfigSm* mounterConfigSm() const { return owner_; }

   private:
    MounterConfigSm* owner_;
  };

  // Follows the service versions the mounter's group is restricted to.
  class KivVersionFilter : public MountFilterServiceVersion::NotifieeConst {
   public:
    KivVersionFilter(Kiv::PtrConst<MountFilterServiceVersion> const& filter, MounterConfigSm* owner)
        : NotifieeConst(filter), owner_(owner) {}
    void onIncludedServiceVersion(std::uint32_t version) override { handleIncludedServiceVersion(version); }
    void onIncludedServiceVersionkivImmediate() override { handleIncludedServiceVersion(); }
    void handleIncludedServiceVersion(std::uint32_t version);
    void handleIncludedServiceVersion();
    MounterConfigSm* mounterConfigSm() const { return owner_; }

   private:
    MounterConfigSm* owner_;
  };

  MounterConfigSm(Kiv::Ptr<Mounter> const& mounter, MountsRegistryEntrySm* mountsRegistryEntrySm);
  ~MounterConfigSm() override;

  static constexpr std::array kivParamNames{"mounter"};
  auto kivParams() const { return std::tie(mounter_); }

  Kiv::Ptr<Mounter> const& mounter() const { return mounter_; }
  MounterName const& mounterName() const { return mounter_->mounterName(); }
  Kiv::String serviceName() const { return mounter_->serviceName(); }
  Kiv::Ptr<KivSystemFilter> const& systemFilter() const { return systemFilter_; }
  Kiv::Ptr<KivVersionFilter> const& versionFilter() const { return versionFilter_; }
  bool initialized() const { return initialized_; }
  MountsRegistryEntrySm* mountsRegistryEntrySm() const { return mountsRegistryEntrySm_; }

  void handleInitialized();
  void addSystemToConnectionFilter(Kiv::String systemName);
  void removeSystemFromConnectionFilter(Kiv::String systemName);
  void addVersionToVersionFilter(std::uint32_t version);
  void removeVersionFromVersionFilter(std::uint32_t version);
  // The group took another filter entity, or none: the tables follow it.
  void handleSystemFilter();
  void handleVersionFilter();
  void doCleanup();

 private:
  class KivMountGroupConfig : public ServiceMountGroupConfig::NotifieeConst {
   public:
    KivMountGroupConfig(Kiv::PtrConst<ServiceMountGroupConfig> const& c, MounterConfigSm* owner)
        : NotifieeConst(c), owner_(owner) {}
    void onSystemFilter() override { owner_->handleSystemFilter(); }
    void onVersionFilter() override { owner_->handleVersionFilter(); }

   private:
    MounterConfigSm* owner_;
  };

  // The entry's path: the key of the mount status rows and the "path" of the log messages.
  Kiv::Name remotePath() const;
  void withdrawMountStatus();
  void filtersChanged();
  // Another entry still holds a mounter of this service and group.
  bool groupMountsElsewhere() const;

  Kiv::Ptr<Mounter> mounter_;
  MountsRegistryEntrySm* mountsRegistryEntrySm_;
  Kiv::Ptr<KivSystemFilter> systemFilter_;
  Kiv::Ptr<KivVersionFilter> versionFilter_;
  Kiv::Ptr<KivMountGroupConfig> kivMountGroupConfig_;
  // What this mounter contributed to the merged tables. A filter notifies a key also when a
  // stored false changes or goes, and must not move another mounter's count then.
  Kiv::HashMap<Kiv::String, bool> countedSystem_;
  Kiv::HashMap<std::uint32_t, bool> countedVersion_;
  bool initialized_ = false;
};

}  // namespace Controller
