// The long soak, outside the default run (label "slow"; see soak_support.h). The allocator's arenas
// settle within the first thousand frames; from then on the resident size moves within a few MiB,
// so a leak of half a kilobyte per frame stands out. Run it under AddressSanitizer too, whose leak
// check covers what the figures cannot:   ctest --test-dir build -L slow --output-on-failure
#include "soak_support.h"

TEST(SoakSlow, TwoInstancesForTenThousandFramesEach) {
    soak::RunSoak(10000, 1050, size_t{8} << 20);
}
