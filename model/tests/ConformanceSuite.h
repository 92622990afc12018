#pragma once
// What every kivc-generated entity type must do, checked through the Traits<T> that kivc writes
// into <Unit>Testing.h. One source file per test executable instantiates it, one Case per type:
//
//   KIV_CONFORMANCE_SUITE(MountInterface,
//       kivconformance::Case<Controller::kivtesting::Traits, Controller::MountConfig>, ...)
//
// Samples: BuiltinSamples covers the builtin types and enumerations; a unit with value types gives
// Case its own samples type for those. Needed: get<P>(1) != P{}, get<P>(0) != get<P>(1), distinct
// non-empty keys for variants 1 and 2, and a computed key differing between variants 0 and 1 of
// all its parameters. Entity pointers are null for variant 0, else one instance per variant, made
// through the same Traits template unless the samples type makes them with
//   Kiv::Ptr<T> entity(std::type_identity<T>, Kiv::Name const& name, auto& samples);
// (another namespace's type, or a hand-written one like Kiv::Dir; `samples` are the suite's).
// A derived attribute without an expression is expected to be the entity's name.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kiv/Exception.h"
#include "kiv/Generated.h"

namespace kivconformance {

template <class>
inline constexpr bool kUnsupported = false;

struct BuiltinSamples {
  template <class P>
  P get(int variant) {
    if constexpr (std::is_same_v<P, Kiv::String> || std::is_same_v<P, Kiv::Name>) {
      return P("s" + std::to_string(variant));
    } else if constexpr (std::is_same_v<P, bool>) {
      return variant % 2 == 1;
    } else if constexpr (std::is_arithmetic_v<P>) {
      return static_cast<P>(40 + variant);
    } else if constexpr (std::is_enum_v<P>) {
      return static_cast<P>(variant % 2);  // every enumeration has a first and a second value
    } else {
      static_assert(kUnsupported<P>, "give Case a samples type that supplies this type");
    }
  }
};

template <template <class> class TraitsT, class T, class SamplesT = BuiltinSamples>
struct Case {
  using Type = T;
  template <class U>
  using Traits = TraitsT<U>;
  using Samples = SamplesT;
};

// Test names from the type's unqualified name.
struct CaseNames {
  template <class C>
  static std::string GetName(int) {
    std::string name = C::template Traits<typename C::Type>::kTypeName;
    return name.substr(name.rfind(':') + 1);
  }
};

namespace detail {

using Calls = std::vector<std::string>;

template <class K>
constexpr bool kStringKey = std::is_same_v<K, Kiv::Name> || std::is_same_v<K, Kiv::String>;
template <class P>
constexpr bool kEntityPointer = false;
template <class T>
constexpr bool kEntityPointer<Kiv::Ptr<T>> = true;

// The case's samples, and entity pointers: null for variant 0, else one instance per variant.
template <class C>
struct Samples : C::Samples {
  std::map<std::pair<std::string, int>, Kiv::Ptr<Kiv::Entity>> made;
  template <class P>
  P get(int variant) {
    if constexpr (kEntityPointer<P>) {
      using Target = std::remove_const_t<typename P::element_type>;
      if (variant == 0) return nullptr;
      Kiv::Ptr<Kiv::Entity>& e = made[{Target::kivTypeInfo().name, variant}];
      if (!e) e = make<Target>(Kiv::Name("sample" + std::to_string(variant)));
      return P(static_cast<Target*>(e.ptr()));
    } else {
      return C::Samples::template get<P>(variant);
    }
  }
  template <class U>
  Kiv::Ptr<U> make(Kiv::Name const& name) {
    if constexpr (requires(typename C::Samples& own, Samples& all) { own.entity(std::type_identity<U>{}, name, all); }) {
      return C::Samples::entity(std::type_identity<U>{}, name, *this);
    } else {
      return C::template Traits<U>::make(name, *this);
    }
  }
};

inline std::string on(char const* attr, auto const& key) { return std::string(attr) + "(" + Kiv::strep(key) + ")"; }

template <class V>
V sorted(V v) {
  std::sort(v.begin(), v.end());
  return v;
}

template <class E, class F>
std::string thrownText(F&& f) {
  try {
    f();
  } catch (E const& e) {
    return e.what();
  }
  return "nothing thrown";
}

// Ignores every attribute; each check hides the kinds it is about.
struct Ignore {
  void derived(auto&&...) {}
  void constant(auto&&...) {}
  template <class P>
  void initial(auto&&...) {}
  template <class P>
  void value(auto&&...) {}
  template <class Target, bool isConst>
  void reference(auto&&...) {}
  template <class Target>
  void owner(auto&&...) {}
  template <class K, class M>
  void collection(auto&&...) {}
  template <class K, class V>
  void valueCollection(auto&&...) {}
};

// Counts the constructor parameters.
struct ParamCount : Ignore {
  int params = 0;
  void constant(auto&&...) { ++params; }
  template <class P>
  void initial(auto&&...) { ++params; }
};

// The constructor parameters of a member: names, current values and the values that differ.
template <class S, class M>
struct Params : Ignore {
  S& samples;
  M const& member;
  std::vector<std::string> names, current, differing;
  void constant(char const* n, std::uint32_t, int, auto read) {
    using P = std::decay_t<decltype(read(member))>;
    names.push_back(n);
    current.push_back(Kiv::strep(read(member)));
    differing.push_back(Kiv::strep(samples.template get<P>(1)));
  }
};

// A write while read-only: refused, naming the attribute, and nobody told.
template <class F>
void refused(F& f, char const* n, auto&& write) {
  f.calls();
  f.entity->kivReadOnlyIs(true);
  EXPECT_EQ(thrownText<Kiv::InternalException>(write),
            std::string("write-update from readonly proxy: ") + F::Traits::kTypeName + "::" + n + " of subject");
  f.entity->kivReadOnlyIs(false);
  EXPECT_EQ(f.calls(), Calls{});
}

// Derived attributes and constants read their sources; the rest, from where they start, tell each
// change once and read it back, tell nobody of the same value again, and refuse to change while
// read-only.
template <class F>
struct ReadsAndNotifies : Ignore {
  F& f;
  void derived(char const* n, std::uint32_t, bool computed, auto read) {
    if (computed) {
      EXPECT_NO_THROW(read(*f.entity)) << n << ": an expression over the default parameters";
    } else if constexpr (std::is_convertible_v<decltype(read(*f.entity)), Kiv::String>) {
      EXPECT_EQ(Kiv::String(read(*f.entity)), f.entity->name()) << n;
    } else {
      ADD_FAILURE() << n << ": a derived attribute without an expression is the name";
    }
  }
  void constant(char const* n, std::uint32_t, int, auto read) {
    using P = std::decay_t<decltype(read(*f.entity))>;
    EXPECT_EQ(read(*f.entity), f.samples.template get<P>(0)) << n;
  }
  template <class Target>
  void owner(char const* n, std::uint32_t, auto read, auto) {
    EXPECT_EQ(read(*f.entity), nullptr) << n << ": a free-standing instance has no owner";
  }
  void changes(char const* n, auto read, auto write, auto const& first, auto const& changed) {
    SCOPED_TRACE(n);
    auto& e = *f.entity;
    EXPECT_TRUE(read(e) == first);
    for (auto const* to : {&changed, &first}) {
      write(e, *to);
      EXPECT_EQ(f.calls(), Calls{n});
      EXPECT_TRUE(read(e) == *to);
      write(e, *to);
      EXPECT_EQ(f.calls(), Calls{});
    }
    refused(f, n, [&] { write(e, changed); });
    EXPECT_TRUE(read(e) == first);
  }
  template <class P>
  void value(char const* n, std::uint32_t, auto read, auto write) {
    changes(n, read, write, P{}, f.samples.template get<P>(1));
  }
  template <class P>
  void initial(char const* n, std::uint32_t, int, auto read, auto write) {
    changes(n, read, write, f.samples.template get<P>(0), f.samples.template get<P>(1));
  }
  template <class Target, bool isConst>
  void reference(char const* n, std::uint32_t, auto read, auto write) {
    static_assert(std::is_const_v<typename decltype(read(*f.entity))::element_type> == isConst);
    Kiv::Ptr<Target> a = f.template make<Target>("a"), b = f.template make<Target>("b");
    changes(n, read, write, Kiv::Ptr<Target>(), a);
    write(*f.entity, a);
    write(*f.entity, b);
    EXPECT_EQ(f.calls(), (Calls{n, n})) << n;
    EXPECT_EQ(a->parent(), nullptr) << n << ": a reference does not adopt its target";
  }
};

template <class F>
struct CollectionsBehave : Ignore {
  F& f;
  // Bit i of `differ` gives the i-th compared parameter, and then the init ones, variant 1.
  static unsigned bit(std::size_t i) { return 1u << i; }

