#include <gtest/gtest.h>

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

void fill(Map& m, int n) {
  for (int i = 0; i < n; ++i) m.insert(i, "v" + std::to_string(i));
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
  fill(m, 100);  // grows
  EXPECT_NE(m.epoch(), compacted);
}

TEST(HashMap, OverlappingIteratorsCompactOnlyWhenTheLastGoes) {
  Map m;
  fill(m, 10);
  std::set<int> ahead;
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
    m.insert(10, "late");  // appended: the outer iteration visits it
    for (; outer; ++outer) EXPECT_TRUE(ahead.insert(outer.key()).second);
    EXPECT_EQ(ahead.size(), 6u);
    for (int k : ahead) EXPECT_FALSE(behind.contains(k));
  }
  EXPECT_EQ(m.size(), 6u);
  for (int k = 0; k <= 10; ++k) EXPECT_EQ(m.find(k) != nullptr, ahead.contains(k)) << k;
  m.checkInvariants();
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
          ASSERT_TRUE(m.erase(it));
          ref.erase(visitedKey);
          ASSERT_FALSE(m.erase(it));  // already gone: nothing else may go with it
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
