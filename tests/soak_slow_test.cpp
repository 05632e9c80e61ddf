// The long soak, outside the default test run (label "slow"): two instances on two threads, 10,000
// frames each, an update every 5 frames through every effect and a new camera size every 35 (see
// soak_support.h). Resident memory must stay flat after warm-up; run it under AddressSanitizer
// too, whose leak check covers what the memory figures cannot:
//   ctest --test-dir build -L slow --output-on-failure
#include "soak_support.h"

TEST(SoakSlow, TwoInstancesForTenThousandFramesEach) {
    soak::Options options;
    options.framesPerInstance = 10000;
    // The allocator's arenas settle within the first thousand frames; from then on the resident
    // size moves within a few MiB, so a leak of half a kilobyte per frame stands out.
    options.warmUpFrames = 1050;
    options.memoryTolerance = size_t{8} << 20;
    soak::RunSoak(options);
}
