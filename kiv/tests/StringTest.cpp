#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <unordered_set>

#include "kiv/String.h"

namespace {

using Kiv::Name;
using Kiv::String;

TEST(String, ValueSemantics) {
  String a("alpha");
  String b = a;
  b = String("beta");
  EXPECT_EQ(a, "alpha");
  EXPECT_EQ(b, "beta");

  String moved = std::move(b);
  EXPECT_EQ(moved, "beta");
  EXPECT_TRUE(b.empty());
  EXPECT_STREQ(b.c_str(), "");

  std::string source = "from std";
  String fromStd(source);
  source[0] = 'X';  // the string owns its characters
  EXPECT_EQ(fromStd, "from std");

  char const* none = nullptr;
  EXPECT_TRUE(String(none).empty());
  EXPECT_EQ(String(""), String());

  Name n("member");
  String s = n;
  EXPECT_EQ(Name(s), n);
}

TEST(String, EqualityHashAndOrder) {
  String a("key-1");
  String b(std::string("key-") + "1");
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_EQ(std::hash<String>()(a), std::hash<Name>()(Name(b)));
  EXPECT_EQ(String().hash(), String::hashOf(""));

  EXPECT_NE(a, String("key-2"));
  EXPECT_NE(a.hash(), String("key-2").hash());
  EXPECT_FALSE(a == "key-");
  EXPECT_TRUE("key-1" == a);

  EXPECT_LT(String("abc"), String("abd"));
  EXPECT_LT(String("ab"), String("abc"));

  std::unordered_set<String> set{String("x"), String("y"), String("x")};
  EXPECT_EQ(set.size(), 2u);
}

TEST(String, Substr) {
  String s("controller");
  EXPECT_EQ(s.substr(0, 4), "cont");
  EXPECT_EQ(s.substr(7, 100), "ler");
  EXPECT_EQ(s.substr(0), s);
  EXPECT_TRUE(s.substr(10).empty());
  EXPECT_TRUE(s.substr(3, 0).empty());
  // A piece hashes like the same text built directly.
  EXPECT_EQ(s.substr(4, 3).hash(), String("rol").hash());
}

// The searches are the standard ones: each overload searches its own way from its own start,
// and a miss is npos.
TEST(String, PosAndLastPos) {
  String s("a/b/c/b");
  EXPECT_EQ(s.pos('/', 2), 3);
  EXPECT_EQ(s.pos("b", 3), 6);
  EXPECT_EQ(s.lastPos('/', 4), 3);
  EXPECT_EQ(s.lastPos("b", 5), 2);
  EXPECT_EQ(s.pos('x'), String::npos);
  EXPECT_EQ(String().lastPos("a"), String::npos);
}

TEST(String, IterationAndStreaming) {
  String s("xyz");
  std::string seen;
  for (char c : s) seen += c;
  EXPECT_EQ(seen, "xyz");
  EXPECT_EQ(s[2], 'z');
  String empty;
  EXPECT_EQ(empty.begin(), empty.end());
  std::ostringstream os;
  os << s << '|' << empty << '|';
  EXPECT_EQ(os.str(), "xyz||");
}

TEST(String, Concatenation) {
  String a("root");
  String joined = a + "/" + String("child");
  EXPECT_EQ(joined, "root/child");
  EXPECT_EQ(joined.hash(), String("root/child").hash());
  EXPECT_EQ("pre-" + a, "pre-root");
  EXPECT_EQ(a + String(), a);
  EXPECT_EQ(String() + a, a);
  EXPECT_TRUE((String() + String()).empty());
  EXPECT_EQ(Kiv::quoted("it's a\\b"), "'it\\'s a\\\\b'");
}

}  // namespace
