#pragma once
// Support for state machines: owned child collections with the re-instantiation check, and the
// refusal of null parameters.

#include <array>
#include <string>
#include <tuple>
#include <utility>

#include "kiv/Exception.h"
#include "kiv/HashMap.h"
#include "kiv/Strep.h"

namespace Kiv {

// "Reinstantiating the entity with name <key>" (entities) or "Reinstantiating the pointer
// interface" (reactors), then the attribute that differs with both values.
std::string reinstantiationText(std::string const& subject, std::string_view attr,
                                std::string const& newValue, std::string const& currentValue);
inline std::string entitySubject(String const& key) {
  return "Reinstantiating the entity with name " + key.stdString();
}
inline constexpr char const* kPointerInterfaceSubject = "Reinstantiating the pointer interface";

// Compares constructor parameters in declaration order; the first that differs throws the
// name-in-use exception. Equality is by value, and by identity for pointers.
class ReinstantiationCheck {
 public:
  explicit ReinstantiationCheck(std::string subject) : subject_(std::move(subject)) {}
  template <class A, class B>
  ReinstantiationCheck& operator()(std::string_view attr, A const& newValue, B const& current) {
    if (!(newValue == current)) {
      throwNameInUseException(reinstantiationText(subject_, attr, strep(newValue), strep(current)));
    }
    return *this;
  }

 private:
  std::string subject_;
};

// "null _<attr> parameter to mutator for <className>::<attr> not allowed"
[[noreturn]] void throwNullParameter(std::string_view attr, std::string_view className);

template <class T>
void nullCheck(Ptr<T> const& p, std::string_view attr, std::string_view className) {
  if (!p) throwNullParameter(attr, className);
}

// A state machine's owned children, keyed. A child type T declares its compared constructor
// parameters (`static constexpr std::array kivParamNames{...}` and `auto kivParams() const`
// returning a tuple in the same order) and `void doCleanup()`.
//
// The only ways out of the collection run the child's doCleanup() first, so that a clean-up
// cannot be forgotten; the child is still found in the collection while its clean-up runs. The
// owner empties the collection before it dies (its own clean-up or destructor does), while
// everything the children's clean-ups call is still alive.
template <class K, class T>
class ChildMap {
 public:
  using Map = HashMap<K, Ptr<T>>;

  explicit ChildMap(std::size_t sizeHint = 0) : map_(sizeHint) {}
  ChildMap(ChildMap const&) = delete;
  ChildMap& operator=(ChildMap const&) = delete;
  ~ChildMap() { KIV_ASSERT(map_.empty() && "children deleted without their clean-up"); }

  Ptr<T> get(K const& k) const { return map_.get(k); }
  std::size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  typename Map::ConstIterator begin() const { return map_.begin(); }

  // Returns the child at k; if absent, creates it with make(). If present, compares `params`
  // with the child's kivParams() and throws on the first difference.
  template <class Make, class... P>
  Ptr<T> instantiate(K const& k, std::tuple<P...> const& params, Make&& make) {
    if (Ptr<T> const* p = map_.find(k)) {
      compare(params, (*p)->kivParams(), std::index_sequence_for<P...>());
      return *p;
    }
    Ptr<T> child = make();
    map_.insert(k, child);
    return child;
  }

  // Takes in a child made elsewhere (by another library's factory, say); a child already at k is
  // cleaned up and released first.
  void adopt(K const& k, Ptr<T> child) {
    erase(k);
    map_.insert(k, std::move(child));
  }

  // Runs the doCleanup() of the child at k, then removes and releases it; false when absent.
  bool erase(K const& k) {
    Ptr<T> child = map_.get(k);
    if (!child) return false;
    child->doCleanup();
    // The clean-up may have replaced or removed the child itself; only this one leaves.
    if (map_.get(k) == child) map_.erase(k, &child);
    return true;
  }

  // Erases every child as erase(k) does, including children that clean-ups add meanwhile.
  void clear() {
    while (!map_.empty()) {
      K const k = map_.begin().key();
      erase(k);
    }
  }

 private:
  template <class New, class Cur, std::size_t... I>
  static void compare(New const& n, Cur const& c, std::index_sequence<I...>) {
    ReinstantiationCheck check(kPointerInterfaceSubject);
    (check(T::kivParamNames[I], std::get<I>(n), std::get<I>(c)), ...);
  }

  Map map_;
};

}  // namespace Kiv
