#include <string>
#include <type_traits>

#include "MountInterfaceTesting.h"
#include "model/tests/ConformanceSuite.h"

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

template <class T>
using MountCase = kivconformance::Case<Controller::kivtesting::Traits, T, MountInterfaceSamples>;

}  // namespace

KIV_CONFORMANCE_SUITE(MountInterface,
                      MountCase<Controller::MountConfig>,
                      MountCase<Controller::MountFilterSystem>,
                      MountCase<Controller::MountFilterServiceVersion>,
                      MountCase<Controller::ServiceMountGroupConfig>,
                      MountCase<Controller::ServiceMountConfig>,
                      MountCase<Controller::MountStatus>,
                      MountCase<Controller::ServiceMountGroupStatus>,
                      MountCase<Controller::SystemStatus>,
                      MountCase<Controller::MountedPathPrefix>,
                      MountCase<Controller::ServiceMountStatus>,
                      MountCase<Controller::PublishConfig>,
                      MountCase<Controller::PublishDir>,
                      MountCase<Controller::ServicePublishGroupConfig>,
                      MountCase<Controller::ServicePublishConfig>,
                      MountCase<Controller::PublishStatus>,
                      MountCase<Controller::ServicePublishGroupStatus>,
                      MountCase<Controller::ServicePublishStatus>)
