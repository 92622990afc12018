// Each construct's generated code is compared with its own golden file (golden/<name>.golden),
// which holds only the lines about that construct. After an intended change to the generated
// code, rewrite them and review the difference before committing:
//
//   KIVC_UPDATE_GOLDEN=1 ./kiv/kivc/tests/kivc_tests --gtest_filter='Golden.*'

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
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

std::vector<std::string> lines(std::string const& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// The first differing line with a little context, in the manner of a unified diff.
std::string diffHint(std::string const& expected, std::string const& actual) {
  std::vector<std::string> e = lines(expected), a = lines(actual);
  std::size_t at = 0;
  while (at < e.size() && at < a.size() && e[at] == a[at]) ++at;
  std::ostringstream out;
  out << "@@ first difference at line " << at + 1 << " @@\n";
  for (std::size_t i = at > 3 ? at - 3 : 0; i < at; ++i) out << "  " << e[i] << '\n';
  for (std::size_t i = at; i < std::min(e.size(), at + 4); ++i) out << "- " << e[i] << '\n';
  for (std::size_t i = at; i < std::min(a.size(), at + 4); ++i) out << "+ " << a[i] << '\n';
  return out.str();
}

kivc::Output compile(std::string const& file, std::string const& text) {
  std::vector<kivc::Error> errors;
  kivc::Unit unit = kivc::parse(file, text, errors);
  EXPECT_TRUE(errors.empty()) << file << ": " << (errors.empty() ? "" : errors.front().message);
  return kivc::emit(unit);
}

kivc::Output compile(std::string const& file) { return compile(file, readFile(file)); }

enum class Part { header, source, testing };

// Whole lines of one output file: from the line where `from` begins to the first line that
// starts with `to`, or to the end of the file when `to` is empty.
struct Cut {
  Part part;
  std::string from;
  std::string to = {};
};

struct GoldenCase {
  char const* name;  // the definitions are <name>.kiv, the golden file golden/<name>.golden
  char const* kiv;
  std::vector<Cut> cuts;
};

// An entity's class, definitions and traits, when it is the file's last entity.
std::vector<Cut> lastEntity(std::string const& name) {
  return {{Part::header, "class " + name + " : public Kiv::Entity {"},
          {Part::source, "namespace {\nKiv::AttrInfo const kiv" + name + "Attrs[]"},
          {Part::testing, "template <>\nstruct Traits<" + name + ">"}};
}

std::vector<Cut> const kWholeFiles{{Part::header, "// Generated"}, {Part::source, "// Generated"},
                                   {Part::testing, "// Generated"}};
std::vector<Cut> const kNamespaceBody{{Part::header, "namespace Ns {"}, {Part::source, "namespace Ns {"}};

GoldenCase const kGolden[] = {
    {"Frame", "namespace Outer::Inner;\nreplicate;\ninclude \"kiv/Clock.h\";\n", kWholeFiles},
    {"Enum", "namespace Ns;\nenum Color {\n  colorRed = 0;\n  colorBlue = 7;\n}\n", kNamespaceBody},
    // One field makes the constructor explicit; a value of the same file is hashed by its hash().
    {"Value", "namespace Ns;\nvalue Id {\n  n : U32;\n}\nvalue Label {\n  id : Id;\n  text : String;\n}\n",
     kNamespaceBody},
    {"Attributes", R"kiv(namespace Ns;
entity Panel {}
entity Gauge {
  derived gaugeName : Name;
  derived length : U32 = "static_cast<std::uint32_t>(name().size())";
  const unit : String;
  init label : String;
  mutable reading : I32;
  ref next : Gauge;
  ref first : const Gauge;
  owner panel : Panel;
}
)kiv",
     lastEntity("Gauge")},
    // The member's owner is cleared before its parent; byTitle has every option.
    {"Collection", R"kiv(namespace Ns;
entity Book {
  const title : String;
  const edition : U32;
  init note : String;
  owner shelf : Shelf;
}
entity Shelf {
  collection book : Name -> Book;
  collection byTitle : String -> Book compare (edition, title) key "title" hint 8;
}
)kiv",
     lastEntity("Shelf")},
    {"Set", R"kiv(namespace Ns;
entity Box {
  set count : Name -> U32;
  set label : String -> String key "v" hint 4;
}
)kiv",
     lastEntity("Box")},
    {"FactoryAndSingleton", R"kiv(namespace Ns;
entity Pool factory {
  const size : U32;
}
entity Root singleton {
  init motto : String;
}
)kiv",
     {{Part::header, "// A free-standing instance, not held", "  static Kiv::Ptr<Pool> PoolIs("},
      {Part::source, "Kiv::Ptr<Pool> Pool::PoolIs(", "}"},
      {Part::header, "// A free-standing instance named by the empty name", "  static Kiv::Ptr<Root> RootIs("},
      {Part::source, "Kiv::Ptr<Root> Root::RootIs(", "}"}}},
    // Every attribute kind that travels; Shelf's adapter and its hooks in Shelf's type info.
    {"Adapter", R"kiv(namespace Ns;
replicate;
entity Book {
  const title : String;
  init note : String;
}
entity Shelf {
  mutable size : U32;
  ref best : const Book;
  collection book : Name -> Book;
  set tag : String -> bool;
}
)kiv",
     {{Part::header, "// Replicates a Shelf "},
      {Part::source, "Kiv::NboAttrLog::Adapter* kivCreateShelfNboAttrLogSa(", "}"},
      {Part::source, "Kiv::TypeInfo const& Shelf::kivTypeInfo() {", "}"},
      {Part::source, "Shelf::KivNboAttrLogSa::KivNboAttrLogSa("}}},
};

