#include "engine/presenter_compositing.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace VBG::Presenter {
namespace {

// Luma ramps of the keyed underlay: [blocked, passed] for a light presentation (layout 1) and
// [passed, blocked] for a dark one (layout 2).
constexpr int kLightBlockedBelow = 160;
constexpr int kLightPassedFrom = 200;
constexpr int kDarkPassedUpTo = 50;
constexpr int kDarkBlockedFrom = 90;
// The translucent underlay shows the presenter at half strength under the presentation.
constexpr int kTranslucentWeight = 128;

std::array<uint8_t, 256> makeSeeThroughTable(uint32_t layout) {
    std::array<uint8_t, 256> table{};
    for (int luma = 0; luma < 256; ++luma) {
        int weight;
        if (layout == 2) {
            weight = luma <= kDarkPassedUpTo ? 255
                     : luma >= kDarkBlockedFrom
                         ? 0
                         : (kDarkBlockedFrom - luma) * 255 / (kDarkBlockedFrom - kDarkPassedUpTo);
        } else {
            weight = luma >= kLightPassedFrom     ? 255
                     : luma <= kLightBlockedBelow ? 0
                                                  : (luma - kLightBlockedBelow) * 255 /
                                                        (kLightPassedFrom - kLightBlockedBelow);
        }
        table[luma] = static_cast<uint8_t>(weight);
    }
    return table;
}

const std::array<uint8_t, 256>& seeThroughTable(uint32_t layout) {
    static const std::array<uint8_t, 256> light = makeSeeThroughTable(1);
    static const std::array<uint8_t, 256> dark = makeSeeThroughTable(2);
    return layout == 2 ? dark : light;
}

inline uint8_t scaled(uint8_t value, int weight) {
    return static_cast<uint8_t>((value * weight + 127) / 255);
}

}  // namespace

bool ClipPlacement(int64_t x, int64_t y, int64_t width, int64_t height, int areaWidth,
                   int areaHeight, Placement& out) {
    if (width <= 0 || height <= 0 || areaWidth <= 0 || areaHeight <= 0) {
        return false;
    }
    x &= ~int64_t{1};
    y &= ~int64_t{1};
    const int64_t x0 = std::max<int64_t>(x, 0);
    const int64_t y0 = std::max<int64_t>(y, 0);
    const int64_t x1 = std::min<int64_t>(x + width, areaWidth);
    const int64_t y1 = std::min<int64_t>(y + height, areaHeight);
    if (x1 <= x0 || y1 <= y0) {
        return false;
    }
    out.x = static_cast<int>(x0);
    out.y = static_cast<int>(y0);
    out.srcX = static_cast<int>(x0 - x);
    out.srcY = static_cast<int>(y0 - y);
    out.width = static_cast<int>(x1 - x0);
    out.height = static_cast<int>(y1 - y0);
    return true;
}

void ScaleAlpha(const uint8_t* mask, uint8_t* alpha, size_t count, float opacity) {
    const float clamped = std::isnan(opacity) ? 0.0f : std::clamp(opacity, 0.0f, 1.0f);
    const int weight = static_cast<int>(std::lround(clamped * 255.0f));
    if (weight == 255) {
        std::copy(mask, mask + count, alpha);
        return;
    }
    for (size_t i = 0; i < count; ++i) {
        alpha[i] = scaled(mask[i], weight);
    }
}

uint8_t SeeThroughWeight(uint8_t luma, uint32_t layout) {
    return seeThroughTable(layout)[luma];
}

void UnderlayAlpha(const uint8_t* mask, int maskStride, const uint8_t* presentationY,
                   int presentationStride, uint8_t* alpha, int alphaStride, int width, int height,
                   int32_t variant, uint32_t layout) {
    if (variant == UnderlayTranslucent) {
        for (int r = 0; r < height; ++r) {
            const uint8_t* m = mask + static_cast<ptrdiff_t>(r) * maskStride;
            uint8_t* a = alpha + static_cast<ptrdiff_t>(r) * alphaStride;
            for (int c = 0; c < width; ++c) {
                a[c] = scaled(m[c], kTranslucentWeight);
            }
        }
        return;
    }
    const auto& table = seeThroughTable(layout);
    for (int r = 0; r < height; ++r) {
        const uint8_t* m = mask + static_cast<ptrdiff_t>(r) * maskStride;
        const uint8_t* p = presentationY + static_cast<ptrdiff_t>(r) * presentationStride;
        uint8_t* a = alpha + static_cast<ptrdiff_t>(r) * alphaStride;
        for (int c = 0; c < width; ++c) {
            a[c] = scaled(m[c], table[p[c]]);
        }
    }
}

}  // namespace VBG::Presenter
