// The long soak, outside the default run (label "slow"): 10,000 frames for each of the two
// instances (see soak_support.h). The allocator's arenas settle within the first thousand frames;
// from then on the resident size moves within a few MiB, so a leak of half a kilobyte per frame
// stands out. Run it under AddressSanitizer too, whose leak check covers what the figures cannot:
//   ctest --test-dir build -L slow --output-on-failure
#include "soak_support.h"

TEST(SoakSlow, TwoInstancesForTenThousandFramesEach) {
    soak::Options options;
    options.framesPerInstance = 10000;
    options.warmUpFrames = 1050;
    options.memoryTolerance = size_t{8} << 20;
    soak::RunSoak(options);
}
