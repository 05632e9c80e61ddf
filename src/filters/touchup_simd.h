// Vector kernel of the CPU touch-up filter; same bytes as FilterSkinBlocks_C.
//
// Skin blocks come in raster order, so neighbouring blocks of one chroma row form runs covering
// two luma rows. The six luma rows around a run are widened once, to 32-bit integers and to
// doubles, into `scratch`; then each run row is filtered eight pixels at a time: for every tap
// the eight neighbours are plain loads from the widened rows, the eight weights one gather from
// that tap's slice of the table, and the eight pixels accumulate in the lanes of double vectors
// in the same tap order as the portable filter. Products of a float weight and a luma value are
// exact in double, so the fused multiply-add gives the same sums as a multiply and an add, and
// every pixel comes out exactly as the portable filter makes it. Pixels outside the run are
// computed but never written; where eight pixels do not fit, the portable filter is used.
//
// Needs AVX2 and FMA (KernelLevel::Avx2).
#pragma once

#include <cstddef>
#include <cstdint>

#include "filters/touchup_reference.h"

namespace VBG {
namespace TouchUpKernels {

#if defined(__x86_64__) || defined(__i386__)
void FilterSkinBlocks_AVX2(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst,
                           ptrdiff_t dstStride, int width, int height, const uint16_t* points,
                           size_t count, const float* table, SharedPairWeights& shared);
#endif

}  // namespace TouchUpKernels
}  // namespace VBG
