#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "kiv/HashMap.h"
#include "kiv/Ptr.h"
#include "kiv/String.h"

namespace {

using Map = Kiv::HashMap<int, std::string>;

std::map<int, std::string> contents(Map const& m) {
  std::map<int, std::string> out;
  for (auto it = m.begin(); it; ++it) EXPECT_TRUE(out.emplace(it.key(), it.value()).second) << "visited twice";
  return out;
}

void fill(Map& m, int n) {
  for (int i = 0; i < n; ++i) m.insert(i, "v" + std::to_string(i));
}

// Present keys find their own value, absent ones nothing, and iteration agrees with size().
void expectLookups(Map const& m, int upTo) {
  auto all = contents(m);
  EXPECT_EQ(all.size(), m.size());
  for (int k = -1; k <= upTo; ++k) {
    std::string const* v = m.find(k);
    EXPECT_EQ(v ? *v : "(none)", all.contains(k) ? all[k] : "(none)") << k;
  }
}

TEST(HashMap, EraseTheMemberTheIterationStandsOn) {
  Map m;
  fill(m, 50);
  EXPECT_EQ(*m.insert(7, "other").first, "v7");  // present: keeps the stored value
  std::set<int> visited;
  std::string untouched = "untouched";
  for (auto it = m.begin(); it; ++it) {
    int k = it.key();
    EXPECT_TRUE(visited.insert(k).second);
    if (k % 3 == 0) {
      std::string out;
      EXPECT_TRUE(m.erase(it, &out));
      EXPECT_EQ(out, "v" + std::to_string(k));
      EXPECT_EQ(m.find(k), nullptr);
      EXPECT_FALSE(m.erase(it));  // already gone: nothing else may go with it
    } else if (k % 3 == 1) {
      m.erase(k);  // by key, under the iterator
      EXPECT_FALSE(it.live());
      EXPECT_FALSE(m.erase(it, &untouched));
    }
  }
  EXPECT_EQ(visited.size(), 50u);
  EXPECT_EQ(m.size(), 16u);
  EXPECT_EQ(untouched, "untouched");
  expectLookups(m, 60);
  m.checkInvariants();
}

// A member's destructor runs once the map is consistent again: it finds every other member.
class Probe : public Kiv::PtrInterface {
 public:
  using ProbeMap = Kiv::HashMap<int, Kiv::Ptr<Probe>>;
  Probe(ProbeMap* m, std::vector<int>* seen) : m_(m), seen_(seen) {}
  ~Probe() override {
    int found = 0;
    for (int k = 0; k < 8; ++k) found += m_->get(k) != nullptr;
    seen_->push_back(found);
    m_->checkInvariants();
  }

