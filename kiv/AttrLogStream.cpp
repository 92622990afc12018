// Byte streams under attribute-log demuxers.

#include "kiv/AttrLogStream.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "kiv/Assert.h"
#include "kiv/Exception.h"

namespace Kiv::NboAttrLog {

// --- InProcessStream ---

// Fires a side's delivery. Binds to the loop current when armed, so a stream may outlive a loop.
class InProcessStream::DeliveryTimer : public Clock::NotifieeConst {
 public:
  DeliveryTimer(InProcessStream& s, int i) : stream_(s), index_(i) {}
  bool armed() const { return timeMin() != kInfinity; }
  void armIn(Seconds delay) {
    EventLoop* loop = EventLoop::current();
    KIV_ASSERT(loop && "no event loop");
    Ptr<Clock const> clock = loop->clock();
    if (notifier() != clock) {
      timeMinIs(kInfinity);
      notifierIs(clock);
    }
    timeMinIs(loop->now() + delay);
  }
  void disarm() { timeMinIs(kInfinity); }
  void onTime() override { stream_.deliver(index_); }

 private:
  InProcessStream& stream_;
  int index_;
};

void InProcessStream::End::handleOutput() { stream_.schedule(index_); }
void InProcessStream::End::close() { stream_.closeFrom(); }

Ptr<InProcessStream> InProcessStream::InProcessStreamIs(Ptr<Demuxer> const& a, Ptr<Demuxer> const& b) {
  if (!a || !b) throwRangeException("null demuxer for an in-process stream");
  if (a == b) throwRangeException("in-process stream from " + a->kivStrep() + " to itself");
  for (Demuxer const* d : {a.ptr(), b.ptr()})
    if (d->transport()) throwRangeException(d->kivStrep() + " is already on a connection");
  Ptr<InProcessStream> s(new InProcessStream(a, b));
  s->connect();
  return s;
}

InProcessStream::InProcessStream(Ptr<Demuxer> const& a, Ptr<Demuxer> const& b) {
  peer_[0].demuxer = a;
  peer_[1].demuxer = b;
  for (int i = 0; i < 2; ++i) peer_[i].timer = Ptr<DeliveryTimer>(new DeliveryTimer(*this, i));
}

InProcessStream::~InProcessStream() {
  dying_ = true;
  disarm();
  for (int i = 0; i < 2; ++i) detach(i);
}

void InProcessStream::latencyIs(Seconds s) {
  if (!(s >= 0) || s == kInfinity) throwRangeException("bad stream latency " + std::to_string(s));
  latency_ = s;
}

void InProcessStream::stalledIs(bool s) {
  if (s == stalled_) return;
  stalled_ = s;
  if (s) {
    disarm();
    return;
  }
  for (int i = 0; i < 2; ++i)
    if (!peer_[i].demuxer->output().empty()) schedule(i);
}

void InProcessStream::breakIs() {
  ++generation_;
  connected_ = false;
  disarm();
  for (int i = 0; i < 2; ++i) detach(i);
}

void InProcessStream::reconnect() {
  breakIs();
  for (int i = 0; i < 2; ++i)
    if (peer_[i].demuxer->transport())
      throwRangeException(peer_[i].demuxer->kivStrep() + " is already on a connection");
  connect();
}

void InProcessStream::connect() {
  ++generation_;
  connected_ = true;
  for (int i = 0; i < 2; ++i) peer_[i].demuxer->connectionIs(&end_[i]);
}

// The demuxer drops its output with the connection: those are the bytes in flight.
void InProcessStream::detach(int i) {
  if (attached(i)) peer_[i].demuxer->connectionDel();
}

void InProcessStream::disarm() {
  for (auto& p : peer_) p.timer->disarm();
}

void InProcessStream::schedule(int i) {
  if (!connected_ || stalled_ || peer_[i].timer->armed()) return;
  peer_[i].timer->armIn(latency_);
}

void InProcessStream::deliver(int i) {
  // The peer's reactors may drop the last reference to the stream.
  Ptr<InProcessStream> self(this);
  if (!connected_ || stalled_) return;
  if (!attached(0) || !attached(1)) {
    breakIs();  // a side was disconnected behind the stream's back
    return;
  }
  Demuxer& from = *peer_[i].demuxer;
  Demuxer& to = *peer_[1 - i].demuxer;
  std::size_t const n = from.output().size();
  if (n == 0) return;
  // A copy: applying the bytes may add to the sender's output (its trees are in this process).
  std::vector<std::uint8_t> const bytes(from.output().begin(), from.output().end());
  std::uint64_t const generation = generation_;
  to.bytesIn(bytes.data(), n);
  bytesDelivered_ += n;
  ++deliveries_;
  if (connected_ && generation_ == generation && attached(i)) from.outputConsumed(n);
}

void InProcessStream::closeFrom() {
  connected_ = false;
  disarm();
  if (dying_) return;
  // Called from inside the demuxer's bytesIn; the disconnect must wait until it has returned.
  EventLoop* loop = EventLoop::current();
  if (!loop) return;
  loop->post([self = Ptr<InProcessStream>(this), generation = generation_] {
    if (self->generation_ == generation) self->breakIs();
  });
}

// --- SocketStream ---

namespace {

[[noreturn]] void throwErrno(std::string const& what, int err) {
  throwRangeException(what + ": " + std::strerror(err));
}

void fdFlagsIs(int fd, bool nonBlocking) {
  int const status = ::fcntl(fd, F_GETFL);
  int const flags = ::fcntl(fd, F_GETFD);
  if (status < 0 || flags < 0 || ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0 ||
      (nonBlocking && ::fcntl(fd, F_SETFL, status | O_NONBLOCK) < 0))
    throwErrno("fcntl", errno);
}

// Runs f; a descriptor it would have kept is closed when it throws.
template <class F>
void closingOnThrow(int fd, F&& f) {
  try {
    f();
  } catch (...) {
    if (fd >= 0) ::close(fd);
    throw;
  }
}

int newSocket() {
  int const fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) throwErrno("socket", errno);
  closingOnThrow(fd, [&] { fdFlagsIs(fd, false); });
  return fd;
}

sockaddr_un addressOf(std::string const& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(a.sun_path))
    throwRangeException("bad socket path \"" + path + "\"");
  std::memcpy(a.sun_path, path.data(), path.size());
  return a;
}

