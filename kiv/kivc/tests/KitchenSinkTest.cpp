// The kitchen-sink output compiled for real: its enumeration and value types, and every entity
// type through the shared conformance suite.

#include <gtest/gtest.h>

#include <string>
#include <unordered_set>

#include "KitchenSinkTesting.h"
#include "model/tests/ConformanceSuite.h"

namespace {

using Ns::Tint;
using Ns::V;

TEST(KitchenSinkTypes, EnumerationAndValuesRoundTripThroughTheirText) {
  EXPECT_EQ(Kiv::strep(Ns::colorBlue), "colorBlue");
  EXPECT_EQ(Ns::ColorInstance(7), Ns::colorBlue);
  EXPECT_EQ(Ns::ColorInstance("colorBlue"), Ns::colorBlue);
  EXPECT_THROW(Ns::ColorInstance(1), Kiv::RangeException);
  EXPECT_THROW(Ns::ColorInstance("colorGreen"), Kiv::RangeException);

  V const v("x", "y");
  std::string const text = "Value('Ns::V', ** {'a': 'x', 'b': 'y'})";
  EXPECT_EQ(Kiv::strep(v), text);
  EXPECT_EQ(Kiv::sequenceToValue<V>(text), v);
  V const quoted("it's", "back\\slash");
  EXPECT_EQ(Kiv::sequenceToValue<V>(Kiv::strep(quoted)), quoted);
  Tint const tint(v, Ns::colorBlue);
  EXPECT_EQ(Kiv::strep(tint), "Value('Ns::Tint', ** {'base': " + text + ", 'color': colorBlue})");
  EXPECT_EQ(Kiv::sequenceToValue<Tint>(Kiv::strep(tint)), tint);

  // Ordered by the fields in declaration order; equal values hash alike.
  EXPECT_LT(V("a", "z"), V("b", "a"));
  std::unordered_set<V> set{v, V("x", "y"), V("y", "x")};
  EXPECT_EQ(set.size(), 2u);

  EXPECT_TRUE(!V());
  EXPECT_FALSE(!V("", "y"));

  for (char const* bad : {"Value('Ns::V', ** {'a': 'x'})", "Value('Ns::V', ** {'a': 'x', 'b': 'y'}) ",
                          "Value('Ns::W', ** {'a': 'x', 'b': 'y'})", "Value('Ns::V', ** {'a': 'x', 'b': y})", ""})
    EXPECT_THROW(Kiv::sequenceToValue<V>(bad), Kiv::RangeException) << bad;
  EXPECT_THROW(Kiv::sequenceToValue<Tint>("Value('Ns::Tint', ** {'base': Value('Ns::V', ** {'a': 'x', 'b': 'y'}), "
                                          "'color': colorGreen})"),
               Kiv::RangeException);
}

TEST(KitchenSinkTypes, FactoryDerivedExpressionSingletonAndOwner) {
  EXPECT_THROW(Ns::Pool::PoolIs(""), Kiv::RangeException);
  EXPECT_EQ(Ns::Pool::PoolIs("deep")->nameLength(), 4u);
  Kiv::Ptr<Ns::Registry> registry = Ns::Registry::RegistryIs("hello");
  EXPECT_EQ(registry->name(), Kiv::Name());
  EXPECT_EQ(registry->motto(), Kiv::String("hello"));

  // The parent's notifiees hear of a removal only once the member has let go of it.
  struct Watch : Ns::Registry::NotifieeConst {
    using NotifieeConst::NotifieeConst;
    void onMount(Kiv::String const&) override {
      if (held) stillOwned = held->registry() || held->parent();
    }
    Kiv::Ptr<Ns::Mount> held;
    bool stillOwned = true;
  };
  Kiv::Ptr<Watch> watch(new Watch(registry));
  watch->held = registry->mountIs(V("m", "x"), 1, "n", Ns::colorRed, nullptr);
  EXPECT_EQ(watch->held->registry(), registry.ptr());
  registry->mountDel("m");
  EXPECT_FALSE(watch->stillOwned);

  // Nor does a member outliving its parent keep a dangling owner.
  Kiv::Ptr<Ns::Mount> survivor = registry->mountIs(V("s", "x"), 1, "n", Ns::colorRed, nullptr);
  watch = nullptr;
  registry = nullptr;
  EXPECT_EQ(survivor->registry(), nullptr);
  EXPECT_EQ(survivor->parent(), nullptr);
}

struct KitchenSinkSamples : kivconformance::BuiltinSamples {
  template <class P>
  P get(int variant) {
    if constexpr (std::is_same_v<P, Ns::Color>) {
      return variant % 2 ? Ns::colorBlue : Ns::colorRed;
    } else if constexpr (std::is_same_v<P, V>) {
      return V("a" + std::to_string(variant), "b" + std::to_string(variant));
    } else if constexpr (std::is_same_v<P, Tint>) {
      return Tint(get<V>(variant), get<Ns::Color>(variant));
    } else {
      return BuiltinSamples::get<P>(variant);
    }
  }
};

template <class T>
using SinkCase = kivconformance::Case<Ns::kivtesting::Traits, T, KitchenSinkSamples>;

}  // namespace

KIV_CONFORMANCE_SUITE(KitchenSink, SinkCase<Ns::Pool>, SinkCase<Ns::Leaf>, SinkCase<Ns::Registry>, SinkCase<Ns::Mount>)
