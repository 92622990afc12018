#include <string>
#include <type_traits>

#include "MountInterfaceTesting.h"
#include "MountsRegistryTesting.h"
#include "model/tests/ConformanceSuite.h"

namespace {

struct RegistrySamples : kivconformance::BuiltinSamples {
  template <class P>
  P get(int variant) {
    if constexpr (std::is_same_v<P, Controller::MounterName>) {
      return Controller::MounterName("service" + std::to_string(variant), "group" + std::to_string(variant));
    } else {
      return BuiltinSamples::get<P>(variant);
    }
  }
  // Hand-written, so without traits.
  Kiv::Ptr<Kiv::Dir> entity(std::type_identity<Kiv::Dir>, Kiv::Name const& name, auto&) { return Kiv::Dir::DirIs(name); }
};

template <class T>
using RegistryCase = kivconformance::Case<Controller::kivtesting::Traits, T, RegistrySamples>;

}  // namespace

KIV_CONFORMANCE_SUITE(MountsRegistry,
                      RegistryCase<Controller::Mounter>,
                      RegistryCase<Controller::MountsRegistryEntry>,
                      RegistryCase<Controller::PublishRegistryEntry>,
                      RegistryCase<Controller::MountsRegistry>,
                      RegistryCase<Controller::ServiceVersionFilter>)
