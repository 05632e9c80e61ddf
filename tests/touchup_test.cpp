// CPU touch-up: the weight table, which blocks are skin, what is never touched (chroma, the
// outer margin, non-skin pixels, small frames), how sigma changes the smoothing, and the vector
// kernel against the portable one on many frame sizes, strides and guard-page placements.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
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
    int width;
    int height;
    int strideY;
    int strideC;
    zyn_test::PageGuardedBuffer y;
    zyn_test::PageGuardedBuffer u;
    zyn_test::PageGuardedBuffer v;

    Frame(int w, int h, int padY = 0, int padC = 0)
        : width(w),
          height(h),
          strideY(w + padY),
          strideC((w + 1) / 2 + padC),
          y(static_cast<size_t>(strideY) * (h - 1) + w),
          u(static_cast<size_t>(strideC) * ((h + 1) / 2 - 1) + (w + 1) / 2),
          v(static_cast<size_t>(strideC) * ((h + 1) / 2 - 1) + (w + 1) / 2) {}

    int chromaWidth() const { return (width + 1) / 2; }
    int chromaHeight() const { return (height + 1) / 2; }
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
    void fillBytes(uint8_t value) {
        std::fill(y.data(), y.data() + y.size(), value);
        std::fill(u.data(), u.data() + u.size(), value);
        std::fill(v.data(), v.data() + v.size(), value);
    }
};

bool Process(TouchUpCPU& touchUp, Frame& src, Frame& dst) {
    return touchUp.process(src.y.data(), src.strideY, src.u.data(), src.strideC, src.v.data(),
                           src.strideC, dst.y.data(), dst.strideY, dst.u.data(), dst.strideC,
                           dst.v.data(), dst.strideC, src.width, src.height);
}

// Noisy, shaded luma: the bilateral weights then take many different values.
void FillLuma(Frame& f, uint32_t seed, float noise = 12.0f) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> n(0.0f, noise);
    for (int r = 0; r < f.height; ++r) {
        for (int c = 0; c < f.width; ++c) {
            const float value = 120.0f + 50.0f * std::sin(0.05f * c) * std::cos(0.07f * r) + n(rng);
            f.Y(r, c) = static_cast<uint8_t>(std::clamp(value, 0.0f, 255.0f));
        }
    }
}

void FillChroma(Frame& f, uint8_t u, uint8_t v) {
    for (int r = 0; r < f.chromaHeight(); ++r) {
        for (int c = 0; c < f.chromaWidth(); ++c) {
            f.U(r, c) = u;
            f.V(r, c) = v;
        }
    }
}

// Runs of skin and non-skin blocks, so that the vector kernel meets runs of every length and
// position.
void FillMixedChroma(Frame& f, uint32_t seed) {
    std::mt19937 rng(seed);
    bool skin = rng() % 2 == 0;
    for (int r = 0; r < f.chromaHeight(); ++r) {
        for (int c = 0; c < f.chromaWidth(); ++c) {
            if (rng() % 5 == 0) {
                skin = !skin;
            }
            f.U(r, c) = static_cast<uint8_t>(skin ? 80 + rng() % 51 : 131 + rng() % 100);
            f.V(r, c) = static_cast<uint8_t>(133 + rng() % 41);
        }
    }
}

std::vector<KernelLevel> VectorLevels() {
    return VBG::SupportedKernelLevel(KernelLevel::Avx2) == KernelLevel::Avx2
               ? std::vector<KernelLevel>{KernelLevel::Avx2}
               : std::vector<KernelLevel>{};
}

// ---- Construction and weights

TEST(TouchUpWeights, RangeSigmaNormAndRecord) {
    zyn_test::LogCapture logs;
    TouchUpCPU touchUp(0.2f);
    EXPECT_FLOAT_EQ(touchUp.rangeSigma, 0.2f * 255.0f);
    // rangeNorm makes the range weight of an equal pixel 1.
    EXPECT_NEAR(touchUp.rangeNorm * 0.39894 / touchUp.rangeSigma, 1.0, 1e-6);
    EXPECT_TRUE(logs.has(spdlog::level::info, "Constructed TouchUp")) << logs.dump();
    EXPECT_TRUE(logs.hasFrom("VBG::TouchUpCPU::TouchUpCPU", "Constructed TouchUp"));
}

