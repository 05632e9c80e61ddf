// The short soak of every test run (see soak_support.h); the long one is soak_slow_test.cpp.
#include "soak_support.h"

TEST(Soak, TwoInstancesThroughEveryEffectAndSize) {
    soak::RunSoak(300, 105, size_t{24} << 20);
}
