#include <gtest/gtest.h>
#include "kiv/Dir.h"
TEST(Placeholder, Dir) { auto d = Kiv::Dir::DirIs("root"); EXPECT_EQ(d->subdirIs("a")->fullName(), "root/a"); }