// poll()'s timeout: never negative for a finite wait, -1 for none.
int pollMillis(Seconds timeout) {
  if (!(timeout > 0)) return 0;
  if (timeout >= INT_MAX / 1000.0) return -1;
  return static_cast<int>(std::ceil(timeout * 1000));
}

bool wouldBlock(int err) { return err == EAGAIN || err == EWOULDBLOCK; }

}  // namespace

Ptr<SocketStream> SocketStream::SocketStreamIs(int fd, Ptr<Demuxer> const& d) {
  closingOnThrow(fd, [&] {
    if (fd < 0) throwRangeException("bad descriptor for a socket stream");
    if (!d) throwRangeException("null demuxer for a socket stream");
    if (d->transport()) throwRangeException(d->kivStrep() + " is already on a connection");
    fdFlagsIs(fd, true);
  });
  Ptr<SocketStream> s(new SocketStream(fd, d));
  d->connectionIs(s.ptr());
  return s;
}

SocketStream::SocketStream(int fd, Ptr<Demuxer> const& d) : fd_(fd), demuxer_(d) {}

SocketStream::~SocketStream() { finish(); }

int SocketStream::listenAt(std::string const& path) {
  sockaddr_un const a = addressOf(path);
  // Only a socket file is stale; anything else at the path is someone's data.
  struct stat st;
  if (::lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) ::unlink(path.c_str());
  int const fd = newSocket();
  if (::bind(fd, reinterpret_cast<sockaddr const*>(&a), sizeof a) < 0 || ::listen(fd, 16) < 0) {
    int const err = errno;
    ::close(fd);
    throwErrno("listen at " + path, err);
  }
  closingOnThrow(fd, [&] { fdFlagsIs(fd, true); });
  return fd;
}

