#pragma once

#include <array>
#include <tuple>

#include "ControllerdbTypes.h"
#include "MountInterface.h"
#include "MountsRegistry.h"
#include "ServiceConfigMachines.h"
#include "serviceconfig/PublishDirSm.h"

namespace Controller {

class ServicePublishConfigSm;

// One publish group of a service: while the service may publish, each of the group's published
// entities and directories has a registry publish entry carrying the group's filters, and each
// entity a publish status. The first service to publish a local path keeps it. Owned by
// ServicePublishConfigSm, which runs doCleanup() before it deletes the machine.
class ServicePublishGroupSm : public ServicePublishGroupSmBase {
 public:
  ServicePublishGroupSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                        Kiv::PtrConst<ServicePublishConfig> const& servicePublishConfig,
                        Kiv::PtrConst<ServicePublishGroupConfig> const& publishGroupConfig,
                        Kiv::Ptr<ServicePublishGroupStatus> const& publishGroupStatus,
                        Kiv::Ptr<MountsRegistry> const& mountsRegistry, ServicePublishConfigSm* parent);
  ~ServicePublishGroupSm() override;

  bool initialized() const { return initialized_; }

  void handleLeaderGenId();
  void handleSystemFilter();
  void handleVersionFilter();
  void handlePublishDir(Kiv::Name const& dir);
  void handlePublishDir();
  void handlePublishConfig(Kiv::Name const& path);
  void handlePublishConfig();
  void handleInitialized();
  void doCleanup();

 private:
  // The steps of publishing, not API: the group's handlers and, for directories, its
  // PublishDirSms take them.
  friend class PublishDirSm;
  void addPublishDir(Kiv::PtrConst<PublishDir> const& publishDir,
                     Kiv::PtrConst<ServicePublishGroupConfig> const& groupConfig);
  void addPublishConfig(Kiv::PtrConst<PublishConfig> const& publishConfig,
                        Kiv::PtrConst<ServicePublishGroupConfig> const& groupConfig);
  void addPublishDirOrConfig(Kiv::String cpath, Kiv::String rpath, Kiv::String type, bool isDir, bool ready,
                             Kiv::PtrConst<ServicePublishGroupConfig> const& groupConfig);
  void removePublishDir(Kiv::String const& cpath);
  void removePublishConfig(Kiv::String const& cpath);
  void removePublishDirOrConfig(Kiv::String const& cpath);
  // The registry's entry for a local path, when this group published it.
  Kiv::Ptr<PublishRegistryEntry> ownEntry(Kiv::Name const& cpath) const;
  Kiv::String serviceName() const { return servicePublishConfig_->serviceName(); }
  // The registry entries this group published.
  std::vector<Kiv::Ptr<PublishRegistryEntry>> ownEntries() const;

  // The local paths whose registry entries this group added. The first publisher of a path keeps
  // it: another group's (or service's) removal or readiness never touches this group's entry.
  Kiv::HashMap<Kiv::Name, bool> published_;
  bool initialized_ = false;
};

}  // namespace Controller
