#include "InitialMountTypesTesting.h"
#include "platform/tests/PlatformSamples.h"

namespace {

using Controller::testing::PlatformSamples;

template <class T>
using InitialMountCase = kivconformance::Case<Controller::kivtesting::Traits, T, PlatformSamples>;

}  // namespace

KIV_CONFORMANCE_SUITE(InitialMountTypes,
                      InitialMountCase<Controller::ConnectionPeriod>,
                      InitialMountCase<Controller::InitialSwitchSet>,
                      InitialMountCase<Controller::ProcessedSwitchSet>)
