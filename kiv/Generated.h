#pragma once
// What the code that kivc generates builds on. Not for hand-written code.

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

#include "kiv/AttrLogCodec.h"
#include "kiv/Clock.h"
#include "kiv/Dir.h"
#include "kiv/Entity.h"
#include "kiv/HashMap.h"
#include "kiv/Reactor.h"
#include "kiv/Strep.h"

namespace Kiv {

// The parent as an owner of type O; null when there is none or it is of another type (a
// directory may create members of types without constructor parameters).
template <class O>
O* ownerOf(EntityInit const& init) {
  return init.parent && &init.parent->kivEntityType() == &O::kivTypeInfo() ? static_cast<O*>(init.parent) : nullptr;
}

// Parses a value's text form; specialised for every declared enumeration and value type.
template <class T>
T sequenceToValue(std::string_view text);

// The name a collection member gets from its key.
inline Name nameOf(Name const& k) { return k; }
inline Name nameOf(String const& k) { return Name(k); }
template <class K>
Name nameOf(K const& k) {
  return Name(strep(k));
}

// A field inside a value's text form: strings quoted, everything else as strep gives it.
inline std::string fieldStrep(String const& s) { return quoted(s.view()); }
// Without it the template below is the better match for a Name and leaves it unquoted.
inline std::string fieldStrep(Name const& s) { return quoted(s.view()); }
template <class T>
std::string fieldStrep(T const& v) {
  return strep(v);
}

// Reads the text form "Value('NS::T', ** {'a': <a>, 'b': <b>})" piece by piece.
class ValueTextReader {
 public:
  explicit ValueTextReader(std::string_view text) : text_(text) {}
  void expect(std::string_view piece);
  void end();
  String readString();
  std::string_view readWord();  // digits, letters, '_' and '-'

  template <class T>
  T read() {
    if constexpr (std::is_same_v<T, String> || std::is_same_v<T, Name>) {
      return T(readString());
    } else if constexpr (std::is_same_v<T, bool>) {
      std::string_view w = readWord();
      if (w != "0" && w != "1") fail("0 or 1");
      return w == "1";
    } else if constexpr (std::is_integral_v<T>) {
      return static_cast<T>(readNumber());
    } else if constexpr (std::is_floating_point_v<T>) {
      return static_cast<T>(std::stod(std::string(readWord())));
    } else if constexpr (std::is_enum_v<T>) {
      return sequenceToValue<T>(readWord());
    } else {
      return T::kivParse(*this);
    }
  }

 private:
  long long readNumber();
  [[noreturn]] void fail(std::string_view wanted) const;
  std::string_view text_;
  std::size_t at_ = 0;
};

}  // namespace Kiv
