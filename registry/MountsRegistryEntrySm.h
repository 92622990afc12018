#pragma once

#include <cstdint>
#include <vector>

#include "MountsRegistryMachines.h"
#include "kiv/HashMap.h"
#include "platform/MountSm.h"
#include "platform/SystemId.h"
#include "registry/MounterConfigSm.h"

namespace Controller {

namespace testing {
struct EntryTablesAccess;
}

// Mounts one registry entry from every registered switch that some mounter of the entry wants,
// unmounts it from the others, and reports each switch's mount state in the service status of
// every interested mounter. Owned by MountsRegistrySm, keyed by the entry's remote path.
//
// A switch is wanted when some mounter's service negotiated a version with it and either a
// mounter takes every switch (wildcard), or the switch passes the merged version filter and the
// merged connection filter (an empty filter passes everything).
//
// The mount state of a group on a switch combines the states of the group's mount status rows:
//  - every row in one state: that state;
//  - else, while a row is still mounting or unmounting: mounting (1) if any row is mounting,
//    else unmounting (2);
//  - else failed (3) if any row failed;
//  - else unmounted (0): a mix of mounted and unmounted rows is not mounted.
// A row's mountedPath is the path the mount machine reports once mounted (<target>/<switch>/<last
// remote component>); it is written only on reaching mounted and left as it is afterwards.
class MountsRegistryEntrySm : public MountsRegistryEntrySmBase {
 public:
  MountsRegistryEntrySm(Kiv::Ptr<MountsRegistryEntry> const& registryEntry,
                        Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                        Kiv::Ptr<Kiv::Dir> const& serviceMountStatusDir, MountsRegistrySm* mountsRegistrySm);
  ~MountsRegistryEntrySm() override;

  Kiv::Name entryName() const { return registryEntry_->name(); }
  Kiv::PtrConst<PeerTable> peerTable() const { return oobStatus_->peerTable(); }
  // True from the end of start-up until doCleanup(); the machine evaluates nothing outside it.
  bool initialized() const { return initialized_; }
  bool wildCardMount() const { return wildCardMount_; }

  // The merged filter tables. How many mounters include the system; 0 when none.
  std::uint32_t connectionFilter(Kiv::String const& systemName) const { return connectionFilter_.get(systemName); }
  bool connectionFilterContains(Kiv::String const& systemName) const { return connectionFilter_.contains(systemName); }
  std::size_t connectionFilterSize() const { return connectionFilter_.size(); }
  Kiv::Ptr<ServiceVersionFilter> versionFilter(Kiv::Name const& serviceName) const {
    return versionFilter_.get(serviceName);
  }
  std::size_t versionFilterSize() const { return versionFilter_.size(); }

  Kiv::Ptr<MountSmData> mountSmData(SystemId const& systemId) const { return mountSmData_.get(systemId); }
  std::size_t mountSmDataSize() const { return mountSmData_.size(); }
  // Stores the switch's mount data and starts following it.
  void mountSmDataIs(SystemId const& systemId, Kiv::ValidPtr<MountSmData> data);
  void mountSmDataDel(SystemId const& systemId);
  Kiv::Ptr<MountSm> mountSm(SystemId const& systemId) const { return mountSm_.get(systemId); }
  std::size_t mountSmSize() const { return mountSm_.size(); }
  void mountSmIs(SystemId const& systemId, Kiv::ValidPtr<MountSm> sm);
  // Runs the machine's doCleanup() before it goes.
  void mountSmDel(SystemId const& systemId);

