// Replication of the mount interface types to another process over a local socket, through a
// break and a remount.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "kiv/AttrLog.h"
#include "kiv/AttrLogStream.h"
#include "kiv/Clock.h"
#include "model/tests/ModelTrees.h"

using namespace Kiv::NboAttrLog;

namespace {

std::string slurp(std::string const& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Pumps until the peer has acknowledged round `round`, or the connection ends.
bool completeRound(SocketStream& stream, Demuxer& demuxer, std::uint64_t round) {
  demuxer.mountTable(Demuxer::kRequestTable)->nextRoundIs(round);
  for (int i = 0; i < 3000; ++i) {
    if (demuxer.mountTable(Demuxer::kAppliedTable)->round() >= round) return true;
    if (!stream.pump(0.01)) return false;
  }
  return false;
}

// The far end: keeps its replicas through `connections` connections and writes their text to
// prefix<n>.txt after connection n ends.
[[noreturn]] void peer(std::string const& socket, std::string const& prefix, int connections) {
  ::alarm(60);  // a stuck peer must not hang the test
  Kiv::EventLoop loop;
  Kiv::Ptr<Demuxer> demuxer = Demuxer::DemuxerIs("peer", true);
  for (int n = 1; n <= connections; ++n) {
    Kiv::Ptr<SocketStream> stream = SocketStream::SocketStreamIs(SocketStream::connectTo(socket), demuxer);
    while (stream->pump(1.0)) loop.runUntilIdle();
    if (!demuxer->error().empty()) {
      std::fprintf(stderr, "peer: %s\n", demuxer->error().c_str());
      ::_exit(1);
    }
    std::ofstream(prefix + std::to_string(n) + ".txt") << modeltrees::dump(*demuxer->replicaDir());
  }
  ::_exit(0);
}

}  // namespace

TEST(ReplicationSocket, AnotherProcessHoldsTheSameTreesThroughABreakAndARemount) {
  Kiv::EventLoop loop;
  std::string const prefix = ::testing::TempDir() + "replication-" + std::to_string(::getpid()) + "-";
  std::string const socket = prefix + "socket";
  int const listening = SocketStream::listenAt(socket);
  ASSERT_GE(listening, 0);
  pid_t const child = ::fork();
  if (child == 0) peer(socket, prefix, 2);

  Kiv::Ptr<Kiv::Dir> local = Kiv::Dir::DirIs("local");
  Kiv::Ptr<Demuxer> demuxer = Demuxer::DemuxerIs("to-peer", false);
  modeltrees::build(*local);
  for (auto it = local->entityPtrIter(); it; ++it) demuxer->mountIs(it.key(), it.value());

  // First connection: the whole trees, then every scripted change.
  Kiv::Ptr<SocketStream> stream = SocketStream::SocketStreamIs(SocketStream::acceptFrom(listening, 30), demuxer);
  ASSERT_TRUE(completeRound(*stream, *demuxer, 1));
  for (int step = 1; step <= modeltrees::kSteps; ++step) {
    modeltrees::change(*local, step);
    ASSERT_TRUE(stream->pump(0));
  }
  ASSERT_TRUE(completeRound(*stream, *demuxer, 2));
  std::string const first = modeltrees::dump(*local);
  stream = nullptr;  // the break

  modeltrees::changeWhileDown(*local, *demuxer);

  stream = SocketStream::SocketStreamIs(SocketStream::acceptFrom(listening, 30), demuxer);
  ASSERT_TRUE(completeRound(*stream, *demuxer, 3));
  std::string const second = modeltrees::dump(*local);
  stream = nullptr;
  ::close(listening);

  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(slurp(prefix + "1.txt"), first);
  EXPECT_EQ(slurp(prefix + "2.txt"), second);
  EXPECT_NE(first, second);
  ::unlink(socket.c_str());
}
