#pragma once
// A switch's identity: its Ethernet address. The text form, stringValue(), is the key of a switch
// in every status collection and the name of its connection.

#include <string>
#include <string_view>

#include "platform/Net.h"

namespace Controller {

class SystemId {
 public:
  SystemId() = default;
  explicit SystemId(Ovel::EthAddr const& addr) : addr_(addr) {}
  // Parses the text form; throws the range exception when it is not an Ethernet address.
  explicit SystemId(std::string_view text) : addr_(text) {}

  Ovel::EthAddr const& ethAddr() const { return addr_; }
  std::string stringValue() const { return addr_.stringValue(); }
  std::size_t hash() const { return addr_.hash(); }
  bool operator==(SystemId const&) const = default;
  auto operator<=>(SystemId const&) const = default;
  bool operator!() const { return !addr_; }

 private:
  Ovel::EthAddr addr_;
};

inline std::string valueToStrep(SystemId const& id) { return id.stringValue(); }
inline std::ostream& operator<<(std::ostream& os, SystemId const& id) { return os << id.stringValue(); }

}  // namespace Controller

template <>
struct std::hash<Controller::SystemId> {
  std::size_t operator()(Controller::SystemId const& id) const noexcept { return id.hash(); }
};
template <>
inline Controller::SystemId Kiv::sequenceToValue<Controller::SystemId>(std::string_view text) {
  return Controller::SystemId(text);
}