std::string cut(std::string const& text, Cut const& c) {
  std::size_t const at = text.find(c.from);
  if (at == std::string::npos) {
    ADD_FAILURE() << "no '" << c.from << "' in the output";
    return {};
  }
  std::size_t const begin = at == 0 ? 0 : text.rfind('\n', at - 1) + 1;
  if (c.to.empty()) return text.substr(begin);
  for (std::size_t line = begin; line < text.size();) {
    std::size_t const end = std::min(text.find('\n', line), text.size());
    if (text.compare(line, c.to.size(), c.to) == 0) return text.substr(begin, end + 1 - begin);
    line = end + 1;
  }
  ADD_FAILURE() << "no line '" << c.to << "' after '" << c.from << "'";
  return {};
}

TEST(Golden, EachConstructMatchesItsGoldenFile) {
  char const* const flag = std::getenv("KIVC_UPDATE_GOLDEN");
  bool const update = flag && std::string(flag) == "1";
  for (GoldenCase const& g : kGolden) {
    std::string const name = g.name;
    kivc::Output const out = compile(name + ".kiv", g.kiv);
    std::string text;
    for (Cut const& c : g.cuts) {
      auto const [file, whole] = c.part == Part::header   ? std::pair{".h", &out.header}
                                 : c.part == Part::source ? std::pair{".cpp", &out.source}
                                                          : std::pair{"Testing.h", &out.testing};
      text += "==== " + name + file + " ====\n" + cut(*whole, c);
    }
    fs::path const golden = fs::path(kTestsDir) / "golden" / (name + ".golden");
    if (update) {
      writeFile(golden, text);
      continue;
    }
    std::string const expected = readFile(golden);
    EXPECT_TRUE(expected == text) << golden.string() << " differs (rerun with KIVC_UPDATE_GOLDEN=1 if intended)\n"
                                  << diffHint(expected, text);
  }
  if (update) GTEST_SKIP() << "golden files rewritten";
}

struct BadCase {
  char const* what;
  char const* text;
  char const* diagnostic;
};

