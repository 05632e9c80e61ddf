// CPU touch-up: the weight table and the filtered luma against a literal bilateral filter written
// out here, the skin bounds, what is never touched (chroma, padding, the margin, non-skin pixels,
// small frames), and the vector kernel against the portable one on many sizes and guard-page
// placements.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "filters/page_guarded_buffer.h"
#include "filters/touchup_cpu.h"
#include "filters/touchup_reference.h"
#include "support/log_capture.h"

namespace {

using VBG::KernelLevel;
using VBG::TouchUpCPU;
using VBG::TouchUpKernels::TableIndex;

// An I420 frame whose planes each end at a guard page; strides may exceed the plane widths.
struct Frame {
    int width, height, strideY, strideC;
    zyn_test::PageGuardedBuffer y, u, v;

    Frame(int w, int h, int padY = 0, int padC = 0, uint8_t fill = 0x5A)
        : width(w),
          height(h),
          strideY(w + padY),
          strideC((w + 1) / 2 + padC),
          y(static_cast<size_t>(strideY) * (h - 1) + w),
          u(static_cast<size_t>(strideC) * ((h + 1) / 2 - 1) + (w + 1) / 2),
          v(u.size()) {
        for (auto* plane : {&y, &u, &v}) {
            std::fill(plane->data(), plane->data() + plane->size(), fill);
        }
    }
    uint8_t& Y(int row, int col) { return y.data()[static_cast<size_t>(row) * strideY + col]; }
    uint8_t& U(int row, int col) { return u.data()[static_cast<size_t>(row) * strideC + col]; }
    uint8_t& V(int row, int col) { return v.data()[static_cast<size_t>(row) * strideC + col]; }
    // Every byte of the three planes, padding included.
    std::vector<uint8_t> bytes() const {
        std::vector<uint8_t> all(y.data(), y.data() + y.size());
        all.insert(all.end(), u.data(), u.data() + u.size());
        all.insert(all.end(), v.data(), v.data() + v.size());
        return all;
    }
};

bool Process(TouchUpCPU& touchUp, Frame& src, Frame& dst) {
    return touchUp.process(src.y.data(), src.strideY, src.u.data(), src.strideC, src.v.data(),
                           src.strideC, dst.y.data(), dst.strideY, dst.u.data(), dst.strideC,
                           dst.v.data(), dst.strideC, src.width, src.height);
}

// Noisy, shaded luma, so that the bilateral weights take many values. Chroma: skin everywhere
// (U 100, V 150), or runs of skin and non-skin blocks when `mixed`.
void Fill(Frame& f, uint32_t seed, bool mixed) {
    const int w = f.width, h = f.height;
    std::mt19937 rng(seed);
    std::normal_distribution<float> noise(0.0f, 18.0f);
    for (int r = 0; r < h; ++r) {
        for (int c = 0; c < w; ++c) {
            const float value = 120.0f + 50.0f * std::sin(0.05f * c) * std::cos(0.07f * r);
            f.Y(r, c) = static_cast<uint8_t>(std::clamp(value + noise(rng), 0.0f, 255.0f));
        }
    }
    bool skin = true;
    for (int r = 0; r < (h + 1) / 2; ++r) {
        for (int c = 0; c < (w + 1) / 2; ++c) {
            skin = mixed && rng() % 5 == 0 ? !skin : skin;
            f.U(r, c) = static_cast<uint8_t>(!mixed ? 100 : skin ? 79 + rng() % 53 : 131);
            f.V(r, c) = static_cast<uint8_t>(!mixed ? 150 : 132 + rng() % 43);
        }
    }
}

// The weight of a tap (dy, dx) whose luma differs by d, for touchUpSigma `sigma`:
// gs(dy) gs(dx) gr(d) / gr(0), gs(i) = 0.39894 exp(-i^2 / 200) / 10,
// gr(d) = 0.39894 exp(-d^2 / (2 s^2)) / s with s = 255 sigma; the norm 1 / gr(0) is a float.
float LiteralWeight(float sigma, int dy, int dx, int d) {
    const double s = sigma * 255.0f;
    auto gs = [](int i) { return 0.39894 * std::exp(-0.5 * i * i / 100.0) / 10.0; };
    const double norm = static_cast<float>(1.0 / (0.39894 / s));
    const double gr = 0.39894 * std::exp(-0.5 * d * d / (s * s)) / s;
    return static_cast<float>(gs(std::abs(dy)) * gs(std::abs(dx)) * norm * gr);
}

// What the touch-up must make of luma pixel (r, c): its source value, unless its 2x2 block's
// chroma lies in U 80..130 and V 133..173 and the block is two chroma samples inside every side
// of the whole blocks; then sum(W n) / sum(W) over its 5x5 taps in double, truncated.
uint8_t LiteralPixel(Frame& src, float sigma, int r, int c) {
    const int br = r / 2, bc = c / 2;
    const int u = src.U(br, bc), v = src.V(br, bc);
    const bool inside = br >= 2 && br < src.height / 2 - 2 && bc >= 2 && bc < src.width / 2 - 2;
    if (!inside || u < 80 || u > 130 || v < 133 || v > 173) {
        return src.Y(r, c);
    }
    double weighted = 0.0, total = 0.0;
    for (int dy = -2; dy <= 2; ++dy) {
        for (int dx = -2; dx <= 2; ++dx) {
            const int n = src.Y(r + dy, c + dx);
            const double w = LiteralWeight(sigma, dy, dx, std::abs(n - src.Y(r, c)));
            weighted += w * n;
            total += w;
        }
    }
    return static_cast<uint8_t>(weighted / total);
}

std::vector<KernelLevel> Levels() {
    std::vector<KernelLevel> levels{KernelLevel::Portable};
    if (VBG::SupportedKernelLevel(KernelLevel::Avx2) == KernelLevel::Avx2) {
        levels.push_back(KernelLevel::Avx2);
    }
    return levels;
}

TEST(TouchUpWeights, TableIsTheLiteralGaussianProductForEachObject) {
    zyn_test::LogCapture logs;
    TouchUpCPU soft(0.5f);
    TouchUpCPU sharp(0.02f);  // a second filter with another sigma must not change the first
    EXPECT_TRUE(logs.hasFrom("VBG::TouchUpCPU::TouchUpCPU", "Constructed TouchUp"));
    for (const auto& [touchUp, sigma] : {std::pair{&soft, 0.5f}, std::pair{&sharp, 0.02f}}) {
        for (int dy = -2; dy <= 2; ++dy) {
            for (int dx = -2; dx <= 2; ++dx) {
                for (int d = 0; d < 256; ++d) {
                    ASSERT_EQ(touchUp->weightTable()[TableIndex(dy, dx, d)],
                              LiteralWeight(sigma, dy, dx, d))
                        << sigma << " " << dy << "," << dx << "," << d;
                }
            }
        }
    }
}

TEST(TouchUpSkin, ChromaBoundsAreInclusive) {
    const struct {
        uint8_t u, v;
        bool skin;
    } cases[] = {{80, 133, true},   {130, 173, true},  {105, 150, true},  {79, 150, false},
                 {131, 150, false}, {105, 132, false}, {105, 174, false}, {128, 128, false}};
    for (const auto& c : cases) {
        Frame src(20, 20), dst(20, 20);
        Fill(src, 1, false);
        std::fill(src.u.data(), src.u.data() + src.u.size(), c.u);
        std::fill(src.v.data(), src.v.data() + src.v.size(), c.v);
        TouchUpCPU touchUp(0.2f);
        ASSERT_TRUE(Process(touchUp, src, dst));
        // 10 x 10 chroma samples, 6 x 6 of them inside the margin.
        EXPECT_EQ(touchUp.skinBlockCount(), c.skin ? 36u : 0u) << int(c.u) << "," << int(c.v);
    }
}

TEST(TouchUpFilter, SkinLumaIsTheLiteralFilterAndNothingElseIsWritten) {
    const struct {
        int w, h, padY, padC;
        float sigma;
        bool mixed;
    } cases[] = {{50, 30, 7, 5, 0.25f, true},
                 {33, 21, 0, 0, 0.3f, false},
                 {64, 48, 3, 1, 0.05f, true},
                 {10, 10, 0, 0, 1.0f, false}};
    for (const auto& c : cases) {
        Frame src(c.w, c.h, c.padY, c.padC);
        Fill(src, c.w, c.mixed);
        for (KernelLevel level : Levels()) {
            SCOPED_TRACE(::testing::Message() << c.w << "x" << c.h << " " << c.sigma << " "
                                              << VBG::KernelLevelName(level));
            Frame dst(c.w, c.h, c.padY, c.padC, 0xA5);
            TouchUpCPU touchUp(c.sigma, level);
            ASSERT_TRUE(Process(touchUp, src, dst));
            EXPECT_GT(touchUp.skinBlockCount(), 0u);
            Frame expected(c.w, c.h, c.padY, c.padC, 0xA5);
            for (int r = 0; r < c.h; ++r) {
                for (int col = 0; col < c.w; ++col) {
                    expected.Y(r, col) = LiteralPixel(src, c.sigma, r, col);
                    expected.U(r / 2, col / 2) = src.U(r / 2, col / 2);
                    expected.V(r / 2, col / 2) = src.V(r / 2, col / 2);
                }
            }
            ASSERT_EQ(dst.bytes(), expected.bytes());
        }
    }
}

TEST(TouchUpFilter, FlatSkinSmallFramesAndUnusableSigmasComeOutUnchanged) {
    // Equal neighbours: sum(W v) / sum(W) must give v back, not v - 1.
    for (uint8_t value : {1, 37, 128, 199, 254, 255}) {
        Frame src(32, 32, 0, 0, value), dst(32, 32);
        std::fill(src.u.data(), src.u.data() + src.u.size(), 100);
        std::fill(src.v.data(), src.v.data() + src.v.size(), 150);
        for (KernelLevel level : Levels()) {
            TouchUpCPU touchUp(0.17f, level);
            ASSERT_TRUE(Process(touchUp, src, dst));
            EXPECT_EQ(dst.bytes(), src.bytes()) << int(value);
        }
    }
    // Five whole chroma blocks across and down are needed for one inside the margin.
    for (int w = 1; w <= 12; ++w) {
        for (int h = 1; h <= 12; ++h) {
            Frame src(w, h), dst(w, h);
            Fill(src, w * 16 + h, false);
            TouchUpCPU touchUp(0.4f);
            ASSERT_TRUE(Process(touchUp, src, dst));
            EXPECT_EQ(touchUp.skinBlockCount() > 0, w >= 10 && h >= 10) << w << "x" << h;
            if (w < 10 || h < 10) {
                EXPECT_EQ(dst.bytes(), src.bytes()) << w << "x" << h;
            }
        }
    }
    zyn_test::LogCapture logs;
    Frame src(30, 30), dst(30, 30);
    Fill(src, 9, false);
    for (float sigma : {0.0f, -1.0f, std::nanf("")}) {
        TouchUpCPU touchUp(sigma);
        ASSERT_TRUE(Process(touchUp, src, dst));
        EXPECT_GT(touchUp.skinBlockCount(), 0u);
        EXPECT_EQ(dst.bytes(), src.bytes()) << sigma;
    }
    EXPECT_EQ(logs.countContaining("is not a positive number"), 3u) << logs.dump();
}

TEST(TouchUpFilter, RejectsMissingPlanesAndBadSizes) {
    zyn_test::LogCapture logs;
    Frame src(16, 16), dst(16, 16);
    TouchUpCPU touchUp(0.2f);
    EXPECT_FALSE(touchUp.process(src.y.data(), 16, nullptr, 8, src.v.data(), 8, dst.y.data(), 16,
                                 dst.u.data(), 8, dst.v.data(), 8, 16, 16));
    EXPECT_FALSE(touchUp.process(src.y.data(), 16, src.u.data(), 8, src.v.data(), 8, dst.y.data(),
                                 16, dst.u.data(), 8, dst.v.data(), 8, 0, 16));
    EXPECT_EQ(logs.countContaining("TouchUp cannot process"), 2u) << logs.dump();
}

// Frames of one sigma go through the same two objects in turn, so that weights the vector
// kernel keeps from one frame are never taken for the next, whatever its size.
TEST(TouchUpVectorKernel, SameBytesAsThePortableKernel) {
#if defined(ZYN_FORCE_PORTABLE) && ZYN_FORCE_PORTABLE
    EXPECT_EQ(TouchUpCPU(0.2f).kernelLevel(), KernelLevel::Portable);
#else
    EXPECT_EQ(TouchUpCPU(0.2f).kernelLevel(), VBG::SupportedKernelLevel(KernelLevel::Avx2));
#endif
    if (Levels().size() < 2) {
        GTEST_SKIP() << "no vector kernel on this processor";
    }
    struct Case {
        int w, h, padY, padC;
        float sigma;
        bool mixed;
    };
    std::vector<Case> cases = {{641, 359, 0, 0, 0.1f, true},    {1281, 721, 3, 1, 0.3f, true},
                               {1280, 720, 0, 0, 0.15f, false}, {200, 100, 0, 0, 0.12f, false},
                               {200, 100, 0, 0, 0.12f, true},   {90, 60, 0, 0, 0.12f, false},
                               {301, 121, 0, 0, 0.12f, true}};
    for (float sigma : {0.001f, 0.02f, 1.0f, 10.0f, 0.0f}) {
        cases.push_back({97, 55, 1, 0, sigma, true});
    }
    for (int w = 1; w <= 70 * 5 * 2; ++w) {
        const int h[] = {1, 9, 10, 13, 24};
        const bool mixed = w <= 350;
        cases.push_back({(w - 1) % 70 + 1, h[w % 5], mixed ? w % 3 : 0, mixed ? w % 2 : 0,
                         mixed ? 0.2f : 0.05f, mixed});
    }
    std::unique_ptr<TouchUpCPU> portable, fast;
    for (const Case& c : cases) {
        Frame src(c.w, c.h, c.padY, c.padC);
        Fill(src, c.w * 7 + c.h, c.mixed);
        Frame expected(c.w, c.h, c.padY, c.padC), got(c.w, c.h, c.padY, c.padC);
        if (!portable || portable->rangeSigma != c.sigma * 255.0f) {
            portable = std::make_unique<TouchUpCPU>(c.sigma, KernelLevel::Portable);
            fast = std::make_unique<TouchUpCPU>(c.sigma, KernelLevel::Avx2);
        }
        ASSERT_TRUE(Process(*portable, src, expected));
        ASSERT_TRUE(Process(*fast, src, got));
        ASSERT_EQ(got.bytes(), expected.bytes())
            << c.w << "x" << c.h << " sigma " << c.sigma << " pad " << c.padY << " " << c.mixed;
    }
}

}  // namespace
