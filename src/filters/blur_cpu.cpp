#include "filters/blur_cpu.h"

#include <algorithm>

#include "filters/blur_reference.h"
#include "util/log.h"

namespace VBG {

namespace BlurKernels {

bool BuildDivisorMagic(int maxDivisor, std::vector<DivisorMagic>& table) {
    table.assign(static_cast<size_t>(std::max(maxDivisor, 1)) + 1, DivisorMagic{});
    for (int d = 2; d <= maxDivisor; ++d) {
        bool found = false;
        for (uint32_t shift = 0; shift < 16 && !found; ++shift) {
            const uint64_t scale = uint64_t{1} << (16 + shift);
            const uint64_t multiplier = (scale + d - 1) / d;
            if (multiplier > 0xFFFF) {
                continue;
            }
            // Exact for every sum a window of d pixels can hold.
            found = true;
            for (uint32_t sum = 0; sum <= 255u * d; ++sum) {
                if (((sum * multiplier) >> (16 + shift)) != sum / d) {
                    found = false;
                    break;
                }
            }
            if (found) {
                table[d] = {static_cast<uint16_t>(multiplier), static_cast<uint16_t>(shift)};
            }
        }
        if (!found) {
            return false;
        }
    }
    return true;
}

}  // namespace BlurKernels

namespace {

void PlanePortable(uint8_t* plane, int width, int height, const int radii[3],
                   const BlurKernels::VectorBlurScratch& scratch) {
    BlurKernels::BlurPlane_C(plane, width, height, radii, scratch.plane);
}

void ArgbPortable(uint8_t* pixels, int width, int height, const int radii[3],
                  const BlurKernels::VectorBlurScratch& scratch) {
    BlurKernels::BlurArgb_C(pixels, width, height, radii, scratch.plane);
}

}  // namespace

Blur::Blur(int width, int height, float strength, KernelLevel level)
    : width_(std::max(width, 0)), height_(std::max(height, 0)), level_(KernelLevel::Portable) {
    const size_t bytes = static_cast<size_t>(width_) * height_ * 4;
    workBuffer.assign(bytes, 0);
    transposedMask.assign(bytes, 0);
    int radii[3];
    BlurKernels::ComputeRadii(strength, radii);
    radius0 = radii[0];
    radius1 = radii[1];
    radius2 = radii[2];
    ZLOG_TRACE("VBG::Blur::Blur", "CPU Blur:Constructed with: width: {}, height: {}", width,
               height);

    planeFn_ = PlanePortable;
    argbFn_ = ArgbPortable;
    level = SupportedKernelLevel(level);
    const int largest = std::max({radius0, radius1, radius2});
#if defined(__x86_64__) || defined(__i386__)
    if (level != KernelLevel::Portable && largest <= BlurKernels::kMaxVectorRadius &&
        BlurKernels::BuildDivisorMagic(2 * largest + 1, magic_)) {
        level_ = level;
        strips_.assign(BlurKernels::VectorBlurStripBytes(width_), 0);
        if (level == KernelLevel::Avx2) {
            planeFn_ = BlurKernels::BlurPlane_AVX2;
            maskedFn_ = BlurKernels::BlurPlaneMasked_AVX2;
            argbFn_ = BlurKernels::BlurArgb_AVX2;
        } else {
            planeFn_ = BlurKernels::BlurPlane_SSE2;
            maskedFn_ = BlurKernels::BlurPlaneMasked_SSE2;
            argbFn_ = BlurKernels::BlurArgb_SSE2;
        }
    }
#else
    (void)largest;
#endif
}

bool Blur::fits(const char* function, const void* pixels, int width, int height, int channels) {
    if (pixels == nullptr || width <= 0 || height <= 0 ||
        static_cast<size_t>(width) * height * channels > workBuffer.size()) {
        ZLOG_ERROR(function, "CPU Blur:cannot blur {}x{} (x{}) with buffers made for {}x{}", width,
                   height, channels, width_, height_);
        return false;
    }
    return true;
}

BlurKernels::VectorBlurScratch Blur::scratchFor(int width) {
    if (level_ != KernelLevel::Portable &&
        strips_.size() < BlurKernels::VectorBlurStripBytes(width)) {
        // Only a call with rows longer than the object was made for gets here.
        strips_.resize(BlurKernels::VectorBlurStripBytes(width));
    }
    BlurKernels::VectorBlurScratch scratch;
    scratch.plane = workBuffer.data();
    scratch.strips = strips_.data();
    scratch.magic = magic_.data();
    return scratch;
}

uint8_t* Blur::blur(uint8_t* plane, int width, int height) {
    if (!fits("VBG::Blur::blur", plane, width, height, 1)) {
        return plane;
    }
    const int radii[3] = {radius0, radius1, radius2};
    planeFn_(plane, width, height, radii, scratchFor(width));
    return plane;
}

uint8_t* Blur::blurMasked(uint8_t* plane, int width, int height) {
    if (!fits("VBG::Blur::blurMasked", plane, width, height, 1)) {
        return plane;
    }
    if (mask == nullptr) {
        ZLOG_ERROR("VBG::Blur::blurMasked", "CPU Blur:masked blur without a mask");
        return plane;
    }
    const int radii[3] = {radius0, radius1, radius2};
    if (maskedFn_ != nullptr) {
        maskedFn_(plane, mask, width, height, radii, scratchFor(width));
    } else {
        BlurKernels::BlurPlaneMasked_C(plane, mask, transposedMask.data(), width, height, radii,
                                       workBuffer.data());
    }
    return plane;
}

uint8_t* Blur::blurArgb(uint8_t* pixels, int width, int height) {
    if (!fits("VBG::Blur::blurArgb", pixels, width, height, 4)) {
        return pixels;
    }
    const int radii[3] = {radius0, radius1, radius2};
    argbFn_(pixels, width, height, radii, scratchFor(width));
    return pixels;
}

void Blur::setMask(const uint8_t* weights) {
    mask = weights;
    if (weights != nullptr && width_ > 0 && height_ > 0) {
        BlurKernels::TransposePlane_C(weights, transposedMask.data(), width_, height_);
    }
}

}  // namespace VBG
