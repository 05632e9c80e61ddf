#include "filters/blur_reference.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace VBG {
namespace BlurKernels {

namespace {

#include "filters/box_line_walk.h"

struct PlainSpan {
    const uint8_t* src;
    ptrdiff_t srcStep;
    uint8_t* dst;
    ptrdiff_t dstStep;
    int sum = 0;

    void enter(int k) { sum += src[k * srcStep]; }
    void leave(int k) { sum -= src[k * srcStep]; }
    void emit(int i, int pixels, bool) { dst[i * dstStep] = static_cast<uint8_t>(sum / pixels); }
};

struct MaskedSpan {
    const uint8_t* src;
    const uint8_t* weights;
    ptrdiff_t srcStep;
    uint8_t* dst;
    ptrdiff_t dstStep;
    int sum = 0;
    int taken = 0;

    void enter(int k) {
        if (weights[k * srcStep] < kPersonWeight) {
            sum += src[k * srcStep];
            ++taken;
        }
    }
    void leave(int k) {
        if (weights[k * srcStep] < kPersonWeight) {
            sum -= src[k * srcStep];
            --taken;
        }
    }
    void emit(int i, int, bool) {
        const bool replace = weights[i * srcStep] < kPersonWeight && taken > 0;
        dst[i * dstStep] = replace ? static_cast<uint8_t>(sum / taken) : src[i * srcStep];
    }
};

struct ArgbSpan {
    const uint8_t* src;
    ptrdiff_t srcStep;
    uint8_t* dst;
    ptrdiff_t dstStep;
    float inverseWindow;
    float sum[4] = {0.0f, 0.0f, 0.0f, 0.0f};

