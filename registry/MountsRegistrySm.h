#pragma once

#include <array>
#include <cstdint>
#include <tuple>

#include "ControllerdbTypes.h"
#include "HeartbeatConfig.h"
#include "MountsRegistry.h"
#include "OobTypes.h"
#include "SwitchTypes.h"
#include "kiv/Reactor.h"
#include "platform/SystemId.h"
#include "registry/ConnectionServiceStatusDirSm.h"
#include "registry/MountsRegistryEntrySm.h"
#include "registry/PublishRegistryEntrySm.h"

namespace Controller {

// The top of the mount and publish side, constructed by the host: one MountsRegistryEntrySm per
// mount entry, one PublishRegistryEntrySm per publish entry and one ConnectionServiceStatusDirSm
// per peer with a known connection. Every change of a switch's connection or of a service's
// negotiated version is fanned out to the entry machines; it answers which version a service
// negotiated on a connection.
class MountsRegistrySm : public Kiv::PtrInterface {
 public:
  MountsRegistrySm(Kiv::Ptr<MountsRegistry> const& mountsRegistry, Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                   Kiv::PtrConst<Heartbeat::Config> const& heartbeatConfig,
                   Kiv::Ptr<Kiv::Dir> const& serviceMountStatusDir,
                   Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus);
  ~MountsRegistrySm() override;

  Kiv::Ptr<MountsRegistry> const& mountsRegistry() const { return mountsRegistry_; }
  Kiv::PtrConst<ControllerOob::Status> const& oobStatus() const { return oobStatus_; }
  Kiv::PtrConst<Heartbeat::Config> const& heartbeatConfig() const { return heartbeatConfig_; }
  Kiv::Ptr<Kiv::Dir> const& serviceMountStatusDir() const { return serviceMountStatusDir_; }
  Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus() const { return controllerdbPublishStatus_; }
  Kiv::PtrConst<PeerTable> const& peerTable() const { return peerTable_; }
  void peerTableIs(Kiv::PtrConst<PeerTable> const& peerTable);
  bool initialized() const { return initialized_; }

  Kiv::Ptr<MountsRegistryEntrySm> mountsRegistryEntrySm(Kiv::Name const& remotePath) const {
    return mountsRegistryEntrySm_.get(remotePath);
  }
  std::size_t mountsRegistryEntrySms() const { return mountsRegistryEntrySm_.size(); }
  Kiv::Ptr<PublishRegistryEntrySm> publishRegistryEntrySm(Kiv::Name const& path) const {
    return publishRegistryEntrySm_.get(path);
  }
  std::size_t publishRegistryEntrySms() const { return publishRegistryEntrySm_.size(); }
  Kiv::Ptr<ConnectionServiceStatusDirSm> connectionServiceStatusDirSm(Kiv::Name const& connection) const {
    return connectionServiceStatusDirSm_.get(connection);
  }
  std::size_t connectionServiceStatusDirSms() const { return connectionServiceStatusDirSm_.size(); }

  void handleInitialized();
  void handleMountEntry(Kiv::Name const& remotePath);
  void handleMountEntry();
  void handlePublishEntry(Kiv::Name const& path);
  void handlePublishEntry();
  void handleServicePublishReady(Kiv::String const& serviceName);
  void handlePeer(SystemId const& systemId);
  void handlePeer();
  void handleSwitchConnection(SystemId const& systemId);
  void handleSwitchConnection();
  // Called by the connection machines when a service's version status on a connection changes.
  void handleServiceVersion(Kiv::String const& serviceName, Kiv::String const& connectionName);
  // The version of the service negotiated on the connection (a proxy asks for the service it
  // stands for); 0 when there is none.
  std::uint32_t negotiatedServiceVersionForConnection(Kiv::String serviceName, Kiv::String connectionName) const;
  // The switch's text form; one shared string per peer, so that the many per-switch names made
  // from it (directories, mount data, connection names) share it.
  Kiv::Name switchName(SystemId const& systemId) const;

