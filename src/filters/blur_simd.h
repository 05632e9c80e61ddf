// Vector kernels of the CPU blur. They give exactly the bytes of the portable kernels
// (blur_reference.h) but are organised for speed:
// - the row passes run on strips of 16 rows (4 rows for ARGB) turned on their side in a small
//   buffer, so that one vector holds the same position of 16 rows and the running sums of all
//   of them advance together; the strip is turned back after its three passes;
// - the column passes run straight down the plane, one 16-byte column chunk at a time, so no
//   whole-plane transpose is needed;
// - passes of radius 0 (plain copies) are skipped;
// - integer means divide by multiplying with a per-divisor reciprocal that is exact for every
//   sum a window can hold (checked when the table is made); masked means divide in float, which
//   is exact for these small integers.
// The masked form reads its weights from `mask` in both directions: the column passes need the
// weight of the same pixel, which `mask` holds at the pixel's own position, so a transposed copy
// of the weights is not needed here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace VBG {
namespace BlurKernels {

// q = ((sum * multiplier) >> 16) >> shift equals sum / divisor for 0 <= sum <= 255 * divisor.
struct DivisorMagic {
    uint16_t multiplier = 0;
    uint16_t shift = 0;
};

// Largest radius the vector kernels take: sums must fit 16 bits and every divisor up to
// 2r + 1 must have an exact reciprocal. Larger radii run on the portable kernels.
constexpr int kMaxVectorRadius = 92;

// Fills table[d] for d = 2 .. maxDivisor (entries 0 and 1 are unused); false when some divisor
// has no exact reciprocal.
bool BuildDivisorMagic(int maxDivisor, std::vector<DivisorMagic>& table);

// What the vector blurs need beside the picture.
struct VectorBlurScratch {
    uint8_t* plane = nullptr;             // width * height * channels bytes
    uint8_t* strips = nullptr;            // VectorBlurStripBytes(width) bytes
    const DivisorMagic* magic = nullptr;  // up to 2 * largest radius + 1
};

inline size_t VectorBlurStripBytes(int width) {
    return static_cast<size_t>(width > 0 ? width : 0) * 16 * 3;
}

#if defined(__x86_64__) || defined(__i386__)
void BlurPlane_SSE2(uint8_t* plane, int width, int height, const int radii[3],
                    const VectorBlurScratch& scratch);
void BlurPlaneMasked_SSE2(uint8_t* plane, const uint8_t* mask, int width, int height,
                          const int radii[3], const VectorBlurScratch& scratch);
void BlurArgb_SSE2(uint8_t* pixels, int width, int height, const int radii[3],
                   const VectorBlurScratch& scratch);

void BlurPlane_AVX2(uint8_t* plane, int width, int height, const int radii[3],
                    const VectorBlurScratch& scratch);
void BlurPlaneMasked_AVX2(uint8_t* plane, const uint8_t* mask, int width, int height,
                          const int radii[3], const VectorBlurScratch& scratch);
void BlurArgb_AVX2(uint8_t* pixels, int width, int height, const int radii[3],
                   const VectorBlurScratch& scratch);
#endif

}  // namespace BlurKernels
}  // namespace VBG
