// Replays the fuzzing corpus through the fuzz entry point (see AttrLogFuzz.cpp), or writes the
// seed corpus.
//
//   attrlog_replay DIR...        replays every file; exit status 0 when nothing crashed
//   attrlog_replay --seed DIR    writes the seed streams into DIR

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "kiv/AttrLog.h"
#include "kiv/AttrLogStream.h"
#include "kiv/Clock.h"
#include "model/tests/ModelTrees.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

using namespace Kiv::NboAttrLog;

namespace {

// The bytes a receiver got on one connection that replicated the model trees and the scripted
// changes up to `steps`, with a round at the end; prefixed by the split byte of the fuzz input.
std::vector<std::uint8_t> recorded(int steps, std::size_t room) {
  Kiv::EventLoop loop;
  Kiv::Ptr<Kiv::Dir> local = Kiv::Dir::DirIs("local");
  modeltrees::build(*local);
  Kiv::Ptr<Demuxer> a = Demuxer::DemuxerIs("a", false);
  Kiv::Ptr<Demuxer> b = Demuxer::DemuxerIs("b", true);
  a->outputRoomIs(room);
  for (auto it = local->entityPtrIter(); it; ++it) a->mountIs(it.key(), it.value());
  Kiv::Ptr<InProcessStream> stream = InProcessStream::InProcessStreamIs(a, b);
  std::vector<std::uint8_t> bytes{0};
  auto take = [&] {
    stream->stalledIs(true);
    bytes.insert(bytes.end(), a->output().begin(), a->output().end());
    stream->stalledIs(false);
    loop.runUntilIdle();
  };
  take();
  for (int step = 1; step <= steps; ++step) {
    stream->stalledIs(true);
    modeltrees::change(*local, step);
    a->mountTable(Demuxer::kRequestTable)->nextRoundIs(static_cast<std::uint64_t>(step));
    bytes.insert(bytes.end(), a->output().begin(), a->output().end());
    stream->stalledIs(false);
    loop.runUntilIdle();
  }
  return bytes;
}

int seed(std::filesystem::path const& dir) {
  std::filesystem::create_directories(dir);
  int n = 0;
  for (int steps = 0; steps <= modeltrees::kSteps; ++steps) {
    for (std::size_t room : {std::size_t(64 * 1024)}) {
      std::vector<std::uint8_t> const bytes = recorded(steps, room);
      std::ofstream(dir / ("seed-" + std::to_string(steps) + "-" + std::to_string(room)), std::ios::binary)
          .write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
      ++n;
    }
  }
  std::printf("wrote %d seeds to %s\n", n, dir.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--seed") return seed(argv[2]);
  if (argc < 2) {
    std::fprintf(stderr, "usage: attrlog_replay DIR... | attrlog_replay --seed DIR\n");
    return 2;
  }
  std::size_t files = 0;
  for (int i = 1; i < argc; ++i) {
    for (auto const& entry : std::filesystem::directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      std::ifstream in(entry.path(), std::ios::binary);
      std::vector<std::uint8_t> const bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++files;
    }
  }
  std::printf("replayed %zu inputs\n", files);
  return files == 0 ? 1 : 0;
}
