#include "platform/Net.h"

#include <cstdio>

namespace Ovel {

namespace {
int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
}  // namespace

bool EthAddr::parse(std::string_view text, EthAddr& out) {
  std::array<std::uint8_t, 6> bytes{};
  std::size_t i = 0;
  for (int b = 0; b < 6; ++b) {
    if (b > 0) {
      if (i >= text.size() || text[i] != ':') return false;
      ++i;
    }
    int value = 0, digits = 0;
    while (i < text.size() && digits < 2 && hexDigit(text[i]) >= 0) value = value * 16 + hexDigit(text[i++]), ++digits;
    if (digits == 0) return false;
    bytes[b] = static_cast<std::uint8_t>(value);
  }
  if (i != text.size()) return false;
  out = EthAddr(bytes);
  return true;
}

void EthAddr::stringValueIs(std::string_view text) {
  if (!parse(text, *this)) Kiv::throwRangeException("not an Ethernet address: \"" + std::string(text) + "\"");
}

// Formatted by hand: the text form is the key of a switch everywhere, so it is made often.
std::string EthAddr::stringValue() const {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out(17, ':');
  for (std::size_t b = 0; b < 6; ++b) {
    out[3 * b] = kHex[bytes_[b] >> 4];
    out[3 * b + 1] = kHex[bytes_[b] & 0xf];
  }
  return out;
}

std::size_t EthAddr::hash() const {
  std::uint64_t v = 0;
  for (std::uint8_t b : bytes_) v = (v << 8) | b;
  return std::hash<std::uint64_t>()(v * 0x9E3779B97F4A7C15ull);
}

std::string valueToStrep(EthAddr const& a) { return a.stringValue(); }
std::ostream& operator<<(std::ostream& os, EthAddr const& a) { return os << a.stringValue(); }

IpAndPort::IpAndPort(std::string_view text) {
  if (!parse(text, *this)) Kiv::throwRangeException("not an address and port: \"" + std::string(text) + "\"");
}

bool IpAndPort::parse(std::string_view text, IpAndPort& out) {
  std::uint32_t ip = 0;
  std::size_t i = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (i >= text.size() || text[i] != '.') return false;
      ++i;
    }
    unsigned v = 0, digits = 0;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])) && digits < 3) v = v * 10 + (text[i++] - '0'), ++digits;
    if (digits == 0 || v > 255) return false;
    ip = (ip << 8) | v;
  }
  if (i >= text.size() || text[i] != ':') return false;
  ++i;
  unsigned port = 0, digits = 0;
  while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])) && digits < 5) port = port * 10 + (text[i++] - '0'), ++digits;
  if (digits == 0 || port > 65535 || i != text.size()) return false;
  out = IpAndPort(ip, static_cast<std::uint16_t>(port));
  return true;
}

std::string IpAndPort::stringValue() const {
  return std::to_string(ip_ >> 24) + "." + std::to_string((ip_ >> 16) & 255) + "." + std::to_string((ip_ >> 8) & 255) +
         "." + std::to_string(ip_ & 255) + ":" + std::to_string(port_);
}

std::string valueToStrep(IpAndPort const& a) { return a.stringValue(); }
std::ostream& operator<<(std::ostream& os, IpAndPort const& a) { return os << a.stringValue(); }

}  // namespace Ovel
