#pragma once
// Attribute-log replication: entity trees mounted on one side of a connection appear as read-only
// replicas on the other, kept current by a stream of attribute updates (wire format in
// kiv/AttrLogCodec.h).
//
// A connection is a byte stream between two demuxers, one on each side; each demuxer sends the
// trees mounted on it (mountIs) and keeps replicas of what the peer mounts (replicaDir). Every
// entity on the wire has an adapter, its type's generated KivNboAttrLogSa: on the sending side a
// reactor that turns each local change into an update at once, or marks it dirty when the output
// has no room, to be sent when room comes back; on the receiving side the one that applies updates
// through the entity's ordinary setters, so local reactors see what a local change would show.
//
// Synchronisation rounds: a client raises mountTable(kRequestTable)->nextRound(); once everything
// dirty has been sent, a sync marker of that round follows, and when the peer has applied it the
// peer acknowledges and mountTable(kAppliedTable)->round() takes its value. Table kRequestTable's
// round is the last marker sent; table kAppliedTable's nextRound the last marker in flight.
//
// A new connection remounts every local tree whole; the receiver drops replica members, set
// entries and roots that the remount did not send. A broken connection keeps its replicas as they
// were until the next remount. A malformed frame ends the connection with one error (error()),
// after applying only the whole updates before it.

#include <cstdint>
#include <string>
#include <vector>

#include "kiv/AttrLogCodec.h"
#include "kiv/Dir.h"
#include "kiv/Entity.h"
#include "kiv/HashMap.h"

namespace Kiv {

namespace NboAttrLog {
class Adapter;
class Demuxer;
class DemuxerManager;
class Side;
}  // namespace NboAttrLog

Ptr<NboAttrLog::DemuxerManager> globalNboAttrLogDemuxerManager();

// One side's record of synchronisation rounds. Owned by its demuxer.
class MountTable : public Entity {
 public:
  static TypeInfo const& kivTypeInfo();
  TypeInfo const& kivEntityType() const override { return kivTypeInfo(); }
  explicit MountTable(EntityInit const& init) : Entity(init) {}

  std::uint64_t round() const { return round_; }
  void roundIs(std::uint64_t v);
  std::uint64_t nextRound() const { return nextRound_; }
  void nextRoundIs(std::uint64_t v);

  class Callbacks : public NotifieeBase {
   public:
    explicit Callbacks(bool active = true) : NotifieeBase(active) {}
    virtual void onRound() {}
    virtual void onNextRound() {}
  };
  class Notifiee : public NotifieeOf<MountTable, Callbacks> {
   public:
    using NotifieeOf::NotifieeOf;
  };
  class NotifieeConst : public NotifieeOf<MountTable const, Callbacks> {
   public:
    using NotifieeOf::NotifieeOf;
  };

 private:
  std::uint64_t round_ = 0;
  std::uint64_t nextRound_ = 0;
};

namespace NboAttrLog {

enum ConnectStatus : std::uint32_t {
  connectStatusDisconnected = 0,
  connectStatusConnected = 1,
};

// A reference as a member's constructor parameter (see Adapter::kivSendMember).
struct RefTarget {
  Entity const* target;
};

// What a demuxer needs of the byte stream under it.
class Transport {
 public:
  // The demuxer's output has bytes waiting.
  virtual void handleOutput() = 0;
  // The demuxer ends the connection (after an error, or on leaving the manager): stop delivering
  // and detach, unless the demuxer detached itself already (its transport() is no longer this).
  virtual void close() = 0;

 protected:
  ~Transport() = default;
};

// One direction of replication on a connection: the sending state of the local trees, or the
// receiving state of the replicas. Owned by its demuxer; adapters reach it for everything.
class Side {
 public:
  Side(Demuxer& demuxer, bool sending) : demuxer_(demuxer), sending_(sending) {}
  Side(Side const&) = delete;
  Side& operator=(Side const&) = delete;

  Demuxer& demuxer() const { return demuxer_; }
  bool sending() const { return sending_; }
  // Counts connections; a handle given on an earlier connection means nothing on this one.
  std::uint64_t epoch() const { return epoch_; }

