#pragma once

#include <cstdint>

#include "MountsRegistryMachines.h"
#include "platform/SystemId.h"
#include "registry/ConnectionServiceStatusDirSm.h"
#include "registry/GroupStateTally.h"
#include "registry/MountsRegistryEntrySm.h"
#include "registry/PublishRegistryEntrySm.h"

namespace Controller {

// The top of the mount and publish side, constructed by the host: one MountsRegistryEntrySm per
// mount entry, one PublishRegistryEntrySm per publish entry and one ConnectionServiceStatusDirSm
// per peer with a known connection. Every change of a switch's connection or of a service's
// negotiated version is fanned out to the entry machines; it answers which version a service
// negotiated on a connection.
class MountsRegistrySm : public MountsRegistrySmBase {
 public:
  MountsRegistrySm(Kiv::Ptr<MountsRegistry> const& mountsRegistry, Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                   Kiv::PtrConst<Heartbeat::Config> const& heartbeatConfig,
                   Kiv::Ptr<Kiv::Dir> const& serviceMountStatusDir,
                   Kiv::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus);
  ~MountsRegistrySm() override;

  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleMountEntry(Kiv::Name const& remotePath);
  void handleMountEntry();
  void handlePublishEntry(Kiv::Name const& path);
  void handlePublishEntry();
  void handleServicePublishReady(Kiv::String const& serviceName);
  void handleOobPeerTable();
  void handlePeerTable();
  void handlePeer(SystemId const& systemId);
  void handlePeer();
  void handlePeerConnected(SystemId const& systemId);
  void handleSwitchConnection(SystemId const& systemId);
  void handleSwitchConnection();
  // The version of the service negotiated on the connection (a proxy asks for the service it
  // stands for); 0 when there is none.
  std::uint32_t negotiatedServiceVersionForConnection(Kiv::String serviceName, Kiv::String connectionName) const;
  // The same for a query from outside the machines: reads only and traces nothing.
  std::uint32_t negotiatedVersion(Kiv::String const& serviceName, SystemId const& systemId) const;
  // The switch's text form; one shared string per peer, so that the many per-switch names made
  // from it (directories, mount data, connection names) share it.
  Kiv::Name switchName(SystemId const& systemId) const;
  // The entries' rows are counted here, since the entries of a group share its status.
  GroupStateTally& groupStateTally() { return groupStateTally_; }

 private:
  friend class ServiceStatusSm;

  // Called by the connection machines when a service's version status on a connection changes.
  void handleServiceVersion(Kiv::String const& serviceName, Kiv::String const& connectionName);
  // The connection of oobStatus whose address is the peer's, or null.
  Kiv::PtrConst<ControllerOob::Connection> connectionOf(Kiv::PtrConst<Peer> const& peer) const;
  // Whether there is such a connection. The one keyed by the switch's name nearly always is it,
  // and is looked at before the others are searched.
  bool hasConnection(Kiv::PtrConst<Peer> const& peer, Kiv::Name const& name) const;
  // The negotiated version status of `service` (not a proxy's name) on the peer's connection;
  // null when none is complete.
  Kiv::PtrConst<ServiceVersionStatusV1> versionStatus(Kiv::PtrConst<Peer> const& peer, Kiv::Name const& name,
                                                      Kiv::String const& service) const;

  bool initialized_ = false;
  GroupStateTally groupStateTally_;
  mutable Kiv::HashMap<SystemId, Kiv::Name> unwatchedNames_;  // see switchName()
};

}  // namespace Controller
