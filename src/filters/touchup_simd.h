// Vector kernel of the CPU touch-up filter; same bytes as FilterSkinBlocks_C.
//
// Skin blocks come in raster order, so neighbouring blocks of one chroma row form runs covering
// two luma rows; each run row is filtered eight pixels at a time, the upper row before the
// lower one. For every tap the eight neighbours are shifts of their widened row and the eight
// weights one gather from that tap's slice of the table, except for the ten upward taps: a pair
// of pixels has the same weight from either end, so a row keeps the weights of its downward taps
// (SharedPairWeights) and the rows below take their upward weights from there.
//
// The eight pixels are first summed in float, which gives the truncated quotient unless it lies
// within 1/512 of a whole number (the float error is below 7.6e-4). Those rare groups - flat
// neighbourhoods among them, whose quotient is whole - are summed again in double, in the
// portable filter's tap order; a float weight times a luma value is exact in double, so the
// fused multiply-add rounds exactly as the portable multiply and add. Either way every pixel
// comes out as the portable filter makes it. Pixels outside the run are computed but never
// written; where eight pixels do not fit, the portable filter is used.
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
