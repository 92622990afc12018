#include "MountInterfaceTesting.h"
#include "model/tests/ConformanceSuite.h"

namespace {
template <class T>
using MountCase = kivconformance::Case<Controller::kivtesting::Traits, T>;
}  // namespace

KIV_CONFORMANCE_SUITE(MountInterface,
                      MountCase<Controller::MountConfig>,
                      MountCase<Controller::MountFilterSystem>,
                      MountCase<Controller::MountFilterServiceVersion>,
                      MountCase<Controller::ServiceMountGroupConfig>,
                      MountCase<Controller::ServiceMountConfig>)