  template <class K, class M>
  void collection(char const* n, std::uint32_t, std::vector<std::string> const& compared,
                  std::vector<std::string> const& initial, auto create, auto keyOf, auto get, auto del, auto delAll,
                  auto size, auto, auto) {
    SCOPED_TRACE(n);
    using MemberTraits = typename F::template TraitsOf<M>;
    auto& e = *f.entity;
    auto& s = f.samples;
    // A key computed from the parameters ignores the one given.
    K const given1 = s.template get<K>(1), given2 = s.template get<K>(2);
    K const k1 = keyOf(s, given1, 0u), k2 = keyOf(s, given2, ~0u);
    ASSERT_FALSE(k1 == k2) << "a computed key must depend on the parameters";

    Kiv::Ptr<M> m = create(e, given1, s, 0u);
    EXPECT_EQ(f.calls(), Calls{on(n, k1)});
    ASSERT_TRUE(m);
    EXPECT_EQ(m->parent(), static_cast<Kiv::Entity*>(&e));
    EXPECT_EQ(m->name(), Kiv::nameOf(k1));
    EXPECT_EQ(m->parentAttrName(), Kiv::Name(n));
    EXPECT_TRUE(get(e, k1) == m);
    EXPECT_EQ(size(e), 1u);

    Params<decltype(s), M> params{{}, s, *m, {}, {}, {}};
    MemberTraits::visit(params);
    EXPECT_EQ(sorted(compared), sorted(params.names));

    // A parameter that feeds the key makes another member, so it is left out of what follows.
    unsigned initBits = 0;
    for (std::size_t i = 0; i < initial.size(); ++i)
      if (keyOf(s, given1, bit(compared.size() + i)) == k1) initBits |= bit(compared.size() + i);
    std::vector<std::size_t> kept;
    for (std::size_t i = 0; i < compared.size(); ++i)
      if (keyOf(s, given1, bit(i)) == k1) kept.push_back(i);
    Kiv::Ptr<typename MemberTraits::Recorder> memberCalls(new typename MemberTraits::Recorder(m));
    // With every parameter from kept[p] on different, kept[p] is named, so each is compared and
    // in the listed order; nothing changes, not even the init parameters that differ too. Init
    // parameters set in place are the kitchen sink's replication tests'.
    for (std::size_t p = 0; p < kept.size(); ++p) {
      unsigned mask = initBits;
      for (std::size_t q = p; q < kept.size(); ++q) mask |= bit(kept[q]);
      if (!(keyOf(s, given1, mask) == k1)) continue;
      std::size_t const at = static_cast<std::size_t>(
          std::find(params.names.begin(), params.names.end(), compared[kept[p]]) - params.names.begin());
      ASSERT_LT(at, params.names.size());
      std::string const expected = "Reinstantiating the entity with name " + Kiv::nameOf(k1).stdString() +
                                   " where constructor parameter attribute _" + params.names[at] +
                                   " has a different value of " + params.differing[at] + " than the current value of " +
                                   params.current[at] + " not allowed";
      EXPECT_EQ(thrownText<Kiv::NameInUseException>([&] { create(e, given1, s, mask); }), expected);
    }
    EXPECT_EQ(std::exchange(memberCalls->calls, {}), Calls{});
    if constexpr (kStringKey<K>) {
      if (keyOf(s, K(), 0u) == K()) {
        EXPECT_THROW(create(e, K(), s, 0u), Kiv::RangeException);
      }
    }
    EXPECT_EQ(f.calls(), Calls{});
    EXPECT_EQ(size(e), 1u);

    del(e, k1);
    EXPECT_EQ(f.calls(), Calls{on(n, k1)});
    EXPECT_EQ(m->parent(), nullptr);
    EXPECT_FALSE(get(e, k1));
    EXPECT_EQ(size(e), 0u);
    del(e, k1);
    EXPECT_EQ(f.calls(), Calls{});

    create(e, given1, s, 0u);
    refused(f, n, [&] { create(e, given2, s, ~0u); });
    refused(f, n, [&] { del(e, k1); });
    refused(f, n, [&] { delAll(e); });
    create(e, given2, s, ~0u);
    f.calls();
    delAll(e);
    EXPECT_EQ(sorted(f.calls()), sorted(Calls{on(n, k1), on(n, k2)}));
    EXPECT_EQ(size(e), 0u);
  }

