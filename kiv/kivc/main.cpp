// kivc: compiles entity type definitions into C++.
//
//   kivc --out-dir DIR FILE.kiv...
//
// Writes DIR/<stem>.h, DIR/<stem>.cpp, DIR/<stem>Testing.h and the machine bases
// DIR/<stem>Machines.{h,cpp} for each file; an output whose text
// is unchanged is not rewritten, so builds stay incremental. Diagnostics go to stderr as
// "file:line:column: error: sentence" and make the exit status 1.

#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "kiv/kivc/Emit.h"
#include "kiv/kivc/Parser.h"

namespace {

bool writeIfChanged(std::filesystem::path const& path, std::string const& text) {
  std::ifstream in(path, std::ios::binary);
  if (in) {
    std::ostringstream old;
    old << in.rdbuf();
    if (old.str() == text) return true;
  }
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  return static_cast<bool>(out);
}

int usage() {
  std::cerr << "usage: kivc --out-dir DIR FILE.kiv...\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::filesystem::path outDir;
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--out-dir" && i + 1 < argc) {
      outDir = argv[++i];
    } else if (arg == "--help" || arg == "-h") {
      usage();
      return 0;
    } else if (!arg.empty() && arg[0] == '-') {
      return usage();
    } else {
      files.push_back(arg);
    }
  }
  if (outDir.empty() || files.empty()) return usage();
  std::filesystem::create_directories(outDir);

  int status = 0;
  for (std::string const& file : files) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
      std::cerr << file << ":1:1: error: cannot read the file\n";
      status = 1;
      continue;
    }
    std::ostringstream text;
    text << in.rdbuf();
    std::vector<kivc::Error> errors;
    kivc::Unit unit = kivc::parse(file, text.str(), errors);
    if (!errors.empty()) {
      for (kivc::Error const& e : errors)
        std::cerr << e.at.file << ':' << e.at.line << ':' << e.at.column << ": error: " << e.message << '\n';
      status = 1;
      continue;
    }
    kivc::Output out = kivc::emit(unit);
    bool ok = writeIfChanged(outDir / (unit.stem + ".h"), out.header) &&
              writeIfChanged(outDir / (unit.stem + ".cpp"), out.source) &&
              writeIfChanged(outDir / (unit.stem + "Testing.h"), out.testing) &&
              writeIfChanged(outDir / (unit.stem + "Machines.h"), out.machinesHeader) &&
              writeIfChanged(outDir / (unit.stem + "Machines.cpp"), out.machinesSource);
    if (!ok) {
      std::cerr << file << ":1:1: error: cannot write the output in " << outDir.string() << '\n';
      status = 1;
    }
  }
  return status;
}
