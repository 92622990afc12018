#pragma once
// Immutable, reference-counted strings with value semantics. String is text; Name is the key of
// an entity in its parent's collection. Both share one representation, so converting between
// them costs a count increment. The hash is computed once, at construction.

#include <atomic>
#include <compare>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "kiv/Ptr.h"

namespace Kiv {

class String {
 public:
  using const_iterator = char const*;
  static constexpr int npos = -1;

  String() = default;
  String(char const* s) : String(std::string_view(s ? s : "")) {}
  String(std::string const& s) : String(std::string_view(s)) {}
  String(std::string_view s);
  String(String const& o) : rep_(o.rep_) { inc(); }
  String(String&& o) noexcept : rep_(o.rep_) { o.rep_ = nullptr; }
  ~String() { dec(); }
  String& operator=(String const& o) {
    String(o).swap(*this);
    return *this;
  }
  String& operator=(String&& o) noexcept {
    String(std::move(o)).swap(*this);
    return *this;
  }
  void swap(String& o) noexcept { std::swap(rep_, o.rep_); }

  std::size_t size() const { return rep_ ? rep_->size : 0; }
  bool empty() const { return rep_ == nullptr; }
  char const* data() const { return rep_ ? rep_->data : ""; }
  char const* c_str() const { return data(); }
  std::string_view view() const { return {data(), size()}; }
  std::string stdString() const { return std::string(view()); }
  operator std::string_view() const { return view(); }
  char operator[](std::size_t i) const { return data()[i]; }
  const_iterator begin() const { return data(); }
  const_iterator end() const { return data() + size(); }
  std::size_t hash() const { return rep_ ? rep_->hash : kEmptyHash; }

  // Characters from `start`, at most `length` of them; out-of-range requests are clipped.
  String substr(std::size_t start, std::size_t length = std::string_view::npos) const;
  // Index of the first (last) occurrence at or after (at or before) `start`, or npos (-1).
  int pos(std::string_view needle, std::size_t start = 0) const;
  int pos(char c, std::size_t start = 0) const;
  int lastPos(std::string_view needle, std::size_t start = std::string_view::npos) const;
  int lastPos(char c, std::size_t start = std::string_view::npos) const;

  friend bool operator==(String const& a, String const& b) {
    if (a.rep_ == b.rep_) return true;
    if (a.size() != b.size() || a.hash() != b.hash()) return false;
    return std::memcmp(a.data(), b.data(), a.size()) == 0;
  }
  friend bool operator==(String const& a, char const* b) { return a.view() == std::string_view(b); }
  friend std::strong_ordering operator<=>(String const& a, String const& b) {
    return a.view() <=> b.view();
  }

  static std::size_t hashOf(std::string_view s);

 private:
  struct Rep {
    mutable std::atomic<std::uint32_t> refs;
    std::uint32_t size;
    std::size_t hash;
    char data[1];
  };
  static constexpr std::size_t kEmptyHash = 14695981039346656037ull;

  void inc() const {
    if (!rep_) return;
    if (VFPtrInterface::enableThreadSafePointers) {
      rep_->refs.fetch_add(1, std::memory_order_relaxed);
    } else {
      rep_->refs.store(rep_->refs.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }
  void dec() const;

  Rep* rep_ = nullptr;
};

String operator+(String const& a, String const& b);
String operator+(String const& a, char const* b);
String operator+(char const* a, String const& b);
std::ostream& operator<<(std::ostream& os, String const& s);

// The key of an entity in its parent's collection.
class Name : public String {
 public:
  using String::String;
  Name() = default;
  Name(String const& s) : String(s) {}
  Name(String&& s) : String(std::move(s)) {}
};

// The framework's value representation of a string: quoted, with quote and backslash escaped.
std::string quoted(std::string_view s);

}  // namespace Kiv

template <>
struct std::hash<Kiv::String> {
  std::size_t operator()(Kiv::String const& s) const noexcept { return s.hash(); }
};
template <>
struct std::hash<Kiv::Name> {
  std::size_t operator()(Kiv::Name const& s) const noexcept { return s.hash(); }
};
