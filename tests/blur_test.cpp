// CPU blur: the radii, the portable passes against a brute-force window average (short lines
// included), the masked blur's treatment of the person, and every vector kernel against the
// portable one on random planes of many sizes, at unaligned addresses and against a guard page.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "filters/blur_cpu.h"
#include "filters/blur_reference.h"
#include "filters/page_guarded_buffer.h"
#include "support/log_capture.h"

namespace {

using VBG::Blur;
using VBG::KernelLevel;
using VBG::BlurKernels::kPersonWeight;

std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed, int lo = 0, int hi = 255) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> dist(lo, hi);
    std::vector<uint8_t> v(n);
    for (auto& b : v) {
        b = static_cast<uint8_t>(dist(rng));
    }
    return v;
}

// Weights with runs of person (>= 208) and background (< 208), so that the masked windows see
// every mixture.
std::vector<uint8_t> MixedWeights(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(n);
    bool person = false;
    for (size_t i = 0; i < n; ++i) {
        if (rng() % 7 == 0) {
            person = !person;
        }
        v[i] = static_cast<uint8_t>(person ? 208 + rng() % 48 : rng() % 208);
    }
    return v;
}

// ---- Brute-force oracle: each output from its own window, no running sums.

struct Window {
    int first;
    int last;
    int pixels() const { return last - first + 1; }
};

Window WindowOf(int i, int n, int r) {
    return {std::max(0, i - r), std::min(n - 1, i + r)};
}

std::vector<uint8_t> OracleLine(const std::vector<uint8_t>& src, int r) {
    const int n = static_cast<int>(src.size());
    std::vector<uint8_t> out(n);
    for (int i = 0; i < n; ++i) {
        const Window w = WindowOf(i, n, r);
        int sum = 0;
        for (int k = w.first; k <= w.last; ++k) {
            sum += src[k];
        }
        out[i] = static_cast<uint8_t>(sum / w.pixels());
    }
    return out;
}

std::vector<uint8_t> OracleLineMasked(const std::vector<uint8_t>& src,
                                      const std::vector<uint8_t>& weights, int r) {
    const int n = static_cast<int>(src.size());
    std::vector<uint8_t> out(n);
    for (int i = 0; i < n; ++i) {
        const Window w = WindowOf(i, n, r);
        int sum = 0;
        int taken = 0;
        for (int k = w.first; k <= w.last; ++k) {
            if (weights[k] < kPersonWeight) {
                sum += src[k];
                ++taken;
            }
        }
        out[i] =
            weights[i] < kPersonWeight && taken > 0 ? static_cast<uint8_t>(sum / taken) : src[i];
    }
    return out;
}

// Four-byte pixels: middle pixels (full window, r + 1 <= i <= n - r - 1) multiply by the float
// 1 / (2r + 1), the others divide by their pixel count.
std::vector<uint8_t> OracleLineArgb(const std::vector<uint8_t>& src, int r) {
    const int n = static_cast<int>(src.size() / 4);
    std::vector<uint8_t> out(src.size());
    const float inverse = 1.0f / static_cast<float>(2 * r + 1);
    for (int i = 0; i < n; ++i) {
        const Window w = WindowOf(i, n, r);
        const bool middle = i >= r + 1 && i <= n - r - 1;
        for (int c = 0; c < 4; ++c) {
            int sum = 0;
            for (int k = w.first; k <= w.last; ++k) {
                sum += src[k * 4 + c];
            }
            const float mean = middle ? static_cast<float>(sum) * inverse
                                      : static_cast<float>(sum) / static_cast<float>(w.pixels());
            out[i * 4 + c] = static_cast<uint8_t>(mean);
        }
    }
    return out;
}

enum class Form { Plain, Masked, Argb };

const char* FormName(Form f) {
    return f == Form::Plain ? "plain" : f == Form::Masked ? "masked" : "argb";
}

