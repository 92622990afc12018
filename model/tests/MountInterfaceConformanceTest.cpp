#include <type_traits>

#include "MountInterfaceTesting.h"
#include "model/tests/ConformanceSuite.h"
#include "model/tests/ModelTrees.h"

namespace {

struct MountInterfaceSamples : kivconformance::BuiltinSamples {
  template <class P>
  P get(int variant) {
    if constexpr (std::is_same_v<P, Controller::MountState>) {
      return variant == 0 ? Controller::mountStateUnmounted
                          : variant == 1 ? Controller::mountStateMounted : Controller::mountStateFailed;
    } else if constexpr (std::is_same_v<P, Controller::PublishState>) {
      // Only two states: variants 1 and 2 cannot differ.
      return variant % 2 ? Controller::publishStateComplete : Controller::publishStateInvalid;
    } else {
      return BuiltinSamples::get<P>(variant);
    }
  }
};

// Every type the replication tests carry.
template <class... T>
::testing::Types<kivconformance::Case<Controller::kivtesting::Traits, T, MountInterfaceSamples>...> casesOf(
    modeltrees::TypeList<T...>);

}  // namespace

namespace kivconformance {
INSTANTIATE_TYPED_TEST_SUITE_P(MountInterface, KivConformance, decltype(casesOf(modeltrees::AllTypes{})), CaseNames);
}
