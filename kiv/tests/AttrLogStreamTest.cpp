#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <string>

#include "kiv/AttrLogStream.h"

namespace {

using Kiv::Ptr;
using namespace Kiv::NboAttrLog;

std::uint64_t applied(Ptr<Demuxer> const& d) { return d->mountTable(Demuxer::kAppliedTable)->round(); }
void request(Ptr<Demuxer> const& d, std::uint64_t n) { d->mountTable(Demuxer::kRequestTable)->nextRoundIs(n); }
bool connected(Ptr<Demuxer> const& d) { return d->connectStatus() == connectStatusConnected; }

class StatusReactor : public Demuxer::Notifiee {
 public:
  StatusReactor(Ptr<Demuxer> const& d, std::function<void()> f) : Notifiee(d), f_(std::move(f)) {}
  void onConnectStatus() override { f_(); }

 private:
  std::function<void()> f_;
};

class AttrLogStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Kiv::globalNboAttrLogDemuxerManager()->clear();
    a = demuxer("a", false);
    b = demuxer("b");
  }
  void TearDown() override { Kiv::globalNboAttrLogDemuxerManager()->clear(); }
  Ptr<Demuxer> demuxer(char const* suffix, bool passive = true) {
    std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    return Kiv::globalNboAttrLogDemuxerManager()->demuxerIs(name + "-" + suffix, passive);
  }
  // Socket ends in one process are served in turn, like one poll loop would.
  template <class Pred>
  bool pumpUntil(Pred pred, Ptr<SocketStream> const& x, Ptr<SocketStream> const& y) {
    for (int i = 0; i < 1000 && !pred(); ++i) {
      x->pump(0.01);
      y->pump(0.01);
    }
    return pred();
  }

  Kiv::EventLoop loop;
  Ptr<Demuxer> a, b;
};

TEST_F(AttrLogStreamTest, InProcessRoundTakesDeliveriesBothWays) {
  auto s = InProcessStream::InProcessStreamIs(a, b);
  request(a, 1);
  EXPECT_FALSE(connected(a) || connected(b));  // nothing moves outside the loop
  loop.runUntilIdle();
  EXPECT_EQ(applied(a), 1u);

  // A sender's output that grows while its bytes are being applied keeps what was added.
  Ptr<StatusReactor> r(new StatusReactor(b, [&] { if (connected(b)) request(a, 2); }));
  request(b, 5);
  s->reconnect();
  loop.runUntilIdle();
  EXPECT_EQ(applied(a), 2u);
  EXPECT_EQ(applied(b), 5u);
  EXPECT_THROW(InProcessStream::InProcessStreamIs(a, demuxer("c")), Kiv::RangeException);

  s->latencyIs(0.5);
  request(a, 3);
  s->stalledIs(true);  // with the delivery already scheduled
  loop.advanceBy(10);
  EXPECT_EQ(applied(a), 2u);
  s->stalledIs(false);
  EXPECT_TRUE(loop.runUntil([&] { return applied(a) == 3; }, loop.now() + 10));
  EXPECT_DOUBLE_EQ(loop.now(), 11.0);  // the sync and its ack both went after the stall
}

TEST_F(AttrLogStreamTest, InProcessStreamEndsOnMalformedFrameRemovalOrDestruction) {
  auto s = InProcessStream::InProcessStreamIs(a, b);
  loop.runUntilIdle();
  std::uint8_t const unknownOp[] = {0x01, 0x7f};
  b->bytesIn(unknownOp, sizeof unknownOp);
  EXPECT_NE(b->error(), "");
  request(a, 1);
  loop.runUntilIdle();
  EXPECT_FALSE(connected(a) || a->transport() || b->transport());
  EXPECT_EQ(applied(a), 0u);

  // The deferred disconnect of the bad connection spares one made before it ran.
  s->reconnect();
  b->bytesIn(unknownOp, sizeof unknownOp);
  s->reconnect();
  loop.runUntilIdle();
  EXPECT_TRUE(s->connected() && connected(a) && connected(b));
  EXPECT_EQ(applied(a), 1u);

  Kiv::globalNboAttrLogDemuxerManager()->demuxerDel(b->name());
  loop.runUntilIdle();
  EXPECT_FALSE(s->connected() || connected(a));

  auto c = demuxer("c");
  s = InProcessStream::InProcessStreamIs(a, c);
  s = nullptr;  // with deliveries pending
  EXPECT_FALSE(a->transport() || c->transport());
  loop.runUntilIdle();
  EXPECT_EQ(c->framesIn(), 0u);
}

