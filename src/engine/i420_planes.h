// Planar YUV 4:2:0 (I420) views over host frames and engine buffers, and the mask blend of the
// CPU engine.
//
// Inside the engine an I420 picture of W x H is one byte array: the Y plane (stride W), then U and
// V of ((W + 1) / 2) x ((H + 1) / 2) each (stride (W + 1) / 2). For even sizes this is W x H x 3/2
// bytes with U at W x H and V at W x H x 5/4; odd sizes keep the last half-covered chroma column
// and row.
#pragma once

#include <cstddef>
#include <cstdint>

namespace VBG {

struct I420Planes {
    uint8_t* y = nullptr;
    int strideY = 0;
    uint8_t* u = nullptr;
    int strideU = 0;
    uint8_t* v = nullptr;
    int strideV = 0;
};

inline int ChromaSize(int lumaSize) {
    return (lumaSize + 1) / 2;
}

inline size_t I420BufferSize(uint32_t width, uint32_t height) {
    const size_t cw = (width + 1) / 2;
    const size_t ch = (height + 1) / 2;
    return static_cast<size_t>(width) * height + 2 * cw * ch;
}

// The planes of an engine buffer of width x height laid out as above.
I420Planes I420InBuffer(uint8_t* buffer, uint32_t width, uint32_t height);

// The same planes starting at luma column x and row y (both even).
I420Planes I420At(const I420Planes& planes, int x, int y);

// dst = (first x a + second x (255 - a) + 255) >> 8 for every byte of the three planes, with
// a = alpha for luma and, for chroma, the rounded average of the alpha values of each 2 x 2 block
// ((a + b + c + d + 2) >> 2; a half-covered block at an odd right or bottom edge averages the
// values it covers the same way libyuv's I420Blend does). The result is byte for byte that of
// libyuv I420Blend; unlike it, this makes no allocation: chromaAlpha is the caller's scratch of
// ((width + 1) / 2) x ((height + 1) / 2) bytes. dst may be first or second (in place).
void BlendI420(const I420Planes& first, const I420Planes& second, const uint8_t* alpha,
               int alphaStride, const I420Planes& dst, uint8_t* chromaAlpha, int width, int height);

// The 2 x 2 averaged alpha of BlendI420 into dst of ((width + 1) / 2) x ((height + 1) / 2), stride
// (width + 1) / 2.
void HalveAlpha(const uint8_t* alpha, int alphaStride, uint8_t* dst, int width, int height);

}  // namespace VBG
