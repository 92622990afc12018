#include "kiv/AttrLogCodec.h"

namespace Kiv::NboAttrLog {

char const* opName(Op op) {
  switch (op) {
    case Op::hello: return "hello";
    case Op::root: return "root";
    case Op::orphan: return "orphan";
    case Op::value: return "value";
    case Op::member: return "member";
    case Op::del: return "del";
    case Op::entry: return "entry";
    case Op::remountBegin: return "remountBegin";
    case Op::remountEnd: return "remountEnd";
    case Op::sync: return "sync";
    case Op::ack: return "ack";
  }
  return "unknown op";
}

void Encoder::begin(Op op) {
  start_ = out_.size();
  // One byte of length in front: most frames are short; end() widens it when they are not.
  out_.push_back(0);
  out_.push_back(static_cast<std::uint8_t>(op));
}

std::size_t Encoder::end() {
  std::size_t const payload = out_.size() - start_ - 1;
  if (payload > kMaxFrame) {
    abandon();
    throwRangeException("attribute-log frame of " + std::to_string(payload) + " bytes exceeds the limit of " +
                        std::to_string(kMaxFrame));
  }
  if (payload < 0x80) {
    out_[start_] = static_cast<std::uint8_t>(payload);
  } else {
    std::uint8_t len[10];
    std::size_t n = 0;
    for (std::uint64_t v = payload; ; v >>= 7) {
      len[n++] = static_cast<std::uint8_t>(v >= 0x80 ? (v | 0x80) : v);
      if (v < 0x80) break;
    }
    out_.insert(out_.begin() + static_cast<std::ptrdiff_t>(start_) + 1, n - 1, 0);
    std::copy(len, len + n, out_.begin() + static_cast<std::ptrdiff_t>(start_));
  }
  return out_.size() - start_;
}

std::uint64_t Decoder::varint() {
  std::uint64_t v = 0;
  for (int shift = 0; shift < 64; shift += 7) {
    std::uint8_t const b = byte();
    if (shift == 63 && b > 1) break;
    v |= std::uint64_t(b & 0x7f) << shift;
    if (!(b & 0x80)) return v;
  }
  fail("varint too long");
}

void Decoder::composite(std::uint32_t fields) {
  kind(Kind::composite);
  std::uint64_t const n = varint();
  if (n != fields) fail("composite of " + std::to_string(n) + " fields where " + std::to_string(fields) + " are wanted");
}

void Decoder::kind(Kind k) {
  std::uint8_t const got = byte();
  if (got != static_cast<std::uint8_t>(k))
    fail("value of kind " + std::to_string(got) + " where kind " + std::to_string(static_cast<int>(k)) + " is wanted");
}

void Decoder::fail(std::string const& why) const { throw DecodeError(why); }

}  // namespace Kiv::NboAttrLog
