#include "filters/touchup_cpu.h"

#include <libyuv/planar_functions.h>

#include "filters/touchup_reference.h"
#include "filters/touchup_simd.h"
#include "util/log.h"

namespace VBG {

TouchUpCPU::TouchUpCPU(float sigma, KernelLevel level)
    : rangeSigma(sigma * 255.0f),
      rangeNorm(TouchUpKernels::RangeNorm(rangeSigma)),
      weights_(TouchUpKernels::kTableSize) {
    TouchUpKernels::BuildWeightTable(rangeSigma, rangeNorm, weights_.data());
    filter_ = TouchUpKernels::FilterSkinBlocks_C;
#if defined(__x86_64__) || defined(__i386__)
    if (SupportedKernelLevel(level) == KernelLevel::Avx2) {
        level_ = KernelLevel::Avx2;
        filter_ = TouchUpKernels::FilterSkinBlocks_AVX2;
    }
#else
    (void)level;
#endif
    ZLOG_INFO("VBG::TouchUpCPU::TouchUpCPU", "Constructed TouchUp");
    if (rangeNorm == 0.0f) {
        ZLOG_WARN("VBG::TouchUpCPU::TouchUpCPU",
                  "TouchUp sigma {} is not a positive number: skin is left as it is", sigma);
    }
}

bool TouchUpCPU::process(const uint8_t* srcY, int srcStrideY, const uint8_t* srcU, int srcStrideU,
                         const uint8_t* srcV, int srcStrideV, uint8_t* dstY, int dstStrideY,
                         uint8_t* dstU, int dstStrideU, uint8_t* dstV, int dstStrideV, int width,
                         int height) {
    if (srcY == nullptr || srcU == nullptr || srcV == nullptr || dstY == nullptr ||
        dstU == nullptr || dstV == nullptr || width <= 0 || height <= 0 || width > 0xFFFF ||
        height > 0xFFFF) {
        ZLOG_ERROR("VBG::TouchUpCPU::process", "TouchUp cannot process a {}x{} frame", width,
                   height);
        return false;
    }
    if (libyuv::I420Copy(srcY, srcStrideY, srcU, srcStrideU, srcV, srcStrideV, dstY, dstStrideY,
                         dstU, dstStrideU, dstV, dstStrideV, width, height) != 0) {
        ZLOG_ERROR("VBG::TouchUpCPU::process", "TouchUp I420Copy failed for {}x{}", width, height);
        return false;
    }
    const size_t capacity = static_cast<size_t>(width / 2) * (height / 2) * 2;
    if (skinPoints_.size() < capacity) {
        // First frame, or a frame larger than any before it.
        skinPoints_.resize(capacity);
    }
    TouchUpKernels::SharedPairWeights shared;
    if (level_ != KernelLevel::Portable) {
        const size_t columns = static_cast<size_t>(width);
        if (pairStamps_.size() < 3 * columns) {
            pairWeights_.resize(3 * TouchUpKernels::kDownwardTaps * columns);
            pairStamps_.assign(3 * columns, 0);
        }
        shared.weights = pairWeights_.data();
        shared.stamps = pairStamps_.data();
        shared.columns = width;
        shared.frame = ++frames_;
    }
    const int chromaWidth = width / 2;
    const int chromaHeight = height / 2;
    skinCount_ = TouchUpKernels::FindSkinBlocks(srcU, srcStrideU, srcV, srcStrideV, chromaWidth,
                                                chromaHeight, skinPoints_.data());
    if (skinCount_ == 0) {
        return true;
    }
    filter_(srcY, srcStrideY, dstY, dstStrideY, width, height, skinPoints_.data(), skinCount_,
            weights_.data(), shared);
    return true;
}

}  // namespace VBG
