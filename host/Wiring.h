#pragma once
// The controller's side as a host wires it: the directories under one root, the out-of-band,
// heartbeat and controller database entities, the mounts registry, the simulated switches, and the
// three top-level machines over them. The host, the simulation, the machines' tests and the
// benchmarks all build this one world; the options say what each of them varies.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "ControllerdbTypes.h"
#include "HeartbeatConfig.h"
#include "MountsRegistry.h"
#include "OobTypes.h"
#include "initialmount/InitialMountSm.h"
#include "kiv/Clock.h"
#include "platform/SimNetwork.h"
#include "registry/MountsRegistrySm.h"
#include "serviceconfig/ServiceConfigDirSm.h"

namespace Host {

// Designated initialisers name what differs from the host's defaults.
struct WiringOptions {
  Kiv::EventLoop::Mode mode = Kiv::EventLoop::Mode::virtualTime;
  std::string leader = "gen1";
  // The registry's mount attempts after the first, and the time each may take.
  std::uint32_t retries = 3;
  Kiv::Seconds timeout = 10;
  // Without the network there are no switches and the world leaves the process-wide state
  // (attribute-log registries, the mounts' local root) alone.
  bool network = true;
  bool establish = true;  // the out-of-band connection is up from the start
  std::optional<Kiv::Seconds> heartbeat = std::nullopt;  // the interval; the configuration's own when unset
  // The machines start() builds.
  bool serviceConfig = true;
  bool registrySm = true;
  bool initialMount = true;
  // Forget the attribute-log registries at the end too, so that nothing of this world's switches
  // meets the next world's. A process's only world may leave that to the exit.
  bool clearAttrLogAtEnd = true;
};

// Members in the order they are built; they go in reverse, machines before what they watch.
struct Wiring {
  explicit Wiring(WiringOptions const& options = {});
  ~Wiring();
  Wiring(Wiring const&) = delete;
  Wiring& operator=(Wiring const&) = delete;

  // The machines the options name, in the host's order: service configuration, registry,
  // initial mounts. Separate from construction, so that what is configured before is taken up
  // as present at start-up.
  void start();

  WiringOptions const options;
  Kiv::EventLoop loop;
  Kiv::Ptr<Kiv::Dir> root = Kiv::Dir::DirIs("root");
  Kiv::Ptr<Kiv::Dir> mountConfig = root->subdirIs("mountConfig");
  Kiv::Ptr<Kiv::Dir> mountStatus = root->subdirIs("mountStatus");
  Kiv::Ptr<Kiv::Dir> publishConfig = root->subdirIs("publishConfig");
  Kiv::Ptr<Kiv::Dir> publishStatus = root->subdirIs("publishStatus");
  Kiv::Ptr<Kiv::Dir> proxyMountConfig = root->subdirIs("proxyMountConfig");
  Kiv::Ptr<Kiv::Dir> proxyMountStatus = root->subdirIs("proxyMountStatus");
  Kiv::Ptr<Controller::Heartbeat::Config> heartbeat = Controller::Heartbeat::Config::ConfigIs("heartbeat");
  Kiv::Ptr<ControllerOob::Config> oobConfig = ControllerOob::Config::ConfigIs("oobConfig");
  Kiv::Ptr<ControllerOob::Status> oob = ControllerOob::Status::StatusIs("oob");
  Kiv::Ptr<Controllerdb::Status> db = Controllerdb::Status::StatusIs("controllerdb");
  Kiv::Ptr<Controllerdb::PublishStatus> dbPublish = Controllerdb::PublishStatus::PublishStatusIs("publish");
  Kiv::Ptr<Controller::MountsRegistry> registry;
  std::unique_ptr<Sim::Network> net;  // null without the network
  Kiv::Ptr<Controller::ServiceConfigDirSm> serviceConfig;
  Kiv::Ptr<Controller::MountsRegistrySm> registrySm;
  Kiv::Ptr<Controller::InitialMountSm> initialMount;
};

}  // namespace Host