  template <class K, class V>
  void valueCollection(char const* n, std::uint32_t, auto read, auto write, auto keyOf, auto, auto delAll,
                       auto size, auto, auto) {
    SCOPED_TRACE(n);
    auto& e = *f.entity;
    // A key computed from the value ignores the one given.
    K const given1 = f.samples.template get<K>(1), given2 = f.samples.template get<K>(2);
    V const v1 = f.samples.template get<V>(1), v2 = f.samples.template get<V>(2);
    K const k1 = keyOf(given1, v1), k2 = keyOf(given2, v2);
    ASSERT_FALSE(k1 == k2);

    EXPECT_EQ(read(e, k1), V{});
    write(e, given1, v1);
    EXPECT_EQ(f.calls(), Calls{on(n, k1)});
    EXPECT_EQ(read(e, k1), v1);
    write(e, given1, v1);
    EXPECT_EQ(f.calls(), Calls{});
    // The default value is stored like any other, not taken for an absence.
    if (keyOf(given1, V{}) == k1) {
      write(e, given1, V{});
      EXPECT_EQ(f.calls(), Calls{on(n, k1)});
    }
    EXPECT_EQ(size(e), 1u);
    if constexpr (kStringKey<K>) {
      if (keyOf(K(), V{}) == K()) {
        EXPECT_THROW(write(e, K(), V{}), Kiv::RangeException);
      }
    }
    // Deleting one entry is the collections' own code, checked there.
    write(e, given1, v1);
    refused(f, n, [&] { write(e, given2, v2); });
    write(e, given2, v2);
    f.calls();
    delAll(e);
    EXPECT_EQ(sorted(f.calls()), sorted(Calls{on(n, k1), on(n, k2)}));
    EXPECT_EQ(size(e), 0u);
  }
};

}  // namespace detail

template <class C>
class KivConformance : public ::testing::Test {
 public:
  using T = typename C::Type;
  template <class U>
  using TraitsOf = typename C::template Traits<U>;
  using Traits = TraitsOf<T>;

