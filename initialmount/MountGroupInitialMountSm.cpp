#include "initialmount/MountGroupInitialMountSm.h"

#include <cstdint>
#include <utility>
#include <vector>

#include "initialmount/InitialMountTrace.h"
#include "kiv/Assert.h"
#include "kiv/AttrLog.h"

namespace Controller {

namespace {
constexpr char const* kDoPopulateRemainingSwitch =
    "void Controller::MountGroupInitialMountSm::doPopulateRemainingSwitch()";
constexpr char const* kHandleMountState =
    "void Controller::MountGroupInitialMountSm::handleMountState(Kiv::Name, Kiv::Name)";
constexpr char const* kHandleMountTimeout = "void Controller::MountGroupInitialMountSm::handleMountTimeout()";
constexpr char const* kHandleInitialMountsComplete =
    "void Controller::MountGroupInitialMountSm::handleInitialMountsComplete()";
constexpr char const* kHandleAttrlogFlushTimer =
    "void Controller::MountGroupInitialMountSm::handleAttrlogFlushTimer()";
// The two flush steps trace under their bare names.
constexpr char const* kFlushLocalPassiveEntityLogs = "flushLocalPassiveEntityLogs";
constexpr char const* kIsLocalPassiveCurrentRoundSyncComplete = "isLocalPassiveCurrentRoundSyncComplete";

using Kiv::NboAttrLog::Demuxer;
}  // namespace

bool isFinishedMountState(MountState state) {
  auto const n = static_cast<std::uint32_t>(state);
  return n == 3 || n == 4;
}

// Watches one remaining switch's system status and, through one KivServiceMountGroupStatus per
// entry, the mount state of each of its group statuses; every change goes to handleMountState.
// Handlers may strike the switch off, deleting this reactor, so each callback keeps it alive
// until it returns.
class MountGroupInitialMountSm::KivRemainingSwitch : public SystemStatus::NotifieeConst {
 public:
  KivRemainingSwitch(Kiv::PtrConst<SystemStatus> const& systemStatus, MountGroupInitialMountSm* owner)
      : NotifieeConst(systemStatus), systemStatus_(systemStatus), owner_(owner) {
    for (auto it = systemStatus->serviceMountGroupStatusIter(); it; ++it) watch(it.key());
  }

  Kiv::PtrConst<SystemStatus> const& systemStatus() const { return systemStatus_; }

  // A status that appears, or is replaced, may already be finished: it is looked at at once.
  void onServiceMountGroupStatus(Kiv::Name const& group) override {
    Kiv::Ptr<KivRemainingSwitch> self(this);
    Kiv::Name const name = group;
    watch(name);
    if (systemStatus_->serviceMountGroupStatus(name)) owner_->handleMountState(systemStatus_->name(), name);
  }
  void onServiceMountGroupStatuskivImmediate() override {
    Kiv::Ptr<KivRemainingSwitch> self(this);
    // The watched names too, so that statuses gone without a keyed notification lose theirs.
    std::vector<Kiv::Name> names;
    for (auto it = groupStatus_.begin(); it; ++it) names.push_back(it.key());
    for (auto it = systemStatus_->serviceMountGroupStatusIter(); it; ++it) names.push_back(it.key());
    for (Kiv::Name const& name : names) watch(name);
    owner_->handleMountState();
  }
  void mountStateChanged(Kiv::Name group) {
    Kiv::Ptr<KivRemainingSwitch> self(this);
    owner_->handleMountState(systemStatus_->name(), std::move(group));
  }

 private:
  class KivServiceMountGroupStatus : public ServiceMountGroupStatus::NotifieeConst {
   public:
    KivServiceMountGroupStatus(Kiv::PtrConst<ServiceMountGroupStatus> const& status, KivRemainingSwitch* owner)
        : NotifieeConst(status), group_(status->name()), owner_(owner) {}
    void onMountState() override {
      Kiv::Ptr<KivServiceMountGroupStatus> self(this);
      owner_->mountStateChanged(group_);
    }

   private:
    Kiv::Name group_;
    KivRemainingSwitch* owner_;
  };

  // Brings the watcher of one group status in line with the collection.
  void watch(Kiv::Name const& group) {
    Kiv::PtrConst<ServiceMountGroupStatus> status = systemStatus_->serviceMountGroupStatus(group);
    Kiv::Ptr<KivServiceMountGroupStatus>* watcher = groupStatus_.find(group);
    if (watcher && status && (*watcher)->notifier() == status) return;
    Kiv::Ptr<KivServiceMountGroupStatus> gone;
    groupStatus_.erase(group, &gone);
    if (status) groupStatus_.insert(group, Kiv::Ptr<KivServiceMountGroupStatus>(new KivServiceMountGroupStatus(status, this)));
  }

