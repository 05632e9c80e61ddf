// Portable kernels of the CPU touch-up: the bilateral weight table, the skin test on the chroma
// planes and the 5x5 bilateral filter of the luma of skin blocks, each written out step by step.
// The optimised kernels (touchup_simd.h) give exactly the same bytes.
//
// Precision: the table holds floats; a filtered pixel accumulates sum(W * n) and sum(W) over its
// 25 taps in double, in tap order (rows dy = -2..2, within a row dx = -2..2), and the output is
// the double quotient truncated. Every product W * n is exact in double (24-bit weight times
// 8-bit value), so the result does not depend on whether the compiler fuses multiply and add,
// and a flat neighbourhood gives back exactly its own value.
#pragma once

#include <cstddef>
#include <cstdint>

namespace VBG {
namespace TouchUpKernels {

constexpr int kTapSide = 5;   // 5 x 5 neighbourhood, offsets -2..2
constexpr int kLevels = 256;  // absolute luma differences 0..255
constexpr int kTableSize = kTapSide * kTapSide * kLevels;

// Chroma of skin (inclusive bounds).
constexpr int kSkinUMin = 80;
constexpr int kSkinUMax = 130;
constexpr int kSkinVMin = 133;
constexpr int kSkinVMax = 173;
// Chroma samples on every side that are never taken as skin, so that the 5 x 5 neighbourhood of
// every filtered luma pixel lies inside the frame.
constexpr int kChromaMargin = 2;

// Index of W(dy, dx, d) in the table.
inline int TableIndex(int dy, int dx, int d) {
    return ((dy + 2) * kTapSide + (dx + 2)) * kLevels + d;
}

// 1 / (range weight at difference 0) for a range sigma in intensity units; 0 when the sigma is
// not a positive finite number.
float RangeNorm(float rangeSigma);

// table[TableIndex(dy, dx, d)] = gs(dy) * gs(dx) * rangeNorm * gr(d), computed in double and
// stored as float, with gs(i) = 0.39894 * exp(-0.5 i^2 / 100) / 10 and
// gr(d) = 0.39894 * exp(-0.5 d^2 / rangeSigma^2) / rangeSigma. A range sigma that is not a
// positive finite number gives the limit of a vanishing one: the range weight is 1 at d = 0 and
// 0 elsewhere, so the filter returns every pixel unchanged.
void BuildWeightTable(float rangeSigma, float rangeNorm, float* table);

// Appends (2 * chroma row, 2 * chroma column) to `points` for every chroma sample in rows and
// columns [2, size - 2) whose U and V lie in the skin range; returns the number of points.
// `points` holds room for ((chromaWidth - 4) * (chromaHeight - 4)) pairs.
size_t FindSkinBlocks(const uint8_t* u, int strideU, const uint8_t* v, int strideV, int chromaWidth,
                      int chromaHeight, uint16_t* points);

// The bilateral filter of the luma pixel at (row, col) of `src` (its 5 x 5 neighbourhood must lie
// inside the plane).
uint8_t FilterPixel_C(const uint8_t* src, ptrdiff_t stride, int row, int col, const float* table);

// Weights shared between the rows of a frame, for the vector kernel. The weight of a pixel pair
// is the same from either end: W(dy, dx, d) == W(-dy, -dx, d) bit for bit, and d is the same.
// A row therefore keeps the weights of its ten downward taps (dy = 1, 2), and the rows one and
// two below read them for their upward taps instead of looking them up again. Three rows of
// `columns` entries for each of the ten taps, with a stamp per row and column telling which
// frame and row the entry was made for. The portable kernel needs none of it.
constexpr int kDownwardTaps = 10;

struct SharedPairWeights {
    float* weights = nullptr;    // [3 rows][kDownwardTaps][columns], table values
    uint64_t* stamps = nullptr;  // [3 rows][columns]
    int columns = 0;
    uint64_t frame = 0;  // differs for every processed frame, never 0
};

// The stamp of luma row `row` of frame `frame`.
inline uint64_t PairWeightStamp(uint64_t frame, int row) {
    return (frame << 16) | static_cast<uint64_t>(row);
}

// Filters the four luma pixels of every listed block (top-left luma row, column pairs, as
// FindSkinBlocks gives them) from `src` into `dst`. width and height are the luma size.
void FilterSkinBlocks_C(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, ptrdiff_t dstStride,
                        int width, int height, const uint16_t* points, size_t count,
                        const float* table, SharedPairWeights& shared);

}  // namespace TouchUpKernels
}  // namespace VBG
