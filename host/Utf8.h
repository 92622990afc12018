#pragma once
// UTF-8 as the host meets it: names it reads from a scenario and strings it writes as JSON.

#include <cstddef>
#include <string_view>

namespace Host {

struct CodePoint {
  char32_t value = 0;
  std::size_t length = 0;  // 0: `s` does not start with well-formed UTF-8
};

// The code point `s` starts with. Overlong forms, surrogates and values past U+10FFFF are not
// well-formed: each is a way to smuggle a byte past a check.
inline CodePoint decodeUtf8(std::string_view s) {
  if (s.empty()) return {};
  auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  unsigned char const lead = byte(0);
  if (lead < 0x80) return {lead, 1};
  std::size_t length = 0;
  char32_t value = 0, least = 0;
  if ((lead & 0xe0) == 0xc0) {
    length = 2, value = lead & 0x1f, least = 0x80;
  } else if ((lead & 0xf0) == 0xe0) {
    length = 3, value = lead & 0x0f, least = 0x800;
  } else if ((lead & 0xf8) == 0xf0) {
    length = 4, value = lead & 0x07, least = 0x10000;
  } else {
    return {};
  }
  if (s.size() < length) return {};
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return {};
    value = (value << 6) | (byte(i) & 0x3f);
  }
  if (value < least || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff)) return {};
  return {value, length};
}

// C0, DEL and C1.
inline bool isControl(char32_t c) { return c < 0x20 || (c >= 0x7f && c < 0xa0); }

}  // namespace Host
