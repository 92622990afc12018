#pragma once
// The mount machinery stand-in. Behaviour over (virtual) time, reported only through the
// MountSmData's mountState and mountedPath:
//  - created, or doRemount(): 1 (mounting). An attempt looks the switch up in the simulated
//    network by the connection configuration's address. A mountable switch completes it after
//    its mount latency, if that is within mountTimeout and the connection the attempt went out
//    on is still up: the remote entity at remoteRootPath/remotePath is copied, read-only, to
//    targetPath/<last remote component> in the local tree, replacing whatever was there;
//    mountedPath is set to that path, then the state to 4 (mounted). Any other attempt ends at
//    mountTimeout and is retried reconnectRetries times; then the state is 3 (failed), (R+1)*T
//    after the start.
//  - doUnmount() / doStatePreservingUnmount(): a request, acted on at the next turn of the event
//    loop (pendingRequest() until then; a later request replaces an earlier one). From 1, 3 or 4
//    it cancels any attempt, goes to 2 (unmounting) and after the switch's unmount latency to 0.
//    The ordinary unmount removes the copy and clears mountedPath first; the state-preserving one
//    leaves both. During 2 a request only changes the kind of the running unmount. At 0 it does
//    nothing, except that an ordinary unmount removes a copy a state-preserving one kept.
//  - doRemount() cancels a pending request and a running unmount or attempt and starts over at 1
//    with the configuration last given to connectionConfigIs() (which starts nothing itself). A
//    copy still in place stays until the new mount replaces it. While an attempt that reached the
//    switch is under way on that same configuration, with no request pending, it changes nothing:
//    that attempt is the remount asked for, and starting over would only put its end off. An
//    attempt that is only waiting out its timeout is started over.
//  - doCleanup() ends the machine: timers disarmed, a pending request dropped, later operations
//    ignored. The copy it made is removed (and mountedPath cleared) unless the last request was a
//    state-preserving unmount, whose point is to keep it. Its owner must run it before releasing
//    the machine.
// A mounted copy is a snapshot: later changes on the switch do not reach it, and the machine does
// not watch the connection once mounted (its owner unmounts or remounts on a reconnect).

#include <cstdint>
#include <string_view>

#include "HeartbeatConfig.h"
#include "SwitchTypes.h"
#include "kiv/Clock.h"
#include "kiv/Dir.h"
#include "platform/SystemId.h"
#include "platform/Timer.h"

namespace Sim {
class Switch;
}

namespace Controller {

// Mounts one remote entity of one switch into the local tree. Created and owned by a controller
// state machine, which calls its operations and watches the MountSmData it hands in. Needs a
// current event loop from creation on.
//
// The machine is its own step timer (an attempt in state 1, an unmount in state 2: never both at
// once), privately: every machine needs one, and one object is smaller than two.
class MountSm : private Platform::TimerBase {
 public:
  using Kiv::PtrInterface::references;
  using Kiv::PtrInterface::referencesDec;
  using Kiv::PtrInterface::referencesInc;

  static Kiv::Ptr<MountSm> MountSmIs(Controller::SystemId systemId,
                                     Kiv::PtrConst<Controller::ConnectionConfig> connectionConfig,
                                     Kiv::PtrConst<Controller::Heartbeat::Config> heartbeatConfig,
                                     Kiv::String remoteRootPath, Kiv::String remotePath, Kiv::String targetPath,
                                     Kiv::String connectionName, std::uint32_t reconnectRetries,
                                     Kiv::Seconds mountTimeout, Kiv::Ptr<Controller::MountSmData> mountSmData);

  // The local tree that target paths are resolved against, for every machine in the process.
  static void localRootDirIs(Kiv::Ptr<Kiv::Dir> dir);
  static Kiv::Ptr<Kiv::Dir> localRootDir();

