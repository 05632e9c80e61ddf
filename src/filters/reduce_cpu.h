// Box reduction of one 8-bit plane, byte for byte what libyuv::ScalePlane gives with kFilterBox
// where libyuv runs its general box filter: the camera frame to the model's size, every frame.
// libyuv sums each output row's source rows into 16-bit column sums with vector code, then adds
// up each output pixel's columns one at a time. Here the column sums are made into a running total
// along the row, and eight output pixels a step take the difference of the totals at their box's
// two edges; the boxes, the sums and the fixed-point scaling are libyuv's. Any other size pair
// (a reduction to half or more, the exact quarter and three-eighths that libyuv serves with kernels
// of their own, boxes too large for 16-bit sums) and processors without AVX2 go to libyuv itself.
#pragma once

#include <cstdint>
#include <vector>

#include "filters/kernel_level.h"

namespace VBG {

class PlaneReducer {
  public:
    explicit PlaneReducer(KernelLevel level = BestKernelLevel());

    // Scales src (srcWidth x srcHeight) to dst (dstWidth x dstHeight). The tables are made again
    // only when the sizes change: steady frames allocate nothing.
    void scale(const uint8_t* src, int srcStride, int srcWidth, int srcHeight, uint8_t* dst,
               int dstStride, int dstWidth, int dstHeight);

    // True when this size pair runs on the vector path rather than libyuv.
    static bool OwnPath(int srcWidth, int srcHeight, int dstWidth, int dstHeight);

  private:
    void prepare(int srcWidth, int srcHeight, int dstWidth, int dstHeight);
    // The fixed-point scale of each output column for boxes `boxHeight` rows high.
    const int32_t* scalesFor(int boxHeight);

    bool vector_ = false;
    int srcWidth_ = 0, srcHeight_ = 0, dstWidth_ = 0, dstHeight_ = 0;
    int dx_ = 0, dy_ = 0;
    // Per output column (padded to a whole vector step): the first and one-past-last source column
    // of its box.
    std::vector<int32_t> start_, end_;
    // scalesFor's tables for the two box heights a size pair has at most.
    std::vector<int32_t> scales_[2];
    int scalesHeight_[2] = {0, 0};
    std::vector<uint16_t> totals_;  // the running total of one output row's column sums
};

}  // namespace VBG
