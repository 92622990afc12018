#include "platform/AttrLog.h"

#include <algorithm>

#include "platform/Timer.h"

namespace Kiv {

// --- MountTable ---

TypeInfo const& MountTable::kivTypeInfo() {
  static TypeInfo const info{"Kiv::MountTable", nullptr, nullptr, 0};
  return info;
}

Ptr<MountTable> MountTable::MountTableIs(Name const& name) {
  keyCheck(name, "Kiv::MountTable");
  return Ptr<MountTable>(new MountTable(EntityInit{name, nullptr, Name()}));
}

void MountTable::roundIs(std::uint64_t v) {
  kivCheckWritable("round");
  if (round_ == v) return;
  round_ = v;
  kivNotify<Callbacks>([](Callbacks* n) { n->onRound(); });
}

void MountTable::nextRoundIs(std::uint64_t v) {
  kivCheckWritable("nextRound");
  if (nextRound_ == v) return;
  nextRound_ = v;
  kivNotify<Callbacks>([](Callbacks* n) { n->onNextRound(); });
}

namespace NboAttrLog {

// --- Demuxer ---

// The receiving side's ear on the request table.
class Demuxer::RequestReactor : public MountTable::NotifieeConst {
 public:
  RequestReactor(Ptr<MountTable const> const& table, Demuxer* demuxer) : NotifieeConst(table), demuxer_(demuxer) {}
  void onNextRound() override { demuxer_->onRequest(); }

 private:
  Demuxer* demuxer_;
};

TypeInfo const& Demuxer::kivTypeInfo() {
  static TypeInfo const info{"Kiv::NboAttrLog::Demuxer", nullptr, nullptr, 0};
  return info;
}

Ptr<Demuxer> Demuxer::DemuxerIs(Name const& name) {
  keyCheck(name, "Kiv::NboAttrLog::Demuxer");
  return Ptr<Demuxer>(new Demuxer(EntityInit{name, nullptr, Name()}));
}

Demuxer::Demuxer(EntityInit const& init) : Entity(init) {
  for (std::uint32_t i : {kRequestTable, kAppliedTable}) {
    tables_[i] = new MountTable(EntityInit{Name(std::to_string(i)), this, Name("mountTable")});
  }
  requestReactor_ = new RequestReactor(tables_[kRequestTable], this);
  applyTimer_ = Platform::Timer::TimerIs([this] { onApplyTime(); });
}

Demuxer::~Demuxer() {
  applyTimer_->disarm();
  for (Ptr<MountTable> const& t : tables_) t->kivParentIs(nullptr);
}

Ptr<MountTable> Demuxer::mountTable(std::uint32_t index) const {
  return index < std::size(tables_) ? tables_[index] : nullptr;
}

void Demuxer::connectStatusIs(ConnectStatus v) {
  kivCheckWritable("connectStatus");
  if (connectStatus_ == v) return;
  connectStatus_ = v;
  if (v == connectStatusConnected) {
    catchUp();
  } else {
    dropInFlight();
  }
  kivNotify<Callbacks>([](Callbacks* n) { n->onConnectStatus(); });
}

void Demuxer::stalledIs(bool v) {
  if (stalled_ == v) return;
  stalled_ = v;
  if (v) {
    dropInFlight();
  } else {
    catchUp();
  }
}

void Demuxer::onRequest() {
  std::uint64_t v = tables_[kRequestTable]->nextRound();
  if (v <= requested_) return;
  requested_ = v;
  if (!applying()) return;
  // Each request travels on its own, so two raised in quick succession complete one by one.
  inFlight_.push_back({System::currentTime() + syncLatency_, v});
  if (!applyTimer_->armed()) applyTimer_->armAt(inFlight_.front().due);
}

void Demuxer::onApplyTime() {
  if (!applying()) return;
  Seconds now = System::currentTime();
  std::uint64_t applied = 0;
  Seconds next = kInfinity;
  std::erase_if(inFlight_, [&](InFlight const& f) {
    if (f.due > now) {
      next = std::min(next, f.due);
      return false;
    }
    applied = std::max(applied, f.round);
    return true;
  });
  if (next != kInfinity) applyTimer_->armAt(next);
  // Last: the applied table's reactors may do anything, this demuxer's deletion included.
  Ptr<MountTable> table = tables_[kAppliedTable];
  if (applied > table->round()) table->roundIs(applied);
}

void Demuxer::catchUp() {
  dropInFlight();
  requested_ = std::max(requested_, tables_[kRequestTable]->nextRound());
  if (!applying() || requested_ <= tables_[kAppliedTable]->round()) return;
  inFlight_.push_back({System::currentTime() + syncLatency_, requested_});
  applyTimer_->armAt(inFlight_.front().due);
}

void Demuxer::dropInFlight() {
  inFlight_.clear();
  applyTimer_->disarm();
}

// --- ConnectionDir ---

Ptr<ConnectionDir> ConnectionDir::instance() {
  static Ptr<ConnectionDir> const singleton(new ConnectionDir());
  return singleton;
}

void ConnectionDir::connectionIs(Name const& name, bool passive) {
  keyCheck(name, "Kiv::NboAttrLog::ConnectionDir::connection");
  auto [flag, added] = connections_.insert(name, passive);
  if (!added) {
    if (*flag == passive) return;
    *flag = passive;
  }
  notify(name);
}

void ConnectionDir::connectionDel(Name const& name) {
  if (connections_.erase(name)) notify(name);
}

bool ConnectionDir::passive(Name const& name) const {
  bool const* flag = connections_.find(name);
  return flag && *flag;
}

std::vector<Name> ConnectionDir::connectionNames() const {
  std::vector<Name> names;
  for (auto it = connections_.begin(); it; ++it) names.push_back(it.key());
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<Name> ConnectionDir::passiveConnectionNames() const {
  std::vector<Name> names;
  for (auto it = connections_.begin(); it; ++it)
    if (it.value()) names.push_back(it.key());
  std::sort(names.begin(), names.end());
  return names;
}

void ConnectionDir::clear() {
  for (Name const& name : connectionNames()) connectionDel(name);
}

void ConnectionDir::notify(Name const& name) {
  kivNotifiees().forEach([&](NotifieeBase* n) { static_cast<Callbacks*>(n)->onConnection(name); });
}

// --- DemuxerManager ---

Ptr<Demuxer> DemuxerManager::demuxer(Name const& name) const {
  return demuxers_.get(name);
}

Ptr<Demuxer> DemuxerManager::demuxerIs(Name const& name) {
  if (Ptr<Demuxer> existing = demuxer(name)) return existing;
  Ptr<Demuxer> d = Demuxer::DemuxerIs(name);
  demuxers_.insert(name, d);
  notify(name);
  return d;
}

void DemuxerManager::demuxerDel(Name const& name) {
  Ptr<Demuxer> removed;
  if (!demuxers_.erase(name, &removed)) return;
  removed->connectStatusIs(connectStatusDisconnected);
  notify(name);
}

void DemuxerManager::clear() {
  std::vector<Name> names;
  for (auto it = demuxers_.begin(); it; ++it) names.push_back(it.key());
  for (Name const& name : names) demuxerDel(name);
}

void DemuxerManager::notify(Name const& name) {
  kivNotifiees().forEach([&](NotifieeBase* n) { static_cast<Callbacks*>(n)->onDemuxer(name); });
}

}  // namespace NboAttrLog

Ptr<NboAttrLog::DemuxerManager> globalNboAttrLogDemuxerManager() {
  static Ptr<NboAttrLog::DemuxerManager> const singleton(new NboAttrLog::DemuxerManager());
  return singleton;
}

}  // namespace Kiv