 private:
  ProbeMap* m_;
  std::vector<int>* seen_;
};

TEST(HashMap, MemberReleasedOnlyOnceTheMapIsConsistent) {
  Probe::ProbeMap m;
  std::vector<int> seen;
  for (int k = 0; k < 6; ++k) m.insert(k, Kiv::Ptr<Probe>(new Probe(&m, &seen)));
  m.erase(0);  // the last member moves into its place
  EXPECT_EQ(seen, std::vector<int>({5}));
  {
    auto it = m.begin();
    m.erase(it);
    m.erase(3);
  }
  EXPECT_EQ(seen, std::vector<int>({5, 4, 3}));
  {
    auto iteration = m.begin();
    m.clear();
  }
  m.insert(7, Kiv::Ptr<Probe>(new Probe(&m, &seen)));
  m.clear();
  EXPECT_EQ(seen, std::vector<int>({5, 4, 3, 0, 0, 0, 0}));
}

// Checked builds: the epoch moves when members move in memory, so a kept pointer can be
// checked; reading an iterator whose member was erased is fatal.
TEST(HashMap, EpochAndStaleIteratorChecks) {
  if (!KIV_CHECKS_ON) GTEST_SKIP() << "checks are compiled out";
  Map m;
  fill(m, 4);
  std::uint64_t const before = m.epoch();
  {
    auto it = m.begin();
    m.erase(it);  // with an iteration in flight nothing moves
    m.erase(3);
    EXPECT_EQ(m.epoch(), before);
    EXPECT_DEATH(it.key(), "iterator read after its member was erased");
  }
  EXPECT_NE(m.epoch(), before);  // the last iterator compacted
  std::uint64_t const compacted = m.epoch();
  m.erase(2);
  EXPECT_EQ(m.epoch(), compacted) << "erasing the last slot moves nothing";
  fill(m, 100);  // grows
  EXPECT_NE(m.epoch(), compacted);
}

TEST(HashMap, EraseOthersAndInsertDuringIteration) {
  Map m;
  fill(m, 20);
  std::set<int> visited;
  std::set<int> erasedUnvisited;
  for (auto& entry : m) {
    visited.insert(entry.key);
    if (entry.key == 5) {
      for (int k = 0; k < 20; ++k) {
        if (k % 2 == 1 && k != 5) {
          m.erase(k);
          if (!visited.contains(k)) erasedUnvisited.insert(k);
        }
      }
      for (int k = 100; k < 140; ++k) m.insert(k, "new");  // forces growth mid-iteration
    }
  }
  for (int k : erasedUnvisited) EXPECT_FALSE(visited.contains(k)) << k;
  for (int k = 100; k < 140; ++k) EXPECT_TRUE(visited.contains(k)) << "member added during iteration not visited";
  EXPECT_EQ(m.size(), 20u - 9u + 40u);
  expectLookups(m, 150);
}

TEST(HashMap, ClearDuringIterationThenReuse) {
  Map m;
  fill(m, 30);
  // Nothing is visited after the clear, not even a member added just before it.
  bool cleared = false;
  for (auto it = m.begin(); it; ++it) {
    EXPECT_FALSE(cleared) << it.key();
    if (it.key() == 4) {
      m.insert(77, "late");
      m.clear();
      cleared = true;
    }
  }
  EXPECT_TRUE(m.empty());
  fill(m, 10);
  expectLookups(m, 80);
}

TEST(HashMap, OverlappingIteratorsCompactOnlyWhenTheLastGoes) {
  Map m;
  fill(m, 10);
  {
    auto outer = m.begin();
    std::set<int> behind;
    for (int i = 0; i < 5; ++i, ++outer) behind.insert(outer.key());
    {
      // Erases what the outer iteration has passed; when it ends, nothing may move under outer.
      Map::ConstIterator inner = static_cast<Map const&>(m).begin();
      for (; inner; ++inner) {
        if (behind.contains(inner.key())) m.erase(inner.key());
      }
    }
    std::set<int> ahead;
    for (; outer; ++outer) EXPECT_TRUE(ahead.insert(outer.key()).second);
    EXPECT_EQ(ahead.size(), 5u);
    for (int k : ahead) EXPECT_FALSE(behind.contains(k));
  }
  EXPECT_EQ(m.size(), 5u);
  expectLookups(m, 12);
}

// Hashes in clumps so probe chains run long and backward-shift deletion has work to do.
struct ClumpHash {
  std::size_t operator()(int k) const noexcept { return static_cast<std::size_t>(k / 8); }
};

template <class Hash>
void randomAgainstReference(unsigned seed) {
  Kiv::HashMap<int, int, Hash> m;
  std::unordered_map<int, int> ref;
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> key(0, 400);
  std::uniform_int_distribution<int> op(0, 99);

  auto check = [&] {
    ASSERT_EQ(m.size(), ref.size());
    std::size_t walked = 0;
    for (auto it = m.begin(); it; ++it) {
      ++walked;
      auto r = ref.find(it.key());
      ASSERT_NE(r, ref.end()) << it.key();
      ASSERT_EQ(it.value(), r->second);
    }
    ASSERT_EQ(walked, ref.size());
  };

  // The whole structure is checked after every step, also under an iteration.
  for (int step = 0; step < 20000; ++step) {
    int k = key(rng);
    int o = op(rng);
    if (o < 45) {
      bool inserted = m.insert(k, step).second;
      ASSERT_EQ(inserted, ref.emplace(k, step).second);
    } else if (o < 85) {
      ASSERT_EQ(m.erase(k), ref.erase(k) == 1);
    } else if (o < 97) {
      int const* v = m.find(k);
      auto r = ref.find(k);
      ASSERT_EQ(v ? std::optional(*v) : std::nullopt, r != ref.end() ? std::optional(r->second) : std::nullopt);
    } else if (o < 98) {
      m.clear();
      ref.clear();
    } else {
      // Mutate under an iteration: erase some visited members, insert fresh ones.
      for (auto it = m.begin(); it; ++it) {
        int visitedKey = it.key();
        if (op(rng) < 30) {
          m.erase(it);
          ref.erase(visitedKey);
        }
        if (op(rng) < 5) {
          int fresh = key(rng);
          ASSERT_EQ(m.insert(fresh, -step).second, ref.emplace(fresh, -step).second);
        }
        if (op(rng) < 5) {
          int other = key(rng);  // by key, maybe ahead of the iteration
          ASSERT_EQ(m.erase(other), ref.erase(other) == 1);
        }
        m.checkInvariants();
      }
      check();
    }
    m.checkInvariants();
  }
  check();
}

TEST(HashMap, RandomisedAgainstReferenceModel) {
  randomAgainstReference<Kiv::KeyHash<int>>(12345);
  randomAgainstReference<ClumpHash>(777);
}

}  // namespace
