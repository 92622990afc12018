#include "platform/tests/PlatformSamples.h"

namespace {

using Controller::testing::PlatformSamples;

template <class T>
using SwitchCase = kivconformance::Case<Controller::kivtesting::Traits, T, PlatformSamples>;
template <class T>
using HeartbeatCase = kivconformance::Case<Controller::Heartbeat::kivtesting::Traits, T, PlatformSamples>;
template <class T>
using OobCase = kivconformance::Case<ControllerOob::kivtesting::Traits, T, PlatformSamples>;
template <class T>
using DbCase = kivconformance::Case<Controllerdb::kivtesting::Traits, T, PlatformSamples>;
template <class T>
using SimCase = kivconformance::Case<Sim::kivtesting::Traits, T, PlatformSamples>;

}  // namespace

KIV_CONFORMANCE_SUITE(SwitchTypes,
                      SwitchCase<Controller::MountSmData>,
                      SwitchCase<Controller::ConnectionConfig>,
                      SwitchCase<Controller::Peer>,
                      SwitchCase<Controller::PeerTable>,
                      SwitchCase<Controller::ServiceVersionStatusV1>,
                      SwitchCase<Controller::ServiceStatusV1>,
                      SwitchCase<Controller::ServiceStatusDir>)
KIV_CONFORMANCE_SUITE(HeartbeatConfig, HeartbeatCase<Controller::Heartbeat::Config>)
KIV_CONFORMANCE_SUITE(OobTypes,
                      OobCase<ControllerOob::Config>,
                      OobCase<ControllerOob::Connection>,
                      OobCase<ControllerOob::Status>)
KIV_CONFORMANCE_SUITE(ControllerdbTypes,
                      DbCase<Controllerdb::Status>,
                      DbCase<Controllerdb::SystemPublishedMount>,
                      DbCase<Controllerdb::PublishStatus>)
KIV_CONFORMANCE_SUITE(SimTypes, SimCase<Sim::Record>)
