#pragma once
// A controller's registry side with simulated switches: the entities the host hands to
// MountsRegistrySm, the network of switches, and the local tree that mounts land in.

#include <string>

#include "host/Wiring.h"
#include "platform/SimNetwork.h"
#include "registry/MountsRegistrySm.h"

namespace Controller::testing {

// The host's world with the registry machine alone.
struct RegistryWorld : Host::Wiring {
  RegistryWorld() : Wiring({.retries = 2, .timeout = 5.0, .serviceConfig = false, .initialMount = false}) {}

  Sim::Network& network = *net;
  Kiv::Ptr<MountsRegistrySm>& sm = registrySm;

  // A switch that offers `service` at `version`, connected.
  Sim::Switch& switchWith(std::string const& addr, std::string const& service, std::uint32_t version = 1) {
    Sim::Switch& s = network.switchIs(addr);
    s.serviceVersionIs(Kiv::Name(service), version);
    s.connect();
    return s;
  }
  // Service "pub" publishes the record at `path`, ready.
  Kiv::Ptr<PublishRegistryEntry> publish(std::string const& path, Kiv::PtrConst<MountFilterSystem> systems = nullptr,
                                         Kiv::PtrConst<MountFilterServiceVersion> versions = nullptr) {
    auto entry = registry->publishEntryIs(path, "/remote" + path, "Sim::Record", false, "pub", versions, systems);
    entry->readyToPublishIs(true);
    return entry;
  }
  Kiv::Ptr<Controllerdb::SystemPublishedMount> published(Sim::Switch const& s) {
    return dbPublish->system(s.systemId());
  }
};

}  // namespace Controller::testing
