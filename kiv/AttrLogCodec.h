#pragma once
// The attribute-log wire format: frames and the values inside them.
//
// A byte stream is a sequence of frames. A frame is
//
//   length  varint: the number of payload bytes that follow (at most kMaxFrame)
//   payload op byte, then the op's fields
//
// Integers are unsigned LEB128 varints (7 bits a byte, low group first, at most 10 bytes);
// signed integers are zig-zag mapped first. Every attribute value carries a kind byte (Kind)
// ahead of its bytes, so a receiver can refuse a value of the wrong kind:
//
//   boolean      kind, one byte 0 or 1
//   unsignedInt  kind, varint
//   signedInt    kind, zig-zag varint
//   real         kind, 8 bytes IEEE 754 little-endian
//   string       kind, varint byte count, bytes
//   reference    kind, varint handle (0 is null)
//   composite    kind, varint field count, the fields as values (a value type, field by field)
//
// Enumerations travel as unsignedInt of their number.
//
// Ops and their fields ("h" is an entity handle, "id" an attribute identifier, both varints):
//
//   hello         version byte (kVersion); the first frame each way on every connection
//   root          h, name (string value), type name (string value)
//   orphan        h                    a root left the log; the receiver drops its replica
//   value         h, id, value         a value or reference attribute
//   member        h, id, key, child h, the member's constructor parameters as values
//   del           h, id, key           a collection member or set entry left
//   entry         h, id, key, value    a set entry was added or changed
//   remountBegin  h                    the whole entity follows; h 0 brackets the set of roots
//   remountEnd    h                    what was not sent since remountBegin is gone
//   sync          round varint         everything before it has been sent
//   ack           round varint         everything before the sync of that round was applied
//
// Handles are chosen by the sender, never reused on a connection, and forgotten by both sides
// when the connection ends.

#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kiv/Exception.h"
#include "kiv/String.h"

namespace Kiv::NboAttrLog {

inline constexpr std::uint8_t kVersion = 1;
// The largest payload a frame may carry; a receiver refuses larger ones before reading them.
inline constexpr std::size_t kMaxFrame = std::size_t(1) << 20;

enum class Op : std::uint8_t {
  hello = 1,
  root = 2,
  orphan = 3,
  value = 4,
  member = 5,
  del = 6,
  entry = 7,
  remountBegin = 8,
  remountEnd = 9,
  sync = 10,
  ack = 11,
};
char const* opName(Op op);

enum class Kind : std::uint8_t {
  boolean = 1,
  unsignedInt = 2,
  signedInt = 3,
  real = 4,
  string = 5,
  reference = 6,
  composite = 7,
};

// A malformed frame. Its text says what was wrong; the connection that sent it is closed.
class DecodeError : public RangeException {
 public:
  using RangeException::RangeException;
};

// Appends frames to a byte buffer.
class Encoder {
 public:
  explicit Encoder(std::vector<std::uint8_t>& out) : out_(out) {}

  // Starts a frame with its op; end() writes its length in front.
  void begin(Op op);
  // Returns the frame's size on the wire. Refuses (RangeException) a payload over kMaxFrame.
  std::size_t end();
  // Drops the frame begun last.
  void abandon() { out_.resize(start_); }

  void byte(std::uint8_t b) { out_.push_back(b); }
  void varint(std::uint64_t v) {
    while (v >= 0x80) {
      out_.push_back(static_cast<std::uint8_t>(v | 0x80));
      v >>= 7;
    }
    out_.push_back(static_cast<std::uint8_t>(v));
  }
  void bytes(std::string_view s) { out_.insert(out_.end(), s.begin(), s.end()); }

  void reference(std::uint64_t handle) {
    byte(std::uint8_t(Kind::reference));
    varint(handle);
  }
  void composite(std::uint32_t fields) {
    byte(std::uint8_t(Kind::composite));
    varint(fields);
  }

