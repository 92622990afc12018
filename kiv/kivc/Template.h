#pragma once
// Text templates with named substitutions: "$name$" is replaced by the value given for name. A name
// without a value is left in place, so templates can be filled in stages; emit() checks that
// nothing is left at the end.

#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace kivc {

using Vars = std::initializer_list<std::pair<std::string_view, std::string_view>>;

inline std::string fill(std::string_view tmpl, Vars vars) {
  std::string out;
  out.reserve(tmpl.size() + 64);
  for (std::size_t i = 0; i < tmpl.size();) {
    if (tmpl[i] != '$') {
      out += tmpl[i++];
      continue;
    }
    std::size_t close = tmpl.find('$', i + 1);
    if (close == std::string_view::npos) throw std::logic_error("unclosed $ in template");
    std::string_view name = tmpl.substr(i + 1, close - i - 1);
    bool found = false;
    for (auto const& [k, v] : vars) {
      if (k == name) {
        out += v;
        found = true;
        break;
      }
    }
    if (!found) {
      out += tmpl.substr(i, close - i + 1);
      i = close + 1;
      continue;
    }
    i = close + 1;
  }
  return out;
}

}  // namespace kivc