  Kiv::Ptr<MountsRegistryEntrySm> mountsRegistryEntrySmIs(Kiv::Ptr<MountsRegistryEntry> const& registryEntry,
                                                          Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                                                          Kiv::Ptr<Kiv::Dir> const& serviceMountStatusDir);
  void mountsRegistryEntrySmDel(Kiv::Name const& remotePath);
  Kiv::Ptr<PublishRegistryEntrySm> publishRegistryEntrySmIs(
      Kiv::Ptr<PublishRegistryEntry> const& publishEntry, Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
      Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus);
  void publishRegistryEntrySmDel(Kiv::Name const& path);
  Kiv::Ptr<ConnectionServiceStatusDirSm> connectionServiceStatusDirSmIs(
      Kiv::Name const& connectionName, Kiv::PtrConst<ServiceStatusDir> const& controllerServiceStatusDir);
  void connectionServiceStatusDirSmDel(Kiv::Name const& connectionName);

 private:
  class KivMountsRegistry : public MountsRegistry::NotifieeConst {
   public:
    KivMountsRegistry(Kiv::PtrConst<MountsRegistry> const& r, MountsRegistrySm* owner) : NotifieeConst(r), owner_(owner) {}
    void onMountEntry(Kiv::Name const& k) override { owner_->handleMountEntry(k); }
    void onPublishEntry(Kiv::Name const& k) override { owner_->handlePublishEntry(k); }
    void onServicePublishReady(Kiv::String const& s) override { owner_->handleServicePublishReady(s); }

   private:
    MountsRegistrySm* owner_;
  };
  class KivOobStatus : public ControllerOob::Status::NotifieeConst {
   public:
    KivOobStatus(Kiv::PtrConst<ControllerOob::Status> const& s, MountsRegistrySm* owner) : NotifieeConst(s), owner_(owner) {}
    void onEstablished() override;
    void onPeerTable() override;

   private:
    MountsRegistrySm* owner_;
  };
  // A peer's connection coming up or going down re-evaluates the switch.
  class KivPeer : public Peer::NotifieeConst {
   public:
    KivPeer(Kiv::PtrConst<Peer> const& p, SystemId const& id, MountsRegistrySm* owner)
        : NotifieeConst(p), systemId_(id), name_(id.stringValue()), owner_(owner) {}
    void onConnected() override;
    Kiv::Name const& name() const { return name_; }

   private:
    SystemId systemId_;
    Kiv::Name name_;
    MountsRegistrySm* owner_;
  };
  class KivPeerTable : public PeerTable::NotifieeConst {
   public:
    KivPeerTable(Kiv::PtrConst<PeerTable> const& t, MountsRegistrySm* owner) : NotifieeConst(t), owner_(owner) {}
    void onPeer(SystemId const& id) override { owner_->handlePeer(id); }
    void onPeerkivImmediate() override { owner_->handlePeer(); }

   private:
    MountsRegistrySm* owner_;
  };

  // The connection of oobStatus whose address is the peer's, or null.
  Kiv::PtrConst<ControllerOob::Connection> connectionOf(Kiv::PtrConst<Peer> const& peer) const;

  Kiv::Ptr<MountsRegistry> mountsRegistry_;
  Kiv::PtrConst<ControllerOob::Status> oobStatus_;
  Kiv::PtrConst<Heartbeat::Config> heartbeatConfig_;
  Kiv::Ptr<Kiv::Dir> serviceMountStatusDir_;
  Kiv::Ptr<Controllerdb::PublishStatus> controllerdbPublishStatus_;
  Kiv::PtrConst<PeerTable> peerTable_;
  Kiv::Ptr<KivMountsRegistry> kivMountsRegistry_;
  Kiv::Ptr<KivOobStatus> kivOobStatus_;
  Kiv::Ptr<KivPeerTable> kivPeerTable_;
  Kiv::HashMap<SystemId, Kiv::Ptr<KivPeer>> kivPeer_;
  Kiv::ChildMap<Kiv::Name, ConnectionServiceStatusDirSm> connectionServiceStatusDirSm_;
  Kiv::ChildMap<Kiv::Name, MountsRegistryEntrySm> mountsRegistryEntrySm_;
  Kiv::ChildMap<Kiv::Name, PublishRegistryEntrySm> publishRegistryEntrySm_;
  bool initialized_ = false;
};

}  // namespace Controller