  Kiv::PtrConst<SystemStatus> systemStatus_;
  MountGroupInitialMountSm* owner_;
  Kiv::HashMap<Kiv::Name, Kiv::Ptr<KivServiceMountGroupStatus>> groupStatus_;
};

MountGroupInitialMountSm::MountGroupInitialMountSm(Kiv::Name const& groupName,
                                                   Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                                                   Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                                                   Kiv::PtrConst<ConnectionPeriod> const& connectionPeriod)
    : groupName_(groupName),
      serviceMountStatus_(Kiv::ValidPtr<ServiceMountStatus>(serviceMountStatus)),
      oobStatus_(oobStatus),
      connectionPeriod_(Kiv::ValidPtr<ConnectionPeriod const>(connectionPeriod)),
      kivServiceMountStatus_(new KivServiceMountStatus(serviceMountStatus, this)),
      kivConnectionPeriod_(new KivConnectionPeriod(connectionPeriod, this)),
      kivProcessedSwitchSet_(new KivProcessedSwitchSet(this)) {
  handleInitialized();
}

MountGroupInitialMountSm::~MountGroupInitialMountSm() = default;

Kiv::PtrConst<PeerTable> MountGroupInitialMountSm::peerTable() const {
  return oobStatus_ ? Kiv::PtrConst<PeerTable>(oobStatus_->peerTable()) : nullptr;
}

Kiv::String MountGroupInitialMountSm::serviceName() const {
  return serviceMountStatus_ ? Kiv::String(serviceMountStatus_->name()) : Kiv::String();
}

Kiv::PtrConst<Kiv::Clock> MountGroupInitialMountSm::attrlogFlushTimer() const {
  return attrlogFlushTimer_ ? attrlogFlushTimer_->notifier() : nullptr;
}

Kiv::Seconds MountGroupInitialMountSm::attrlogFlushTimeMin() const {
  return attrlogFlushTimer_ ? attrlogFlushTimer_->timeMin() : Kiv::kInfinity;
}

Kiv::PtrConst<Kiv::Clock> MountGroupInitialMountSm::mountClock() const {
  return mountClock_ ? mountClock_->notifier() : nullptr;
}

Kiv::Seconds MountGroupInitialMountSm::mountTimeMin() const {
  return mountClock_ ? mountClock_->timeMin() : Kiv::kInfinity;
}

Kiv::PtrConst<SystemStatus> MountGroupInitialMountSm::remainingSwitch(Kiv::Name const& systemName) const {
  Kiv::Ptr<KivRemainingSwitch> const* r = remainingSwitch_.find(systemName);
  return r ? (*r)->systemStatus() : nullptr;
}

void MountGroupInitialMountSm::processedSwitchSetIs(Kiv::Ptr<ProcessedSwitchSet> const& set) {
  if (set == processedSwitchSet_) return;
  processedSwitchSet_ = set;
  kivProcessedSwitchSet_->notifierIs(set);
}

void MountGroupInitialMountSm::localInitialMountsCompleteIs(bool complete) {
  if (complete == localInitialMountsComplete_) return;
  localInitialMountsComplete_ = complete;
  handleInitialMountsComplete();
}

void MountGroupInitialMountSm::handleInitialized() {
  IM_TRACE(8, "handleInitialized", "MountGroupInitialMountSm::" << "handleInitialized");
  if (initialized_) return;
  Kiv::PtrConst<Kiv::Clock> clock = Kiv::ActivityManagerConfig::instance()->clock();
  mountClock_ = new KivClock(clock, this, &MountGroupInitialMountSm::handleMountTimeout);
  mountClock_->timeMinIs(Kiv::kInfinity);
  attrlogFlushTimer_ = new KivClock(clock, this, &MountGroupInitialMountSm::handleAttrlogFlushTimer);
  attrlogFlushTimer_->timeMinIs(Kiv::kInfinity);
  // Named after the group, so that a trace showing either tells whose it is.
  mountGroupInitialSwitchSet_ = InitialSwitchSet::InitialSwitchSetIs(groupName_);
  processedSwitchSetInternal_ = ProcessedSwitchSet::ProcessedSwitchSetIs(groupName_);
  processedSwitchSetIs(processedSwitchSetInternal_);
  initialized_ = true;
  handleConnectionPeriodComplete();
  handleSystemStatus();
}

void MountGroupInitialMountSm::handleSystemStatus() {
  IM_TRACE(8, "handleSystemStatus", "MountGroupInitialMountSm::" << "handleSystemStatus");
  // Trackers of entries that went without a keyed notification are dropped too.
  std::vector<Kiv::Name> names;
  for (auto it = serviceMountStatus_->systemStatusIter(); it; ++it) names.push_back(it.key());
  for (auto it = systemProcessedSm_.begin(); it; ++it) names.push_back(it.key());
  for (Kiv::Name const& name : names) handleSystemStatus(name);
}

void MountGroupInitialMountSm::handleSystemStatus(Kiv::Name const& systemName) {
  Kiv::Ptr<SystemStatus> status = serviceMountStatus_->systemStatus(systemName);
  IM_TRACE(8, "handleSystemStatus",
           "MountGroupInitialMountSm::" << "handleSystemStatus " << systemName << " exists=" << bool(status));
  if (!initialized_) return;
  if (!status) {
    systemProcessedSmDel(systemName);
  } else if (!systemProcessedSm_.get(systemName)) {
    systemProcessedSmIs(systemName, groupName_, status, processedSwitchSet_);
  }
}

void MountGroupInitialMountSm::handleConnectionPeriodComplete() {
  IM_TRACE(8, "handleConnectionPeriodComplete", "MountGroupInitialMountSm::" << "handleConnectionPeriodComplete");
  // The snapshot is taken once: the set is final when complete.
  if (!initialized_ || !connectionPeriod_->complete() || mountGroupInitialSwitchSet_->complete()) return;
  if (Kiv::PtrConst<PeerTable> table = peerTable()) {
    for (auto it = table->peerIter(); it; ++it) mountGroupInitialSwitchSet_->initialSwitchIs(it.key(), true);
  }
  mountGroupInitialSwitchSet_->completeIs(true);
  handleProcessed();
}

void MountGroupInitialMountSm::handleProcessed(Kiv::Name const& systemName) {
  bool const processed = processedSwitchSet_->processed(systemName);
  IM_TRACE(8, "handleProcessed",
           "MountGroupInitialMountSm::" << "handleProcessed " << systemName << " processed=" << processed);
  if (processed) handleProcessed();
}

void MountGroupInitialMountSm::handleProcessed() {
  IM_TRACE(8, "handleProcessed",
           "MountGroupInitialMountSm::" << "handleProcessed groupName: " << groupName_
                                        << " complete=" << mountGroupInitialSwitchSet_->complete());
  if (!mountGroupInitialSwitchSet_->complete()) return;
  if (serviceMountStatus_->initialMountsComplete(groupName_) || !remainingSwitch_.empty()) return;
  // Counts, not membership: any processed switch counts towards the total.
  if (mountGroupInitialSwitchSet_->initialSwitchSize() <= processedSwitchSet_->processedSize()) {
    doPopulateRemainingSwitch();
    checkSwitchMountsPending();
  }
}

void MountGroupInitialMountSm::doPopulateRemainingSwitch() {
  IM_TRACE(8, "doPopulateRemainingSwitch", "MountGroupInitialMountSm::" << "doPopulateRemainingSwitch");
  std::vector<SystemId> ids;
  for (auto it = mountGroupInitialSwitchSet_->initialSwitchIter(); it; ++it) ids.push_back(it.key());
  for (SystemId const& id : ids) {
    Kiv::Ptr<SystemStatus> systemStatus = serviceMountStatus_->systemStatus(Kiv::Name(id.stringValue()));
    // Guarded, on purpose, against the original design, which ends the process here: an initial
    // switch that left after the connection period has no system status any more. That is
    // ordinary churn, and a switch flap must not end the agent; the switch is not waited for.
    if (!systemStatus) {
      IM_DUALLOG_AT_LEVEL(1, kDoPopulateRemainingSwitch, "Initial switch %s has no system status; group %s does not wait for it",
                          id, groupName_);
      continue;
    }
    Kiv::PtrConst<ServiceMountGroupStatus> groupStatus = systemStatus->serviceMountGroupStatus(groupName_);
    if (!groupStatus || isFinishedMountState(groupStatus->mountState())) continue;
    IM_DUALLOG(kDoPopulateRemainingSwitch, "Adding remaining switch: %s", id);
    remainingSwitchIs(systemStatus);
  }
  if (remainingSwitch_.empty()) {
    handleMountTimeout();
    return;
  }
  mountClock_->timeMinIs(Kiv::System::currentTime() + mountWindow);
}

void MountGroupInitialMountSm::handleMountState(Kiv::Name systemName, Kiv::Name groupName) {
  IM_TRACE(8, "handleMountState", "MountGroupInitialMountSm::" << "handleMountState " << systemName << " " << groupName);
  // The period, not the group's set: the set is completed in the step that sees the period end.
  if (!connectionPeriod_->complete()) {
    IM_TRACE(8, "handleMountState", "MountGroupInitialMountSm::" << "handleMountState: initial switch set not yet complete");
    return;
  }
  if (groupName != groupName_) return;
  Kiv::PtrConst<SystemStatus> systemStatus = remainingSwitch(systemName);
  if (!systemStatus) {
    IM_TRACE(8, "handleMountState",
             "MountGroupInitialMountSm::" << "handleMountState: " << systemName << " not in remaining.");
    return;
  }
  Kiv::PtrConst<ServiceMountGroupStatus> groupStatus = systemStatus->serviceMountGroupStatus(groupName_);
  if (!groupStatus || !isFinishedMountState(groupStatus->mountState())) return;
  IM_DUALLOG(kHandleMountState, ": deleting remaining switch %s", systemName);
  remainingSwitchDel(systemName);
  checkSwitchMountsPending();
}

void MountGroupInitialMountSm::handleMountState() {
  IM_TRACE(8, "handleMountState", "MountGroupInitialMountSm::" << "handleMountState");
  if (!mountGroupInitialSwitchSet_->complete()) {
    IM_TRACE(8, "handleMountState", "MountGroupInitialMountSm::" << "handleMountState: initial switch set not yet complete");
    return;
  }
  std::vector<std::pair<Kiv::Name, Kiv::Name>> changes;
  for (auto r = remainingSwitch_.begin(); r; ++r) {
    for (auto g = r.value()->systemStatus()->serviceMountGroupStatusIter(); g; ++g) changes.emplace_back(r.key(), g.key());
  }
  for (auto const& [systemName, groupName] : changes) handleMountState(systemName, groupName);
}

void MountGroupInitialMountSm::handleMountTimeout() {
  if (!initialized_) return;
  IM_DUALLOG(kHandleMountTimeout, "");
  // Switches that have not finished within the window are not waited for any longer.
  remainingSwitchDelAll();
  checkSwitchMountsPending();
}

void MountGroupInitialMountSm::checkSwitchMountsPending() {
  IM_TRACE(8, "checkSwitchMountsPending", "MountGroupInitialMountSm::" << "checkSwitchMountsPending");
  if (!remainingSwitch_.empty() || !connectionPeriod_->complete()) return;
  IM_TRACE(8, "checkSwitchMountsPending", "MountGroupInitialMountSm::" << "checkSwitchMountsPending: no remaining switches");
  mountClock_->timeMinIs(Kiv::kInfinity);
  localInitialMountsCompleteIs(true);
}

void MountGroupInitialMountSm::handleInitialMountsComplete() {
  // No test of the flag: it is only ever set to true, so this runs once.
  IM_TRACE(8, "handleInitialMountsComplete", kHandleInitialMountsComplete);
  flushLocalPassiveEntityLogs();
  attrlogFlushRemainingTimeIs(attrlogFlushTimeout);
  handleAttrlogFlushTimer();
}

// A demuxer's request table (Demuxer::kRequestTable) is the one whose nextRound asks for a round;
// its applied table (Demuxer::kAppliedTable) is the one whose round says what was applied.
void MountGroupInitialMountSm::flushLocalPassiveEntityLogs() {
  Kiv::Ptr<Kiv::NboAttrLog::DemuxerManager> manager = Kiv::globalNboAttrLogDemuxerManager();
  for (Kiv::Name const& name : Kiv::NboAttrLog::ConnectionDir::instance()->passiveConnectionNames()) {
    Kiv::Ptr<Demuxer> demuxer = manager->demuxer(name);
    if (!demuxer) continue;
    IM_DUALLOG(kFlushLocalPassiveEntityLogs, "Flushing Demuxer:%s", name);
    Kiv::Ptr<Kiv::MountTable> request = demuxer->mountTable(Demuxer::kRequestTable);
    request->nextRoundIs(request->nextRound() + 1);
  }
}

bool MountGroupInitialMountSm::isLocalPassiveCurrentRoundSyncComplete() const {
  Kiv::Ptr<Kiv::NboAttrLog::DemuxerManager> manager = Kiv::globalNboAttrLogDemuxerManager();
  bool complete = true;
  // Every connection is looked at (and traced), not only up to the first one behind.
  for (Kiv::Name const& name : Kiv::NboAttrLog::ConnectionDir::instance()->passiveConnectionNames()) {
    Kiv::Ptr<Demuxer> demuxer = manager->demuxer(name);
    if (!demuxer) {
      IM_DUALLOG(kIsLocalPassiveCurrentRoundSyncComplete, "No Demuxer for:%s", name);
      continue;
    }
    std::uint64_t const round = demuxer->mountTable(Demuxer::kAppliedTable)->round();
    std::uint64_t const nextRound = demuxer->mountTable(Demuxer::kRequestTable)->nextRound();
    IM_DUALLOG(kIsLocalPassiveCurrentRoundSyncComplete, "Demuxer:%s connectStatus:%s round:%s nextRound:%s", name,
               static_cast<std::uint32_t>(demuxer->connectStatus()), round, nextRound);
    // A connection that is down has nothing to catch up on.
    if (demuxer->connectStatus() != Kiv::NboAttrLog::connectStatusConnected) continue;
    if (round != nextRound) complete = false;
  }
  return complete;
}

void MountGroupInitialMountSm::handleAttrlogFlushTimer() {
  if (!initialized_) return;
  IM_DUALLOG(kHandleAttrlogFlushTimer, "");
  bool const synchronised = isLocalPassiveCurrentRoundSyncComplete();
  if (!synchronised && attrlogFlushRemainingTime_ > 0) {
    IM_TRACE(8, "handleAttrlogFlushTimer",
             "MountGroupInitialMountSm::" << "handleAttrlogFlushTimer"
                                          << " Attrlog flush not complete yet, remaining time until timeout: "
                                          << attrlogFlushRemainingTime_);
    attrlogFlushTimer_->timeMinIs(Kiv::System::currentTime() + attrlogFlushWaitPeriod_);
    attrlogFlushRemainingTimeIs(attrlogFlushRemainingTime_ - attrlogFlushWaitPeriod_);
    return;
  }
  IM_TRACE(8, "handleAttrlogFlushTimer",
           "MountGroupInitialMountSm::" << "handleAttrlogFlushTimer" << " Attrlog flush "
                                        << (synchronised ? "completed" : "timed out") << " for " << serviceName()
                                        << ":" << groupName_);
  attrlogFlushTimer_->timeMinIs(Kiv::kInfinity);
  serviceMountStatus_->initialMountsCompleteIs(groupName_, true);
}

void MountGroupInitialMountSm::doCleanup() {
  // A machine held on to after its deletion must not write the flag back.
  if (mountClock_) mountClock_->timeMinIs(Kiv::kInfinity);
  if (attrlogFlushTimer_) attrlogFlushTimer_->timeMinIs(Kiv::kInfinity);
  systemProcessedSm_.clear();
  serviceMountStatus_->initialMountsCompleteDel(groupName_);
}

void MountGroupInitialMountSm::remainingSwitchIs(Kiv::PtrConst<SystemStatus> const& systemStatus) {
  Kiv::nullCheck(systemStatus, "remainingSwitch", "Controller::MountGroupInitialMountSm::remainingSwitch");
  if (remainingSwitch_.contains(systemStatus->name())) return;
  remainingSwitch_.insert(systemStatus->name(), Kiv::Ptr<KivRemainingSwitch>(new KivRemainingSwitch(systemStatus, this)));
}

void MountGroupInitialMountSm::remainingSwitchDel(Kiv::Name const& systemName) {
  // Released once the map is consistent again: the reactor may be the caller.
  Kiv::Ptr<KivRemainingSwitch> gone;
  remainingSwitch_.erase(systemName, &gone);
}

void MountGroupInitialMountSm::remainingSwitchDelAll() { remainingSwitch_.clear(); }

Kiv::Ptr<SystemProcessedSm> MountGroupInitialMountSm::systemProcessedSmIs(
    Kiv::Name const& systemName, Kiv::Name const& groupName, Kiv::PtrConst<SystemStatus> const& systemStatus,
    Kiv::Ptr<ProcessedSwitchSet> const& processedSwitchSet) {
  return systemProcessedSm_.instantiate(
      systemName, std::make_tuple(systemName, groupName, systemStatus, processedSwitchSet), [&] {
        return Kiv::Ptr<SystemProcessedSm>(
            new SystemProcessedSm(systemName, groupName, systemStatus, processedSwitchSet));
      });
}

void MountGroupInitialMountSm::systemProcessedSmDel(Kiv::Name const& systemName) {
  systemProcessedSm_.erase(systemName);
}

}  // namespace Controller