// The whole blur by the oracle: three passes along every row, then three along every column.
std::vector<uint8_t> OracleBlur(Form form, std::vector<uint8_t> plane,
                                const std::vector<uint8_t>& weights, int width, int height,
                                const int radii[3]) {
    const int channels = form == Form::Argb ? 4 : 1;
    auto run = [&](int lines, int length, auto at) {
        for (int pass = 0; pass < 3; ++pass) {
            for (int l = 0; l < lines; ++l) {
                std::vector<uint8_t> line(static_cast<size_t>(length) * channels);
                std::vector<uint8_t> lineWeights(length);
                for (int i = 0; i < length; ++i) {
                    const size_t p = at(l, i);
                    for (int c = 0; c < channels; ++c) {
                        line[i * channels + c] = plane[p * channels + c];
                    }
                    if (form == Form::Masked) {
                        lineWeights[i] = weights[p];
                    }
                }
                const std::vector<uint8_t> out =
                    form == Form::Plain    ? OracleLine(line, radii[pass])
                    : form == Form::Masked ? OracleLineMasked(line, lineWeights, radii[pass])
                                           : OracleLineArgb(line, radii[pass]);
                for (int i = 0; i < length; ++i) {
                    const size_t p = at(l, i);
                    for (int c = 0; c < channels; ++c) {
                        plane[p * channels + c] = out[i * channels + c];
                    }
                }
            }
        }
    };
    run(height, width, [&](int y, int x) { return static_cast<size_t>(y) * width + x; });
    run(width, height, [&](int x, int y) { return static_cast<size_t>(y) * width + x; });
    return plane;
}

// Runs one form of a Blur object on a copy of `plane` placed in a page-guarded buffer that
// starts `offset` bytes after an arbitrary address (the buffer ends at the guard page).
std::vector<uint8_t> RunBlur(Blur& blur, Form form, const std::vector<uint8_t>& plane,
                             const std::vector<uint8_t>& weights, int width, int height) {
    zyn_test::PageGuardedBuffer buffer(plane.size());
    buffer.fill(plane.data());
    zyn_test::PageGuardedBuffer mask(weights.size());
    if (form == Form::Masked) {
        mask.fill(weights.data());
        blur.setMask(mask.data());
    }
    uint8_t* result = form == Form::Plain    ? blur.blur(buffer.data(), width, height)
                      : form == Form::Masked ? blur.blurMasked(buffer.data(), width, height)
                                             : blur.blurArgb(buffer.data(), width, height);
    EXPECT_EQ(result, buffer.data());
    return std::vector<uint8_t>(buffer.data(), buffer.data() + buffer.size());
}

std::vector<KernelLevel> VectorLevels() {
    std::vector<KernelLevel> levels;
    for (KernelLevel level : {KernelLevel::Sse2, KernelLevel::Avx2}) {
        if (VBG::SupportedKernelLevel(level) == level) {
            levels.push_back(level);
        }
    }
    return levels;
}

// Compares every vector level with the portable kernels for one size, strength and form.
void ExpectVectorMatchesPortable(Form form, int width, int height, float strength, uint32_t seed) {
    const int channels = form == Form::Argb ? 4 : 1;
    const size_t pixels = static_cast<size_t>(width) * height;
    const std::vector<uint8_t> plane = RandomBytes(pixels * channels, seed);
    const std::vector<uint8_t> weights = MixedWeights(pixels, seed + 1);
    Blur portable(width, height, strength, KernelLevel::Portable);
    ASSERT_EQ(portable.kernelLevel(), KernelLevel::Portable);
    const std::vector<uint8_t> expected = RunBlur(portable, form, plane, weights, width, height);
    for (KernelLevel level : VectorLevels()) {
        Blur fast(width, height, strength, level);
        const std::vector<uint8_t> got = RunBlur(fast, form, plane, weights, width, height);
        ASSERT_EQ(got, expected) << FormName(form) << " " << width << "x" << height << " strength "
                                 << strength << " " << VBG::KernelLevelName(fast.kernelLevel());
    }
}

// ---- Radii and construction