int SocketStream::acceptFrom(int listenFd, Seconds timeout) {
  using Clock = std::chrono::steady_clock;
  bool const forever = pollMillis(timeout) < 0;
  Clock::time_point const deadline =
      forever ? Clock::time_point::max()
              : Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                   std::chrono::duration<double>(timeout > 0 ? timeout : 0));
  for (;;) {
    pollfd p{listenFd, POLLIN, 0};
    int ms = -1;
    if (!forever) {
      Seconds const left = std::chrono::duration<double>(deadline - Clock::now()).count();
      ms = pollMillis(left);
    }
    int const r = ::poll(&p, 1, ms);
    if (r < 0 && errno != EINTR) throwErrno("poll", errno);
    if (r > 0) {
      int const fd = ::accept(listenFd, nullptr, nullptr);
      if (fd >= 0) {
        closingOnThrow(fd, [&] { fdFlagsIs(fd, false); });
        return fd;
      }
      // Another acceptor won, or the client gave up: wait on.
      if (errno != EINTR && errno != ECONNABORTED && !wouldBlock(errno)) throwErrno("accept", errno);
    }
    if (!forever && Clock::now() >= deadline) return -1;
  }
}

int SocketStream::connectTo(std::string const& path) {
  sockaddr_un const a = addressOf(path);
  int const fd = newSocket();
  if (::connect(fd, reinterpret_cast<sockaddr const*>(&a), sizeof a) == 0) return fd;
  int err = errno;
  if (err == EINTR) {
    // The connection goes on without us; its outcome shows when the socket turns writable.
    pollfd p{fd, POLLOUT, 0};
    int r;
    while ((r = ::poll(&p, 1, -1)) < 0 && errno == EINTR) {
    }
    socklen_t len = sizeof err;
    if (r < 0) {
      err = errno;
    } else if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) < 0) {
      err = errno;
    }
    if (err == 0) return fd;
  }
  ::close(fd);
  throwErrno("connect to " + path, err);
}

std::pair<int, int> SocketStream::socketPair() {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) < 0) throwErrno("socketpair", errno);
  closingOnThrow(fds[0], [&] {
    closingOnThrow(fds[1], [&] {
      fdFlagsIs(fds[0], false);
      fdFlagsIs(fds[1], false);
    });
  });
  return {fds[0], fds[1]};
}

bool SocketStream::pump(Seconds timeout) {
  if (fd_ < 0) return false;
  // A reactor told of incoming bytes may drop the owner's reference.
  Ptr<SocketStream> self(this);
  auto over = [this] {
    finish();
    return false;
  };
  auto attached = [this] { return !closing_ && demuxer_->transport() == this; };
  if (!attached()) return over();

  // Pending output makes a writable socket end the wait at once.
  pollfd p{fd_, POLLIN, 0};
  if (!demuxer_->output().empty()) p.events |= POLLOUT;
  int const r = ::poll(&p, 1, pollMillis(timeout));
  if (r < 0) return errno == EINTR ? true : over();
  if (r == 0) return true;
  if (p.revents & POLLNVAL) return over();
  // Reading first: what a departing peer sent last is applied before a write finds it gone.
  if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
    auto const buf = std::make_unique_for_overwrite<std::uint8_t[]>(kReadChunk);
    for (int i = 0; i < kReadsPerPump && attached(); ++i) {
      ssize_t const n = ::recv(fd_, buf.get(), kReadChunk, 0);
      if (n > 0) {
        bytesRead_ += static_cast<std::uint64_t>(n);
        demuxer_->bytesIn(buf.get(), static_cast<std::size_t>(n));
        if (fd_ < 0) return false;  // a reactor ended it meanwhile
        continue;
      }
      if (n == 0) return over();
      if (errno == EINTR) continue;
      if (wouldBlock(errno)) break;
      return over();
    }
  }
  // Also what the bytes just read asked for (acknowledgements), rather than next time.
  if (!attached() || !flush()) return over();
  return true;
}

bool SocketStream::flush() {
  while (!closing_ && fd_ >= 0) {
    std::vector<std::uint8_t> const& out = demuxer_->output();
    if (out.empty()) return true;
    ssize_t const n = ::send(fd_, out.data(), out.size(), MSG_NOSIGNAL);
    if (n > 0) {
      bytesWritten_ += static_cast<std::uint64_t>(n);
      demuxer_->outputConsumed(static_cast<std::size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      return n == 0 || wouldBlock(errno);
    }
  }
  return true;
}

void SocketStream::finish() {
  if (fd_ < 0) return;
  ::close(fd_);
  fd_ = -1;
  if (demuxer_->transport() == this) demuxer_->connectionDel();
}

}  // namespace Kiv::NboAttrLog
