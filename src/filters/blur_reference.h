// Portable kernels of the CPU blur: the box passes written out as running sums over one line,
// the tiled transposes, and the whole blurs in their plain order (three passes along the rows,
// transpose, three passes along the former columns, transpose back). These are the arithmetic
// every optimised blur kernel must reproduce byte for byte, and the kernels a build forced to
// the portable path runs.
//
// A pass averages, for every pixel i of a line of n pixels, the pixels of its window
// [i - r, i + r]. Where the window reaches past either end of the line it is cut there and the
// average is taken over the pixels that exist; this also covers lines shorter than a full window
// (n < 2r + 1), where every window is cut, so no pass ever reads or writes outside its line.
#pragma once

#include <cstddef>
#include <cstdint>

namespace VBG {
namespace BlurKernels {

// Pixels whose weight is at or above this belong to the person: the masked blur neither takes
// them into an average nor changes them.
constexpr uint8_t kPersonWeight = 208;

// The three box radii that approximate a Gaussian blur of the given strength.
void ComputeRadii(float strength, int radii[3]);

// One line of `count` elements, `srcStep` / `dstStep` bytes apart, source and destination apart.
// Sums are integers; each output is the sum divided by the number of pixels in its window,
// truncated. Radius 0 copies.
void BoxLine_C(const uint8_t* src, ptrdiff_t srcStep, uint8_t* dst, ptrdiff_t dstStep, int count,
               int radius);
// As BoxLine_C, but a pixel is taken into the sums only when its weight (same step as the
// source) is below kPersonWeight, and only such pixels are replaced, by the integer mean of the
// pixels taken in their window; the others keep their source value.
void BoxLineMasked_C(const uint8_t* src, const uint8_t* weights, ptrdiff_t srcStep, uint8_t* dst,
                     ptrdiff_t dstStep, int count, int radius);
// Four-byte pixels, `srcStep` / `dstStep` bytes from one pixel to the next; each byte of a pixel
// is averaged on its own with float sums. The middle pixels (r + 1 <= i <= count - r - 1)
// multiply their sums by the float 1 / (2r + 1); every other pixel, the two edge spans and all
// pixels of a line shorter than a full window, divides them by its window's pixel count. Results
// are truncated.
void BoxLineArgb_C(const uint8_t* src, ptrdiff_t srcStep, uint8_t* dst, ptrdiff_t dstStep,
                   int count, int radius);

// One pass over every row of a plane (rows `width` pixels long, stride width or width * 4).
void BoxPassPlane_C(const uint8_t* src, uint8_t* dst, int width, int height, int radius);
void BoxPassPlaneMasked_C(const uint8_t* src, const uint8_t* weights, uint8_t* dst, int width,
                          int height, int radius);
void BoxPassPlaneArgb_C(const uint8_t* src, uint8_t* dst, int width, int height, int radius);

// dst (height wide, width high) = transpose of src (width wide, height high); 256 x 256 tiles.
void TransposePlane_C(const uint8_t* src, uint8_t* dst, int width, int height);
// The same for four-byte pixels, moved whole.
void TransposePlaneArgb_C(const uint8_t* src, uint8_t* dst, int width, int height);

// The whole blurs, in place. `work` holds width * height bytes (width * height * 4 for ARGB).
// The masked form weighs the row passes with `mask` and the column passes with `transposedMask`,
// which must hold the transpose of `mask`.
void BlurPlane_C(uint8_t* plane, int width, int height, const int radii[3], uint8_t* work);
void BlurPlaneMasked_C(uint8_t* plane, const uint8_t* mask, const uint8_t* transposedMask,
                       int width, int height, const int radii[3], uint8_t* work);
void BlurArgb_C(uint8_t* pixels, int width, int height, const int radii[3], uint8_t* work);

}  // namespace BlurKernels
}  // namespace VBG