  // Sending: the adapter of a local entity of a mounted tree, or null.
  Adapter* adapterOf(Entity const* e) const;
  // Receiving: the adapter holding a handle on this connection, or null.
  Adapter* adapterAt(std::uint64_t handle) const;

 private:
  friend class Adapter;
  friend class Demuxer;
  bool live() const;
  void unqueueAll();
  Demuxer& demuxer_;
  bool sending_;
  std::uint64_t epoch_ = 1;
  std::uint64_t nextHandle_ = 1;
  HashMap<Entity const*, Adapter*> byEntity_;  // sending
  HashMap<std::uint64_t, Adapter*> byHandle_;   // receiving
  // Sending: adapters with dirty state, first in first out (intrusive, through Adapter).
  Adapter* queueHead_ = nullptr;
  Adapter* queueTail_ = nullptr;
};

// The base of every generated T::KivNboAttrLogSa. The generated part knows the attributes; this
// part knows the wire.
class Adapter {
 public:
  Adapter(Entity& entity, Adapter* parent, Side& side);
  virtual ~Adapter();
  Adapter(Adapter const&) = delete;
  Adapter& operator=(Adapter const&) = delete;

  Entity& entity() const { return entity_; }
  Adapter* parentAdapter() const { return parent_; }
  Side& side() const { return side_; }
  // The entity's handle on the current connection; 0 while it is not on the wire.
  std::uint64_t handle() const { return epoch_ == side_.epoch_ ? handle_ : 0; }
  // The adapter as the reference-counted object its owner holds.
  virtual PtrInterface* kivObject() = 0;

  // Sending. Sends what is dirty from attribute `id` on, in identifier order, and returns the
  // identifier to resume at when the output filled up, or 0 when nothing is left. Identifiers
  // below the first attribute's are the framework's, handled first.
  virtual std::uint32_t handleAttrFlowOut(std::uint32_t id) = 0;
  // Sends the whole entity: every flowing attribute and every member, members by their adapters.
  virtual void doRemountSelf() = 0;
  // Sends the removal of a root that leaves the log.
  void doSerializeOrphan();
  // Sends the creation of the member whose adapter is `child` (and the member whole); false when
  // there is no room.
  virtual bool kivSendChild(Adapter& child) = 0;

  // Receiving. Applies one update to attribute `id`; the fields after the id are in `d`.
  virtual void handleAttrTransaction(std::uint32_t id, Op op, Decoder& d) = 0;
  // A remount of this entity begins: record the keys it sends from now on ...
  virtual void handleRemountBegin() = 0;
  // ... and drop the members and entries it did not send.
  virtual void handleRemountEnd() = 0;

 protected:
  // Below: what the generated adapters are made of.

  // The framework's part of the flow-out: nothing of it is dirty yet; resumes at the first
  // attribute.
  std::uint32_t kivFrameworkFlowOut(std::uint32_t id);
  // Puts the adapter in its side's flow-out queue (after setting a dirty bit or key).
  void kivQueue();
  bool kivQueued() const { return queued_; }