TEST(TouchUpWeights, TableFollowsTheSpatialAndRangeGaussians) {
    TouchUpCPU touchUp(0.1f);
    const float* w = touchUp.weightTable();
    const double rs = touchUp.rangeSigma;
    auto gs = [](int i) { return 0.39894 * std::exp(-0.5 * i * i / 100.0) / 10.0; };
    auto gr = [rs](int d) { return 0.39894 * std::exp(-0.5 * d * d / (rs * rs)) / rs; };
    for (int dy = -2; dy <= 2; ++dy) {
        for (int dx = -2; dx <= 2; ++dx) {
            for (int d : {0, 1, 7, 25, 60, 255}) {
                const double expected = gs(dy) * gs(dx) * touchUp.rangeNorm * gr(d);
                EXPECT_EQ(w[TableIndex(dy, dx, d)], static_cast<float>(expected))
                    << dy << "," << dx << "," << d;
            }
            // Symmetric in the offsets, falling with the luma difference.
            EXPECT_EQ(w[TableIndex(dy, dx, 9)], w[TableIndex(-dy, dx, 9)]);
            EXPECT_EQ(w[TableIndex(dy, dx, 9)], w[TableIndex(dx, dy, 9)]);
            EXPECT_GT(w[TableIndex(dy, dx, 10)], w[TableIndex(dy, dx, 20)]);
        }
    }
    // The centre weight of an equal pixel is gs(0)^2.
    EXPECT_NEAR(w[TableIndex(0, 0, 0)], gs(0) * gs(0), 1e-9);
}

TEST(TouchUpWeights, EachObjectKeepsItsOwnTable) {
    TouchUpCPU soft(0.5f);
    const float before = soft.weightTable()[TableIndex(1, 1, 40)];
    TouchUpCPU sharp(0.02f);  // a second engine's filter with another sigma
    EXPECT_EQ(soft.weightTable()[TableIndex(1, 1, 40)], before);
    EXPECT_LT(sharp.weightTable()[TableIndex(1, 1, 40)], before);
}

// ---- Which blocks are skin

TEST(TouchUpSkin, ChromaBoundsAreInclusive) {
    struct Case {
        uint8_t u, v;
        bool skin;
    };
    const Case cases[] = {{80, 133, true},   {130, 173, true},  {105, 150, true},
                          {79, 150, false},  {131, 150, false}, {105, 132, false},
                          {105, 174, false}, {128, 128, false}};
    for (const Case& c : cases) {
        Frame src(20, 20), dst(20, 20);
        FillLuma(src, 1);
        FillChroma(src, c.u, c.v);
        TouchUpCPU touchUp(0.2f);
        ASSERT_TRUE(Process(touchUp, src, dst));
        // 10 x 10 chroma samples, 6 x 6 of them inside the margin.
        EXPECT_EQ(touchUp.skinBlockCount(), c.skin ? 36u : 0u) << int(c.u) << "," << int(c.v);
    }
}

TEST(TouchUpSkin, FrameWithoutSkinComesOutIdentical) {
    Frame src(64, 48, 5, 3), dst(64, 48, 5, 3);
    FillLuma(src, 2);
    FillMixedChroma(src, 3);
    for (int r = 0; r < src.chromaHeight(); ++r) {
        for (int c = 0; c < src.chromaWidth(); ++c) {
            src.V(r, c) = static_cast<uint8_t>(src.V(r, c) < 153 ? 120 : 200);  // no skin V
        }
    }
    dst.fillBytes(0);
    for (KernelLevel level : {KernelLevel::Portable, KernelLevel::Avx2}) {
        TouchUpCPU touchUp(0.3f, level);
        ASSERT_TRUE(Process(touchUp, src, dst));
        EXPECT_EQ(touchUp.skinBlockCount(), 0u);
        for (int r = 0; r < src.height; ++r) {
            ASSERT_TRUE(std::equal(&src.Y(r, 0), &src.Y(r, 0) + src.width, &dst.Y(r, 0))) << r;
        }
        for (int r = 0; r < src.chromaHeight(); ++r) {
            ASSERT_TRUE(std::equal(&src.U(r, 0), &src.U(r, 0) + src.chromaWidth(), &dst.U(r, 0)));
            ASSERT_TRUE(std::equal(&src.V(r, 0), &src.V(r, 0) + src.chromaWidth(), &dst.V(r, 0)));
        }
    }
}

