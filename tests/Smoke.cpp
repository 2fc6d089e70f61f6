#include <gtest/gtest.h>
#include "Records/CorvaneError.h"
TEST(Smoke, Builds) { EXPECT_EQ(corvane::CorvaneError::list({"A", "B"}), "A and B"); }