  void handleInitialized();
  void handleMounter(Kiv::String service);
  void handleMounter();
  void evaluateMounters();
  bool canMountFromConnection(Kiv::String connection);
  bool connectionMatchesVersionFilter(Kiv::String connection);
  bool matchingServiceVersionFilter(Kiv::String service, Kiv::String connection);
  bool mounterIsInterestedInConnection(Kiv::PtrConst<Mounter> const& mounter, Kiv::String connection);
  void handleSwitchConnection(SystemId const& systemId);
  void handleSwitchConnection();
  void handleNamedSwitchConnection(Kiv::String connectionName);
  // The per-switch steps take the switch's name as well, made once per evaluation.
  void doConnectSwitch(SystemId const& systemId, Kiv::Name const& systemName);
  void doDisconnectSwitch(SystemId const& systemId, Kiv::Name const& systemName);
  bool preserveMountsOnDisconnect(Kiv::String connection);
  // The switch's mount machine reported a state.
  void handleMountState(SystemId const& systemId);
  void updateMountersStatus(SystemId const& systemId, Kiv::Name const& systemName, MountState state);
  void updateMounterStatus(Kiv::PtrConst<Mounter> const& mounter, SystemId const& systemId,
                           Kiv::Name const& systemName, MountState state);
  // The row the mounter has on the switch (null when it has none) takes the state.
  void handleMountState(Kiv::PtrConst<Mounter> const& mounter, SystemId const& systemId,
                        Kiv::Ptr<ServiceMountGroupStatus> const& groupStatus, Kiv::Ptr<MountStatus> const& row,
                        MountState state);
  void updateMountGroupMountState(Kiv::Ptr<ServiceMountGroupStatus> const& groupStatus, MountState state);
  void updateSystemStatus(SystemId const& systemId, Kiv::Name const& systemName);
  void doCleanup();

  // The group's state from its rows' states, by the rule above.
  static MountState combinedMountState(ServiceMountGroupStatus const& groupStatus);

  // How the entry sees one switch, in the order it decides, for an operator's question. Reads
  // only and traces nothing.
  struct SwitchView {
    struct MounterView {
      Kiv::String service, group;
      std::uint32_t version = 0;  // negotiated for the service; 0 for none
      bool inSystems = true;      // the group's systems include the switch (or it has none)
      bool inVersions = true;     // the group's versions include that version (or it has none)
      bool preserve = false;      // the group keeps its copies when the switch goes
    };
    bool registered = false;  // the switch is in the peer table
    std::vector<MounterView> mounters;
    bool wildcard = false;
    bool versionFilterEmpty = true, versionFilterPassed = true;
    std::uint32_t connectionFilterSize = 0, connectionFilterCount = 0;  // mounters naming the switch
    bool wanted = false;                                               // the entry mounts from it
    bool hasMount = false;                                             // a mount machine exists
    MountState mountState = mountStateUnmounted;
    bool pendingRequest = false;
  };
  SwitchView switchView(SystemId const& systemId) const;

 private:
  friend class MountsRegistrySm;
  friend class MounterConfigSm;
  friend struct testing::EntryTablesAccess;  // makes the tables inconsistent on purpose

  // The entry's clean-up in two steps, for an owner that ends the mounts of many entries switch
  // by switch: mountsEndBegin() stops every evaluation, then mountEnd() takes down the mount from
  // one switch at once (a no-op without one). doCleanup() still follows and ends what is left.
  void mountsEndBegin();
  void mountEnd(SystemId const& systemId);
  // The merged tables, written by the mounters' MounterConfigSm machines only.
  void connectionFilterIs(Kiv::String const& systemName, std::uint32_t count);
  void connectionFilterDel(Kiv::String const& systemName);
  // The service's filter, created empty when absent.
  Kiv::Ptr<ServiceVersionFilter> versionFilterIs(Kiv::Name const& serviceName);
  void versionFilterDel(Kiv::Name const& serviceName);

  Kiv::HashMap<Kiv::String, std::uint32_t> connectionFilter_;
  Kiv::HashMap<Kiv::Name, Kiv::Ptr<ServiceVersionFilter>> versionFilter_;
  bool wildCardMount_ = false;
  // The data is held here; mountSmDataSm() follows it.
  Kiv::HashMap<SystemId, Kiv::Ptr<MountSmData>> mountSmData_;
  // Made by the mount library's factory, so adopted rather than built here.
  Kiv::ChildMap<SystemId, MountSm> mountSm_;
  bool initialized_ = false;
  bool preserveOnEnd_ = false;  // set by mountsEndBegin()
};

}  // namespace Controller