  // A tagged value: bool, integers, enumerations, floating point, String and Name, and value
  // types (through their member kivAttrLogEncode(Encoder&), which writes composite() and fields).
  template <class T>
  void value(T const& v) {
    if constexpr (std::is_same_v<T, bool>) {
      byte(std::uint8_t(Kind::boolean));
      byte(v ? 1 : 0);
    } else if constexpr (std::is_enum_v<T>) {
      byte(std::uint8_t(Kind::unsignedInt));
      varint(static_cast<std::uint64_t>(static_cast<std::underlying_type_t<T>>(v)));
    } else if constexpr (std::is_integral_v<T> && std::is_unsigned_v<T>) {
      byte(std::uint8_t(Kind::unsignedInt));
      varint(v);
    } else if constexpr (std::is_integral_v<T>) {
      byte(std::uint8_t(Kind::signedInt));
      auto const u = static_cast<std::uint64_t>(static_cast<std::int64_t>(v));
      varint((u << 1) ^ (v < 0 ? ~std::uint64_t(0) : 0));
    } else if constexpr (std::is_floating_point_v<T>) {
      byte(std::uint8_t(Kind::real));
      auto const bits = std::bit_cast<std::uint64_t>(static_cast<double>(v));
      for (int i = 0; i < 8; ++i) byte(static_cast<std::uint8_t>(bits >> (8 * i)));
    } else if constexpr (std::is_convertible_v<T const&, std::string_view>) {
      std::string_view const s = v;
      byte(std::uint8_t(Kind::string));
      varint(s.size());
      bytes(s);
    } else {
      v.kivAttrLogEncode(*this);
    }
  }

 private:
  std::vector<std::uint8_t>& out_;
  std::size_t start_ = 0;
};

// Reads the payload of one frame. The bytes are untrusted: every read checks what is left and
// what kind it finds, and throws DecodeError naming what was wrong.
class Decoder {
 public:
  Decoder(std::uint8_t const* p, std::size_t n) : p_(p), end_(p + n) {}

  std::size_t left() const { return static_cast<std::size_t>(end_ - p_); }
  std::uint8_t byte() {
    if (p_ == end_) fail("truncated frame");
    return *p_++;
  }
  std::uint64_t varint();
  std::string_view bytes(std::size_t n) {
    if (n > left()) fail("truncated frame");
    std::string_view s(reinterpret_cast<char const*>(p_), n);
    p_ += n;
    return s;
  }
  // Fails unless the frame has been read to its last byte.
  void end() {
    if (p_ != end_) fail("trailing bytes in frame");
  }

  std::uint64_t reference() {
    kind(Kind::reference);
    return varint();
  }
  void composite(std::uint32_t fields);

  template <class T>
  T value() {
    if constexpr (std::is_same_v<T, bool>) {
      kind(Kind::boolean);
      std::uint8_t const b = byte();
      if (b > 1) fail("bad boolean");
      return b == 1;
    } else if constexpr (std::is_enum_v<T>) {
      kind(Kind::unsignedInt);
      return static_cast<T>(narrow<std::underlying_type_t<T>>(varint()));
    } else if constexpr (std::is_integral_v<T> && std::is_unsigned_v<T>) {
      kind(Kind::unsignedInt);
      return narrow<T>(varint());
    } else if constexpr (std::is_integral_v<T>) {
      kind(Kind::signedInt);
      std::uint64_t const u = varint();
      auto const v = static_cast<std::int64_t>((u >> 1) ^ (~(u & 1) + 1));
      if (v < static_cast<std::int64_t>(std::numeric_limits<T>::min()) ||
          v > static_cast<std::int64_t>(std::numeric_limits<T>::max()))
        fail("integer out of range");
      return static_cast<T>(v);
    } else if constexpr (std::is_floating_point_v<T>) {
      kind(Kind::real);
      std::uint64_t bits = 0;
      for (int i = 0; i < 8; ++i) bits |= std::uint64_t(byte()) << (8 * i);
      return static_cast<T>(std::bit_cast<double>(bits));
    } else if constexpr (std::is_same_v<T, String> || std::is_same_v<T, Name>) {
      kind(Kind::string);
      std::uint64_t const n = varint();
      if (n > left()) fail("truncated frame");
      return T(String(bytes(static_cast<std::size_t>(n))));
    } else {
      return T::kivAttrLogDecode(*this);
    }
  }

  [[noreturn]] void fail(std::string const& why) const;

 private:
  void kind(Kind k);
  template <class T>
  T narrow(std::uint64_t v) {
    if (v > static_cast<std::uint64_t>(std::numeric_limits<T>::max())) fail("integer out of range");
    return static_cast<T>(v);
  }

  std::uint8_t const* p_;
  std::uint8_t const* end_;
};

}  // namespace Kiv::NboAttrLog
