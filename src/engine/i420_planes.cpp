#include "engine/i420_planes.h"

#include <libyuv.h>

namespace VBG {

I420Planes I420InBuffer(uint8_t* buffer, uint32_t width, uint32_t height) {
    const int cw = ChromaSize(static_cast<int>(width));
    const int ch = ChromaSize(static_cast<int>(height));
    I420Planes planes;
    planes.y = buffer;
    planes.strideY = static_cast<int>(width);
    planes.u = buffer + static_cast<size_t>(width) * height;
    planes.strideU = cw;
    planes.v = planes.u + static_cast<size_t>(cw) * ch;
    planes.strideV = cw;
    return planes;
}

I420Planes I420At(const I420Planes& planes, int x, int y) {
    I420Planes at = planes;
    at.y += static_cast<ptrdiff_t>(y) * planes.strideY + x;
    at.u += static_cast<ptrdiff_t>(y / 2) * planes.strideU + x / 2;
    at.v += static_cast<ptrdiff_t>(y / 2) * planes.strideV + x / 2;
    return at;
}

void HalveAlpha(const uint8_t* alpha, int alphaStride, uint8_t* dst, int width, int height) {
    const int cw = ChromaSize(width);
    const int ch = ChromaSize(height);
    if ((width & 1) == 0 && (height & 1) == 0) {
        // Exact halving: libyuv's 2 x 2 box row kernel, the one I420Blend uses.
        libyuv::ScalePlane(alpha, alphaStride, width, height, dst, cw, cw, ch, libyuv::kFilterBox);
        return;
    }
    for (int r = 0; r < ch; ++r) {
        const uint8_t* top = alpha + static_cast<ptrdiff_t>(2 * r) * alphaStride;
        // A half-covered bottom row averages its one alpha row with itself.
        const uint8_t* bottom = 2 * r + 1 < height ? top + alphaStride : top;
        uint8_t* out = dst + static_cast<ptrdiff_t>(r) * cw;
        const int pairs = width / 2;
        for (int c = 0; c < pairs; ++c) {
            out[c] = static_cast<uint8_t>(
                (top[2 * c] + top[2 * c + 1] + bottom[2 * c] + bottom[2 * c + 1] + 2) >> 2);
        }
        if ((width & 1) != 0) {
            out[pairs] = static_cast<uint8_t>((top[2 * pairs] + bottom[2 * pairs] + 1) >> 1);
        }
    }
}

void BlendI420(const I420Planes& first, const I420Planes& second, const uint8_t* alpha,
               int alphaStride, const I420Planes& dst, uint8_t* chromaAlpha, int width,
               int height) {
    libyuv::BlendPlane(first.y, first.strideY, second.y, second.strideY, alpha, alphaStride, dst.y,
                       dst.strideY, width, height);
    HalveAlpha(alpha, alphaStride, chromaAlpha, width, height);
    const int cw = ChromaSize(width);
    const int ch = ChromaSize(height);
    libyuv::BlendPlane(first.u, first.strideU, second.u, second.strideU, chromaAlpha, cw, dst.u,
                       dst.strideU, cw, ch);
    libyuv::BlendPlane(first.v, first.strideV, second.v, second.strideV, chromaAlpha, cw, dst.v,
                       dst.strideV, cw, ch);
}

}  // namespace VBG
