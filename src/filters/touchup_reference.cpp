#include "filters/touchup_reference.h"

#include <cmath>
#include <cstdlib>

namespace VBG {
namespace TouchUpKernels {

namespace {

constexpr double kGaussPeak = 0.39894;  // 1 / sqrt(2 pi), as the weights use it
constexpr double kSpatialSigma = 10.0;

bool UsableSigma(float rangeSigma) {
    return std::isfinite(rangeSigma) && rangeSigma > 0.0f;
}

double SpatialWeight(int i) {
    return kGaussPeak * std::exp(-0.5 * i * i / (kSpatialSigma * kSpatialSigma)) / kSpatialSigma;
}

double RangeWeight(int d, double rangeSigma) {
    return kGaussPeak * std::exp(-0.5 * d * d / (rangeSigma * rangeSigma)) / rangeSigma;
}

}  // namespace

float RangeNorm(float rangeSigma) {
    if (!UsableSigma(rangeSigma)) {
        return 0.0f;
    }
    return static_cast<float>(1.0 / RangeWeight(0, rangeSigma));
}

void BuildWeightTable(float rangeSigma, float rangeNorm, float* table) {
    const bool usable = UsableSigma(rangeSigma);
    for (int dy = -2; dy <= 2; ++dy) {
        for (int dx = -2; dx <= 2; ++dx) {
            // Offsets enter as magnitudes, so that W(dy, dx, d) == W(-dy, -dx, d) exactly.
            const double spatial = SpatialWeight(std::abs(dy)) * SpatialWeight(std::abs(dx));
            for (int d = 0; d < kLevels; ++d) {
                double w;
                if (usable) {
                    w = spatial * static_cast<double>(rangeNorm) * RangeWeight(d, rangeSigma);
                } else {
                    w = d == 0 ? spatial : 0.0;
                }
                table[TableIndex(dy, dx, d)] = static_cast<float>(w);
            }
        }
    }
}

size_t FindSkinBlocks(const uint8_t* u, int strideU, const uint8_t* v, int strideV, int chromaWidth,
                      int chromaHeight, uint16_t* points) {
    size_t count = 0;
    for (int row = kChromaMargin; row < chromaHeight - kChromaMargin; ++row) {
        const uint8_t* uRow = u + static_cast<ptrdiff_t>(row) * strideU;
        const uint8_t* vRow = v + static_cast<ptrdiff_t>(row) * strideV;
        for (int col = kChromaMargin; col < chromaWidth - kChromaMargin; ++col) {
            const int cu = uRow[col];
            const int cv = vRow[col];
            if (cu >= kSkinUMin && cu <= kSkinUMax && cv >= kSkinVMin && cv <= kSkinVMax) {
                points[2 * count] = static_cast<uint16_t>(2 * row);
                points[2 * count + 1] = static_cast<uint16_t>(2 * col);
                ++count;
            }
        }
    }
    return count;
}

uint8_t FilterPixel_C(const uint8_t* src, ptrdiff_t stride, int row, int col, const float* table) {
    const uint8_t* center = src + static_cast<ptrdiff_t>(row) * stride + col;
    const int value = *center;
    double weighted = 0.0;
    double total = 0.0;
    for (int dy = -2; dy <= 2; ++dy) {
        for (int dx = -2; dx <= 2; ++dx) {
            const int neighbour = center[dy * stride + dx];
            const float w = table[TableIndex(dy, dx, std::abs(value - neighbour))];
            weighted += static_cast<double>(w) * neighbour;
            total += static_cast<double>(w);
        }
    }
    return static_cast<uint8_t>(weighted / total);
}

void FilterSkinBlocks_C(const uint8_t* src, ptrdiff_t srcStride, uint8_t* dst, ptrdiff_t dstStride,
                        int, int, const uint16_t* points, size_t count, const float* table,
                        SharedPairWeights&) {
    for (size_t i = 0; i < count; ++i) {
        const int row = points[2 * i];
        const int col = points[2 * i + 1];
        for (int y = row; y < row + 2; ++y) {
            uint8_t* out = dst + static_cast<ptrdiff_t>(y) * dstStride;
            for (int x = col; x < col + 2; ++x) {
                out[x] = FilterPixel_C(src, srcStride, y, x, table);
            }
        }
    }
}

}  // namespace TouchUpKernels
}  // namespace VBG
