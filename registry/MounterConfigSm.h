#pragma once

#include <cstdint>

#include "MountsRegistryMachines.h"
#include "kiv/HashMap.h"

namespace Controller {

// Keeps one mounter's system and version filters folded into its registry entry machine's merged
// tables: the connection filter counts, per system, the mounters that include it, and the version
// filter holds, per service, the versions the service accepts. Owned by MountsRegistryEntrySm,
// keyed by the mounter's service name, which runs doCleanup() before it deletes the machine.
class MounterConfigSm : public MounterConfigSmBase {
 public:
  MounterConfigSm(Kiv::Ptr<Mounter> const& mounter, MountsRegistryEntrySm* mountsRegistryEntrySm);
  ~MounterConfigSm() override;

  MounterName const& mounterName() const { return mounter_->mounterName(); }
  Kiv::String serviceName() const { return mounter_->serviceName(); }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleIncludedSystem(Kiv::String const& systemName);
  // Every system the filter holds or this mounter counted.
  void handleIncludedSystem();
  void handleIncludedServiceVersion(std::uint32_t version);
  void handleIncludedServiceVersion();
  void addSystemToConnectionFilter(Kiv::String systemName);
  void removeSystemFromConnectionFilter(Kiv::String systemName);
  void addVersionToVersionFilter(std::uint32_t version);
  void removeVersionFromVersionFilter(std::uint32_t version);
  // The group took another filter entity, or none: the tables follow it.
  void handleSystemFilter();
  void handleVersionFilter();
  void doCleanup();

 private:
  // The entry's path: the key of the mount status rows and the "path" of the log messages.
  Kiv::Name remotePath() const;
  void withdrawMountStatus();
  void filtersChanged();
  // Another entry still holds a mounter of this service and group.
  bool groupMountsElsewhere() const;

  // What this mounter contributed to the merged tables. A filter notifies a key also when a
  // stored false changes or goes, and must not move another mounter's count then.
  Kiv::HashMap<Kiv::String, bool> countedSystem_;
  Kiv::HashMap<std::uint32_t, bool> countedVersion_;
  bool initialized_ = false;
};

}  // namespace Controller
