// The machine declarations: one small golden per construct, and one located error per mistake.
// After an intended change to the generated code, rewrite the goldens and review the difference:
//
//   KIVC_UPDATE_GOLDEN=1 ./kiv/kivc/tests/kivc_tests --gtest_filter='MachineGolden.*'

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "kiv/kivc/Emit.h"
#include "kiv/kivc/Parser.h"

namespace {

namespace fs = std::filesystem;

std::string const kPrelude =
    "namespace Ns;\n"
    "extern entity Ns::Config;\n"
    "extern entity Other::Status;\n"
    "extern value Ns::SwitchId;\n"
    "unit \"Unit.tin\" trace unitTrace \"NsUnit\";\n";

std::string readFile(fs::path const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void expectGolden(char const* name, std::string const& definitions) {
  std::vector<kivc::Error> errors;
  kivc::Unit const unit = kivc::parse("golden.kiv", kPrelude + definitions, errors);
  ASSERT_TRUE(errors.empty()) << errors.front().message;
  kivc::Output const out = kivc::emit(unit);
  std::string const text = out.machinesHeader + "//----- source\n" + out.machinesSource;
  fs::path const golden = fs::path(KIVC_TESTS_DIR) / "golden" / (std::string(name) + ".golden");
  char const* const flag = std::getenv("KIVC_UPDATE_GOLDEN");
  if (flag && std::string(flag) == "1") {
    std::ofstream(golden, std::ios::binary) << text;
    return;
  }
  EXPECT_EQ(readFile(golden), text) << golden.string() << " differs (rerun with KIVC_UPDATE_GOLDEN=1 if intended)";
}

// Parameters, the owner, the re-instantiation list and a child collection with a computed key,
// a checked parameter and a valid one.
TEST(MachineGolden, ParametersOwnerAndChildren) {
  expectGolden("machine_children",
               "machine TopSm \"top/TopSm.h\" {\n"
               "  param config : PtrConst<Config> valid;\n"
               "  children childSm : Name -> ChildSm key \"config->name()\" check (config) hint 4;\n"
               "}\n"
               "machine ChildSm \"top/ChildSm.h\" {\n"
               "  param config : PtrConst<Config> valid;\n"
               "  param label : Name uncompared;\n"
               "  param proxy : bool;\n"
               "  owner parent : TopSm;\n"
               "}\n");
}

// A reactor on a parameter with the three forms of notification, a retargetable watch, and one
// reactor per key with state.
TEST(MachineGolden, Reactors) {
  expectGolden("machine_reactors",
               "machine WatchSm \"w/WatchSm.h\" {\n"
               "  param config : PtrConst<Config> {\n"
               "    on ready -> handleReady;\n"
               "    on member(Name) -> handleMember;\n"
               "    on member(*) -> handleMember;\n"
               "  }\n"
               "  watch status : PtrConst<Other::Status> -> handleStatus { on up -> handleUp; }\n"
               "  watches peer : SwitchId -> PtrConst<Status> {\n"
               "    on connected -> handlePeerConnected;\n"
               "    on port(U32) -> handlePeerPort;\n"
               "    state seen : bool = \"true\";\n"
               "  }\n"
               "}\n");
}

// Timers, signature texts (overloads, a nested class, spelt types) and a trace prefix of its own.
TEST(MachineGolden, TimersSignaturesAndTrace) {
  expectGolden("machine_texts",
               "machine TimedSm \"t/TimedSm.h\" {\n"
               "  trace \"TimdSm::\";\n"
               "  timer retryClock -> handleRetry;\n"
               "  signature void handleSwitch(SwitchId);\n"
               "  signature void handleSwitch();\n"
               "  signature bool hasVersion(String, U32, PtrConst<Config>);\n"
               "  signature void KivInner::handleState();\n"
               "}\n");
}

struct BadCase {
  char const* what;
  char const* text;
  char const* diagnostic;
};

BadCase const kBad[] = {
    {"machine before the unit", "namespace Ns;\nmachine M \"m.h\" {}\n",
     "2:1: error: declare the unit (unit \"X.tin\" trace ...) before a machine"},
    {"unit twice", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nunit \"b.tin\" trace t \"T\";\n",
     "3:1: error: the unit is declared twice"},
    {"unit after a machine", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nmachine M \"m.h\" {}\nunit \"b.tin\" trace t \"T\";\n",
     "4:1: error: the unit is declared twice"},
    {"header missing", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nmachine M {}\n",
     "3:11: error: expected the machine's header path in quotes but found '{'"},
    {"unknown member kind", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nmachine M \"m.h\" {\n  parm x : bool;\n}\n",
     "4:3: error: expected a machine member (param, owner, watch, watches, children, timer, signature, trace) but found 'parm'"},
    {"member twice", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nmachine M \"m.h\" {\n  param x : bool;\n  timer x -> h;\n}\n",
     "5:3: error: member x of M is declared twice"},
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
    {"signature twice", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nmachine M \"m.h\" {\n  signature void f();\n  signature void f();\n}\n",
     "5:3: error: signature f of M is declared twice"},
    {"machine named like a type", "namespace Ns;\nunit \"a.tin\" trace t \"T\";\nentity M {}\nmachine M \"m.h\" {}\n",
     "4:1: error: type M is declared twice"},
};

TEST(MachineDiagnostics, EachBadDeclarationGivesOneLocatedError) {
  for (BadCase const& bad : kBad) {
    std::vector<kivc::Error> errors;
    kivc::Unit const unit = kivc::parse("bad.kiv", bad.text, errors);
    ASSERT_EQ(errors.size(), 1u) << bad.what << ": " << (errors.empty() ? "" : errors.front().message);
    kivc::Error const& e = errors.front();
    std::string const shown = e.at.file + ":" + std::to_string(e.at.line) + ":" + std::to_string(e.at.column) +
                              ": error: " + e.message;
    EXPECT_EQ(shown, std::string("bad.kiv:") + bad.diagnostic) << bad.what;
    EXPECT_TRUE(unit.machines.empty()) << bad.what;
  }
}

}  // namespace