TEST_F(AttrLogStreamTest, SocketPairCompletesRoundsThroughPartialWrites) {
  auto [fa, fb] = SocketStream::socketPair();
  int const small = 4096;
  for (int fd : {fa, fb}) {
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  }
  auto sa = SocketStream::SocketStreamIs(fa, a);
  auto sb = SocketStream::SocketStreamIs(fb, b);
  std::uint64_t const rounds = 20000;  // a backlog far larger than the socket buffers
  for (std::uint64_t r = 1; r <= rounds; ++r) request(a, r);
  EXPECT_TRUE(sa->pump(0));
  ASSERT_LT(sa->bytesWritten(), a->bytesOut());
  EXPECT_TRUE(pumpUntil([&] { return applied(a) == rounds; }, sa, sb));
  EXPECT_EQ(sa->bytesWritten(), a->bytesOut());
  EXPECT_EQ(sb->bytesRead(), a->bytesOut());
}

TEST_F(AttrLogStreamTest, SocketEndsOnEofWriteErrorOrGarbage) {
  auto [fa, fb] = SocketStream::socketPair();
  auto sa = SocketStream::SocketStreamIs(fa, a);
  auto sb = SocketStream::SocketStreamIs(fb, b);
  ASSERT_TRUE(pumpUntil([&] { return connected(a) && connected(b); }, sa, sb));
  sb = nullptr;
  EXPECT_FALSE(sa->pump(1));
  EXPECT_FALSE(connected(a) || a->transport());
  EXPECT_EQ(sa->fd(), -1);

  // A peer that stops reading: writing to it must not kill the process.
  auto [fc, fd] = SocketStream::socketPair();
  ::shutdown(fd, SHUT_RD);
  auto sc = SocketStream::SocketStreamIs(fc, demuxer("c"));
  EXPECT_FALSE(sc->pump(1));
  ::close(fd);

  auto [fe, ff] = SocketStream::socketPair();
  auto e = demuxer("e");
  auto se = SocketStream::SocketStreamIs(fe, e);
  ASSERT_EQ(::send(ff, "\x03xyz", 4, MSG_NOSIGNAL), 4);
  for (int i = 0; i < 100 && se->pump(1); ++i) {
  }
  EXPECT_NE(e->error(), "");
  EXPECT_FALSE(connected(e) || e->transport());
  char buf[4096];
  while (::recv(ff, buf, sizeof buf, 0) > 0) {
  }  // ends: the stream closed its side
  ::close(ff);
}

// Another process over a listening socket is the replication tests' to check.
TEST_F(AttrLogStreamTest, ListenRefusesAFileAndTakesOverAStaleSocket) {
  char dir[] = "/tmp/attrlogXXXXXX";
  ASSERT_NE(::mkdtemp(dir), nullptr);
  std::string const path = std::string(dir) + "/s";
  std::ofstream(path) << "not a socket";
  EXPECT_THROW(SocketStream::listenAt(path), Kiv::RangeException);  // and leaves the file
  ::unlink(path.c_str());
  ::close(SocketStream::listenAt(path));
  int const listenFd = SocketStream::listenAt(path);  // over the stale socket file
  EXPECT_EQ(SocketStream::acceptFrom(listenFd, 0), -1);
  ::close(listenFd);
  ::unlink(path.c_str());
  ::rmdir(dir);
}

}  // namespace