BadCase const kBad[] = {
    {"unknown type", "namespace Ns;\nentity E {\n  mutable x : Colour;\n}\n", "3:3: error: unknown type 'Colour'"},
    {"duplicate attribute", "namespace Ns;\nentity E {\n  mutable x : bool;\n  const x : String;\n}\n",
     "4:3: error: attribute x is declared twice"},
    {"reserved name", "namespace Ns;\nentity E {\n  mutable parent : bool;\n}\n",
     "3:3: error: attribute name parent is reserved by the framework or the generated code"},
    {"duplicate type", "namespace Ns;\nvalue E { a : bool; }\nentity E {}\n", "3:1: error: type E is declared twice"},
    {"bad attribute kind", "namespace Ns;\nentity E {\n  mutible x : bool;\n}\n",
     "3:3: error: expected an attribute kind (derived, const, init, mutable, ref, owner, collection, set) but found 'mutible'"},
    {"collection of a non-entity", "namespace Ns;\nentity E {\n  collection c : Name -> String;\n}\n",
     "3:3: error: attribute c of E is a collection, so its members must be an entity type"},
    {"set holding an entity", "namespace Ns;\nentity M {}\nentity E {\n  set s : Name -> M;\n}\n",
     "4:3: error: attribute s of E is a set, so it holds plain values, not entities"},
    {"bad key type", "namespace Ns;\nentity E {\n  set s : I32 -> bool;\n}\n",
     "3:3: error: attribute s of E has key type I32; keys are Name, String, U32, U64, an enumeration or a value type"},
    {"missing ';'", "namespace Ns;\nentity E {\n  mutable x : bool\n}\n", "4:1: error: expected ';' but found '}'"},
    {"missing ';' at the end", "namespace Ns", "1:13: error: expected ';' but found the end of the file"},
    {"unclosed string", "namespace Ns;\ninclude \"kiv/Clock.h;\n", "2:9: error: string is not closed on its line"},
    {"unclosed string first", "\"abc", "1:1: error: string is not closed on its line"},
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
    {"entity held by value", "namespace Ns;\nentity M {}\nentity E {\n  mutable m : M;\n}\n",
     "4:3: error: attribute m of E cannot hold an entity by value; use Ptr<T> or PtrConst<T>"},
    {"init entity by value", "namespace Ns;\nentity M {}\nentity E {\n  init x : M;\n}\n",
     "4:3: error: attribute x of E cannot hold an entity by value; use Ptr<T> or PtrConst<T>"},
    {"owner of a non-entity", "namespace Ns;\nentity E {\n  owner o : String;\n}\n",
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
    {"replicate twice", "namespace Ns;\nreplicate;\nreplicate;\n", "3:1: error: replicate is declared twice"},
    {"replicate after a type", "namespace Ns;\nenum C { a = 0; }\nreplicate;\n",
     "3:1: error: replicate must come before any type"},
    {"parameter named like the adapter's decoder", "namespace Ns;\nreplicate;\nentity E {\n  init d : U32;\n}\n",
     "4:3: error: attribute name d is reserved by the framework or the generated code"},
};

TEST(Diagnostics, EachBadDefinitionGivesOneLocatedError) {
  for (BadCase const& bad : kBad) {
    std::vector<kivc::Error> errors;
    kivc::Unit unit = kivc::parse("bad.kiv", bad.text, errors);
    ASSERT_EQ(errors.size(), 1u) << bad.what;
    kivc::Error const& e = errors.front();
    std::string const shown = e.at.file + ":" + std::to_string(e.at.line) + ":" + std::to_string(e.at.column) +
                              ": error: " + e.message;
    EXPECT_EQ(shown, std::string("bad.kiv:") + bad.diagnostic) << bad.what;
    EXPECT_TRUE(unit.entities.empty() && unit.enums.empty() && unit.values.empty()) << bad.what;
  }
}

// Runs the compiler; its standard error goes to `errors`.
int runKivc(fs::path const& outDir, fs::path const& input, fs::path const& errors) {
  std::string const command = std::string("'") + KIVC_PATH + "' --out-dir '" + outDir.string() + "' '" +
                              input.string() + "' 2>'" + errors.string() + "'";
  int const status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class Executable : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = fs::temp_directory_path() / ("kivc_tests_" + std::to_string(::getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);
  }
  void TearDown() override { fs::remove_all(dir); }
  fs::path dir;
};

TEST_F(Executable, BadFileFailsWithTheDiagnosticAndWritesNothing) {
  writeFile(dir / "Bad.kiv", kBad[0].text);
  EXPECT_EQ(runKivc(dir / "out", dir / "Bad.kiv", dir / "stderr"), 1);
  EXPECT_EQ(readFile(dir / "stderr"), (dir / "Bad.kiv").string() + ":3:3: error: unknown type 'Colour'\n");
  EXPECT_TRUE(!fs::exists(dir / "out") || fs::is_empty(dir / "out"));
}

TEST_F(Executable, UnchangedOutputsAreNotRewritten) {
  fs::path const input = fs::path(kTestsDir) / "KitchenSink.kiv";
  ASSERT_EQ(runKivc(dir, input, dir / "stderr"), 0) << readFile(dir / "stderr");
  kivc::Output const expected = compile(input.string());
  std::vector<std::pair<fs::path, std::string>> const outputs{{dir / "KitchenSink.h", expected.header},
                                                              {dir / "KitchenSink.cpp", expected.source},
                                                              {dir / "KitchenSinkTesting.h", expected.testing}};
  // Backdated, so that any rewrite shows however coarse the file system's clock.
  auto const old = fs::file_time_type::clock::now() - std::chrono::hours(1);
  for (auto const& [path, text] : outputs) {
    EXPECT_EQ(readFile(path), text) << path;
    fs::last_write_time(path, old);
  }
  writeFile(dir / "KitchenSink.cpp", "stale");
  fs::last_write_time(dir / "KitchenSink.cpp", old);

  ASSERT_EQ(runKivc(dir, input, dir / "stderr"), 0);
  EXPECT_EQ(fs::last_write_time(dir / "KitchenSink.h"), old);
  EXPECT_EQ(fs::last_write_time(dir / "KitchenSinkTesting.h"), old);
  EXPECT_NE(fs::last_write_time(dir / "KitchenSink.cpp"), old);
  EXPECT_EQ(readFile(dir / "KitchenSink.cpp"), expected.source);
}

}  // namespace
