#pragma once
// The text by which messages show a value: strings as they are, numbers in decimal, pointers by
// their object's representation, declared enumerations and value types by their valueToStrep.

#include <cstdint>
#include <sstream>
#include <string>
#include <type_traits>

#include "kiv/Ptr.h"
#include "kiv/String.h"

namespace Kiv {

inline std::string strep(String const& s) { return s.stdString(); }
inline std::string strep(std::string const& s) { return s; }
inline std::string strep(char const* s) { return s; }
inline std::string strep(bool b) { return b ? "1" : "0"; }
template <class T>
std::string strep(Ptr<T> const& p) {
  return strepOf(p);
}
template <class T>
std::string strep(T* p) {
  return strepOf(Ptr<T>(p));
}
template <class T>
  requires std::is_arithmetic_v<T>
std::string strep(T v) {
  std::ostringstream os;
  os << v;
  return os.str();
}
template <class T>
  requires requires(T const& v) { valueToStrep(v); }
std::string strep(T const& v) {
  return valueToStrep(v);
}

}  // namespace Kiv
