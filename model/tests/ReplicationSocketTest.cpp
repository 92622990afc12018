// Replication of the mount interface types to another process over a local socket, through a
// break and a remount.

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "kiv/AttrLog.h"
#include "kiv/AttrLogStream.h"
#include "kiv/Clock.h"
#include "model/tests/ModelTrees.h"

extern char** environ;

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

}  // namespace

TEST(ReplicationSocket, AnotherProcessHoldsTheSameTreesThroughABreakAndARemount) {
  Kiv::EventLoop loop;
  std::string const dir = ::testing::TempDir();
  std::string const socket = dir + "replication-" + std::to_string(::getpid()) + ".sock";
  std::string const prefix = dir + "replication-" + std::to_string(::getpid()) + "-";
  int const listening = SocketStream::listenAt(socket);
  ASSERT_GE(listening, 0);

  std::string const peer = REPLICATION_PEER;
  char* const args[] = {const_cast<char*>(peer.c_str()), const_cast<char*>(socket.c_str()),
                        const_cast<char*>(prefix.c_str()), const_cast<char*>("2"), nullptr};
  pid_t child = -1;
  ASSERT_EQ(::posix_spawn(&child, peer.c_str(), nullptr, nullptr, args, environ), 0);

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
