#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "kiv/AttrLogCodec.h"

using namespace Kiv::NboAttrLog;

namespace {

// The payload of the single frame in `bytes`, after checking its length prefix.
std::vector<std::uint8_t> payloadOf(std::vector<std::uint8_t> const& bytes) {
  Decoder d(bytes.data(), bytes.size());
  std::uint64_t const n = d.varint();
  EXPECT_EQ(n, d.left());
  return {bytes.end() - static_cast<std::ptrdiff_t>(d.left()), bytes.end()};
}

template <class T>
T roundTrip(T const& v) {
  std::vector<std::uint8_t> out;
  Encoder e(out);
  e.begin(Op::value);
  e.value(v);
  e.end();
  std::vector<std::uint8_t> p = payloadOf(out);
  Decoder d(p.data(), p.size());
  EXPECT_EQ(d.byte(), std::uint8_t(Op::value));
  T const got = d.value<T>();
  d.end();
  return got;
}

std::string failureOf(std::vector<std::uint8_t> const& payload, auto read) {
  Decoder d(payload.data(), payload.size());
  try {
    read(d);
  } catch (DecodeError const& x) {
    return x.what();
  }
  return "";
}

}  // namespace

TEST(AttrLogCodec, ValuesSurviveTheWireAtTheirLimits) {
  EXPECT_EQ(roundTrip(true), true);
  EXPECT_EQ(roundTrip(false), false);
  for (std::uint64_t v : {std::uint64_t(0), std::uint64_t(127), std::uint64_t(128), std::uint64_t(1) << 35,
                          std::numeric_limits<std::uint64_t>::max()})
    EXPECT_EQ(roundTrip(v), v);
  for (std::int64_t v : {std::int64_t(0), std::int64_t(-1), std::int64_t(63), std::int64_t(-64),
                         std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()})
    EXPECT_EQ(roundTrip(v), v);
  EXPECT_EQ(roundTrip(std::int32_t(-7)), -7);
  EXPECT_EQ(roundTrip(-2.5), -2.5);
  EXPECT_EQ(roundTrip(Kiv::String("")), Kiv::String(""));
  EXPECT_EQ(roundTrip(Kiv::Name("a/b")), Kiv::Name("a/b"));
}

TEST(AttrLogCodec, LongFramesGetAWiderLengthAndOversizedOnesAreRefused) {
  std::vector<std::uint8_t> out;
  Encoder e(out);
  std::string const big(300, 'x');
  e.begin(Op::value);
  e.value(Kiv::String(big));
  std::size_t const n = e.end();
  EXPECT_EQ(n, out.size());
  std::vector<std::uint8_t> p = payloadOf(out);
  EXPECT_EQ(out.size() - p.size(), 2u);  // 300-odd bytes need two length bytes
  Decoder d(p.data(), p.size());
  d.byte();
  EXPECT_EQ(d.value<Kiv::String>().size(), 300u);

  // A frame after the long one starts where it should.
  e.begin(Op::sync);
  e.varint(9);
  e.end();
  EXPECT_EQ(out[n], 2u);
  EXPECT_EQ(out[n + 1], std::uint8_t(Op::sync));

  std::size_t const before = out.size();
  e.begin(Op::value);
  e.bytes(std::string(kMaxFrame, 'y'));
  EXPECT_THROW(e.end(), Kiv::RangeException);
  EXPECT_EQ(out.size(), before);  // nothing of the refused frame stays
}

TEST(AttrLogCodec, MalformedBytesFailWithTheirReason) {
  auto const boolean = [](Decoder& d) { d.value<bool>(); };
  EXPECT_EQ(failureOf({}, boolean), "truncated frame");
  EXPECT_EQ(failureOf({std::uint8_t(Kind::boolean), 2}, boolean), "bad boolean");
  EXPECT_EQ(failureOf({std::uint8_t(Kind::string), 5, 'a'}, [](Decoder& d) { d.value<Kiv::String>(); }),
            "truncated frame");
  EXPECT_EQ(failureOf({std::uint8_t(Kind::unsignedInt), 0x80, 0x80, 0x80, 0x80, 0x10},
                      [](Decoder& d) { d.value<std::uint32_t>(); }),
            "integer out of range");
  std::vector<std::uint8_t> endless(11, 0xff);
  EXPECT_EQ(failureOf(endless, [](Decoder& d) { d.varint(); }), "varint too long");
  EXPECT_EQ(failureOf({std::uint8_t(Kind::composite), 3}, [](Decoder& d) { d.composite(2); }),
            "composite of 3 fields where 2 are wanted");
}
