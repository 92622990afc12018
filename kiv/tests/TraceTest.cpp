#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "kiv/Dir.h"
#include "kiv/Trace.h"

namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;

class Trace : public ::testing::Test {
 protected:
  void SetUp() override { Kiv::TraceHandle::resetAll(); }
  void TearDown() override { Kiv::TraceHandle::resetAll(); }
};

TEST_F(Trace, DisabledLevelEvaluatesNothingEnabledLevelEmitsExactly) {
  Kiv::TraceHandle handle("TraceTest.Lazy");
  Kiv::TraceCapture capture;
  int evaluations = 0;
  auto costly = [&] {
    ++evaluations;
    return 42;
  };

  KIV_TRACE(handle, 3, "Sm.cpp", 10, "onX", "v=" << costly());
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(capture.lines().empty());

  handle.levelIs(3, true);
  KIV_TRACE(handle, 4, "Sm.cpp", 11, "onX", "v=" << costly());
  KIV_TRACE(handle, 3, "Sm.cpp", 12, "onX",
            "v=" << costly() << " s=" << Kiv::String("str") << " b=" << true << " p=" << Kiv::Ptr<Kiv::Dir>());
  EXPECT_EQ(evaluations, 1);
  ASSERT_EQ(capture.lines().size(), 1u);
  auto const& line = capture.lines()[0];
  EXPECT_EQ(line.handle + " " + std::to_string(line.level) + " " + line.file + ":" + std::to_string(line.line) +
                " " + line.function,
            "TraceTest.Lazy 3 Sm.cpp:12 onX");
  EXPECT_EQ(line.message, "v=42 s=str b=1 p=0");
  EXPECT_EQ(Kiv::formatTraceRecord({1.5, "H", 3, "Sm.cpp", 12, "onX", "hello"}), "1.500 H 3 Sm.cpp:12 onX: hello");

  handle.levelIs(3, false);
  KIV_TRACE(handle, 3, "Sm.cpp", 13, "onX", costly());
  EXPECT_EQ(evaluations, 1);
  EXPECT_THROW(handle.levelIs(32, true), Kiv::RangeException);
}

TEST_F(Trace, ConfigureAppliesToExistingAndLaterHandles) {
  Kiv::TraceHandle named("Name");
  Kiv::TraceHandle prefixed("Prefix.One");
  Kiv::TraceHandle other("NameOther");
  Kiv::TraceHandle::configure("Name/1,5-6;Prefix*/8");
  EXPECT_EQ(named.levels(), (1u << 1) | (1u << 5) | (1u << 6));
  EXPECT_EQ(prefixed.levels(), 1u << 8);
  EXPECT_EQ(other.levels(), 0u);  // a plain name is no prefix
  {
    Kiv::TraceHandle later("Prefix.Later");
    EXPECT_EQ(later.levels(), 1u << 8);
  }
  EXPECT_EQ(Kiv::TraceHandle::named("Prefix.Later"), nullptr);

  Kiv::TraceHandle::configure(" NameOther ; Prefix*/0-31");
  EXPECT_EQ(other.levels(), 0x3ffu);  // a bare handle means 0-9
  EXPECT_EQ(prefixed.levels(), 0xffffffffu);
  Kiv::TraceHandle::configure("*/2");
  for (Kiv::TraceHandle* h : {&named, &prefixed, &other}) EXPECT_EQ(h->levels(), 1u << 2);

  Kiv::TraceHandle::resetAll();
  EXPECT_EQ(named.levels(), 0u);
  Kiv::TraceHandle fresh("Prefix.Fresh");
  EXPECT_EQ(fresh.levels(), 0u);
}

TEST_F(Trace, MalformedSettingIsRefusedWholesale) {
  Kiv::TraceHandle handle("Alpha");
  for (char const* bad : {"Alpha/x", "Alpha/1-", "Alpha/32", "Alpha/5-3", "/3", "Alpha/1,,2", "Alpha/-2",
                          "Alpha/1-2-3", "Alpha/123"}) {
    EXPECT_THROW(Kiv::TraceHandle::configure(bad), Kiv::RangeException) << bad;
  }
  // Nothing of a refused setting applies, not even its well-formed entries.
  EXPECT_THROW(Kiv::TraceHandle::configure("Alpha/3;Beta/zz"), Kiv::RangeException);
  EXPECT_EQ(handle.levels(), 0u);
  Kiv::TraceHandle beta("Alpha.Beta");
  EXPECT_EQ(beta.levels(), 0u);
}

// Descriptors live as long as the ring refers to them.
constexpr Kiv::RinglogDescriptor kNumbered{"ring.cpp", 7, "Sm::step", "n=%s"};
constexpr Kiv::RinglogDescriptor kPair{"ring.cpp", 9, "", "%s and %s"};

