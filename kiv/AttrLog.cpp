#include "kiv/AttrLog.h"

#include <algorithm>

#include "kiv/Trace.h"

namespace Kiv {

namespace {
TraceHandle trace("KivAttrLog");

#define AL_TRACE(level, stream) KIV_TRACE(trace, level, __FILE__, __LINE__, __func__, stream)
}  // namespace

// --- MountTable ---

TypeInfo const& MountTable::kivTypeInfo() {
  static TypeInfo const info{"Kiv::MountTable", nullptr, nullptr, 0};
  return info;
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

namespace {
// Lets commits go past the output's room while a tree is sent whole, so that the receiver never
// sees half a remount.
class Burst {
 public:
  explicit Burst(int& depth) : depth_(depth) { ++depth_; }
  ~Burst() { --depth_; }
  Burst(Burst const&) = delete;
  Burst& operator=(Burst const&) = delete;

 private:
  int& depth_;
};
}  // namespace

// --- Side ---

bool Side::live() const { return demuxer_.live(); }

Adapter* Side::adapterOf(Entity const* e) const {
  Adapter* const* a = byEntity_.find(e);
  return a ? *a : nullptr;
}

Adapter* Side::adapterAt(std::uint64_t handle) const {
  Adapter* const* a = byHandle_.find(handle);
  return a ? *a : nullptr;
}

void Side::unqueueAll() {
  while (queueHead_) queueHead_->dequeue();
}

// --- Adapter ---

Adapter::Adapter(Entity& entity, Adapter* parent, Side& side)
    : entity_(entity), parent_(parent), side_(side), keep_(&entity) {
  if (side_.sending_) side_.byEntity_.assign(&entity_, this);
}

Adapter::~Adapter() {
  dequeue();
  if (side_.sending_) {
    Adapter* const* a = side_.byEntity_.find(&entity_);
    if (a && *a == this) side_.byEntity_.erase(&entity_);
  } else if (std::uint64_t h = handle()) {
    Adapter* const* a = side_.byHandle_.find(h);
    if (a && *a == this) side_.byHandle_.erase(h);
  }
}

void Adapter::handleIs(std::uint64_t h) {
  handle_ = h;
  epoch_ = side_.epoch_;
  if (side_.sending_) {
    side_.nextHandle_ = std::max(side_.nextHandle_, h + 1);
  } else {
    side_.byHandle_.assign(h, this);
  }
}

void Adapter::dequeue() {
  if (!queued_) return;
  (queuePrev_ ? queuePrev_->queueNext_ : side_.queueHead_) = queueNext_;
  (queueNext_ ? queueNext_->queuePrev_ : side_.queueTail_) = queuePrev_;
  queuePrev_ = queueNext_ = nullptr;
  queued_ = false;
}

void Adapter::kivQueue() {
  if (!side_.sending_) return;
  resume_ = 0;
  if (queued_) return;
  queued_ = true;
  queuePrev_ = side_.queueTail_;
  (side_.queueTail_ ? side_.queueTail_->queueNext_ : side_.queueHead_) = this;
  side_.queueTail_ = this;
}

std::uint32_t Adapter::kivFrameworkFlowOut(std::uint32_t) { return kFirstAttrId; }

Encoder* Adapter::kivBegin(Op op, std::uint32_t id) {
  if (!kivOnWire()) return nullptr;
  Encoder& e = side_.demuxer_.enc_;
  e.begin(op);
  e.varint(handle_);
  e.varint(id);
  return &e;
}

bool Adapter::kivCommit() { return side_.demuxer_.commit(); }

void Adapter::kivSendChildWhole(Adapter& child, std::uint64_t handle) {
  child.handleIs(handle);
  Burst burst(side_.demuxer_.burst_);
  child.doRemountSelf();
}

int Adapter::kivEnsureOnWire() {
  if (handle() != 0) return 1;
  if (!parent_) return -1;  // a root goes on the wire with its mount, or not at all
  int const p = parent_->kivEnsureOnWire();
  if (p != 1) return p;
  if (!parent_->kivSendChild(*this)) return 0;
  return handle() != 0 ? 1 : -1;
}

std::int64_t Adapter::kivTargetHandle(Entity const* target) {
  if (!target) return 0;
  Adapter* t = side_.adapterOf(target);
  int const state = t ? t->kivEnsureOnWire() : -1;
  if (state == 0) return -1;
  if (state == 1) return static_cast<std::int64_t>(t->handle());
  // Only entities of the mounted trees have handles; the receiver gets null rather than a
  // dangling reference.
  AL_TRACE(1, "reference outside the replicated trees sent as null from " << entity_.kivEntityType().name << " "
                                                                          << entity_.fullName());
  return 0;
}

bool Adapter::kivSendRef(std::uint32_t id, Entity const* target) {
  if (!kivOnWire()) return true;
  std::int64_t const h = kivTargetHandle(target);
  if (h < 0) return false;
  Encoder* e = kivBegin(Op::value, id);
  e->reference(static_cast<std::uint64_t>(h));
  return kivCommit();
}

void Adapter::kivRemountBegin() {
  if (kivOnWire()) side_.demuxer_.write(Op::remountBegin, handle_);
}

void Adapter::kivRemountEnd() {
  if (kivOnWire()) side_.demuxer_.write(Op::remountEnd, handle_);
}

void Adapter::doSerializeOrphan() {
  if (kivOnWire()) side_.demuxer_.write(Op::orphan, handle_);
}

Entity* Adapter::kivTarget(Decoder& d, std::uint64_t handle) const {
  Adapter* a = side_.adapterAt(handle);
  if (!a) d.fail("reference to absent entity " + std::to_string(handle));
  return &a->entity_;
}

void Adapter::kivCheckNewHandle(Decoder& d, std::uint64_t handle) const {
  if (handle == 0 || side_.byHandle_.contains(handle)) d.fail("handle " + std::to_string(handle) + " is not free");
}

void Adapter::kivAdopt(Adapter& child, std::uint64_t handle) { child.handleIs(handle); }

void Adapter::kivRefuse(Decoder& d, std::uint32_t id, Op op) const {
  TypeInfo const& t = entity_.kivEntityType();
  for (std::size_t i = 0; i < t.attrCount; ++i) {
    if (t.attrs[i].id == id)
      d.fail(std::string(t.name) + "::" + t.attrs[i].name + " takes no " + opName(op) + " update");
  }
  d.fail(std::string(t.name) + " has no attribute " + std::to_string(id));
}

// --- Demuxer ---

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

Ptr<Demuxer> Demuxer::DemuxerIs(Name const& name, bool passive) {
  keyCheck(name, "Kiv::NboAttrLog::Demuxer");
  return Ptr<Demuxer>(new Demuxer(EntityInit{name, nullptr, Name()}, passive));
}

Demuxer::Demuxer(EntityInit const& init, bool passive) : Entity(init), passive_(passive) {
  for (std::uint32_t i : {kRequestTable, kAppliedTable})
    tables_[i] = new MountTable(EntityInit{Name(std::to_string(i)), this, Name("mountTable")});
  requestReactor_ = new RequestReactor(tables_[kRequestTable], this);
  replicaDirIs(Dir::DirIs(init.name));
}

Demuxer::~Demuxer() {
  for (Ptr<MountTable> const& t : tables_) t->kivParentIs(nullptr);
  // Adapters first: they unregister from the sides.
  mounts_.clear();
  replicas_.clear();
}

Ptr<MountTable> Demuxer::mountTable(std::uint32_t index) const {
  return index < std::size(tables_) ? tables_[index] : nullptr;
}

void Demuxer::replicaDirIs(Ptr<Dir> const& d) {
  if (transport_) throwRangeException("replicaDir of a connected demuxer");
  if (!d) throwRangeException("null replicaDir");
  replicas_.clear();
  replicaDir_ = d;
}

void Demuxer::outputRoomIs(std::size_t n) { outputRoom_ = std::max<std::size_t>(n, 1); }

void Demuxer::connectStatusIs(ConnectStatus s) {
  if (connectStatus_ == s) return;
  connectStatus_ = s;
  kivNotify<Callbacks>([](Callbacks* n) { n->onConnectStatus(); });
}

// --- sending ---

Encoder* Demuxer::begin(Op op) {
  enc_.begin(op);
  return &enc_;
}

bool Demuxer::commit() {
  std::size_t const n = enc_.end();
  // A frame alone in the output always goes, or a frame larger than the room would never leave.
  if (burst_ == 0 && out_.size() > outputRoom_ && out_.size() > n) {
    enc_.abandon();
    return false;
  }
  ++framesOut_;
  bytesOut_ += n;
  if (burst_ == 0 && live()) transport_->handleOutput();
  return true;
}

void Demuxer::write(Op op, std::uint64_t a) {
  Burst burst(burst_);
  begin(op)->varint(a);
  commit();
}

void Demuxer::sendRoot(Name const& name, Mount& m) {
  Burst burst(burst_);
  std::uint64_t const h = out_side_.nextHandle_;
  Encoder* e = begin(Op::root);
  e->varint(h);
  e->value(name);
  e->value(String(m.root->kivEntityType().name));
  commit();
  m.adapter->handleIs(h);
  m.adapter->doRemountSelf();
}

void Demuxer::mountIs(Name const& name, Ptr<Entity> const& root) {
  keyCheck(name, "Kiv::NboAttrLog::Demuxer::mount");
  if (!root) throwRangeException("null root for attribute-log mount " + name.stdString());
  TypeInfo const& type = root->kivEntityType();
  if (!type.attrLogAdapter) throwRangeException(std::string(type.name) + " has no attribute-log adapter");
  if (!type.create)
    throwRangeException(std::string(type.name) + " cannot be an attribute-log root: it has constructor parameters");
  if (Mount const* m = mounts_.find(name); m && m->root == root) return;
  mountDel(name);
  Adapter* a = type.attrLogAdapter(*root, out_side_);
  Mount& m = *mounts_.insert(name, Mount{root, Ptr<PtrInterface>(a->kivObject()), a}).first;
  if (!live()) return;
  sendRoot(name, m);
  if (transport_) transport_->handleOutput();
}

void Demuxer::mountDel(Name const& name) {
  Mount* m = mounts_.find(name);
  if (!m) return;
  m->adapter->doSerializeOrphan();
  mounts_.erase(name);
  if (live() && !out_.empty()) transport_->handleOutput();
}

Ptr<Entity> Demuxer::mount(Name const& name) const {
  Mount const* m = mounts_.find(name);
  return m ? m->root : nullptr;
}

void Demuxer::onRequest() {
  flowOut();
}

void Demuxer::flowOut() {
  if (!live() || inFlowOut_) return;
  Ptr<Demuxer> self(this);
  inFlowOut_ = true;
  while (Adapter* a = out_side_.queueHead_) {
    if (outputFull()) break;
    std::uint32_t const resume = a->handleAttrFlowOut(a->resume_);
    if (resume != 0) {
      a->resume_ = resume;
      break;
    }
    a->dequeue();
  }
  inFlowOut_ = false;
  if (!live()) return;
  // A round's marker follows everything that was dirty when it goes out, and waits for room like
  // the rest: requests raised meanwhile then go as one marker, the latest.
  std::uint64_t const wanted = tables_[kRequestTable]->nextRound();
  if (!out_side_.queueHead_ && !outputFull() && wanted > syncSent_ && wanted > tables_[kAppliedTable]->round()) {
    syncSent_ = wanted;
    write(Op::sync, wanted);
    if (transport_) transport_->handleOutput();
    tables_[kAppliedTable]->nextRoundIs(wanted);
    tables_[kRequestTable]->roundIs(wanted);
  }
}

// --- connection ---

void Demuxer::connectionIs(Transport* t) {
  if (transport_) connectionDel();
  if (!t) return;
  Ptr<Demuxer> self(this);
  transport_ = t;
  closing_ = false;
  helloSeen_ = false;
  error_.clear();
  syncSent_ = 0;
  AL_TRACE(5, name() << " connection up");
  {
    Burst burst(burst_);
    begin(Op::hello)->byte(kVersion);
    commit();
    write(Op::remountBegin, 0);
    for (auto it = mounts_.begin(); it; ++it) sendRoot(it.key(), it.value());
    write(Op::remountEnd, 0);
  }
  if (!live()) return;
  transport_->handleOutput();
  flowOut();
}

void Demuxer::connectionDel() {
  if (!transport_) return;
  Ptr<Demuxer> self(this);
  if (inAt_ < in_.size() && error_.empty()) {
    error_ = "attribute log " + name().stdString() + ": connection ended inside a frame";
    AL_TRACE(1, error_);
  }
  transport_ = nullptr;
  closing_ = false;
  out_.clear();
  in_.clear();
  inAt_ = 0;
  // Handles mean nothing after the connection; the next one remounts everything.
  out_side_.unqueueAll();
  ++out_side_.epoch_;
  out_side_.nextHandle_ = 1;
  ++in_side_.epoch_;
  in_side_.byHandle_.clear();
  for (auto it = replicas_.begin(); it; ++it) {
    it.value().adapter = nullptr;
    it.value().hold = nullptr;
  }
  rootsRemounting_ = false;
  rootsSeen_.clear();
  AL_TRACE(5, name() << " connection down");
  connectStatusIs(connectStatusDisconnected);
}

void Demuxer::fail(std::string const& why) {
  error_ = "attribute log " + name().stdString() + ": " + why;
  AL_TRACE(1, error_);
  closing_ = true;
  connectStatusIs(connectStatusDisconnected);
  if (transport_) transport_->close();
}

void Demuxer::outputConsumed(std::size_t n) {
  n = std::min(n, out_.size());
  out_.erase(out_.begin(), out_.begin() + static_cast<std::ptrdiff_t>(n));
  flowOut();
}

// --- receiving ---

void Demuxer::bytesIn(std::uint8_t const* p, std::size_t n) {
  if (!live()) return;
  Ptr<Demuxer> self(this);
  in_.insert(in_.end(), p, p + n);
  if (walking_) return;  // the outer call is walking the buffer and will get to these bytes
  walking_ = true;
  while (live() && inAt_ < in_.size()) {
    std::size_t const avail = in_.size() - inAt_;
    std::uint64_t len = 0;
    std::size_t head = 0;
    bool complete = false;
    while (head < avail && head < 4) {
      std::uint8_t const b = in_[inAt_ + head];
      len |= std::uint64_t(b & 0x7f) << (7 * head);
      ++head;
      if (!(b & 0x80)) {
        complete = true;
        break;
      }
    }
    if (len > kMaxFrame || (!complete && head == 4)) {
      fail("frame of more than " + std::to_string(kMaxFrame) + " bytes");
      break;
    }
    if (!complete || avail - head < len) break;
    std::size_t const at = inAt_ + head;
    inAt_ = at + len;
    ++framesIn_;
    bytesIn_ += head + len;
    try {
      if (len == 0) throw DecodeError("empty frame");
      apply(in_.data() + at, static_cast<std::size_t>(len));
    } catch (DecodeError const& x) {
      fail("frame " + std::to_string(framesIn_) + ": " + x.what());
    } catch (std::exception const& x) {
      fail("frame " + std::to_string(framesIn_) + " could not be applied: " + x.what());
    }
  }
  walking_ = false;
  if (!transport_) return;  // connectionDel cleared the buffer
  if (inAt_ >= in_.size()) {
    in_.clear();
    inAt_ = 0;
  } else if (inAt_ > 0) {
    in_.erase(in_.begin(), in_.begin() + static_cast<std::ptrdiff_t>(inAt_));
    inAt_ = 0;
  }
}

void Demuxer::apply(std::uint8_t const* p, std::size_t n) {
  Decoder d(p, n);
  auto const op = static_cast<Op>(d.byte());
  if (!helloSeen_ && op != Op::hello) d.fail(std::string("frame before hello"));
  switch (op) {
    case Op::hello: {
      std::uint8_t const version = d.byte();
      d.end();
      if (helloSeen_) d.fail("second hello");
      if (version != kVersion) d.fail("unsupported attribute-log version " + std::to_string(version));
      helloSeen_ = true;
      connectStatusIs(connectStatusConnected);
      return;
    }
    case Op::root:
      applyRoot(d);
      return;
    case Op::orphan:
      applyOrphan(d);
      return;
    case Op::value:
    case Op::member:
    case Op::del:
    case Op::entry: {
      std::uint64_t const h = d.varint();
      std::uint64_t const id = d.varint();
      Adapter* a = in_side_.adapterAt(h);
      if (!a) d.fail(std::string(opName(op)) + " update of absent entity " + std::to_string(h));
      if (id > UINT32_MAX) d.fail("attribute id out of range");
      a->handleAttrTransaction(static_cast<std::uint32_t>(id), op, d);
      return;
    }
    case Op::remountBegin:
    case Op::remountEnd: {
      std::uint64_t const h = d.varint();
      d.end();
      if (h == 0) {
        if (op == Op::remountBegin) {
          rootsSeen_.clear();
          rootsRemounting_ = true;
        } else {
          if (!rootsRemounting_) d.fail("remountEnd without remountBegin");
          dropUnsentRoots();
        }
        return;
      }
      Adapter* a = in_side_.adapterAt(h);
      if (!a) d.fail(std::string(opName(op)) + " of absent entity " + std::to_string(h));
      if (op == Op::remountBegin) {
        a->handleRemountBegin();
      } else {
        if (!a->kivRemounting()) d.fail("remountEnd without remountBegin");
        a->handleRemountEnd();
      }
      return;
    }
    case Op::sync: {
      std::uint64_t const round = d.varint();
      d.end();
      write(Op::ack, round);
      if (transport_) transport_->handleOutput();
      return;
    }
    case Op::ack: {
      std::uint64_t const round = d.varint();
      d.end();
      if (round > syncSent_) d.fail("ack of round " + std::to_string(round) + " that was never sent");
      if (round > tables_[kAppliedTable]->round()) tables_[kAppliedTable]->roundIs(round);
      return;
    }
  }
  d.fail("unknown op " + std::to_string(static_cast<int>(op)));
}

void Demuxer::applyRoot(Decoder& d) {
  std::uint64_t const h = d.varint();
  Name const name = d.value<Name>();
  String const typeName = d.value<String>();
  d.end();
  if (h == 0 || in_side_.byHandle_.contains(h)) d.fail("handle " + std::to_string(h) + " is not free");
  if (name.size() == 0) d.fail("root without a name");
  TypeInfo const* type = typeNamed(typeName.view());
  if (!type || !type->create || !type->attrLogAdapter) d.fail("root of unknown type " + typeName.stdString());
  ReplicaWriteScope writes;
  Ptr<Entity> e = replicaDir_->entityPtr(name);
  if (e && &e->kivEntityType() != type) {
    replicaDir_->entityPtrDel(name);
    e = nullptr;
  }
  if (!e) {
    e = replicaDir_->entryIs(name, type->name);
    e->kivReadOnlyIs(true);
  }
  Adapter* a = type->attrLogAdapter(*e, in_side_);
  replicas_.assign(name, Replica{e, Ptr<PtrInterface>(a->kivObject()), a});
  a->handleIs(h);
  if (rootsRemounting_) rootsSeen_.assign(name, true);
}

void Demuxer::applyOrphan(Decoder& d) {
  std::uint64_t const h = d.varint();
  d.end();
  Adapter* a = in_side_.adapterAt(h);
  if (!a || a->parentAdapter()) d.fail("orphan of " + std::to_string(h) + ", which is not a root");
  Name const name = a->entity().name();
  Replica removed;
  replicas_.erase(name, &removed);
  rootsSeen_.erase(name);
  ReplicaWriteScope writes;
  if (replicaDir_->entityPtr(name) == removed.root) replicaDir_->entityPtrDel(name);
}

void Demuxer::dropUnsentRoots() {
  rootsRemounting_ = false;
  std::vector<Name> gone;
  for (auto it = replicas_.begin(); it; ++it)
    if (!rootsSeen_.contains(it.key())) gone.push_back(it.key());
  rootsSeen_.clear();
  ReplicaWriteScope writes;
  for (Name const& name : gone) {
    Replica removed;
    replicas_.erase(name, &removed);
    if (replicaDir_->entityPtr(name) == removed.root) replicaDir_->entityPtrDel(name);
  }
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

Ptr<Demuxer> DemuxerManager::demuxer(Name const& name) const { return demuxers_.get(name); }

Ptr<Demuxer> DemuxerManager::demuxerIs(Name const& name, bool passive) {
  if (Ptr<Demuxer> existing = demuxer(name)) return existing;
  Ptr<Demuxer> d = Demuxer::DemuxerIs(name, passive);
  demuxers_.insert(name, d);
  notify(name);
  return d;
}

void DemuxerManager::demuxerDel(Name const& name) {
  Ptr<Demuxer> removed;
  if (!demuxers_.erase(name, &removed)) return;
  if (Transport* t = removed->transport_) {
    removed->closing_ = true;
    t->close();
    removed->connectionDel();
  }
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
