#include <array>
#include <cstdint>
#include <type_traits>

#include "InitialMountTypesTesting.h"
#include "model/tests/ConformanceSuite.h"

namespace {

struct InitialMountSamples : kivconformance::BuiltinSamples {
  template <class P>
  P get(int variant) {
    if constexpr (std::is_same_v<P, Controller::SystemId>) {
      auto const v = static_cast<std::uint8_t>(variant);
      return Controller::SystemId(Ovel::EthAddr(std::array<std::uint8_t, 6>{0x00, 0x1c, 0x73, 0x0b, 0x00, v}));
    } else {
      return BuiltinSamples::get<P>(variant);
    }
  }
};

template <class T>
using InitialMountCase = kivconformance::Case<Controller::kivtesting::Traits, T, InitialMountSamples>;

}  // namespace

KIV_CONFORMANCE_SUITE(InitialMountTypes,
                      InitialMountCase<Controller::ConnectionPeriod>,
                      InitialMountCase<Controller::InitialSwitchSet>,
                      InitialMountCase<Controller::ProcessedSwitchSet>)