  // The callbacks since the last call.
  detail::Calls calls() { return std::exchange(recorder->calls, {}); }
  template <class U>
  Kiv::Ptr<U> make(char const* name) {
    return samples.template make<U>(Kiv::Name(name));
  }

  detail::Samples<C> samples;
  Kiv::Ptr<T> entity = Traits::make(Kiv::Name("subject"), samples);
  Kiv::Ptr<typename Traits::Recorder> recorder{new typename Traits::Recorder(entity)};
};

TYPED_TEST_SUITE_P(KivConformance);

TYPED_TEST_P(KivConformance, IsRegisteredUnderItsNameAndMadeByNameOnlyWithoutParameters) {
  using T = typename TestFixture::T;
  Kiv::TypeInfo const& info = T::kivTypeInfo();
  EXPECT_STREQ(info.name, TestFixture::Traits::kTypeName);
  EXPECT_EQ(&this->entity->kivEntityType(), &info);
  EXPECT_EQ(Kiv::typeNamed(info.name), &info);
  EXPECT_EQ(info.attrLogAdapter != nullptr, TestFixture::Traits::kReplicated);
  detail::ParamCount count;
  TestFixture::Traits::visit(count);
  ASSERT_EQ(info.create != nullptr, count.params == 0);
  if (info.create) {
    Kiv::Ptr<Kiv::Entity> made = info.create(Kiv::EntityInit{Kiv::Name("byName"), nullptr, Kiv::Name()});
    EXPECT_TRUE(Kiv::entityCast<T>(made));
    EXPECT_EQ(made->name(), Kiv::Name("byName"));
  }
}

TYPED_TEST_P(KivConformance, AttributesReadTheirSourcesNotifyOnlyOnChangeAndRefuseWhileReadOnly) {
  detail::ReadsAndNotifies<TestFixture> check{{}, *this};
  TestFixture::Traits::visit(check);
}

TYPED_TEST_P(KivConformance, CollectionsCreateCheckNotifyDeleteAndRefuseWhileReadOnly) {
  detail::CollectionsBehave<TestFixture> check{{}, *this};
  TestFixture::Traits::visit(check);
}

REGISTER_TYPED_TEST_SUITE_P(KivConformance, IsRegisteredUnderItsNameAndMadeByNameOnlyWithoutParameters,
                            AttributesReadTheirSourcesNotifyOnlyOnChangeAndRefuseWhileReadOnly,
                            CollectionsCreateCheckNotifyDeleteAndRefuseWhileReadOnly);

}  // namespace kivconformance

// Instantiates the suite for the given Cases, each test named after its type.
#define KIV_CONFORMANCE_SUITE(prefix, ...)                                                     \
  namespace kivconformance {                                                                  \
  using prefix##Cases = ::testing::Types<__VA_ARGS__>;                                        \
  INSTANTIATE_TYPED_TEST_SUITE_P(prefix, KivConformance, prefix##Cases, CaseNames);           \
  }
