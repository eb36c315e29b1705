#include <gtest/gtest.h>

#include "rt/Types.h"

using namespace Tavrin;

TEST(Types, placeholder) { EXPECT_EQ(IpAddr::parse("10.0.0.1")->str(), "10.0.0.1"); }
