#pragma once

#include <array>
#include <tuple>

#include "ControllerdbTypes.h"
#include "MountInterface.h"
#include "MountsRegistry.h"
#include "kiv/Reactor.h"
#include "serviceconfig/PublishDirSm.h"

namespace Controller {

class ServicePublishConfigSm;

// One publish group of a service: while the service may publish, each of the group's published
// entities and directories has a registry publish entry carrying the group's filters, and each
// entity a publish status. The first service to publish a local path keeps it. Owned by
// ServicePublishConfigSm, which runs doCleanup() before it deletes the machine.
class ServicePublishGroupSm : public Kiv::PtrInterface {
 public:
  ServicePublishGroupSm(Kiv::PtrConst<Controllerdb::Status> const& controllerdbStatus,
                        Kiv::PtrConst<ServicePublishConfig> const& servicePublishConfig,
                        Kiv::PtrConst<ServicePublishGroupConfig> const& publishGroupConfig,
                        Kiv::Ptr<ServicePublishGroupStatus> const& publishGroupStatus,
                        Kiv::Ptr<MountsRegistry> const& mountsRegistry, ServicePublishConfigSm* parent);
  ~ServicePublishGroupSm() override;

  static constexpr std::array kivParamNames{"controllerdbStatus", "servicePublishConfig", "publishGroupConfig",
                                            "publishGroupStatus", "mountsRegistry"};
  auto kivParams() const {
    return std::tie(controllerdbStatus_, servicePublishConfig_, publishGroupConfig_, publishGroupStatus_,
                    mountsRegistry_);
  }

  Kiv::PtrConst<ServicePublishGroupConfig> const& publishGroupConfig() const { return publishGroupConfig_; }
  Kiv::Ptr<MountsRegistry> const& mountsRegistry() const { return mountsRegistry_; }
  ServicePublishConfigSm* parent() const { return parent_; }
  Kiv::Ptr<PublishDirSm> publishDirSm(Kiv::Name const& dir) const { return publishDirSm_.get(dir); }
  bool initialized() const { return initialized_; }

  void handleLeaderGenId();
  void handleSystemFilter();
  void handleVersionFilter();
  void handlePublishDir(Kiv::Name const& dir);
  void handlePublishDir();
  void handlePublishConfig(Kiv::Name const& path);
  void handlePublishConfig();
  void handleInitialized();
  void addPublishDir(Kiv::PtrConst<PublishDir> const& publishDir,
                     Kiv::PtrConst<ServicePublishGroupConfig> const& groupConfig);
  void addPublishConfig(Kiv::PtrConst<PublishConfig> const& publishConfig,
                        Kiv::PtrConst<ServicePublishGroupConfig> const& groupConfig);
  void addPublishDirOrConfig(Kiv::String cpath, Kiv::String rpath, Kiv::String type, bool isDir, bool ready,
                             Kiv::PtrConst<ServicePublishGroupConfig> const& groupConfig);
  void removePublishDir(Kiv::String const& cpath);
  void removePublishConfig(Kiv::String const& cpath);
  void removePublishDirOrConfig(Kiv::String const& cpath);
  void doCleanup();
  // The registry's entry for a local path, when this group published it.
  Kiv::Ptr<PublishRegistryEntry> ownEntry(Kiv::Name const& cpath) const;

 private:
  class KivControllerdbStatus : public Controllerdb::Status::NotifieeConst {
   public:
    KivControllerdbStatus(Kiv::PtrConst<Controllerdb::Status> const& s, ServicePublishGroupSm* owner)
        : NotifieeConst(s), owner_(owner) {}
    void onLeaderGenId() override { owner_->handleLeaderGenId(); }

   private:
    ServicePublishGroupSm* owner_;
  };
  class KivServicePublishConfig : public ServicePublishConfig::NotifieeConst {
   public:
    KivServicePublishConfig(Kiv::PtrConst<ServicePublishConfig> const& c, ServicePublishGroupSm* owner)
        : NotifieeConst(c), owner_(owner) {}
    void onLeaderGenId() override { owner_->handleLeaderGenId(); }

   private:
    ServicePublishGroupSm* owner_;
  };
  class KivPublishGroupConfig : public ServicePublishGroupConfig::NotifieeConst {
   public:
    KivPublishGroupConfig(Kiv::PtrConst<ServicePublishGroupConfig> const& c, ServicePublishGroupSm* owner)
        : NotifieeConst(c), owner_(owner) {}
    void onSystemFilter() override { owner_->handleSystemFilter(); }
    void onVersionFilter() override { owner_->handleVersionFilter(); }
    void onPublishDir(Kiv::Name const& dir) override { owner_->handlePublishDir(dir); }
    void onPublishDirkivImmediate() override { owner_->handlePublishDir(); }
    void onPublishConfig(Kiv::Name const& path) override { owner_->handlePublishConfig(path); }
    void onPublishConfigkivImmediate() override { owner_->handlePublishConfig(); }

   private:
    ServicePublishGroupSm* owner_;
  };

  Kiv::String serviceName() const { return servicePublishConfig_->serviceName(); }
  // The registry entries this group published.
  std::vector<Kiv::Ptr<PublishRegistryEntry>> ownEntries() const;

  Kiv::PtrConst<Controllerdb::Status> controllerdbStatus_;
  Kiv::PtrConst<ServicePublishConfig> servicePublishConfig_;
  Kiv::PtrConst<ServicePublishGroupConfig> publishGroupConfig_;
  Kiv::Ptr<ServicePublishGroupStatus> publishGroupStatus_;
  Kiv::Ptr<MountsRegistry> mountsRegistry_;
  ServicePublishConfigSm* parent_;
  Kiv::Ptr<KivControllerdbStatus> kivControllerdbStatus_;
  Kiv::Ptr<KivServicePublishConfig> kivServicePublishConfig_;
  Kiv::Ptr<KivPublishGroupConfig> kivPublishGroupConfig_;
  Kiv::ChildMap<Kiv::Name, PublishDirSm> publishDirSm_;
  // The local paths whose registry entries this group added. The first publisher of a path keeps
  // it: another group's (or service's) removal or readiness never touches this group's entry.
  Kiv::HashMap<Kiv::Name, bool> published_;
  bool initialized_ = false;
};

}  // namespace Controller
