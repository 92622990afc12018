// The attribute-log receiver under untrusted bytes: whatever arrives, the process lives, a bad
// frame ends the connection with an error, and the replicas hold only whole updates.
//
// Built two ways: with libFuzzer (clang, -DKIV_FUZZ=ON) as attrlog_fuzz, and as attrlog_replay,
// which replays a corpus (every file of the directories given) as a test, or writes the seed
// corpus with --seed DIR: streams recorded from real replication of every mount interface type.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kiv/AttrLog.h"
#include "kiv/AttrLogStream.h"
#include "kiv/Clock.h"
#include "model/tests/ModelTrees.h"

using namespace Kiv::NboAttrLog;

namespace {

// Takes everything the demuxer writes (its acknowledgements) and drops it.
class Sink : public Transport {
 public:
  explicit Sink(Demuxer& d) : demuxer_(d) {}
  void handleOutput() override {
    if (!draining_) {
      draining_ = true;
      demuxer_.outputConsumed(demuxer_.output().size());
      draining_ = false;
    }
  }
  void close() override { closed = true; }
  bool closed = false;

 private:
  Demuxer& demuxer_;
  bool draining_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static Kiv::EventLoop* const loop = new Kiv::EventLoop();
  Kiv::Ptr<Demuxer> demuxer = Demuxer::DemuxerIs("fuzz", true);
  Sink sink(*demuxer);
  demuxer->connectionIs(&sink);
  // The first byte splits the rest in two deliveries, so frames also arrive cut anywhere.
  std::size_t const cut = size == 0 ? 0 : 1 + data[0] % size;
  demuxer->bytesIn(data + (size ? 1 : 0), cut - (size ? 1 : 0));
  if (!sink.closed) demuxer->bytesIn(data + cut, size - cut);
  bool const failed = sink.closed;
  demuxer->connectionDel();
  // A closed connection always says why.
  if (failed && demuxer->error().empty()) __builtin_trap();
  // Whatever was applied can be read back whole.
  modeltrees::dump(*demuxer->replicaDir());
  loop->runUntilIdle();
  return 0;
}
