#include <gtest/gtest.h>

#include <functional>
#include <string>

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
}

// The searches are the standard ones: each overload searches its own way from its own start,
// and a miss is npos.
TEST(String, SubstrAndSearches) {
  String s("controller");
  EXPECT_EQ(s.substr(0, 4), "cont");
  EXPECT_EQ(s.substr(7, 100), "ler");
  EXPECT_EQ(s.substr(0), s);
  EXPECT_TRUE(s.substr(10).empty());
  EXPECT_TRUE(s.substr(3, 0).empty());
  // A piece hashes like the same text built directly.
  EXPECT_EQ(s.substr(4, 3).hash(), String("rol").hash());
  String const path("a/b/c/b");
  EXPECT_EQ(path.pos('/', 2), 3);
  EXPECT_EQ(path.pos("b", 3), 6);
  EXPECT_EQ(path.lastPos('/', 4), 3);
  EXPECT_EQ(path.lastPos("b", 5), 2);
  EXPECT_EQ(s.pos('x'), String::npos);
  EXPECT_EQ(String().lastPos("a"), String::npos);
}

TEST(String, ConcatenationAndQuoting) {
  String const joined = String("root") + "/" + String("child");
  EXPECT_EQ(joined, "root/child");
  EXPECT_EQ(joined.hash(), String("root/child").hash());
  EXPECT_EQ("pre-" + String("root") + String(), "pre-root");
  EXPECT_EQ(Kiv::quoted("it's a\\b"), "'it\\'s a\\\\b'");
}

}  // namespace
