// CPU blur: an approximation of a Gaussian blur by three successive box blurs, run along the
// rows and then along the columns. One object serves one width, height and strength (it is
// rebuilt when they change) and offers three forms: a plain single-channel blur (segmentation
// masks), a masked single-channel blur (the Y, U and V planes of a blurred background, where the
// person must not bleed into the background) and a four-channel blur of ARGB pictures.
#pragma once

#include <cstdint>
#include <vector>

#include "filters/blur_simd.h"
#include "filters/kernel_level.h"

namespace VBG {

class Blur {
  public:
    // Makes both buffers (zero-filled) and the radii. `level` picks the kernels; the default is
    // the fastest this processor runs (the portable ones in a ZYN_FORCE_PORTABLE build).
    Blur(int width, int height, float strength, KernelLevel level = BestKernelLevel());

    Blur(const Blur&) = delete;
    Blur& operator=(const Blur&) = delete;

    // Plain single-channel blur of a width x height plane (stride width), in place.
    uint8_t* blur(uint8_t* plane, int width, int height);

    // Masked single-channel blur in place: only pixels whose weight in `mask` is below 208 enter
    // an average, and only they are replaced. Before the call, `mask` must point at the
    // width x height weights and `transposedMask` must hold their transpose (setMask does both).
    // The portable kernels weigh the column passes with transposedMask; the vector kernels, which
    // run the column passes without transposing, read the same weights from `mask`.
    uint8_t* blurMasked(uint8_t* plane, int width, int height);

    // Four-channel blur of width x height four-byte pixels (stride width * 4), in place: three
    // passes along the rows, transpose, three passes, transpose back.
    uint8_t* blurArgb(uint8_t* pixels, int width, int height);

    // Points `mask` at `weights` (width x height as constructed, stride width) and fills
    // transposedMask with their transpose.
    void setMask(const uint8_t* weights);

    KernelLevel kernelLevel() const { return level_; }
    int width() const { return width_; }
    int height() const { return height_; }

    // Weights of the masked blur (not owned); 208 and above marks the person.
    const uint8_t* mask = nullptr;
    // Transpose of the weights for the column passes of the masked blur (filled by the caller or
    // by setMask); otherwise a second scratch plane. width * height * 4 bytes.
    std::vector<uint8_t> transposedMask;
    // Scratch target of the passes, width * height * 4 bytes.
    std::vector<uint8_t> workBuffer;

    int radius0 = 0;
    int radius1 = 0;
    int radius2 = 0;

  private:
    // False (with an error record) when a width x height picture of `channels` bytes per pixel
    // does not fit the buffers this object was made for.
    bool fits(const char* function, const void* pixels, int width, int height, int channels);
    BlurKernels::VectorBlurScratch scratchFor(int width);

    using PlaneFn = void (*)(uint8_t*, int, int, const int[3],
                             const BlurKernels::VectorBlurScratch&);
    using MaskedFn = void (*)(uint8_t*, const uint8_t*, int, int, const int[3],
                              const BlurKernels::VectorBlurScratch&);

    int width_;
    int height_;
    KernelLevel level_;
    PlaneFn planeFn_ = nullptr;
    MaskedFn maskedFn_ = nullptr;
    PlaneFn argbFn_ = nullptr;
    std::vector<BlurKernels::DivisorMagic> magic_;
    std::vector<uint8_t> strips_;
};

}  // namespace VBG