    void enter(int k) {
        for (int c = 0; c < 4; ++c) {
            sum[c] += src[k * srcStep + c];
        }
    }
    void leave(int k) {
        for (int c = 0; c < 4; ++c) {
            sum[c] -= src[k * srcStep + c];
        }
    }
    void emit(int i, int pixels, bool middle) {
        for (int c = 0; c < 4; ++c) {
            const float mean =
                middle ? sum[c] * inverseWindow : sum[c] / static_cast<float>(pixels);
            dst[i * dstStep + c] = static_cast<uint8_t>(mean);
        }
    }
};

}  // namespace

void ComputeRadii(float strength, int radii[3]) {
    // Strengths that are no number, negative or absurdly large are taken as 0 (no blur) or
    // capped, so the integer conversions below stay defined.
    float s = std::isfinite(strength) ? std::fabs(strength) : 0.0f;
    s = std::min(s, 10000.0f);
    const float wIdeal = std::sqrt(12.0f * s * s / 3.0f + 1.0f);
    int wl = static_cast<int>(wIdeal);
    if (wl % 2 == 0) {
        wl -= 1;
    }
    const float wlf = static_cast<float>(wl);
    const float mIdeal =
        (12.0f * s * s - 3.0f * wlf * wlf - 12.0f * wlf - 9.0f) / (-4.0f * (wlf + 1.0f));
    const int m = static_cast<int>(mIdeal + 0.5f);
    for (int i = 0; i < 3; ++i) {
        const int size = i < m ? wl : wl + 2;
        radii[i] = (size - 1) / 2;
    }
}

void BoxLine_C(const uint8_t* src, ptrdiff_t srcStep, uint8_t* dst, ptrdiff_t dstStep, int count,
               int radius) {
    if (radius <= 0) {
        for (int i = 0; i < count; ++i) {
            dst[i * dstStep] = src[i * srcStep];
        }
        return;
    }
    PlainSpan span{src, srcStep, dst, dstStep};
    WalkLine(span, count, radius);
}

void BoxLineMasked_C(const uint8_t* src, const uint8_t* weights, ptrdiff_t srcStep, uint8_t* dst,
                     ptrdiff_t dstStep, int count, int radius) {
    if (radius <= 0) {
        for (int i = 0; i < count; ++i) {
            dst[i * dstStep] = src[i * srcStep];
        }
        return;
    }
    MaskedSpan span{src, weights, srcStep, dst, dstStep};
    WalkLine(span, count, radius);
}

void BoxLineArgb_C(const uint8_t* src, ptrdiff_t srcStep, uint8_t* dst, ptrdiff_t dstStep,
                   int count, int radius) {
    if (radius <= 0) {
        for (int i = 0; i < count; ++i) {
            std::memcpy(dst + i * dstStep, src + i * srcStep, 4);
        }
        return;
    }
    ArgbSpan span{src, srcStep, dst, dstStep, 1.0f / static_cast<float>(2 * radius + 1)};
    WalkLine(span, count, radius);
}

void BoxPassPlane_C(const uint8_t* src, uint8_t* dst, int width, int height, int radius) {
    for (int y = 0; y < height; ++y) {
        const ptrdiff_t row = static_cast<ptrdiff_t>(y) * width;
        BoxLine_C(src + row, 1, dst + row, 1, width, radius);
    }
}

void BoxPassPlaneMasked_C(const uint8_t* src, const uint8_t* weights, uint8_t* dst, int width,
                          int height, int radius) {
    for (int y = 0; y < height; ++y) {
        const ptrdiff_t row = static_cast<ptrdiff_t>(y) * width;
        BoxLineMasked_C(src + row, weights + row, 1, dst + row, 1, width, radius);
    }
}

void BoxPassPlaneArgb_C(const uint8_t* src, uint8_t* dst, int width, int height, int radius) {
    for (int y = 0; y < height; ++y) {
        const ptrdiff_t row = static_cast<ptrdiff_t>(y) * width * 4;
        BoxLineArgb_C(src + row, 4, dst + row, 4, width, radius);
    }
}

namespace {
constexpr int kTransposeTile = 256;
}

void TransposePlane_C(const uint8_t* src, uint8_t* dst, int width, int height) {
    for (int ty = 0; ty < height; ty += kTransposeTile) {
        const int yEnd = std::min(ty + kTransposeTile, height);
        for (int tx = 0; tx < width; tx += kTransposeTile) {
            const int xEnd = std::min(tx + kTransposeTile, width);
            for (int y = ty; y < yEnd; ++y) {
                const uint8_t* row = src + static_cast<ptrdiff_t>(y) * width;
                for (int x = tx; x < xEnd; ++x) {
                    dst[static_cast<ptrdiff_t>(x) * height + y] = row[x];
                }
            }
        }
    }
}

void TransposePlaneArgb_C(const uint8_t* src, uint8_t* dst, int width, int height) {
    for (int ty = 0; ty < height; ty += kTransposeTile) {
        const int yEnd = std::min(ty + kTransposeTile, height);
        for (int tx = 0; tx < width; tx += kTransposeTile) {
            const int xEnd = std::min(tx + kTransposeTile, width);
            for (int y = ty; y < yEnd; ++y) {
                const uint8_t* row = src + static_cast<ptrdiff_t>(y) * width * 4;
                for (int x = tx; x < xEnd; ++x) {
                    std::memcpy(dst + (static_cast<ptrdiff_t>(x) * height + y) * 4, row + x * 4, 4);
                }
            }
        }
    }
}

void BlurPlane_C(uint8_t* plane, int width, int height, const int radii[3], uint8_t* work) {
    BoxPassPlane_C(plane, work, width, height, radii[0]);
    BoxPassPlane_C(work, plane, width, height, radii[1]);
    BoxPassPlane_C(plane, work, width, height, radii[2]);
    TransposePlane_C(work, plane, width, height);
    BoxPassPlane_C(plane, work, height, width, radii[0]);
    BoxPassPlane_C(work, plane, height, width, radii[1]);
    BoxPassPlane_C(plane, work, height, width, radii[2]);
    TransposePlane_C(work, plane, height, width);
}

void BlurPlaneMasked_C(uint8_t* plane, const uint8_t* mask, const uint8_t* transposedMask,
                       int width, int height, const int radii[3], uint8_t* work) {
    BoxPassPlaneMasked_C(plane, mask, work, width, height, radii[0]);
    BoxPassPlaneMasked_C(work, mask, plane, width, height, radii[1]);
    BoxPassPlaneMasked_C(plane, mask, work, width, height, radii[2]);
    TransposePlane_C(work, plane, width, height);
    BoxPassPlaneMasked_C(plane, transposedMask, work, height, width, radii[0]);
    BoxPassPlaneMasked_C(work, transposedMask, plane, height, width, radii[1]);
    BoxPassPlaneMasked_C(plane, transposedMask, work, height, width, radii[2]);
    TransposePlane_C(work, plane, height, width);
}

void BlurArgb_C(uint8_t* pixels, int width, int height, const int radii[3], uint8_t* work) {
    BoxPassPlaneArgb_C(pixels, work, width, height, radii[0]);
    BoxPassPlaneArgb_C(work, pixels, width, height, radii[1]);
    BoxPassPlaneArgb_C(pixels, work, width, height, radii[2]);
    TransposePlaneArgb_C(work, pixels, width, height);
    BoxPassPlaneArgb_C(pixels, work, height, width, radii[0]);
    BoxPassPlaneArgb_C(work, pixels, height, width, radii[1]);
    BoxPassPlaneArgb_C(pixels, work, height, width, radii[2]);
    TransposePlaneArgb_C(work, pixels, height, width);
}

}  // namespace BlurKernels
}  // namespace VBG
