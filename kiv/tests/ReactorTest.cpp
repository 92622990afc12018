#include <gtest/gtest.h>

#include <array>
#include <string>
#include <tuple>

#include "kiv/Dir.h"
#include "kiv/Reactor.h"

namespace {

struct Child : Kiv::PtrInterface {
  static constexpr std::array kivParamNames{"a", "b", "dir"};
  Child(int a, int b, Kiv::Ptr<Kiv::Dir> dir) : a(a), b(b), dir(std::move(dir)) {}
  auto kivParams() const { return std::make_tuple(a, b, dir); }
  void doCleanup() { ++cleanups; }
  int a;
  int b;
  Kiv::Ptr<Kiv::Dir> dir;
  int cleanups = 0;
};

std::string reinstantiationError(auto&& f) {
  try {
    f();
  } catch (Kiv::NameInUseException const& e) {
    return e.what();
  }
  return "(no exception)";
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
  EXPECT_EQ(made, 1);
  EXPECT_EQ(instantiate(1, 2, root), first);
  EXPECT_EQ(made, 1);
  EXPECT_EQ(children.get(Kiv::Name("c")), first);
  EXPECT_EQ(children.get(Kiv::Name("d")), nullptr);

  EXPECT_EQ(reinstantiationError([&] { instantiate(1, 3, root); }),
            "Reinstantiating the pointer interface where constructor parameter attribute _b has a different value "
            "of 3 than the current value of 2 not allowed");
  // Several differ: the first in declaration order is named.
  EXPECT_EQ(reinstantiationError([&] { instantiate(9, 3, other); }),
            "Reinstantiating the pointer interface where constructor parameter attribute _a has a different value "
            "of 9 than the current value of 1 not allowed");
  // Pointers compare by identity and show as their object.
  EXPECT_EQ(reinstantiationError([&] { instantiate(1, 2, other); }),
            "Reinstantiating the pointer interface where constructor parameter attribute _dir has a different value "
            "of <Kiv::Dir other> than the current value of <Kiv::Dir root> not allowed");
  EXPECT_EQ(reinstantiationError([&] { instantiate(1, 2, nullptr); }),
            "Reinstantiating the pointer interface where constructor parameter attribute _dir has a different value "
            "of 0 than the current value of <Kiv::Dir root> not allowed");
  EXPECT_EQ(made, 1);
  EXPECT_EQ(children.get(Kiv::Name("c")), first);

  EXPECT_TRUE(children.cleanupAndErase(Kiv::Name("c")));
  EXPECT_EQ(first->cleanups, 1);
  EXPECT_TRUE(children.empty());
  EXPECT_FALSE(children.cleanupAndErase(Kiv::Name("c")));
  EXPECT_NE(instantiate(1, 3, root), first);  // gone, so any parameters make a new one
  EXPECT_EQ(made, 2);
}

TEST(Reactor, NullParameterIsRefused) {
  try {
    Kiv::throwNullParameter("x", "Some::Class");
    ADD_FAILURE() << "no exception";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(), "null _x parameter to mutator for Some::Class::x not allowed");
  }
  Kiv::Ptr<Kiv::Dir> none;
  EXPECT_THROW(Kiv::nullCheck(none, "dir", "Some::Class"), Kiv::RangeException);
  EXPECT_NO_THROW(Kiv::nullCheck(Kiv::Dir::DirIs("d"), "dir", "Some::Class"));
}

TEST(Strep, ValuesShowAsMessagesExpect) {
  EXPECT_EQ(Kiv::strep(true), "1");
  EXPECT_EQ(Kiv::strep(false), "0");
  EXPECT_EQ(Kiv::strep(-42), "-42");
  EXPECT_EQ(Kiv::strep(Kiv::String("text")), "text");
  EXPECT_EQ(Kiv::strep(Kiv::Ptr<Kiv::Dir>()), "0");
  Kiv::Ptr<Kiv::Dir> d = Kiv::Dir::DirIs("top");
  EXPECT_EQ(Kiv::strep(d->subdirIs("sub")), "<Kiv::Dir top/sub>");
}

}  // namespace
