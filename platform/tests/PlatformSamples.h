#pragma once
// Sample values of the platform's types for the shared conformance suite, for every suite whose
// types hold them.

#include <array>
#include <cstdint>
#include <string>
#include <type_traits>

#include "ControllerdbTypesTesting.h"
#include "HeartbeatConfigTesting.h"
#include "OobTypesTesting.h"
#include "SimTypesTesting.h"
#include "SwitchTypesTesting.h"
#include "model/tests/ConformanceSuite.h"

namespace Controller::testing {

struct PlatformSamples : kivconformance::BuiltinSamples {
  template <class P>
  P get(int variant) {
    auto const v = static_cast<std::uint8_t>(variant);
    if constexpr (std::is_same_v<P, Controller::SystemId>) {
      return Controller::SystemId(Ovel::EthAddr(std::array<std::uint8_t, 6>{0x00, 0x1c, 0x73, 0x0a, 0x00, v}));
    } else if constexpr (std::is_same_v<P, Ovel::IpAndPort>) {
      return Ovel::IpAndPort(0x0a000000u + v, 6042);
    } else if constexpr (std::is_same_v<P, Controller::MountDesc>) {
      std::string const n = std::to_string(variant);
      return Controller::MountDesc("/local/" + n, "/remote/" + n, "Sim::Record", "service" + n);
    } else {
      return BuiltinSamples::get<P>(variant);
    }
  }

  // The out-of-band types refer to entities of other namespaces.
  template <class T>
    requires std::is_same_v<T, Controller::PeerTable> || std::is_same_v<T, Controller::ServiceStatusDir>
  Kiv::Ptr<T> entity(std::type_identity<T>, Kiv::Name const& name, auto& samples) {
    return Controller::kivtesting::Traits<T>::make(name, samples);
  }
  Kiv::Ptr<Controller::Heartbeat::Config> entity(std::type_identity<Controller::Heartbeat::Config>,
                                                 Kiv::Name const& name, auto& samples) {
    return Controller::Heartbeat::kivtesting::Traits<Controller::Heartbeat::Config>::make(name, samples);
  }
};

}  // namespace Controller::testing