// ---- What is never changed

TEST(TouchUpUntouched, OuterMarginIsCopiedWhileTheInteriorIsFiltered) {
    struct Size {
        int w, h;
    };
    for (const Size s : {Size{64, 48}, Size{33, 21}, Size{10, 10}}) {
        Frame src(s.w, s.h), dst(s.w, s.h);
        FillLuma(src, 4, 25.0f);
        FillChroma(src, 100, 150);  // skin everywhere
        TouchUpCPU touchUp(0.3f);
        ASSERT_TRUE(Process(touchUp, src, dst));
        // Filtered luma: rows and columns [4, 2 * (size / 2 - 2)).
        const int rowEnd = 2 * (s.h / 2 - 2);
        const int colEnd = 2 * (s.w / 2 - 2);
        int interior = 0;
        int changed = 0;
        for (int r = 0; r < s.h; ++r) {
            for (int c = 0; c < s.w; ++c) {
                const bool inside = r >= 4 && r < rowEnd && c >= 4 && c < colEnd;
                if (!inside) {
                    ASSERT_EQ(dst.Y(r, c), src.Y(r, c))
                        << s.w << "x" << s.h << " " << r << "," << c;
                } else {
                    ++interior;
                    changed += dst.Y(r, c) != src.Y(r, c) ? 1 : 0;
                }
            }
        }
        EXPECT_GT(interior, 0);
        EXPECT_GT(changed, interior / 2) << s.w << "x" << s.h;
    }
}

TEST(TouchUpUntouched, ChromaAndPaddingAreNeverWritten) {
    Frame src(50, 30, 7, 5), dst(50, 30, 7, 5);
    FillLuma(src, 5);
    FillMixedChroma(src, 6);
    dst.fillBytes(0xA5);
    TouchUpCPU touchUp(0.25f);
    ASSERT_TRUE(Process(touchUp, src, dst));
    EXPECT_GT(touchUp.skinBlockCount(), 0u);
    for (int r = 0; r < src.chromaHeight(); ++r) {
        // The last row of a guarded plane ends with its pixels.
        const int rowBytes = r + 1 < src.chromaHeight() ? src.strideC : src.chromaWidth();
        for (int c = 0; c < rowBytes; ++c) {
            const bool plane = c < src.chromaWidth();
            ASSERT_EQ(dst.U(r, c), plane ? src.U(r, c) : 0xA5) << r << "," << c;
            ASSERT_EQ(dst.V(r, c), plane ? src.V(r, c) : 0xA5) << r << "," << c;
        }
    }
    for (int r = 0; r + 1 < src.height; ++r) {
        for (int c = src.width; c < src.strideY; ++c) {
            ASSERT_EQ(dst.Y(r, c), 0xA5);
        }
    }
}

TEST(TouchUpUntouched, OnlySkinBlocksAreFiltered) {
    Frame src(40, 40), dst(40, 40);
    FillLuma(src, 7, 20.0f);
    FillChroma(src, 128, 128);
    // Skin only in chroma rows 6..9, columns 5..8: luma rows 12..19, columns 10..17.
    for (int r = 6; r < 10; ++r) {
        for (int c = 5; c < 9; ++c) {
            src.U(r, c) = 110;
            src.V(r, c) = 150;
        }
    }
    TouchUpCPU touchUp(0.3f, KernelLevel::Portable);
    ASSERT_TRUE(Process(touchUp, src, dst));
    EXPECT_EQ(touchUp.skinBlockCount(), 16u);
    for (int r = 0; r < 40; ++r) {
        for (int c = 0; c < 40; ++c) {
            const bool skin = r >= 12 && r < 20 && c >= 10 && c < 18;
            const uint8_t expected =
                skin ? VBG::TouchUpKernels::FilterPixel_C(src.y.data(), src.strideY, r, c,
                                                          touchUp.weightTable())
                     : src.Y(r, c);
            ASSERT_EQ(dst.Y(r, c), expected) << r << "," << c;
        }
    }
}

