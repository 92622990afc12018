// The far end of the cross-process replication test: connects to the test's socket as many times
// as it is told, keeps the replicas of what the test mounts through every connection, and writes
// their canonical text after each one ends.
//
//   replication_peer SOCKET OUT-PREFIX CONNECTIONS
//
// Writes OUT-PREFIX<n>.txt after connection n. Exit status 0, or 1 with a message on stderr.

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "kiv/AttrLog.h"
#include "kiv/AttrLogStream.h"
#include "kiv/Clock.h"
#include "model/tests/ModelTrees.h"

using namespace Kiv::NboAttrLog;

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: replication_peer SOCKET OUT-PREFIX CONNECTIONS\n");
    return 1;
  }
  std::string const socket = argv[1];
  std::string const prefix = argv[2];
  int const connections = std::stoi(argv[3]);
  Kiv::EventLoop loop;
  Kiv::Ptr<Demuxer> demuxer = Demuxer::DemuxerIs("peer", true);
  for (int n = 1; n <= connections; ++n) {
    int fd = -1;
    for (int attempt = 0; attempt < 500 && fd < 0; ++attempt) {
      fd = SocketStream::connectTo(socket);
      if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (fd < 0) {
      std::fprintf(stderr, "replication_peer: cannot connect to %s\n", socket.c_str());
      return 1;
    }
    Kiv::Ptr<SocketStream> stream = SocketStream::SocketStreamIs(fd, demuxer);
    while (stream->pump(1.0)) loop.runUntilIdle();
    if (!demuxer->error().empty()) {
      std::fprintf(stderr, "replication_peer: %s\n", demuxer->error().c_str());
      return 1;
    }
    std::ofstream(prefix + std::to_string(n) + ".txt") << modeltrees::dump(*demuxer->replicaDir());
  }
  return 0;
}
