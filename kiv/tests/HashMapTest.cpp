#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <unordered_map>

#include "kiv/HashMap.h"
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

// Keeps every lookup correct: present keys find their own value, absent ones find nothing.
void expectLookups(Map const& m, int upTo) {
  auto all = contents(m);
  EXPECT_EQ(all.size(), m.size());
  for (int k = -1; k <= upTo; ++k) {
    std::string const* v = m.find(k);
    auto ref = all.find(k);
    if (ref == all.end()) {
      EXPECT_EQ(v, nullptr) << k;
    } else {
      ASSERT_NE(v, nullptr) << k;
      EXPECT_EQ(*v, ref->second) << k;
    }
  }
}

TEST(HashMap, InsertFindEraseBasics) {
  Map m;
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(m.find(3), nullptr);
  auto [v, inserted] = m.insert(3, "three");
  EXPECT_TRUE(inserted);
  EXPECT_EQ(*v, "three");
  auto [again, insertedAgain] = m.insert(3, "other");
  EXPECT_FALSE(insertedAgain);
  EXPECT_EQ(*again, "three");
  EXPECT_EQ(m.size(), 1u);

  std::string out;
  EXPECT_TRUE(m.erase(3, &out));
  EXPECT_EQ(out, "three");
  EXPECT_FALSE(m.erase(3));
  EXPECT_TRUE(m.empty());

  Kiv::HashMap<Kiv::Name, int> names;
  names.insert(Kiv::Name("a"), 1);
  names.insert(Kiv::Name(std::string("b")), 2);
  ASSERT_NE(names.find(Kiv::Name("b")), nullptr);
  EXPECT_EQ(*names.find(Kiv::Name("b")), 2);
}

TEST(HashMap, EraseTheMemberTheIterationStandsOn) {
  Map m;
  fill(m, 50);
  std::set<int> visited;
  for (auto it = m.begin(); it; ++it) {
    int k = it.key();
    EXPECT_TRUE(visited.insert(k).second);
    if (k % 3 == 0) {
      std::string out;
      m.erase(it, &out);
      EXPECT_EQ(out, "v" + std::to_string(k));
      EXPECT_EQ(m.find(k), nullptr);
    }
  }
  EXPECT_EQ(visited.size(), 50u);
  EXPECT_EQ(m.size(), 33u);
  expectLookups(m, 60);
  // Compacted: erasing and inserting with no iteration in flight keeps everything reachable.
  for (int k = 1; k < 50; k += 3) m.erase(k);
  fill(m, 5);
  expectLookups(m, 60);
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
  int visits = 0;
  for (auto it = m.begin(); it; ++it) {
    ++visits;
    if (visits == 3) m.clear();
  }
  EXPECT_EQ(visits, 3);
  EXPECT_TRUE(m.empty());
  expectLookups(m, 40);
  fill(m, 10);
  EXPECT_EQ(m.size(), 10u);
  expectLookups(m, 40);
}

TEST(HashMap, OverlappingIteratorsCompactOnlyWhenTheLastGoes) {
  Map m;
  fill(m, 10);
  {
    auto outer = m.begin();
    {
      Map::ConstIterator inner = static_cast<Map const&>(m).begin();
      for (; inner; ++inner) {
        if (inner.key() != outer.key()) m.erase(inner.key());
      }
    }
    // The inner iterator's end must not move members under the outer one.
    EXPECT_EQ(m.size(), 1u);
    int seen = 0;
    for (; outer; ++outer) ++seen;
    EXPECT_EQ(seen, 1);
  }
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

  for (int step = 0; step < 20000; ++step) {
    int k = key(rng);
    int o = op(rng);
    if (o < 45) {
      bool inserted = m.insert(k, step).second;
      ASSERT_EQ(inserted, ref.emplace(k, step).second);
    } else if (o < 85) {
      ASSERT_EQ(m.erase(k), ref.erase(k) == 1);
    } else if (o < 98) {
      int const* v = m.find(k);
      auto r = ref.find(k);
      ASSERT_EQ(v != nullptr, r != ref.end()) << k;
      if (v) {
        ASSERT_EQ(*v, r->second);
      }
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
      }
      check();
    }
  }
  check();
}

TEST(HashMap, RandomisedAgainstReferenceModel) {
  randomAgainstReference<Kiv::KeyHash<int>>(12345);
  randomAgainstReference<ClumpHash>(777);
}

}  // namespace
