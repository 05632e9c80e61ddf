// Bilinear enlargement of one 8-bit plane, byte for byte what libyuv::ScalePlane gives with
// kFilterBilinear (or kFilterBox, which libyuv turns into bilinear for enlargements), made faster
// for the sizes the engine enlarges every frame: the model-sized mask and blurred background to
// the frame. libyuv filters each source row across with a loop that fetches two pixels at a time;
// here the column positions and weights are worked out once per size and each source row is
// filtered sixteen columns at a time, with the same 16.16 positions, the same 7-bit column and
// 8-bit row weights and the same rounding. Any other size pair (a reduction, an exact doubling,
// a single source row or column, which libyuv routes through other code) and processors without
// AVX2 go to libyuv itself.
#pragma once

#include <cstdint>
#include <vector>

#include "filters/kernel_level.h"

namespace VBG {

class PlaneUpscaler {
  public:
    explicit PlaneUpscaler(KernelLevel level = BestKernelLevel());

    // Scales src (srcWidth x srcHeight) to dst (dstWidth x dstHeight). The tables are made again
    // only when the sizes change: steady frames allocate nothing.
    void scale(const uint8_t* src, int srcStride, int srcWidth, int srcHeight, uint8_t* dst,
               int dstStride, int dstWidth, int dstHeight);

    // Rows [firstRow, firstRow + rowCount) of the same enlargement, row firstRow at dst, for a
    // caller that works through the frame in bands: a band that carries on from the one before
    // (same source, next row) reuses its filtered source rows. False, writing nothing, for a size
    // pair that scale hands to libyuv (see ownRows) or rows outside the destination.
    bool scaleRows(const uint8_t* src, int srcStride, int srcWidth, int srcHeight, uint8_t* dst,
                   int dstStride, int dstWidth, int dstHeight, int firstRow, int rowCount);

    // True when this size pair runs on the vector path rather than libyuv.
    static bool OwnPath(int srcWidth, int srcHeight, int dstWidth, int dstHeight);
    // OwnPath, on a processor (or kernel level) that has the vector path.
    bool ownRows(int srcWidth, int srcHeight, int dstWidth, int dstHeight) const {
        return vector_ && OwnPath(srcWidth, srcHeight, dstWidth, dstHeight);
    }

  private:
    void prepare(int srcWidth, int srcHeight, int dstWidth, int dstHeight);

    bool vector_ = false;
    int srcWidth_ = 0, srcHeight_ = 0, dstWidth_ = 0, dstHeight_ = 0;
    int dx_ = 0, dy_ = 0;
    // Per group of 16 destination columns: where its two 8-column halves start in the source
    // row, the byte shuffle that pairs each column's two source pixels, and their weights.
    std::vector<int32_t> groupStart_;
    std::vector<uint8_t> groupShuffle_;
    std::vector<uint8_t> groupWeights_;
    std::vector<uint8_t> sourceRow_;  // one source row with room to read 16 bytes past it
    std::vector<uint8_t> rows_;       // the two filtered rows the output rows lie between
    uint8_t* filtered_[2] = {nullptr, nullptr};  // the two halves of rows_, in source row order
    int filteredRow_[2] = {-1, -1};              // the source rows they hold, -1 for none
    const uint8_t* filteredSource_ = nullptr;    // the plane they were filtered from
    int nextRow_ = -1;                           // the row after the last band
};

}  // namespace VBG