TEST(BlurConstruction, RadiiOfTheStrengthsInUse) {
    struct Case {
        float strength;
        int r0, r1, r2;
    };
    const Case cases[] = {
        {0.7f, 0, 0, 1}, {3.0f, 2, 2, 3}, {5.0f, 4, 4, 5}, {480.0f / 36.0f, 13, 13, 13}};
    for (const Case& c : cases) {
        Blur blur(32, 16, c.strength);
        EXPECT_EQ(blur.radius0, c.r0) << c.strength;
        EXPECT_EQ(blur.radius1, c.r1) << c.strength;
        EXPECT_EQ(blur.radius2, c.r2) << c.strength;
    }
    // Strengths that are no number leave the plane alone instead of making absurd radii.
    Blur nan(4, 4, std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(nan.radius0 + nan.radius1 + nan.radius2, 0);
}

TEST(BlurConstruction, ZeroFilledBuffersAndTraceRecord) {
    zyn_test::LogCapture logs;
    Blur blur(256, 144, 4.0f);
    EXPECT_EQ(blur.workBuffer.size(), 256u * 144u * 4u);
    EXPECT_EQ(blur.transposedMask.size(), 256u * 144u * 4u);
    EXPECT_TRUE(std::all_of(blur.workBuffer.begin(), blur.workBuffer.end(),
                            [](uint8_t b) { return b == 0; }));
    EXPECT_TRUE(std::all_of(blur.transposedMask.begin(), blur.transposedMask.end(),
                            [](uint8_t b) { return b == 0; }));
    EXPECT_TRUE(
        logs.has(spdlog::level::trace, "CPU Blur:Constructed with: width: 256, height: 144"))
        << logs.dump();
    EXPECT_TRUE(
        logs.hasFrom("VBG::Blur::Blur", "CPU Blur:Constructed with: width: 256, height: 144"));
}

TEST(BlurConstruction, SetMaskFillsTheTranspose) {
    const int w = 300, h = 70;  // wider than one 256-pixel transpose tile
    const std::vector<uint8_t> weights = RandomBytes(static_cast<size_t>(w) * h, 5);
    Blur blur(w, h, 3.0f);
    blur.setMask(weights.data());
    EXPECT_EQ(blur.mask, weights.data());
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            ASSERT_EQ(blur.transposedMask[static_cast<size_t>(x) * h + y], weights[y * w + x])
                << x << "," << y;
        }
    }
}

TEST(BlurConstruction, RefusesPlanesThatDoNotFitAndMissingMask) {
    zyn_test::LogCapture logs;
    Blur blur(16, 8, 3.0f);
    std::vector<uint8_t> big = RandomBytes(32 * 32 * 4, 9);
    const std::vector<uint8_t> before = big;
    blur.blur(big.data(), 32, 32);
    blur.blurArgb(big.data(), 32, 32);
    EXPECT_EQ(big, before);
    EXPECT_EQ(logs.countContaining("cannot blur 32x32"), 2u) << logs.dump();

    std::vector<uint8_t> plane = RandomBytes(16 * 8, 10);
    const std::vector<uint8_t> planeBefore = plane;
    blur.blurMasked(plane.data(), 16, 8);
    EXPECT_EQ(plane, planeBefore);
    EXPECT_TRUE(logs.has(spdlog::level::err, "CPU Blur:masked blur without a mask"));
}

// ---- Portable passes against the oracle

