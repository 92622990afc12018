#include "platform/MountSm.h"

#include <string>
#include <string_view>

#include "kiv/Exception.h"
#include "kiv/Reactor.h"
#include "kiv/Trace.h"
#include "platform/SimNetwork.h"

namespace Controller {

namespace {

Kiv::TraceHandle trace("ControllerMountSm");

Kiv::Ptr<Kiv::Dir>& localRoot() {
  static Kiv::Ptr<Kiv::Dir> root;
  return root;
}

// Calls f on each non-empty component, in order: every mount attempt walks its paths, and makes
// no list of them.
template <class F>
void forEachComponent(std::string_view path, F&& f) {
  while (!path.empty()) {
    std::size_t slash = path.find('/');
    std::string_view c = path.substr(0, slash);
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    if (!c.empty()) f(c);
  }
}

// Joins with '/', skipping empty components: "a/" + "/b" is "a/b".
std::string joinPath(std::string_view a, std::string_view b) {
  std::string out;
  out.reserve(a.size() + b.size() + 1);
  for (std::string_view part : {a, b}) {
    forEachComponent(part, [&](std::string_view c) {
      if (!out.empty()) out += '/';
      out += c;
    });
  }
  return out;
}

// Copies `source`'s members into `copy`, read-only, recursively. Directories and records carry
// their content; any other entity is recreated by its type name, empty. The caller holds a
// ReplicaWriteScope.
void replicaFill(Kiv::Entity& copy, Kiv::Entity const& source) {
  copy.kivReadOnlyIs(true);
  if (&source.kivEntityType() == &Kiv::Dir::kivTypeInfo()) {
    auto& dir = static_cast<Kiv::Dir&>(copy);
    for (auto it = static_cast<Kiv::Dir const&>(source).entityPtrIter(); it; ++it) {
      Kiv::Entity const& member = *it.value();
      replicaFill(*dir.entryIs(it.key(), member.kivEntityType().name), member);
    }
  } else if (&source.kivEntityType() == &Sim::Record::kivTypeInfo()) {
    auto& record = static_cast<Sim::Record&>(copy);
    for (auto it = static_cast<Sim::Record const&>(source).attrIter(); it; ++it) record.attrIs(it.key(), it.value());
  }
}

}  // namespace

Kiv::Ptr<MountSm> MountSm::MountSmIs(Controller::SystemId systemId,
                                     Kiv::PtrConst<Controller::ConnectionConfig> connectionConfig,
                                     Kiv::PtrConst<Controller::Heartbeat::Config> heartbeatConfig,
                                     Kiv::String remoteRootPath, Kiv::String remotePath, Kiv::String targetPath,
                                     Kiv::String connectionName, std::uint32_t reconnectRetries,
                                     Kiv::Seconds mountTimeout, Kiv::Ptr<Controller::MountSmData> mountSmData) {
  Kiv::nullCheck(connectionConfig, "connectionConfig", "Controller::MountSm");
  Kiv::nullCheck(mountSmData, "mountSmData", "Controller::MountSm");
  Kiv::Ptr<MountSm> sm(new MountSm(systemId, std::move(connectionConfig), std::move(heartbeatConfig),
                                   std::move(remoteRootPath), std::move(remotePath), std::move(targetPath),
                                   std::move(connectionName), reconnectRetries, mountTimeout, std::move(mountSmData)));
  sm->startMounting();
  return sm;
}

MountSm::MountSm(Controller::SystemId systemId, Kiv::PtrConst<Controller::ConnectionConfig> connectionConfig,
                 Kiv::PtrConst<Controller::Heartbeat::Config> heartbeatConfig, Kiv::String remoteRootPath,
                 Kiv::String remotePath, Kiv::String targetPath, Kiv::String connectionName,
                 std::uint32_t reconnectRetries, Kiv::Seconds mountTimeout,
                 Kiv::Ptr<Controller::MountSmData> mountSmData)
    : systemId_(systemId),
      connectionConfig_(std::move(connectionConfig)),
      heartbeatConfig_(std::move(heartbeatConfig)),
      remoteRootPath_(std::move(remoteRootPath)),
      remotePath_(std::move(remotePath)),
      path_(std::move(targetPath)),
      connectionName_(std::move(connectionName)),
      reconnectRetries_(reconnectRetries),
      mountTimeout_(mountTimeout),
      mountSmData_(std::move(mountSmData)) {}

// Each step holds the machine: the owner's reactors may release it while the step reports.
Platform::Timer& MountSm::requestTimer() {
  if (!requestTimer_) requestTimer_ = Platform::Timer::TimerIs([this] { Kiv::Ptr<MountSm>(this)->onRequestTime(); });
  return *requestTimer_;
}

void MountSm::onTime() {
  fired();
  Kiv::Ptr<MountSm> const self(this);
  if (state_ == mountStateMounting) {
    onAttemptTime();
  } else {
    onUnmountTime();
  }
}

void MountSm::disarm(Kiv::Ptr<Platform::Timer> const& t) {
  if (t) t->disarm();
}

// Its owner ends it first: a machine dropped while its timers may still fire is a broken invariant.
MountSm::~MountSm() { KIV_ASSERT(cleanedUp_); }

void MountSm::localRootDirIs(Kiv::Ptr<Kiv::Dir> dir) { localRoot() = std::move(dir); }

Kiv::Ptr<Kiv::Dir> MountSm::localRootDir() { return localRoot(); }

void MountSm::connectionConfigIs(Kiv::PtrConst<Controller::ConnectionConfig> cfg) {
  Kiv::nullCheck(cfg, "connectionConfig", "Controller::MountSm");
  connectionConfig_ = std::move(cfg);
}

void MountSm::doRemount() {
  if (cleanedUp_) return;
  if (state_ == mountStateMounting && request_ == Request::none && awaitingCompletion_ &&
      connectionConfig_ == mountingConfig_)
    return;
  startMounting();
}

void MountSm::doUnmount() { request(Request::unmount); }

void MountSm::doStatePreservingUnmount() { request(Request::statePreservingUnmount); }

void MountSm::doCleanup() {
  if (cleanedUp_) return;
  cleanedUp_ = true;
  request_ = Request::none;
  disarm(requestTimer_);
  stepTimer().disarm();
  // What the machine placed goes with it, unless the state was to be preserved.
  if (!keepCopy_ && copy_) {
    copyDel();
    mountSmData_->mountedPathIs("");
  }
}

void MountSm::request(Request r) {
  if (cleanedUp_) return;
  request_ = r;
  keepCopy_ = r == Request::statePreservingUnmount;
  if (!requestTimer_ || !requestTimer_->armed()) requestTimer().armIn(0);
}

void MountSm::onRequestTime() {
  if (cleanedUp_ || request_ == Request::none) return;
  Request r = request_;
  request_ = Request::none;
  switch (state_) {
    case mountStateUnmounted:
      if (r == Request::unmount && copy_) {
        copyDel();
        mountSmData_->mountedPathIs("");
      }
      return;
    case mountStateUnmounting:
      unmounting_ = r;
      return;
    case mountStateMounting:
    case mountStateFailed:
    case mountStateMounted:
      break;
  }
  unmounting_ = r;
  Sim::Switch* sw = findSwitch();
  stepTimer().armIn(sw ? sw->unmountLatency() : 0);
  stateIs(mountStateUnmounting);
}

void MountSm::onUnmountTime() {
  if (cleanedUp_ || state_ != mountStateUnmounting) return;
  if (unmounting_ == Request::unmount) {
    copyDel();
    mountSmData_->mountedPathIs("");
  }
  unmounting_ = Request::none;
  if (!cleanedUp_) stateIs(mountStateUnmounted);
}

void MountSm::startMounting() {
  request_ = Request::none;
  keepCopy_ = false;
  disarm(requestTimer_);
  unmounting_ = Request::none;
  mountingConfig_ = connectionConfig_;
  attempts_ = 0;
  startAttempt();
  stateIs(mountStateMounting);
}

void MountSm::startAttempt() {
  ++attempts_;
  attemptStart_ = Kiv::System::currentTime();
  Sim::Switch* sw = findSwitch();
  awaitingCompletion_ = sw && sw->mountable() && sw->mountLatency() <= mountTimeout_;
  attemptGeneration_ = sw ? sw->generation() : 0;
  KIV_TRACE(trace, 8, __FILE__, __LINE__, __func__,
            systemId_ << " attempt " << attempts_ << (awaitingCompletion_ ? " reaches the switch" : " will time out"));
  stepTimer().armAt(attemptStart_ + (awaitingCompletion_ ? sw->mountLatency() : mountTimeout_));
}

void MountSm::onAttemptTime() {
  if (cleanedUp_ || state_ != mountStateMounting) return;
  if (awaitingCompletion_) {
    awaitingCompletion_ = false;
    // The connection the attempt went out on may have gone (even if a new one is up by now), or
    // the switch started failing.
    Sim::Switch* sw = findSwitch();
    if (sw && sw->mountable() && sw->generation() == attemptGeneration_ && establish(*sw)) {
      if (!pathIsCopy_) {
        path_ = Kiv::String(joinPath(path_, copy_->name()));
        pathIsCopy_ = true;
      }
      mountSmData_->mountedPathIs(path_);
      if (!cleanedUp_) stateIs(mountStateMounted);
      return;
    }
    stepTimer().armAt(attemptStart_ + mountTimeout_);
    return;
  }
  if (attempts_ <= reconnectRetries_) {
    startAttempt();
    return;
  }
  stateIs(mountStateFailed);
}

bool MountSm::establish(Sim::Switch& sw) {
  std::string remote = joinPath(remoteRootPath_, remotePath_);
  Kiv::Ptr<Kiv::Entity> source = sw.root()->entityAtPath(remote);
  Kiv::Ptr<Kiv::Dir> parent = localRoot();
  if (!source || !parent || remote.empty()) return false;
  // The last remote component, as the source's own name: the copy shares its text.
  Kiv::Name const& name = source->name();
  try {
    forEachComponent(targetDir(), [&](std::string_view c) { parent = parent->subdirIs(Kiv::Name(c)); });
    copyDel();
    // The target path belongs to the mount: whatever sits there (a copy an earlier machine kept,
    // say) gives way to the fresh copy.
    if (parent->entityPtr(name)) parent->entityPtrDel(name);
    copy_ = parent->entryIs(name, source->kivEntityType().name);
    copyParent_ = parent;
    Kiv::ReplicaWriteScope scope;
    replicaFill(*copy_, *source);
  } catch (Kiv::Exception const& e) {
    KIV_TRACE(trace, 5, __FILE__, __LINE__, __func__, systemId_ << " cannot place the copy: " << e.what());
    return false;
  }
  return true;
}

void MountSm::copyDel() {
  Kiv::Ptr<Kiv::Entity> copy = std::move(copy_);
  Kiv::Ptr<Kiv::Dir> parent = std::move(copyParent_);
  if (copy && parent && parent->entityPtr(copy->name()) == copy) parent->entityPtrDel(copy->name());
}

std::string_view MountSm::targetDir() const {
  std::string_view const path = path_.view();
  if (!pathIsCopy_) return path;
  // The copy's path is normalized: its directory is all before the last '/'.
  std::size_t const slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

Kiv::String MountSm::targetPath() const {
  if (!pathIsCopy_) return path_;
  // The copy's path is normalized: its directory is all before the last '/'.
  int const slash = path_.lastPos('/');
  return slash == Kiv::String::npos ? Kiv::String() : path_.substr(0, static_cast<std::size_t>(slash));
}

Sim::Switch* MountSm::findSwitch() const {
  Sim::Network* net = Sim::Network::current();
  Sim::Switch* sw = net ? net->switchAt(connectionConfig_->address()) : nullptr;
  return sw && sw->systemId() == systemId_ ? sw : nullptr;
}

void MountSm::stateIs(Controller::MountState s) {
  KIV_TRACE(trace, 5, __FILE__, __LINE__, __func__, systemId_ << " " << state_ << " -> " << s);
  state_ = s;
  // Last in every step: the owner's reactors may call back into this machine, or release it.
  mountSmData_->mountStateIs(s);
}

}  // namespace Controller
