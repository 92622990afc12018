#pragma once
// Trees of every mount interface type for the replication tests and the fuzzer corpus: a builder
// with every kind of attribute away from its default, scripted changes, and a canonical text of a tree
// (members sorted by key, references as paths from the root) read through the generated test
// traits, so it owes nothing to the replication code it checks.

#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "MountInterfaceTesting.h"
#include "kiv/AttrLog.h"
#include "kiv/Dir.h"
#include "kiv/Generated.h"

namespace modeltrees {

using namespace Controller;

// The four root types; between them they hold all seventeen.
inline constexpr char const* kMountConfig = "svcA";
inline constexpr char const* kMountStatus = "svcA-status";
inline constexpr char const* kPublishConfig = "pub";
inline constexpr char const* kPublishStatus = "web";

inline void build(Kiv::Dir& dir) {
  auto c = dir.entryIs<ServiceMountConfig>(kMountConfig);
  c->serviceNameIs("alpha");
  c->warmIs(true);
  auto v1 = c->versionFilterIs("v1");
  v1->includedServiceVersionIs(1, true);
  v1->includedServiceVersionIs(2, false);  // present, with the default value
  auto s1 = c->systemFilterIs("s1");
  auto g1 = c->mountGroupConfigIs("g1");
  g1->versionFilterIs(v1);
  g1->systemFilterIs(s1);
  g1->preserveMountsOnDisconnectIs(true);
  g1->mountConfigIs("/a", "T1", "rw", "/local/a");
  c->mountGroupConfigIs("g2")->mountConfigIs("/c", "T3", "ro", "");

  auto st = dir.entryIs<ServiceMountStatus>(kMountStatus);
  st->mountedPathPrefixIs("/a", "/mnt/a");
  auto ms = st->systemStatusIs("00:00:00:00:00:01")->serviceMountGroupStatusIs("g1")->mountStatusIs("/a");
  ms->mountStateIs(mountStateMounted);
  ms->mountedPathIs("/mnt/a/x");
  st->initialMountsCompleteIs("g1", true);

  auto p = dir.entryIs<ServicePublishConfig>(kPublishConfig);
  p->readyIs(true);
  auto pg = p->publishGroupConfigIs("pg");
  pg->versionFilterIs(p->versionFilterIs("v"));
  pg->systemFilterIs(p->systemFilterIs("s"));
  pg->publishConfigIs("/db/x", "/r/x", "TX")->readyToPublishIs(true);
  pg->publishDirIs("/db/d", "TD");

  auto pst = dir.entryIs<ServicePublishStatus>(kPublishStatus);
  pst->servicePublishGroupStatusIs("pg")->publishStatusIs("/db/x")->publishStateIs(publishStateComplete);
}

inline constexpr int kSteps = 3;

// Step n of the scripted changes: values, then members and references, then deep structure.
inline void change(Kiv::Dir& dir, int step) {
  auto c = Kiv::entityCast<ServiceMountConfig>(dir.entityPtr(kMountConfig));
  auto st = Kiv::entityCast<ServiceMountStatus>(dir.entityPtr(kMountStatus));
  auto p = Kiv::entityCast<ServicePublishConfig>(dir.entityPtr(kPublishConfig));
  auto pst = Kiv::entityCast<ServicePublishStatus>(dir.entityPtr(kPublishStatus));
  switch (step) {
    case 1:
      c->warmIs(false);
      c->versionFilter("v1")->includedServiceVersionIs(2, true);
      c->versionFilter("v1")->includedServiceVersionDel(1);
      st->systemStatus("00:00:00:00:00:01")->serviceMountGroupStatus("g1")->mountStatus("/a")->mountStateIs(
          mountStateUnmounting);
      st->initialMountsCompleteIs("g2", true);
      p->readyIs(false);
      break;
    case 2: {
      auto g1 = c->mountGroupConfig("g1");
      g1->mountConfigDel("/a");
      g1->mountConfigIs("/a", "T1-new", "rw", "/local/a");  // the same key, other constructor parameters
      g1->systemFilterIs(nullptr);
      c->mountGroupConfig("g2")->versionFilterIs(c->versionFilter("v1"));
      c->systemFilterDel("s1");
      p->publishGroupConfig("pg")->publishDirDel("/db/d");
      break;
    }
    case 3: {
      auto gs = st->systemStatusIs("00:00:00:00:00:02")->serviceMountGroupStatusIs("g2");
      gs->mountStatusIs("/c")->mountedPathIs("/mnt/c");
      st->systemStatus("00:00:00:00:00:01")->serviceMountGroupStatusDel("g1");
      c->mountGroupConfigDel("g2");
      auto g3 = c->mountGroupConfigIs("g3");
      g3->versionFilterIs(c->versionFilterIs("v3"));
      g3->mountConfigIs("/e", "T5", "", "");
      pst->servicePublishGroupStatus("pg")->publishStatusDel("/db/x");
      break;
    }
  }
}

// What changes while a connection is down: a removal, a value, an unmount and a new mount.
inline void changeWhileDown(Kiv::Dir& dir, Kiv::NboAttrLog::Demuxer& demuxer) {
  auto st = Kiv::entityCast<ServiceMountStatus>(dir.entityPtr(kMountStatus));
  st->systemStatusDelAll();
  st->initialMountsCompleteDel("g1");
  st->serviceNameIs("after the break");
  demuxer.mountDel(kPublishStatus);
  dir.entityPtrDel(kPublishStatus);
  auto extra = dir.entryIs<ServicePublishStatus>("extra");
  extra->servicePublishGroupStatusIs("g")->publishStatusIs("/p");
  demuxer.mountIs("extra", extra);
}

// --- the canonical text ---

// The path of `e` below `root`: collection and member names joined by '/', "." for the root itself.
inline std::string pathFrom(Kiv::Entity const& root, Kiv::Entity const& e) {
  if (&e == &root) return ".";
  if (!e.parent()) return "outside " + e.fullName().stdString();
  return pathFrom(root, *e.parent()) + "/" + e.parentAttrName().stdString() + ":" + e.name().stdString();
}

template <class T>
void dumpEntity(T const& e, Kiv::Entity const& root, std::string const& indent, std::string& out);

template <class T>
struct DumpVisitor {
  T const& e;
  Kiv::Entity const& root;
  std::string const& indent;
  std::string& out;