TEST(BlurPortablePasses, LinesMatchTheWindowAverageAtEveryLengthAndRadius) {
    for (int n = 1; n <= 40; ++n) {
        for (int r = 0; r <= 25; ++r) {
            const uint32_t seed = static_cast<uint32_t>(n * 100 + r);
            const std::vector<uint8_t> src = RandomBytes(n, seed);
            const std::vector<uint8_t> weights = MixedWeights(n, seed + 7);
            std::vector<uint8_t> out(n);
            VBG::BlurKernels::BoxLine_C(src.data(), 1, out.data(), 1, n, r);
            ASSERT_EQ(out, OracleLine(src, r)) << "n " << n << " r " << r;
            VBG::BlurKernels::BoxLineMasked_C(src.data(), weights.data(), 1, out.data(), 1, n, r);
            ASSERT_EQ(out, OracleLineMasked(src, weights, r)) << "n " << n << " r " << r;

            const std::vector<uint8_t> argb = RandomBytes(static_cast<size_t>(n) * 4, seed + 3);
            std::vector<uint8_t> argbOut(argb.size());
            VBG::BlurKernels::BoxLineArgb_C(argb.data(), 4, argbOut.data(), 4, n, r);
            ASSERT_EQ(argbOut, OracleLineArgb(argb, r)) << "n " << n << " r " << r;
        }
    }
}

TEST(BlurPortablePasses, EdgeSpansDivideByTheirTrueCount) {
    // A ramp makes every divisor visible: with r = 2 on 0, 10, 20, ... the first output is
    // (0 + 10 + 20) / 3, not / 5.
    const std::vector<uint8_t> ramp = {0, 10, 20, 30, 40, 50, 60};
    std::vector<uint8_t> out(ramp.size());
    VBG::BlurKernels::BoxLine_C(ramp.data(), 1, out.data(), 1, 7, 2);
    EXPECT_EQ(out, (std::vector<uint8_t>{10, 15, 20, 30, 40, 45, 50}));
    // Radius 0 copies.
    VBG::BlurKernels::BoxLine_C(ramp.data(), 1, out.data(), 1, 7, 0);
    EXPECT_EQ(out, ramp);
}

TEST(BlurPortablePasses, WholeBlursMatchRowThenColumnPasses) {
    struct Size {
        int w, h;
    };
    for (const Size s : {Size{37, 23}, Size{300, 5}, Size{7, 270}, Size{1, 9}, Size{9, 1}}) {
        for (float strength : {0.7f, 3.0f, 5.0f}) {
            for (Form form : {Form::Plain, Form::Masked, Form::Argb}) {
                const int channels = form == Form::Argb ? 4 : 1;
                const size_t pixels = static_cast<size_t>(s.w) * s.h;
                const std::vector<uint8_t> plane = RandomBytes(pixels * channels, 17);
                const std::vector<uint8_t> weights = MixedWeights(pixels, 18);
                Blur blur(s.w, s.h, strength, KernelLevel::Portable);
                const int radii[3] = {blur.radius0, blur.radius1, blur.radius2};
                EXPECT_EQ(RunBlur(blur, form, plane, weights, s.w, s.h),
                          OracleBlur(form, plane, weights, s.w, s.h, radii))
                    << FormName(form) << " " << s.w << "x" << s.h << " strength " << strength;
            }
        }
    }
}

// ---- Planes smaller than a window: valid averages in every form and at every level

TEST(BlurShortRows, RadiusLargerThanHalfTheRowGivesWindowAverages) {
    // Strength 13.3 has radii 13: every row and column below 27 pixels is shorter than a window.
    struct Size {
        int w, h;
    };
    const float strength = 480.0f / 36.0f;
    for (const Size s : {Size{5, 3}, Size{26, 4}, Size{3, 40}, Size{1, 1}, Size{2, 17}}) {
        for (Form form : {Form::Plain, Form::Masked, Form::Argb}) {
            const int channels = form == Form::Argb ? 4 : 1;
            const size_t pixels = static_cast<size_t>(s.w) * s.h;
            const std::vector<uint8_t> plane = RandomBytes(pixels * channels, 21);
            const std::vector<uint8_t> weights = MixedWeights(pixels, 22);
            const int radii[3] = {13, 13, 13};
            const std::vector<uint8_t> expected = OracleBlur(form, plane, weights, s.w, s.h, radii);
            std::vector<KernelLevel> levels = VectorLevels();
            levels.push_back(KernelLevel::Portable);
            for (KernelLevel level : levels) {
                Blur blur(s.w, s.h, strength, level);
                EXPECT_EQ(RunBlur(blur, form, plane, weights, s.w, s.h), expected)
                    << FormName(form) << " " << s.w << "x" << s.h << " "
                    << VBG::KernelLevelName(level);
            }
        }
    }
}