  // Each kivSend* returns false when the output has no room; the caller then keeps the
  // attribute or key dirty. They return true without sending when the entity is not on the wire
  // (its creation, or the next remount, will carry the current state).
  template <class V>
  bool kivSendValue(std::uint32_t id, V const& v) {
    Encoder* e = kivBegin(Op::value, id);
    if (!e) return true;
    e->value(v);
    return kivCommit();
  }
  // A reference to an entity of a tree mounted on this side; a target that is not on the wire
  // yet is sent first. A target outside the mounted trees travels as null.
  bool kivSendRef(std::uint32_t id, Entity const* target);
  template <class K, class V>
  bool kivSendEntry(std::uint32_t id, K const& k, V const& v) {
    Encoder* e = kivBegin(Op::entry, id);
    if (!e) return true;
    e->value(k);
    e->value(v);
    return kivCommit();
  }
  template <class K>
  bool kivSendDel(std::uint32_t id, K const& k) {
    Encoder* e = kivBegin(Op::del, id);
    if (!e) return true;
    e->value(k);
    return kivCommit();
  }
  // The creation of member `k` with its constructor parameters, followed by the member whole
  // (child.doRemountSelf()). Does nothing for a child already on the wire.
  // A reference parameter (RefTarget) has its target sent first, like kivSendRef.
  template <class K, class... P>
  bool kivSendMember(std::uint32_t id, K const& k, Adapter& child, P const&... params) {
    if (child.handle() != 0 || !kivOnWire()) return true;
    if (!(kivTargetReady(params) && ...)) return false;
    Encoder* e = kivBegin(Op::member, id);
    e->value(k);
    std::uint64_t const h = side_.nextHandle_;
    e->varint(h);
    (kivPut(*e, params), ...);
    if (!kivCommit()) return false;
    kivSendChildWhole(child, h);
    return true;
  }
  template <class P>
  bool kivTargetReady(P const&) {
    return true;
  }
  bool kivTargetReady(RefTarget const& r) { return kivTargetHandle(r.target) >= 0; }
  template <class P>
  void kivPut(Encoder& e, P const& p) {
    e.value(p);
  }
  void kivPut(Encoder& e, RefTarget const& r) { e.reference(static_cast<std::uint64_t>(kivTargetHandle(r.target))); }
  // The handle of a reference's target, sent first when need be: 0 for null or a target outside
  // the mounted trees, -1 when there is no room to send it.
  std::int64_t kivTargetHandle(Entity const* target);

  // The brackets of doRemountSelf.
  void kivRemountBegin();
  void kivRemountEnd();

  // Receiving helpers. A key of a collection, checked like a local mutator checks it.
  template <class K>
  K kivKey(Decoder& d, char const* attr) {
    K k = d.value<K>();
    try {
      keyCheck(k, attr);
    } catch (Exception const& x) {
      d.fail(x.what());
    }
    return k;
  }
  // The entity a reference names: null for handle 0; absent entities and wrong types fail.
  template <class T>
  Ptr<T> kivResolve(Decoder& d, std::uint64_t handle) {
    if (handle == 0) return nullptr;
    Entity* e = kivTarget(d, handle);
    if (&e->kivEntityType() != &std::remove_const_t<T>::kivTypeInfo())
      d.fail(std::string("reference to a ") + e->kivEntityType().name + " where a " +
             std::remove_const_t<T>::kivTypeInfo().name + " is wanted");
    return Ptr<T>(static_cast<T*>(e));
  }
  // Fails unless `handle` is free for a new member on this connection.
  void kivCheckNewHandle(Decoder& d, std::uint64_t handle) const;
  // Gives a new receiving child its handle.
  void kivAdopt(Adapter& child, std::uint64_t handle);
  bool kivRemounting() const { return remounting_; }
  void kivRemountingIs(bool r) { remounting_ = r; }
  // A derived or owner attribute, or an op that does not fit the attribute.
  [[noreturn]] void kivRefuse(Decoder& d, std::uint32_t id, Op op) const;

 private:
  friend class Demuxer;
  friend class Side;
  Encoder* kivBegin(Op op, std::uint32_t id);
  bool kivCommit();
  void kivSendChildWhole(Adapter& child, std::uint64_t handle);
  bool kivOnWire() const { return side_.sending_ && side_.live() && handle() != 0; }
  // 1: on the wire (sent now if need be), 0: no room to send it, -1: it cannot be sent.
  int kivEnsureOnWire();
  Entity* kivTarget(Decoder& d, std::uint64_t handle) const;
  void handleIs(std::uint64_t h);
  void dequeue();

  Entity& entity_;
  Adapter* parent_;
  Side& side_;
  std::uint64_t handle_ = 0;
  std::uint64_t epoch_ = 0;
  Ptr<Entity> keep_;  // a removed member stays valid until its adapter goes
  Adapter* queuePrev_ = nullptr;
  Adapter* queueNext_ = nullptr;
  std::uint32_t resume_ = 0;  // where the next flow-out starts
  bool queued_ = false;
  bool remounting_ = false;
};

// The replication state of one connection, named by it. Held by the demuxer manager.
class Demuxer : public Entity {
 public:
  // Its nextRound requests a round; its round is the last sync marker sent.
  static constexpr std::uint32_t kRequestTable = 0;
  // Its round is the last round the peer has applied; its nextRound the last marker sent.
  static constexpr std::uint32_t kAppliedTable = 1;
  static constexpr std::size_t kDefaultOutputRoom = 64 * 1024;

