// Replays the scenario corpus through the fuzz entry point (see ScenarioFuzz.cpp).
//
//   scenario_replay DIR...   replays every file; exit status 0 when each one was read or
//                            refused with a ScenarioError, and nothing else escaped

#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: scenario_replay DIR...\n");
    return 2;
  }
  std::size_t files = 0, escaped = 0;
  for (int i = 1; i < argc; ++i) {
    for (auto const& entry : std::filesystem::directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      std::ifstream in(entry.path(), std::ios::binary);
      std::vector<std::uint8_t> const bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
      ++files;
      try {
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      } catch (std::exception const& e) {
        std::fprintf(stderr, "%s: escaped the reader: %s\n", entry.path().c_str(), e.what());
        ++escaped;
      } catch (...) {
        std::fprintf(stderr, "%s: escaped the reader: an exception of unknown type\n", entry.path().c_str());
        ++escaped;
      }
    }
  }
  std::printf("replayed %zu inputs, %zu escaped\n", files, escaped);
  return files == 0 || escaped > 0 ? 1 : 0;
}
