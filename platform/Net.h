#pragma once
// Network addresses of the switch and connection layer: Ethernet addresses (a switch's
// identity) and IPv4 address-and-port pairs (a connection's peer address).

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "kiv/Generated.h"

namespace Ovel {

class EthAddr {
 public:
  EthAddr() = default;
  explicit EthAddr(std::array<std::uint8_t, 6> const& bytes) : bytes_(bytes) {}
  // Parses the colon form "00:1c:73:0a:00:01" (one or two hex digits a byte); throws the range
  // exception for anything else.
  explicit EthAddr(std::string_view text) { stringValueIs(text); }

  std::array<std::uint8_t, 6> const& bytes() const { return bytes_; }
  // The colon form with two lower-case hex digits a byte.
  std::string stringValue() const;
  void stringValueIs(std::string_view text);
  // Parses without throwing.
  static bool parse(std::string_view text, EthAddr& out);

  std::size_t hash() const;
  bool operator==(EthAddr const&) const = default;
  auto operator<=>(EthAddr const&) const = default;
  bool operator!() const { return *this == EthAddr(); }

 private:
  std::array<std::uint8_t, 6> bytes_{};
};

std::string valueToStrep(EthAddr const& a);
std::ostream& operator<<(std::ostream& os, EthAddr const& a);

// An IPv4 address with a port, text form "10.0.0.1:6042".
class IpAndPort {
 public:
  IpAndPort() = default;
  IpAndPort(std::uint32_t ip, std::uint16_t port) : ip_(ip), port_(port) {}
  explicit IpAndPort(std::string_view text);

  std::uint32_t ip() const { return ip_; }
  std::uint16_t port() const { return port_; }
  std::string stringValue() const;
  static bool parse(std::string_view text, IpAndPort& out);

  std::size_t hash() const { return std::hash<std::uint64_t>()((std::uint64_t{ip_} << 16) | port_); }
  bool operator==(IpAndPort const&) const = default;
  auto operator<=>(IpAndPort const&) const = default;
  bool operator!() const { return *this == IpAndPort(); }

 private:
  std::uint32_t ip_ = 0;
  std::uint16_t port_ = 0;
};

std::string valueToStrep(IpAndPort const& a);
std::ostream& operator<<(std::ostream& os, IpAndPort const& a);

}  // namespace Ovel

template <>
struct std::hash<Ovel::EthAddr> {
  std::size_t operator()(Ovel::EthAddr const& a) const noexcept { return a.hash(); }
};
template <>
struct std::hash<Ovel::IpAndPort> {
  std::size_t operator()(Ovel::IpAndPort const& a) const noexcept { return a.hash(); }
};
template <>
inline Ovel::EthAddr Kiv::sequenceToValue<Ovel::EthAddr>(std::string_view text) {
  return Ovel::EthAddr(text);
}
template <>
inline Ovel::IpAndPort Kiv::sequenceToValue<Ovel::IpAndPort>(std::string_view text) {
  return Ovel::IpAndPort(text);
}