  static TypeInfo const& kivTypeInfo();
  TypeInfo const& kivEntityType() const override { return kivTypeInfo(); }
  // A demuxer outside the manager, such as the far end of a connection simulated in-process.
  // The manager's are made by demuxerIs.
  static Ptr<Demuxer> DemuxerIs(Name const& name, bool passive);
  ~Demuxer() override;

  // Null for an index other than kRequestTable and kAppliedTable.
  Ptr<MountTable> mountTable(std::uint32_t index) const;
  ConnectStatus connectStatus() const { return connectStatus_; }
  bool passive() const { return passive_; }
  // The text of the error that ended the most recent connection; cleared when a new one comes up.
  std::string const& error() const { return error_; }

  // Local trees sent to the peer, by mount name. A root's type must be creatable by name
  // (Kiv::Dir::entryIs) and have an adapter. Mounting another entity under a used name replaces it.
  void mountIs(Name const& name, Ptr<Entity> const& root);
  void mountDel(Name const& name);
  Ptr<Entity> mount(Name const& name) const;
  std::size_t mounts() const { return mounts_.size(); }

  // Where the peer's trees appear, read-only, by mount name. Settable while disconnected.
  Ptr<Dir> replicaDir() const { return replicaDir_; }
  void replicaDirIs(Ptr<Dir> const& d);

  // The output: bytes waiting for the transport. Room is how many it takes before local changes
  // are kept dirty instead; a remount, or a member created whole, may go past it.
  std::size_t outputRoom() const { return outputRoom_; }
  void outputRoomIs(std::size_t n);
  std::vector<std::uint8_t> const& output() const { return out_; }
  bool outputFull() const { return out_.size() >= outputRoom_; }

  // For transports. A connection came up: hello, then every mounted tree whole. Output left from
  // an earlier connection is dropped with it.
  void connectionIs(Transport* t);
  // The connection went down (or closed itself after an error).
  void connectionDel();
  Transport* transport() const { return transport_; }
  // Bytes from the peer: whole frames are applied, a partial one waits for the rest.
  void bytesIn(std::uint8_t const* p, std::size_t n);
  // The transport took the first n output bytes; what is dirty flows into the room they leave.
  void outputConsumed(std::size_t n);

  // Statistics of the current connection and before: frames and bytes sent and applied.
  std::uint64_t framesOut() const { return framesOut_; }
  std::uint64_t bytesOut() const { return bytesOut_; }
  std::uint64_t framesIn() const { return framesIn_; }
  std::uint64_t bytesInTotal() const { return bytesIn_; }

  class Callbacks : public NotifieeBase {
   public:
    explicit Callbacks(bool active = true) : NotifieeBase(active) {}
    virtual void onConnectStatus() {}
  };
  class Notifiee : public NotifieeOf<Demuxer, Callbacks> {
   public:
    using NotifieeOf::NotifieeOf;
  };
  class NotifieeConst : public NotifieeOf<Demuxer const, Callbacks> {
   public:
    using NotifieeOf::NotifieeOf;
  };

 private:
  friend class Adapter;
  friend class DemuxerManager;
  friend class Side;
  class RequestReactor;
  struct Mount {
    Ptr<Entity> root;
    Ptr<PtrInterface> hold;  // the root's adapter
    Adapter* adapter = nullptr;
  };
  // A replica root this demuxer placed in replicaDir; its adapter only while connected.
  struct Replica {
    Ptr<Entity> root;
    Ptr<PtrInterface> hold;
    Adapter* adapter = nullptr;
  };
  Demuxer(EntityInit const& init, bool passive);

