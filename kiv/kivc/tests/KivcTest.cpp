// Each file in golden/ holds a small definitions file, one construct's worth, then the code kivc
// generates from it. After an intended change to the generated code, rewrite their generated
// parts and review the difference before committing:
//
//   KIVC_UPDATE_GOLDEN=1 ./kiv/kivc/tests/kivc_tests --gtest_filter='Golden.*'

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "kiv/kivc/Emit.h"
#include "kiv/kivc/Parser.h"

namespace {

namespace fs = std::filesystem;

std::string const kTestsDir = KIVC_TESTS_DIR;

std::string readFile(fs::path const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(fs::path const& path, std::string const& text) { std::ofstream(path, std::ios::binary) << text; }

kivc::Output compile(std::string const& file, std::string const& text) {
  std::vector<kivc::Error> errors;
  kivc::Unit unit = kivc::parse(file, text, errors);
  EXPECT_TRUE(errors.empty()) << file << ": " << (errors.empty() ? "" : errors.front().message);
  return kivc::emit(unit);
}

TEST(Golden, EachConstructMatchesItsGoldenFile) {
  std::string const marker = "==== generated\n";
  char const* const flag = std::getenv("KIVC_UPDATE_GOLDEN");
  bool const update = flag && std::string(flag) == "1";
  std::vector<fs::path> files;
  for (auto const& entry : fs::directory_iterator(fs::path(kTestsDir) / "golden")) files.push_back(entry.path());
  ASSERT_GE(files.size(), 11u);
  for (fs::path const& golden : files) {
    std::string const text = readFile(golden);
    std::size_t const at = text.find(marker);
    ASSERT_NE(at, std::string::npos) << golden.string();
    kivc::Output const out = compile(golden.filename().string(), text.substr(0, at));
    // A machine's golden holds the machine files, an entity construct's the others.
    bool const machine = golden.filename().string().starts_with("Machine");
    std::string generated;
    for (auto const& [file, part] : {std::pair{".h", &out.header}, {".cpp", &out.source}, {"Testing.h", &out.testing},
                                     {"Machines.h", &out.machinesHeader}, {"Machines.cpp", &out.machinesSource}})
      if (std::string_view(file).starts_with("Machines") == machine)
        generated += std::string("==== <stem>") + file + "\n" + *part;
    if (update)
      writeFile(golden, text.substr(0, at) + marker + generated);
    else
      EXPECT_EQ(text.substr(at + marker.size()), generated)
          << golden.string() << " differs (rerun with KIVC_UPDATE_GOLDEN=1 if intended)";
  }
}

struct BadCase {
  char const* what;
  char const* text;
  char const* diagnostic;
};

BadCase const kBad[] = {
    {"unknown type", "namespace Ns;\nentity E {\n  mutable x : Colour;\n}\n", "3:3: error: unknown type 'Colour'"},
    {"reserved name", "namespace Ns;\nentity E {\n  mutable parent : bool;\n}\n",
     "3:3: error: attribute name parent is reserved by the framework or the generated code"},
    {"bad attribute kind", "namespace Ns;\nentity E {\n  mutible x : bool;\n}\n",
     "3:3: error: expected an attribute kind (derived, const, init, mutable, ref, owner, collection, set) but found 'mutible'"},
    {"collection of a non-entity", "namespace Ns;\nentity E {\n  collection c : Name -> String;\n}\n",
     "3:3: error: attribute c of E is a collection, so its members must be an entity type"},
    {"set holding an entity", "namespace Ns;\nentity M {}\nentity E {\n  set s : Name -> M;\n}\n",
     "4:3: error: attribute s of E is a set, so it holds plain values, not entities"},
    {"bad key type", "namespace Ns;\nentity E {\n  set s : I32 -> bool;\n}\n",
     "3:3: error: attribute s of E has key type I32; keys are Name, String, U32, U64, an enumeration or a value type"},
    {"missing ';'", "namespace Ns;\nentity E {\n  mutable x : bool\n}\n", "4:1: error: expected ';' but found '}'"},
    {"unclosed string", "namespace Ns;\ninclude \"kiv/Clock.h;\n", "2:9: error: string is not closed on its line"},
    {"stray character first", "@", "1:1: error: unexpected character '@'"},
    {"enum number used twice", "namespace Ns;\nenum C {\n  red = 1;\n  blue = 1;\n}\n", "4:3: error: number 1 is used twice in C"},
    {"namespace after a type", "namespace Ns;\nenum C { a = 0; }\nnamespace Other;\n",
     "3:1: error: the namespace must be declared once, before any type"},
    {"type before the namespace", "entity E {}\n", "1:1: error: declare the namespace before the first type"},
    {"derived number without expression", "namespace Ns;\nentity E {\n  derived n : U32;\n}\n",
     "3:3: error: attribute n of E derives from the entity's name, so its type must be String or Name"},
    {"collection member from another file",
     "namespace Ns;\nextern entity Other::M;\nentity E {\n  collection m : Name -> M;\n}\n",
     "4:3: error: attribute m of E holds M, which must be declared in this file so its constructor parameters are known"},
    {"reference to a non-entity", "namespace Ns;\nentity E {\n  ref r : String;\n}\n",
     "3:3: error: 'String' is not a known entity type"},
    {"compares an unknown name", "namespace Ns;\nentity E {\n  collection m : Name -> M compare (a, z);\n}\n"
     "entity M {\n  const a : U32;\n}\n",
     "3:3: error: attribute m of E compares z, which is not an attribute of M"},
    {"compares a non-const", "namespace Ns;\nentity M {\n  const a : U32;\n  init b : U32;\n}\n"
     "entity E {\n  collection m : Name -> M compare (b, a);\n}\n",
     "7:3: error: attribute m of E compares b, which is not a const attribute of M"},
    {"compare list short", "namespace Ns;\nentity M {\n  const a : U32;\n  const b : U32;\n}\n"
     "entity E {\n  collection m : Name -> M compare (b);\n}\n",
     "7:3: error: attribute m of E leaves const attribute a of M out of its compare list"},
    {"compare listed twice", "namespace Ns;\nentity M {\n  const a : U32;\n}\n"
     "entity E {\n  collection m : Name -> M compare (a, a);\n}\n",
     "6:3: error: attribute m of E compares a twice"},
    {"compare on a set", "namespace Ns;\nentity E {\n  set s : Name -> bool compare (a);\n}\n",
     "3:24: error: a set has no constructor parameters to compare; 'compare' is for collections"},
    {"option given twice", "namespace Ns;\nentity E {\n  set s : Name -> bool hint 2 hint 3;\n}\n",
     "3:31: error: option hint is given twice"},
    {"key not quoted", "namespace Ns;\nentity E {\n  set s : Name -> bool key v;\n}\n",
     "3:28: error: expected a quoted C++ expression after 'key'"},
    {"replicate before the namespace", "replicate;\nnamespace Ns;\n",
     "1:1: error: declare the namespace before 'replicate'"},
    {"replicate after a type", "namespace Ns;\nenum C { a = 0; }\nreplicate;\n",
     "3:1: error: replicate must come before any type"},
    {"parameter named like the adapter's decoder", "namespace Ns;\nreplicate;\nentity E {\n  init d : U32;\n}\n",
     "4:3: error: attribute name d is reserved by the framework or the generated code"},
    {"machine before the unit", "namespace Ns;\nmachine M \"m.h\" {}\n",
     "2:1: error: declare the unit (unit \"X.tin\" trace ...) before a machine"},
    {"unit twice", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nunit \"b.tin\" trace t \"T\";\n",
     "3:1: error: the unit is declared twice"},
    {"header missing", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nmachine M {}\n",
     "3:11: error: expected the machine's header path in quotes but found '{'"},
    {"unknown member kind", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nmachine M \"m.h\" {\n  parm x : bool;\n}\n",
     "4:3: error: expected a machine member (param, owner, watch, watches, children, timer, signature, trace) but found 'parm'"},
    {"valid on a value", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nmachine M \"m.h\" {\n  param x : bool valid;\n}\n",
     "4:3: error: parameter x of M is not a pointer, so it cannot be 'valid'"},
    {"watch of a value", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nmachine M \"m.h\" {\n  watch x : Name { on a -> h; }\n}\n",
     "4:3: error: watch x of M must be a Ptr<T> or PtrConst<T> of an entity"},
    {"watch with nothing to hear", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nentity E {}\nmachine M \"m.h\" {\n  param e : Ptr<E> {}\n}\n",
     "5:3: error: e watches no notification"},
    {"state outside watches",
     "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nentity E {}\nmachine M \"m.h\" {\n  watch e : Ptr<E> { state s : bool; }\n}\n",
     "5:22: error: expected 'on' but found 'state'"},
    {"owner not a machine", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nmachine M \"m.h\" {\n  owner p : Q;\n}\n",
     "3:1: error: the owner of M, Q, is not a machine of this file"},
    {"children of a non-machine", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nmachine M \"m.h\" {\n  children c : Name -> Q;\n}\n",
     "4:3: error: children c of M holds Q, which is not a machine of this file"},
    {"children owned elsewhere",
     "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nmachine M \"m.h\" {\n  children c : Name -> C;\n}\nmachine C \"c.h\" {}\n",
     "4:3: error: children c of M holds C, whose owner is not M"},
    {"check of a value parameter",
     "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nmachine M \"m.h\" {\n  children c : Name -> C check (x);\n}\n"
     "machine C \"c.h\" {\n  param x : bool;\n  owner m : M;\n}\n",
     "4:3: error: children c of M checks x, which is not a pointer parameter of C"},
};

TEST(Diagnostics, EachBadDefinitionGivesOneLocatedError) {
  for (BadCase const& bad : kBad) {
    std::vector<kivc::Error> errors;
    kivc::Unit unit = kivc::parse("bad.kiv", bad.text, errors);
    ASSERT_EQ(errors.size(), 1u) << bad.what << ": " << (errors.empty() ? "" : errors.front().message);
    kivc::Error const& e = errors.front();
    std::string const shown = e.at.file + ":" + std::to_string(e.at.line) + ":" + std::to_string(e.at.column) +
                              ": error: " + e.message;
    EXPECT_EQ(shown, std::string("bad.kiv:") + bad.diagnostic) << bad.what;
    EXPECT_TRUE(unit.entities.empty() && unit.enums.empty() && unit.values.empty() && unit.machines.empty())
        << bad.what;
  }
}

// The executable itself: a bad file fails with the located diagnostic on standard error.
TEST(Executable, BadFileFailsWithTheDiagnosticAndWritesNothing) {
  fs::path const dir = fs::temp_directory_path() / ("kivc_tests_" + std::to_string(::getpid()));
  fs::remove_all(dir);
  fs::create_directories(dir);
  writeFile(dir / "Bad.kiv", kBad[0].text);
  std::string const command = std::string("'") + KIVC_PATH + "' --out-dir '" + (dir / "out").string() + "' '" +
                              (dir / "Bad.kiv").string() + "' 2>'" + (dir / "stderr").string() + "'";
  int const status = std::system(command.c_str());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  EXPECT_EQ(readFile(dir / "stderr"), (dir / "Bad.kiv").string() + ":3:3: error: unknown type 'Colour'\n");
  EXPECT_TRUE(!fs::exists(dir / "out") || fs::is_empty(dir / "out"));
  fs::remove_all(dir);
}

}  // namespace