TEST(TouchUpUntouched, FramesBelowTenPixelsAreCopied) {
    for (int w = 1; w <= 12; ++w) {
        for (int h = 1; h <= 12; ++h) {
            Frame src(w, h), dst(w, h);
            FillLuma(src, static_cast<uint32_t>(w * 16 + h), 30.0f);
            FillChroma(src, 100, 150);
            TouchUpCPU touchUp(0.4f);
            ASSERT_TRUE(Process(touchUp, src, dst));
            // Five whole chroma blocks across and down are needed for one inside the margin.
            const bool filtered = w >= 10 && h >= 10;
            EXPECT_EQ(touchUp.skinBlockCount() > 0, filtered) << w << "x" << h;
            if (!filtered) {
                EXPECT_EQ(dst.bytes(), src.bytes()) << w << "x" << h;
            }
        }
    }
}

TEST(TouchUpUntouched, FlatSkinKeepsItsExactValue) {
    // Equal neighbours: sum(W * v) / sum(W) must give v back, not v - 1.
    for (uint8_t value : {1, 37, 128, 199, 254, 255}) {
        Frame src(32, 32), dst(32, 32);
        std::fill(src.y.data(), src.y.data() + src.y.size(), value);
        FillChroma(src, 100, 150);
        for (KernelLevel level : {KernelLevel::Portable, KernelLevel::Avx2}) {
            TouchUpCPU touchUp(0.17f, level);
            ASSERT_TRUE(Process(touchUp, src, dst));
            EXPECT_EQ(dst.bytes(), src.bytes()) << int(value);
        }
    }
}

TEST(TouchUpUntouched, RejectsMissingPlanesAndBadSizes) {
    zyn_test::LogCapture logs;
    Frame src(16, 16), dst(16, 16);
    TouchUpCPU touchUp(0.2f);
    EXPECT_FALSE(touchUp.process(src.y.data(), 16, nullptr, 8, src.v.data(), 8, dst.y.data(), 16,
                                 dst.u.data(), 8, dst.v.data(), 8, 16, 16));
    EXPECT_FALSE(touchUp.process(src.y.data(), 16, src.u.data(), 8, src.v.data(), 8, dst.y.data(),
                                 16, dst.u.data(), 8, dst.v.data(), 8, 0, 16));
    EXPECT_EQ(logs.countContaining("TouchUp cannot process"), 2u) << logs.dump();
}

// ---- Sigma

double EdgeVariance(Frame& f, int edge) {
    // Luma across a vertical edge: columns edge - 2 .. edge + 1 of the filtered rows.
    double sum = 0.0, sumSq = 0.0;
    int n = 0;
    for (int r = 8; r < f.height - 8; ++r) {
        for (int c = edge - 2; c < edge + 2; ++c) {
            sum += f.Y(r, c);
            sumSq += static_cast<double>(f.Y(r, c)) * f.Y(r, c);
            ++n;
        }
    }
    const double mean = sum / n;
    return sumSq / n - mean * mean;
}

TEST(TouchUpSigma, LargerSigmaSmoothsAcrossLargerDifferences) {
    Frame src(48, 48);
    std::mt19937 rng(8);
    for (int r = 0; r < 48; ++r) {
        for (int c = 0; c < 48; ++c) {
            src.Y(r, c) = static_cast<uint8_t>((c < 24 ? 90 : 140) + static_cast<int>(rng() % 5));
        }
    }
    FillChroma(src, 100, 150);
    const double original = EdgeVariance(src, 24);
    double previous = 1e9;
    // A step of 50 levels: a sigma of 0.02 (5 levels) keeps it, larger sigmas wear it down more
    // and more.
    for (float sigma : {0.02f, 0.1f, 0.3f, 1.0f}) {
        Frame dst(48, 48);
        TouchUpCPU touchUp(sigma);
        ASSERT_TRUE(Process(touchUp, src, dst));
        const double variance = EdgeVariance(dst, 24);
        if (sigma == 0.02f) {
            EXPECT_NEAR(variance, original, 0.03 * original);
        }
        EXPECT_LT(variance, previous) << sigma;
        previous = variance;
    }
    EXPECT_LT(previous, 0.5 * original);
}

