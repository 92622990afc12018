#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <string>
#include <tuple>

#include "kiv/Dir.h"
#include "kiv/Reactor.h"

namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

struct Child : Kiv::PtrInterface {
  static constexpr std::array kivParamNames{"a", "b", "dir"};
  Child(int a, int b, Kiv::Ptr<Kiv::Dir> dir) : a(a), b(b), dir(std::move(dir)) {}
  auto kivParams() const { return std::make_tuple(a, b, dir); }
  void doCleanup() {
    ++cleanups;
    if (onCleanup) onCleanup();
  }
  int a;
  int b;
  Kiv::Ptr<Kiv::Dir> dir;
  int cleanups = 0;
  std::function<void()> onCleanup;
};

// The refusal text, naming the attribute and both values.
auto refused(std::string const& attr, std::string const& value, std::string const& current) {
  return ThrowsMessage<Kiv::NameInUseException>(
      StrEq("Reinstantiating the pointer interface where constructor parameter attribute _" + attr +
            " has a different value of " + value + " than the current value of " + current + " not allowed"));
}

TEST(ChildMap, InstantiateReturnsTheExistingChildOnlyForEqualParameters) {
  Kiv::Ptr<Kiv::Dir> root = Kiv::Dir::DirIs("root");
  Kiv::Ptr<Kiv::Dir> other = Kiv::Dir::DirIs("other");
  Kiv::ChildMap<Kiv::Name, Child> children;
  int made = 0;
  auto instantiate = [&](int a, int b, Kiv::Ptr<Kiv::Dir> const& d) {
    return children.instantiate(Kiv::Name("c"), std::make_tuple(a, b, d), [&] {
      ++made;
      return Kiv::Ptr<Child>(new Child(a, b, d));
    });
  };

  Kiv::Ptr<Child> first = instantiate(1, 2, root);
  EXPECT_EQ(instantiate(1, 2, root), first);
  EXPECT_EQ(children.get(Kiv::Name("d")), nullptr);

  EXPECT_THAT([&] { instantiate(1, 3, root); }, refused("b", "3", "2"));
  // Several differ: the first in declaration order is named.
  EXPECT_THAT([&] { instantiate(9, 3, other); }, refused("a", "9", "1"));
  // Pointers compare by identity and show as their object.
  EXPECT_THAT([&] { instantiate(1, 2, other); }, refused("dir", "<Kiv::Dir other>", "<Kiv::Dir root>"));
  EXPECT_THAT([&] { instantiate(1, 2, nullptr); }, refused("dir", "0", "<Kiv::Dir root>"));
  EXPECT_EQ(made, 1);
  EXPECT_EQ(children.get(Kiv::Name("c")), first);

  // A child leaves only through its clean-up, and is still found while it runs.
  first->onCleanup = [&] { EXPECT_EQ(children.get(Kiv::Name("c")), first); };
  EXPECT_TRUE(children.erase(Kiv::Name("c")));
  EXPECT_EQ(first->cleanups, 1);
  EXPECT_FALSE(children.erase(Kiv::Name("c")));
  EXPECT_EQ(first->cleanups, 1);
  Kiv::Ptr<Child> second = instantiate(1, 3, root);  // gone, so any parameters make a new one
  EXPECT_NE(second, first);
  EXPECT_EQ(made, 2);

  // A child made elsewhere takes the place of the one at its key after that one's clean-up.
  Kiv::Ptr<Child> adopted(new Child(5, 5, root));
  children.adopt(Kiv::Name("c"), adopted);
  EXPECT_EQ(second->cleanups, 1);
  EXPECT_EQ(children.get(Kiv::Name("c")), adopted);
  second = adopted;

  // clear() cleans up every child, also one that a clean-up adds.
  Kiv::Ptr<Child> added;
  second->onCleanup = [&] {
    added = children.instantiate(Kiv::Name("d"), std::make_tuple(0, 0, root),
                                 [&] { return Kiv::Ptr<Child>(new Child(0, 0, root)); });
  };
  children.clear();
  EXPECT_TRUE(children.empty());
  EXPECT_EQ(second->cleanups, 1);
  ASSERT_TRUE(added);
  EXPECT_EQ(added->cleanups, 1);
}

TEST(ChildMapDeathTest, ChildrenLeftAtDestructionAreABrokenInvariant) {
  auto dropChildren = [] {
    Kiv::ChildMap<Kiv::Name, Child> children;
    children.instantiate(Kiv::Name("c"), std::make_tuple(1, 2, Kiv::Ptr<Kiv::Dir>()),
                         [] { return Kiv::Ptr<Child>(new Child(1, 2, nullptr)); });
  };
  EXPECT_DEATH(dropChildren(), "children deleted without their clean-up");
}

}  // namespace
