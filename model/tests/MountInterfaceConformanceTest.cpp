#include "MountInterfaceTesting.h"
#include "model/tests/ConformanceSuite.h"
#include "model/tests/ModelTrees.h"

namespace {

// Every type the replication tests carry.
template <class... T>
::testing::Types<kivconformance::Case<Controller::kivtesting::Traits, T>...> casesOf(modeltrees::TypeList<T...>);

}  // namespace

namespace kivconformance {
INSTANTIATE_TYPED_TEST_SUITE_P(MountInterface, KivConformance, decltype(casesOf(modeltrees::AllTypes{})), CaseNames);
}
