// Attribute-log throughput: updates per second and bytes per update from a local tree to its
// replica, through the in-process stream and to another process over a local socket.
// Usage: attrlog_bench [updates] [members]
//
// The tree is one ServiceMountStatus with `members` mount statuses; each update changes the
// mount state of the next member. Output is drained every 256 updates, so every update travels
// as a frame of its own (frames/update says so). The time runs until the replica has applied the
// last update (a synchronisation round acknowledged).

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "MountInterface.h"
#include "kiv/AttrLog.h"
#include "kiv/AttrLogStream.h"
#include "kiv/Clock.h"

using namespace Kiv::NboAttrLog;
using Clock = std::chrono::steady_clock;

namespace {

struct Tree {
  Kiv::Ptr<Kiv::Dir> dir = Kiv::Dir::DirIs("local");
  Kiv::Ptr<Controller::ServiceMountStatus> root;
  std::vector<Kiv::Ptr<Controller::MountStatus>> members;

  explicit Tree(int n) {
    root = dir->entryIs<Controller::ServiceMountStatus>("svc");
    auto group = root->systemStatusIs("00:00:00:00:00:01")->serviceMountGroupStatusIs("g");
    for (int i = 0; i < n; ++i) members.push_back(group->mountStatusIs("/path/" + std::to_string(i)));
  }
  void update(long i) {
    auto const n = static_cast<long>(members.size());
    members[static_cast<std::size_t>(i % n)]->mountStateIs(static_cast<Controller::MountState>(1 + (i / n) % 4));
  }
};

void report(char const* what, long updates, double seconds, Demuxer const& a, std::uint64_t bytes0,
            std::uint64_t frames0) {
  auto const n = static_cast<double>(updates);
  std::printf("%-11s %ld updates in %.3f s: %.0f updates/s, %.2f bytes/update, %.3f frames/update\n", what, updates,
              seconds, n / seconds, static_cast<double>(a.bytesOut() - bytes0) / n,
              static_cast<double>(a.framesOut() - frames0) / n);
}

void inProcess(long updates, int members) {
  Kiv::EventLoop loop;
  Tree tree(members);
  Kiv::Ptr<Demuxer> a = Demuxer::DemuxerIs("a", false);
  Kiv::Ptr<Demuxer> b = Demuxer::DemuxerIs("b", true);
  a->mountIs("svc", tree.root);
  Kiv::Ptr<InProcessStream> stream = InProcessStream::InProcessStreamIs(a, b);
  loop.runUntilIdle();
  std::uint64_t const bytes0 = a->bytesOut(), frames0 = a->framesOut();
  auto const start = Clock::now();
  for (long i = 0; i < updates; ++i) {
    tree.update(i);
    if (i % 256 == 255) loop.runUntilIdle();
  }
  a->mountTable(Demuxer::kRequestTable)->nextRoundIs(1);
  while (a->mountTable(Demuxer::kAppliedTable)->round() < 1) loop.runUntilIdle();
  double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
  report("in-process", updates, seconds, *a, bytes0, frames0);
}

void overSocket(long updates, int members) {
  auto [mine, theirs] = SocketStream::socketPair();
  pid_t const child = ::fork();
  if (child == 0) {
    ::close(mine);
    Kiv::EventLoop loop;
    Kiv::Ptr<Demuxer> b = Demuxer::DemuxerIs("b", true);
    Kiv::Ptr<SocketStream> s = SocketStream::SocketStreamIs(theirs, b);
    while (s->pump(1.0)) {
    }
    ::_exit(b->error().empty() ? 0 : 1);
  }
  ::close(theirs);
  Kiv::EventLoop loop;
  Tree tree(members);
  Kiv::Ptr<Demuxer> a = Demuxer::DemuxerIs("a", false);
  a->mountIs("svc", tree.root);
  Kiv::Ptr<SocketStream> s = SocketStream::SocketStreamIs(mine, a);
  a->mountTable(Demuxer::kRequestTable)->nextRoundIs(1);
  while (a->mountTable(Demuxer::kAppliedTable)->round() < 1) s->pump(0.1);
  std::uint64_t const bytes0 = a->bytesOut(), frames0 = a->framesOut();
  auto const start = Clock::now();
  for (long i = 0; i < updates; ++i) {
    tree.update(i);
    // Drained in batches that fit the output, so that no update is merged into a later one.
    if (i % 256 == 255)
      while (!a->output().empty()) s->pump(0.1);
  }
  a->mountTable(Demuxer::kRequestTable)->nextRoundIs(2);
  while (a->mountTable(Demuxer::kAppliedTable)->round() < 2) s->pump(0.1);
  double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
  report("socket", updates, seconds, *a, bytes0, frames0);
  s = nullptr;
  int status = 0;
  ::waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) std::fprintf(stderr, "the receiving process failed\n");
}

}  // namespace

int main(int argc, char** argv) {
  long const updates = argc > 1 ? std::atol(argv[1]) : 2000000;
  int const members = argc > 2 ? std::atoi(argv[2]) : 1000;
  if (updates <= 0 || members <= 0) {
    std::fprintf(stderr, "usage: attrlog_bench [updates] [members]\n");
    return 2;
  }
  inProcess(updates, members);
  overSocket(updates, members);
  return 0;
}