  Controller::SystemId const& systemId() const { return systemId_; }
  Kiv::PtrConst<Controller::ConnectionConfig> const& connectionConfig() const { return connectionConfig_; }
  // Kept for the owner; the simulated connection does not depend on it.
  Kiv::PtrConst<Controller::Heartbeat::Config> const& heartbeatConfig() const { return heartbeatConfig_; }
  Kiv::String const& remoteRootPath() const { return remoteRootPath_; }
  Kiv::String const& remotePath() const { return remotePath_; }
  // As given until a copy is placed; from then on normalized ("a//b/" is "a/b").
  Kiv::String targetPath() const;
  Kiv::String const& connectionName() const { return connectionName_; }
  std::uint32_t reconnectRetries() const { return reconnectRetries_; }
  Kiv::Seconds mountTimeout() const { return mountTimeout_; }
  Kiv::Ptr<Controller::MountSmData> const& mountSmData() const { return mountSmData_; }

  // Used by the next doRemount().
  void connectionConfigIs(Kiv::PtrConst<Controller::ConnectionConfig> cfg);
  void doRemount();
  void doUnmount();
  void doStatePreservingUnmount();
  bool pendingRequest() const { return request_ != Request::none; }
  void doCleanup();
  bool cleanedUp() const { return cleanedUp_; }

 protected:
  ~MountSm() override;

 private:
  enum class Request : std::uint8_t { none, unmount, statePreservingUnmount };

  MountSm(Controller::SystemId systemId, Kiv::PtrConst<Controller::ConnectionConfig> connectionConfig,
          Kiv::PtrConst<Controller::Heartbeat::Config> heartbeatConfig, Kiv::String remoteRootPath,
          Kiv::String remotePath, Kiv::String targetPath, Kiv::String connectionName, std::uint32_t reconnectRetries,
          Kiv::Seconds mountTimeout, Kiv::Ptr<Controller::MountSmData> mountSmData);
  void request(Request r);
  void onRequestTime();
  void startMounting();
  void startAttempt();
  void onAttemptTime();
  void onUnmountTime();
  // Copies the remote entity into the local tree; false when the attempt cannot complete.
  bool establish(Sim::Switch& sw);
  void copyDel();
  Sim::Switch* findSwitch() const;
  // The directory the copy goes in, as a view of path_.
  std::string_view targetDir() const;
  void stateIs(Controller::MountState s);
  Platform::Timer& requestTimer();
  Platform::TimerBase& stepTimer() { return *this; }
  void onTime() override;
  static void disarm(Kiv::Ptr<Platform::Timer> const& t);

  // In an order that leaves no padding.
  Controller::SystemId systemId_;
  Request request_ = Request::none;
  // The kind of the unmount in progress (state 2).
  Request unmounting_ = Request::none;
  Kiv::PtrConst<Controller::ConnectionConfig> connectionConfig_;
  Kiv::PtrConst<Controller::Heartbeat::Config> heartbeatConfig_;
  Kiv::String remoteRootPath_;
  Kiv::String remotePath_;
  // The target path, and once a copy has been placed the copy's path, which extends it by a name
  // that never changes (the last remote component): the machine keeps one string, the one it
  // reports, rather than the given one as well.
  Kiv::String path_;
  Kiv::String connectionName_;
  std::uint32_t reconnectRetries_;
  Controller::MountState state_ = Controller::mountStateUnmounted;
  Kiv::Seconds mountTimeout_;
  Kiv::Ptr<Controller::MountSmData> mountSmData_;

  // Attempts started since the machine last began mounting.
  std::uint32_t attempts_ = 0;
  // The switch's connection generation when the attempt started.
  std::uint32_t attemptGeneration_ = 0;
  Kiv::Seconds attemptStart_ = 0;
  bool cleanedUp_ = false;
  // The latest unmount asked to preserve the state: the copy outlives the machine.
  bool keepCopy_ = false;
  // The attempt's timer is set for its completion (else for its timeout).
  bool awaitingCompletion_ = false;
  // path_ is the copy's path.
  bool pathIsCopy_ = false;
  // The copy this machine made, and the directory it sits in.
  Kiv::Ptr<Kiv::Entity> copy_;
  Kiv::Ptr<Kiv::Dir> copyParent_;

  // The configuration the attempts under way went out with.
  Kiv::PtrConst<Controller::ConnectionConfig> mountingConfig_;

  // Made on first use: most machines never need it.
  Kiv::Ptr<Platform::Timer> requestTimer_;
};

}  // namespace Controller
