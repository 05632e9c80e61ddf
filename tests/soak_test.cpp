// The short soak of every test run (see soak_support.h): 300 frames for each of the two instances.
// The long one is soak_slow_test.cpp.
#include "soak_support.h"

TEST(Soak, TwoInstancesThroughEveryEffectAndSize) {
    soak::Options options;
    options.warmUpFrames = 105;
    soak::RunSoak(options);
}