  void line(char const* n, std::string const& v) { out += indent + n + " = " + v + "\n"; }
  void derived(char const* n, std::uint32_t, bool, auto read) { line(n, Kiv::strep(read(e))); }
  void constant(char const* n, std::uint32_t, int, auto read) { line(n, Kiv::strep(read(e))); }
  template <class P>
  void initial(char const* n, std::uint32_t, int, auto read, auto) { line(n, Kiv::strep(read(e))); }
  template <class P>
  void value(char const* n, std::uint32_t, auto read, auto) { line(n, Kiv::strep(read(e))); }
  template <class Target, bool isConst>
  void reference(char const* n, std::uint32_t, auto read, auto) {
    line(n, read(e) ? pathFrom(root, *read(e)) : "null");
  }
  template <class Target>
  void owner(char const*, std::uint32_t, auto, auto) {}
  template <class K, class M>
  void collection(char const* n, std::uint32_t, std::vector<std::string> const&, std::vector<std::string> const&, auto,
                  auto, auto, auto, auto, auto, auto, auto each) {
    std::map<std::string, M const*> members;
    each(e, [&](K const& k, auto const& m) { members[Kiv::strep(k)] = m.ptr(); });
    for (auto const& [k, m] : members) {
      out += indent + n + "[" + k + "]\n";
      dumpEntity<M>(*m, root, indent + "  ", out);
    }
  }
  template <class K, class V>
  void valueCollection(char const* n, std::uint32_t, auto, auto, auto, auto, auto, auto, auto, auto each) {
    std::map<std::string, std::string> entries;
    each(e, [&](K const& k, V const& v) { entries[Kiv::strep(k)] = Kiv::strep(v); });
    for (auto const& [k, v] : entries) out += indent + n + "[" + k + "] = " + v + "\n";
  }
};

template <class T>
void dumpEntity(T const& e, Kiv::Entity const& root, std::string const& indent, std::string& out) {
  DumpVisitor<T> v{e, root, indent, out};
  kivtesting::Traits<T>::visit(v);
}

// Every mount interface type; the conformance suite runs on the same list.
template <class... T>
struct TypeList {};
using AllTypes = TypeList<MountConfig, MountFilterSystem, MountFilterServiceVersion, ServiceMountGroupConfig,
                          ServiceMountConfig, MountStatus, ServiceMountGroupStatus, SystemStatus, MountedPathPrefix,
                          ServiceMountStatus, PublishConfig, PublishDir, ServicePublishGroupConfig,
                          ServicePublishConfig, PublishStatus, ServicePublishGroupStatus, ServicePublishStatus>;

template <class... T>
std::string dumpAny(Kiv::Entity const& e, TypeList<T...>) {
  std::string out = std::string(e.kivEntityType().name) + " " + e.name().stdString() + "\n";
  bool const known = ((&e.kivEntityType() == &T::kivTypeInfo() &&
                       (dumpEntity<T>(static_cast<T const&>(e), e, "  ", out), true)) ||
                      ...);
  if (!known) out += "  (not a mount interface type)\n";
  return out;
}

// One entity tree.
inline std::string dump(Kiv::Entity const& root) { return dumpAny(root, AllTypes{}); }

// Every entity of a directory, by name.
inline std::string dump(Kiv::Dir const& dir) {
  std::map<std::string, std::string> trees;
  for (auto it = dir.entityPtrIter(); it; ++it) trees[it.key().stdString()] = dump(*it.value());
  std::string out;
  for (auto const& [name, text] : trees) out += text;
  return out;
}

}  // namespace modeltrees
