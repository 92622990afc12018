#pragma once
// A stand-in for the framework's attribute-log replication layer, until a real one replaces it.
// It keeps only what the controller's state machines touch: per switch connection a demuxer with
// a connection status and two mount tables through which a client requests a synchronisation
// round and learns when the other side has applied it, the directory of connections, and the
// process-wide demuxer manager. The receiving side is simulated on the event loop.
//
// A round trip: the client raises mountTable(kRequestTable)->nextRound(); while the demuxer is
// connected and not stalled, the receiving side applies it syncLatency() seconds later and sets
// mountTable(kAppliedTable)->round() to that value. A demuxer that is disconnected (or stalled)
// forgets what was in flight and completes nothing; when it is connected again (or released) it
// catches up: the highest round requested so far is applied syncLatency() seconds later.
//
// The simulated switches (platform/SimNetwork.h) keep one passive connection and one demuxer per
// connected switch, named by the switch's system id text.

#include <cstdint>
#include <deque>
#include <vector>

#include "kiv/Clock.h"
#include "kiv/Entity.h"
#include "kiv/HashMap.h"

namespace Platform {
class Timer;
}

namespace Kiv {

namespace NboAttrLog {
class DemuxerManager;
}
Ptr<NboAttrLog::DemuxerManager> globalNboAttrLogDemuxerManager();

// One side's record of synchronisation rounds: the round last applied and the next one wanted.
// Owned by its demuxer.
class MountTable : public Entity {
 public:
  static TypeInfo const& kivTypeInfo();
  TypeInfo const& kivEntityType() const override { return kivTypeInfo(); }
  static Ptr<MountTable> MountTableIs(Name const& name);
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

// The attribute log of one connection, named by the connection. Held by the demuxer manager.
// syncLatency and stalled are knobs of the simulation and do not notify.
class Demuxer : public Entity {
 public:
  // mountTable(kRequestTable): the client raises its nextRound to request a round.
  static constexpr std::uint32_t kRequestTable = 0;
  // mountTable(kAppliedTable): its round is the last round the receiving side has applied.
  static constexpr std::uint32_t kAppliedTable = 1;
  static constexpr Seconds kDefaultSyncLatency = 0.5;

  static TypeInfo const& kivTypeInfo();
  TypeInfo const& kivEntityType() const override { return kivTypeInfo(); }
  static Ptr<Demuxer> DemuxerIs(Name const& name);
  ~Demuxer() override;

  // Null for an index other than kRequestTable and kAppliedTable.
  Ptr<MountTable> mountTable(std::uint32_t index) const;

  ConnectStatus connectStatus() const { return connectStatus_; }
  void connectStatusIs(ConnectStatus v);
  Seconds syncLatency() const { return syncLatency_; }
  void syncLatencyIs(Seconds v) { syncLatency_ = v; }
  bool stalled() const { return stalled_; }
  void stalledIs(bool v);

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
  class RequestReactor;
  explicit Demuxer(EntityInit const& init);
  bool applying() const { return connectStatus_ == connectStatusConnected && !stalled_; }
  void onRequest();
  void onApplyTime();
  void catchUp();
  void dropInFlight();

  Ptr<MountTable> tables_[2];
  ConnectStatus connectStatus_ = connectStatusDisconnected;
  Seconds syncLatency_ = kDefaultSyncLatency;
  bool stalled_ = false;
  // The highest nextRound seen on the request table.
  std::uint64_t requested_ = 0;
  struct InFlight {
    Seconds due;
    std::uint64_t round;
  };
  std::deque<InFlight> inFlight_;
  Ptr<RequestReactor> requestReactor_;
  Ptr<Platform::Timer> applyTimer_;
};

// The connections of the attribute log by name, each passive (accepted from the switch) or
// active. A process-wide singleton.
class ConnectionDir : public PtrInterface, public Notifier {
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
class DemuxerManager : public PtrInterface, public Notifier {
 public:
  Ptr<Demuxer> demuxer(Name const& name) const;
  // Returns the demuxer, creating it (disconnected) when absent.
  Ptr<Demuxer> demuxerIs(Name const& name);
  // Disconnects the demuxer (holders see it go down) and forgets it.
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