  bool live() const { return transport_ && !closing_; }
  Encoder* begin(Op op);
  bool commit();
  void write(Op op, std::uint64_t a);
  void sendRoot(Name const& name, Mount& m);
  void flowOut();
  void onRequest();
  void fail(std::string const& why);
  void connectStatusIs(ConnectStatus s);
  void apply(std::uint8_t const* p, std::size_t n);
  void applyRoot(Decoder& d);
  void applyOrphan(Decoder& d);
  void releaseReplicaAdapters();
  void dropUnsentRoots();

  Ptr<MountTable> tables_[2];
  Ptr<RequestReactor> requestReactor_;
  bool passive_;
  ConnectStatus connectStatus_ = connectStatusDisconnected;
  std::string error_;
  Transport* transport_ = nullptr;
  bool closing_ = false;
  bool helloSeen_ = false;
  Side out_side_{*this, true};
  Side in_side_{*this, false};
  HashMap<Name, Mount> mounts_;
  Ptr<Dir> replicaDir_;
  // Receiving: the replica roots by name, and those sent since the peer's remount began.
  HashMap<Name, Replica> replicas_;
  HashMap<Name, bool> rootsSeen_;
  bool rootsRemounting_ = false;
  bool inFlowOut_ = false;
  std::uint64_t syncSent_ = 0;  // on this connection

  std::vector<std::uint8_t> out_;
  Encoder enc_{out_};
  std::size_t outputRoom_ = kDefaultOutputRoom;
  int burst_ = 0;  // > 0: commits go past the room
  std::vector<std::uint8_t> in_;
  std::size_t inAt_ = 0;
  bool walking_ = false;  // bytesIn is applying frames
  std::uint64_t framesOut_ = 0, bytesOut_ = 0, framesIn_ = 0, bytesIn_ = 0;
};

// The connections of the attribute log by name, each passive (accepted from the peer) or active.
// A process-wide singleton.
class ConnectionDir : public CountedNotifier {
 public:
  static Ptr<ConnectionDir> instance();

  // Adds the connection, or changes its passive flag.
  void connectionIs(Name const& name, bool passive);
  void connectionDel(Name const& name);
  bool connection(Name const& name) const { return connections_.contains(name); }
  bool passive(Name const& name) const;
  std::size_t connections() const { return connections_.size(); }
  // Sorted by name.
  std::vector<Name> connectionNames() const;
  std::vector<Name> passiveConnectionNames() const;
  void clear();

  class Callbacks : public NotifieeBase {
   public:
    explicit Callbacks(bool active = true) : NotifieeBase(active) {}
    // Added, removed or its passive flag changed.
    virtual void onConnection(Name const&) {}
  };
  class NotifieeConst : public NotifieeOf<ConnectionDir const, Callbacks> {
   public:
    using NotifieeOf::NotifieeOf;
  };

 private:
  ConnectionDir() = default;
  void notify(Name const& name);
  HashMap<Name, bool> connections_;
};

// Holds the demuxers by connection name. Reached through Kiv::globalNboAttrLogDemuxerManager().
class DemuxerManager : public CountedNotifier {
 public:
  Ptr<Demuxer> demuxer(Name const& name) const;
  // Returns the demuxer, creating it (disconnected) when absent; `passive` applies to a new one.
  Ptr<Demuxer> demuxerIs(Name const& name, bool passive = true);
  // Ends the demuxer's connection and forgets it.
  void demuxerDel(Name const& name);
  std::size_t demuxers() const { return demuxers_.size(); }
  void clear();

  class Callbacks : public NotifieeBase {
   public:
    explicit Callbacks(bool active = true) : NotifieeBase(active) {}
    // Added or removed.
    virtual void onDemuxer(Name const&) {}
  };
  class NotifieeConst : public NotifieeOf<DemuxerManager const, Callbacks> {
   public:
    using NotifieeOf::NotifieeOf;
  };

 private:
  friend Ptr<DemuxerManager> Kiv::globalNboAttrLogDemuxerManager();
  DemuxerManager() = default;
  void notify(Name const& name);
  HashMap<Name, Ptr<Demuxer>> demuxers_;
};

}  // namespace NboAttrLog
}  // namespace Kiv
