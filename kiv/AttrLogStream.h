#pragma once
// Byte streams under attribute-log demuxers (kiv/AttrLog.h).
//
// InProcessStream joins two demuxers of one process through the current event loop, with knobs
// for latency, stalls and breaks: simulations and tests. SocketStream is one end of a local
// stream socket, driven by pump() from whatever loop owns the descriptor.

#include <cstdint>
#include <string>
#include <utility>

#include "kiv/AttrLog.h"
#include "kiv/Clock.h"

namespace Kiv::NboAttrLog {

class InProcessStream : public PtrInterface {
 public:
  // Connects a and b at once. Refuses a demuxer already on a connection.
  static Ptr<InProcessStream> InProcessStreamIs(Ptr<Demuxer> const& a, Ptr<Demuxer> const& b);
  // Disconnects both sides; bytes in flight are lost.
  ~InProcessStream() override;

  Ptr<Demuxer> demuxerA() const { return peer_[0].demuxer; }
  Ptr<Demuxer> demuxerB() const { return peer_[1].demuxer; }

  // Bytes reaching a side's output schedule, unless one is pending, a delivery this much later;
  // it carries everything waiting by then. A change applies to deliveries scheduled afterwards.
  Seconds latency() const { return latency_; }
  void latencyIs(Seconds s);
  // A stalled stream holds its bytes; released, it schedules the delivery of what waits.
  bool stalled() const { return stalled_; }
  void stalledIs(bool s);

  // False after breakIs(), or once a demuxer closed the connection (the sides are then detached
  // on the loop's next turn, outside the demuxer's bytesIn).
  bool connected() const { return connected_; }
  // Both demuxers lose the connection and the bytes in flight.
  void breakIs();
  // A new connection on the same pair (a connected stream is broken first).
  void reconnect();

  std::uint64_t bytesDelivered() const { return bytesDelivered_; }
  std::uint64_t deliveries() const { return deliveries_; }

 private:
  class DeliveryTimer;
  // The transport as one demuxer sees it.
  class End : public Transport {
   public:
    End(InProcessStream& s, int i) : stream_(s), index_(i) {}
    void handleOutput() override;
    void close() override;

   private:
    InProcessStream& stream_;
    int index_;
  };
  struct Peer {
    Ptr<Demuxer> demuxer;
    Ptr<DeliveryTimer> timer;
  };

  InProcessStream(Ptr<Demuxer> const& a, Ptr<Demuxer> const& b);
  void connect();
  bool attached(int i) const { return peer_[i].demuxer->transport() == &end_[i]; }
  void detach(int i);
  void schedule(int i);
  void deliver(int i);
  void closeFrom();
  void disarm();

  End end_[2] = {End(*this, 0), End(*this, 1)};
  Peer peer_[2];
  Seconds latency_ = 0;
  bool stalled_ = false;
  bool connected_ = false;
  bool dying_ = false;
  // Counts connections, so that a close deferred from an old one leaves a newer one alone.
  std::uint64_t generation_ = 0;
  std::uint64_t bytesDelivered_ = 0;
  std::uint64_t deliveries_ = 0;
};

// One end of a local (AF_UNIX) stream socket, bound to one demuxer.
class SocketStream : public PtrInterface, private Transport {
 public:
  // Takes the descriptor (made non-blocking) and connects the demuxer at once. Refuses a
  // demuxer already on a connection (the descriptor is closed then).
  static Ptr<SocketStream> SocketStreamIs(int fd, Ptr<Demuxer> const& d);
  // Closes the descriptor and disconnects the demuxer.
  ~SocketStream() override;

  // A listening socket at `path`, replacing a stale socket file left there.
  static int listenAt(std::string const& path);
  // A connection from the listening socket, or -1 when none came within `timeout` seconds.
  static int acceptFrom(int listenFd, Seconds timeout);
  static int connectTo(std::string const& path);
  // Two connected descriptors.
  static std::pair<int, int> socketPair();

  // Waits up to `timeout` seconds for the socket, then hands what arrived to the demuxer and
  // writes what the socket takes. False once the connection is over (end of stream, a socket
  // error, or the demuxer closing it): the demuxer is disconnected and the descriptor closed.
  bool pump(Seconds timeout);

  // -1 once pump() has found the connection over.
  int fd() const { return fd_; }
  // False from the demuxer's close() on, before pump() has noticed.
  bool connected() const { return fd_ >= 0 && !closing_; }
  Ptr<Demuxer> demuxer() const { return demuxer_; }
  std::uint64_t bytesRead() const { return bytesRead_; }
  std::uint64_t bytesWritten() const { return bytesWritten_; }

  static constexpr std::size_t kReadChunk = 64 * 1024;
  // Reads per pump, so that a peer that never stops sending cannot hold the caller.
  static constexpr int kReadsPerPump = 16;

 private:
  SocketStream(int fd, Ptr<Demuxer> const& d);
  // Output is written by pump(), never from inside the demuxer.
  void handleOutput() override {}
  void close() override { closing_ = true; }
  bool flush();
  void finish();

  int fd_;
  Ptr<Demuxer> demuxer_;
  bool closing_ = false;
  std::uint64_t bytesRead_ = 0;
  std::uint64_t bytesWritten_ = 0;
};

}  // namespace Kiv::NboAttrLog