TEST(TouchUpSigma, UnusableSigmaLeavesSkinAsItIs) {
    zyn_test::LogCapture logs;
    Frame src(30, 30), dst(30, 30);
    FillLuma(src, 9, 20.0f);
    FillChroma(src, 100, 150);
    for (float sigma : {0.0f, -1.0f, std::nanf("")}) {
        TouchUpCPU touchUp(sigma);
        ASSERT_TRUE(Process(touchUp, src, dst));
        EXPECT_GT(touchUp.skinBlockCount(), 0u);
        EXPECT_EQ(dst.bytes(), src.bytes()) << sigma;
    }
    EXPECT_EQ(logs.countContaining("is not a positive number"), 3u) << logs.dump();
}

// ---- Vector kernel against the portable one

void ExpectVectorMatchesPortable(int w, int h, float sigma, int padY, int padC, uint32_t seed,
                                 bool allSkin) {
    Frame src(w, h, padY, padC);
    FillLuma(src, seed, 18.0f);
    if (allSkin) {
        FillChroma(src, 100, 150);
    } else {
        FillMixedChroma(src, seed + 1);
    }
    Frame expected(w, h, padY, padC);
    expected.fillBytes(0x5A);
    TouchUpCPU portable(sigma, KernelLevel::Portable);
    ASSERT_TRUE(Process(portable, src, expected));
    for (KernelLevel level : VectorLevels()) {
        TouchUpCPU fast(sigma, level);
        ASSERT_EQ(fast.kernelLevel(), level);
        Frame got(w, h, padY, padC);
        got.fillBytes(0x5A);
        ASSERT_TRUE(Process(fast, src, got));
        ASSERT_EQ(got.bytes(), expected.bytes())
            << w << "x" << h << " sigma " << sigma << " pad " << padY << " all skin " << allSkin;
    }
}

TEST(TouchUpVectorKernel, DefaultLevelFollowsTheBuildSwitch) {
#if defined(ZYN_FORCE_PORTABLE) && ZYN_FORCE_PORTABLE
    EXPECT_EQ(TouchUpCPU(0.2f).kernelLevel(), KernelLevel::Portable);
#else
    EXPECT_EQ(TouchUpCPU(0.2f).kernelLevel(), VBG::SupportedKernelLevel(KernelLevel::Avx2));
#endif
}

TEST(TouchUpVectorKernel, EveryWidthWithMixedSkin) {
    for (int w = 1; w <= 70; ++w) {
        for (int h : {1, 9, 10, 13, 24}) {
            ExpectVectorMatchesPortable(w, h, 0.2f, w % 3, w % 2, static_cast<uint32_t>(w + h),
                                        false);
            ExpectVectorMatchesPortable(w, h, 0.05f, 0, 0, static_cast<uint32_t>(w * h), true);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

TEST(TouchUpVectorKernel, LargeOddFramesAndSigmas) {
    ExpectVectorMatchesPortable(641, 359, 0.1f, 0, 0, 11, false);
    ExpectVectorMatchesPortable(1281, 721, 0.3f, 3, 1, 12, false);
    ExpectVectorMatchesPortable(1280, 720, 0.15f, 0, 0, 13, true);
    for (float sigma : {0.001f, 0.02f, 1.0f, 10.0f, 0.0f}) {
        ExpectVectorMatchesPortable(97, 55, sigma, 1, 0, 14, false);
    }
}

TEST(TouchUpVectorKernel, SuccessiveFramesOfChangingSizeOnOneObject) {
    // Weights kept from one frame must never be taken for the next one, whatever its size.
    if (VectorLevels().empty()) {
        GTEST_SKIP() << "no vector kernel on this processor";
    }
    TouchUpCPU portable(0.12f, KernelLevel::Portable);
    TouchUpCPU fast(0.12f, KernelLevel::Avx2);
    struct Step {
        int w, h;
        bool allSkin;
    };
    const Step steps[] = {{200, 100, true}, {200, 100, false}, {200, 100, true},
                          {90, 60, true},   {300, 120, true},  {301, 121, false}};
    uint32_t seed = 40;
    for (const Step& step : steps) {
        Frame src(step.w, step.h);
        FillLuma(src, ++seed, 15.0f);
        if (step.allSkin) {
            FillChroma(src, 100, 150);
        } else {
            FillMixedChroma(src, ++seed);
        }
        Frame expected(step.w, step.h), got(step.w, step.h);
        ASSERT_TRUE(Process(portable, src, expected));
        ASSERT_TRUE(Process(fast, src, got));
        ASSERT_EQ(got.bytes(), expected.bytes()) << step.w << "x" << step.h;
    }
}

}  // namespace
