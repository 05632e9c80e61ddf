// A short soak through the exported functions, part of every test run: two instances on two
// threads, 300 frames each, an update every 5 frames and a new camera size every 35 (see
// soak_support.h). The long run is soak_slow_test.cpp.
#include "soak_support.h"

TEST(Soak, TwoInstancesThroughEveryEffectAndSize) {
    soak::Options options;
    options.framesPerInstance = 300;
    options.warmUpFrames = 105;
    soak::RunSoak(options);
}