TEST_F(Trace, RinglogKeepsTheNewestRecordsOldestFirst) {
  Kiv::EventLoop loop(Kiv::EventLoop::Mode::virtualTime, 2.25);
  Kiv::Ringlog ring(3);
  ring.write(kNumbered, {"1"});
  ring.write(kNumbered, {"2"});
  EXPECT_THAT(ring.lines(), ElementsAre("2.250 ring.cpp:7 Sm::step: n=1", "2.250 ring.cpp:7 Sm::step: n=2"));

  for (int i = 3; i <= 7; ++i) {
    loop.advanceTo(i);
    std::string n = std::to_string(i);
    ring.write(kNumbered, {n});
  }
  EXPECT_THAT(ring.lines(), ElementsAre("5.000 ring.cpp:7 Sm::step: n=5", "6.000 ring.cpp:7 Sm::step: n=6",
                                        "7.000 ring.cpp:7 Sm::step: n=7"));

  ring.write(kPair, {"left", std::string(300, 'r')});  // the ring copies what fits
  EXPECT_THAT(ring.lines().back(), EndsWith(" [truncated]"));
  EXPECT_THAT(ring.lines().back(), ::testing::StartsWith("7.000 ring.cpp:9 left and rrr"));

  ring.clear();
  EXPECT_TRUE(ring.lines().empty());
}

TEST_F(Trace, DuallogWritesTheRingAlwaysAndTheTraceWhenEnabled) {
  Kiv::TraceHandle handle("TraceTest.Dual");
  Kiv::TraceCapture capture;
  Kiv::Ringlog& ring = Kiv::Ringlog::defaultHandle();
  std::uint64_t before = ring.written();

  KIV_DUALLOG(handle, 2, "Dual.cpp", 30, "Sm::onMount", "mount %s state %s", Kiv::String("m1"), 4);
  EXPECT_EQ(ring.written(), before + 1);
  EXPECT_THAT(ring.lines().back(), EndsWith("Dual.cpp:30 Sm::onMount: mount m1 state 4"));
  EXPECT_TRUE(capture.lines().empty());

  // The machines' tests read what a signature and its arguments make of the message.
  handle.levelIs(2, true);
  KIV_DUALLOG(handle, 2, "Dual.cpp", 32, "", "bare %s", "text");
  EXPECT_EQ(ring.written(), before + 2);
  ASSERT_EQ(capture.lines().size(), 1u);
  auto const& line = capture.lines()[0];
  EXPECT_EQ(std::to_string(line.level) + " " + line.file + ":" + std::to_string(line.line) + " " + line.message,
            "2 Dual.cpp:32 bare text");
}

struct Point {
  int x, y;
};
std::ostream& operator<<(std::ostream& os, Point const& p) { return os << '(' << p.x << ',' << p.y << ')'; }

constexpr Kiv::RinglogDescriptor kValues{"ring.cpp", 11, "Sm::raw", "p=%s n=%s d=%s b=%s s=%s"};
constexpr Kiv::RinglogDescriptor kThree{"ring.cpp", 12, "", "%s%s%s"};
constexpr Kiv::RinglogDescriptor kSix{"ring.cpp", 13, "", "%s%s%s%s%s%s"};

// Values reach the ring as bytes and become text only when it is read: the lines must read as if
// they had been formatted when written, cuts included.
TEST_F(Trace, RingValuesReadAsTheirTextsCutsIncluded) {
  Kiv::TraceHandle handle("TraceTest.Raw");
  Kiv::TraceCapture capture;
  Kiv::Ringlog& ring = Kiv::Ringlog::defaultHandle();
  Kiv::duallog(handle, 1, kValues, Point{3, -4}, -7, 2.5, true, std::string("str"));
  EXPECT_EQ(ring.lines().back(), "0.000 ring.cpp:11 Sm::raw: p=(3,-4) n=-7 d=2.5 b=1 s=str");
  handle.levelIs(1, true);
  Kiv::duallog(handle, 1, kValues, Point{3, -4}, -7, 2.5, true, std::string("str"));
  EXPECT_THAT(capture.messages(), ElementsAre("Sm::raw: p=(3,-4) n=-7 d=2.5 b=1 s=str"));

  // 231 + 6 bytes leave 3: "xyz" is cut by the value's text, which its bytes do not tell.
  std::string const t230(230, 't');
  Kiv::duallog(handle, 0, kThree, t230, 12345, "xyz");
  EXPECT_EQ(ring.lines().back(), "0.000 ring.cpp:12 " + t230 + "12345xy [truncated]");
  std::string const t236(236, 't');
  Kiv::duallog(handle, 0, kThree, t236, 123456, "xyz");
  EXPECT_EQ(ring.lines().back(), "0.000 ring.cpp:12 " + t236 + "12 [truncated]");
  // Too many values for the record's room: their texts are kept instead, 5 x 6 bytes, then 209.
  Point const p{1, 2};
  Kiv::duallog(handle, 0, kSix, p, p, p, p, p, std::string(239, 't'));
  EXPECT_EQ(ring.lines().back(), "0.000 ring.cpp:13 (1,2)(1,2)(1,2)(1,2)(1,2)" + std::string(209, 't') + " [truncated]");
}

}  // namespace