TEST(BlurShortRows, ConstantPlaneStaysConstant) {
    // Any window average of equal pixels is that value; a wrong divisor would change it.
    for (KernelLevel level : {KernelLevel::Portable, KernelLevel::Sse2, KernelLevel::Avx2}) {
        Blur blur(6, 5, 5.0f, level);
        std::vector<uint8_t> plane(6 * 5, 201);
        blur.blur(plane.data(), 6, 5);
        EXPECT_TRUE(std::all_of(plane.begin(), plane.end(), [](uint8_t b) { return b == 201; }));
        std::vector<uint8_t> argb(6 * 5 * 4, 77);
        blur.blurArgb(argb.data(), 6, 5);
        EXPECT_TRUE(std::all_of(argb.begin(), argb.end(), [](uint8_t b) { return b == 77; }));
    }
}

// ---- Masked blur and the person

std::vector<KernelLevel> AllLevels() {
    std::vector<KernelLevel> levels = VectorLevels();
    levels.insert(levels.begin(), KernelLevel::Portable);
    return levels;
}

TEST(BlurMasked, PersonEverywhereLeavesThePlaneUnchanged) {
    const int w = 67, h = 41;
    const std::vector<uint8_t> plane = RandomBytes(static_cast<size_t>(w) * h, 31);
    const std::vector<uint8_t> weights = RandomBytes(plane.size(), 32, 208, 255);
    for (KernelLevel level : AllLevels()) {
        Blur blur(w, h, 4.0f, level);
        EXPECT_EQ(RunBlur(blur, Form::Masked, plane, weights, w, h), plane)
            << VBG::KernelLevelName(level);
    }
}

TEST(BlurMasked, PersonIsNeitherChangedNorBleedsIntoTheBackground) {
    // A bright person (weights 208..255) on a flat dark background (weights below 208).
    const int w = 64, h = 48;
    std::vector<uint8_t> plane(static_cast<size_t>(w) * h, 40);
    std::vector<uint8_t> weights(plane.size(), 0);
    std::mt19937 rng(4);
    for (int y = 10; y < 38; ++y) {
        for (int x = 20; x < 44; ++x) {
            plane[y * w + x] = static_cast<uint8_t>(200 + rng() % 56);
            weights[y * w + x] = static_cast<uint8_t>(208 + (x + y) % 48);
        }
    }
    // Background weights vary below the threshold; that must not matter.
    for (size_t i = 0; i < weights.size(); ++i) {
        if (weights[i] == 0) {
            weights[i] = static_cast<uint8_t>(rng() % 208);
        }
    }
    for (KernelLevel level : AllLevels()) {
        Blur blur(w, h, 5.0f, level);
        EXPECT_EQ(RunBlur(blur, Form::Masked, plane, weights, w, h), plane)
            << VBG::KernelLevelName(level);
        // The plain blur of the same plane does spread the person: the check above can fail.
        const std::vector<uint8_t> spread = RunBlur(blur, Form::Plain, plane, weights, w, h);
        EXPECT_GT(spread[24 * w + 17], 40) << VBG::KernelLevelName(level);
    }
}

// ---- Vector kernels against the portable ones

TEST(BlurVectorKernels, AvailableLevelsAreUsed) {
    // The comparisons below are only meaningful when a vector level actually runs.
    for (KernelLevel level : VectorLevels()) {
        EXPECT_EQ(Blur(64, 64, 3.0f, level).kernelLevel(), level);
    }
    // Radii too large for 16-bit sums fall back to the portable kernels.
    EXPECT_EQ(Blur(64, 64, 200.0f, KernelLevel::Avx2).kernelLevel(), KernelLevel::Portable);
}

