// CPU touch-up ("touchUp"): skin smoothing of an I420 frame. The frame is copied to the output,
// skin is found by the chroma of each 2x2 block, and the luma of skin blocks is replaced by a
// 5x5 bilateral filter whose range strength comes from touchUpSigma. Chroma is never changed and
// pixels outside skin blocks are copied unchanged.
//
// The weight table belongs to the object rather than to the process: an engine may run two
// touch-up objects (say a camera and a presentation engine) with different sigmas, and with one
// shared table the last one made would decide the weights of both, while rebuilding it under
// the other's frame thread would race with its reads. Each object's table is exactly the table
// its own sigma gives, so the filtered bytes are the same as with a shared one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "filters/kernel_level.h"
#include "filters/touchup_reference.h"

namespace VBG {

class TouchUpCPU {
  public:
    // Sets rangeSigma (sigma x 255) and rangeNorm and builds the weight table. `level` picks the
    // filter kernel; the default is the fastest this processor runs.
    explicit TouchUpCPU(float sigma, KernelLevel level = BestKernelLevel());

    TouchUpCPU(const TouchUpCPU&) = delete;
    TouchUpCPU& operator=(const TouchUpCPU&) = delete;

    // Applies the effect from the source I420 planes to the destination planes (which must not
    // be the source planes). Chroma planes are (width + 1) / 2 x (height + 1) / 2, as libyuv
    // copies them. Skin is looked for in the width / 2 x height / 2 samples that cover whole 2x2
    // blocks, two samples in from every side; frames narrower or lower than 10 luma pixels have
    // no such sample and come out as plain copies.
    // False, with an error record, for missing planes, sizes of 0 or below or above 65535, or a
    // failed copy.
    bool process(const uint8_t* srcY, int srcStrideY, const uint8_t* srcU, int srcStrideU,
                 const uint8_t* srcV, int srcStrideV, uint8_t* dstY, int dstStrideY, uint8_t* dstU,
                 int dstStrideU, uint8_t* dstV, int dstStrideV, int width, int height);

    // W(dy, dx, d) at TouchUpKernels::TableIndex(dy, dx, d).
    const float* weightTable() const { return weights_.data(); }
    // Skin blocks found in the last processed frame.
    size_t skinBlockCount() const { return skinCount_; }
    KernelLevel kernelLevel() const { return level_; }

    float rangeSigma;  // touchUpSigma x 255, in luma units
    float rangeNorm;   // 1 / (range weight at difference 0)

  private:
    using FilterFn = void (*)(const uint8_t*, ptrdiff_t, uint8_t*, ptrdiff_t, int, int,
                              const uint16_t*, size_t, const float*,
                              TouchUpKernels::SharedPairWeights&);

    std::vector<float> weights_;
    // Pair weights the vector kernel shares between rows, allocated with skinPoints_.
    std::vector<float> pairWeights_;
    std::vector<uint64_t> pairStamps_;
    uint64_t frames_ = 0;
    // Luma row and column of the top-left pixel of every skin block of the current frame;
    // allocated on first use for (width / 2) x (height / 2) pairs.
    std::vector<uint16_t> skinPoints_;
    size_t skinCount_ = 0;
    KernelLevel level_ = KernelLevel::Portable;
    FilterFn filter_ = nullptr;
};

}  // namespace VBG