TEST(BlurVectorKernels, DefaultLevelFollowsTheBuildSwitch) {
#if defined(ZYN_FORCE_PORTABLE) && ZYN_FORCE_PORTABLE
    EXPECT_EQ(Blur(8, 8, 3.0f).kernelLevel(), KernelLevel::Portable);
#else
    EXPECT_EQ(Blur(8, 8, 3.0f).kernelLevel(), VBG::SupportedKernelLevel(KernelLevel::Avx2));
#endif
}

TEST(BlurVectorKernels, SmallPlanesOfEveryWidth) {
    for (int w = 1; w <= 70; ++w) {
        for (int h : {1, 2, 3, 16, 17, 35}) {
            for (float strength : {0.7f, 3.0f, 5.0f}) {
                for (Form form : {Form::Plain, Form::Masked, Form::Argb}) {
                    ExpectVectorMatchesPortable(form, w, h, strength,
                                                static_cast<uint32_t>(w * 1000 + h));
                    if (HasFatalFailure()) {
                        return;
                    }
                }
            }
        }
    }
}

TEST(BlurVectorKernels, ModelSizedPlanesAndLargeRadii) {
    struct Case {
        int w, h;
        float strength;
    };
    const Case cases[] = {{256, 144, 144.0f / 36.0f}, {128, 72, 72.0f / 36.0f}, {256, 144, 0.7f},
                          {257, 145, 480.0f / 36.0f}, {90, 61, 60.0f},          {255, 3, 30.0f}};
    for (const Case& c : cases) {
        for (Form form : {Form::Plain, Form::Masked, Form::Argb}) {
            ExpectVectorMatchesPortable(form, c.w, c.h, c.strength, 77);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

TEST(BlurVectorKernels, LargeOddFrames) {
    struct Size {
        int w, h;
    };
    for (const Size s : {Size{641, 359}, Size{1281, 721}}) {
        for (Form form : {Form::Plain, Form::Masked, Form::Argb}) {
            ExpectVectorMatchesPortable(form, s.w, s.h, 5.0f, 99);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

TEST(BlurVectorKernels, UnalignedStarts) {
    const int w = 45, h = 33;
    for (int offset = 1; offset < 16; ++offset) {
        for (Form form : {Form::Plain, Form::Masked, Form::Argb}) {
            const int channels = form == Form::Argb ? 4 : 1;
            const size_t bytes = static_cast<size_t>(w) * h * channels;
            const std::vector<uint8_t> plane = RandomBytes(bytes, 50 + offset);
            const std::vector<uint8_t> weights = MixedWeights(static_cast<size_t>(w) * h, 60);
            std::vector<uint8_t> expectedStore(bytes + 16);
            std::vector<uint8_t> weightStore(weights.size() + 16);
            std::copy(weights.begin(), weights.end(), weightStore.begin() + offset);
            Blur portable(w, h, 5.0f, KernelLevel::Portable);
            std::copy(plane.begin(), plane.end(), expectedStore.begin() + offset);
            uint8_t* p = expectedStore.data() + offset;
            portable.setMask(weightStore.data() + offset);
            if (form == Form::Plain) {
                portable.blur(p, w, h);
            } else if (form == Form::Masked) {
                portable.blurMasked(p, w, h);
            } else {
                portable.blurArgb(p, w, h);
            }
            for (KernelLevel level : VectorLevels()) {
                Blur fast(w, h, 5.0f, level);
                std::vector<uint8_t> store(bytes + 16);
                std::copy(plane.begin(), plane.end(), store.begin() + offset);
                uint8_t* q = store.data() + offset;
                fast.setMask(weightStore.data() + offset);
                if (form == Form::Plain) {
                    fast.blur(q, w, h);
                } else if (form == Form::Masked) {
                    fast.blurMasked(q, w, h);
                } else {
                    fast.blurArgb(q, w, h);
                }
                ASSERT_EQ(store, expectedStore)
                    << FormName(form) << " offset " << offset << " " << VBG::KernelLevelName(level);
            }
        }
    }
}

}  // namespace
