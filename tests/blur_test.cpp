// CPU blur: the radii and the box arithmetic against hand-worked lines and a slow literal window
// average, and every kernel level against it and against each other on odd sizes, at shifting
// alignments and against a guard page.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>
#include <random>
#include <vector>

#include "filters/blur_cpu.h"
#include "filters/blur_reference.h"
#include "filters/page_guarded_buffer.h"
#include "support/log_capture.h"

namespace {

using VBG::Blur;
using VBG::KernelLevel;
namespace K = VBG::BlurKernels;

enum class Form { Plain, Masked, Argb };
const char* const kFormNames[] = {"plain", "masked", "argb"};

std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(n);
    std::generate(v.begin(), v.end(), [&] { return static_cast<uint8_t>(rng()); });
    return v;
}

// Runs of person (208 and above) and background, often right at the threshold.
std::vector<uint8_t> MixedWeights(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(n);
    bool person = false;
    for (auto& w : v) {
        person = rng() % 7 == 0 ? !person : person;
        const bool edge = rng() % 3 == 0;
        w = static_cast<uint8_t>(person ? (edge ? 208 : 208 + rng() % 48)
                                        : (edge ? 207 : rng() % 208));
    }
    return v;
}

// The literal window average of one line of `channels`-byte pixels: each output sums its own
// window [i - r, i + r] cut at the line's ends. Masked: only weights below 208 enter, and only
// such pixels change. Four-byte pixels with a full window inside the line (r < i < n - r)
// multiply by the float 1 / (2r + 1); all other means divide; every mean is truncated.
std::vector<uint8_t> LiteralLine(const std::vector<uint8_t>& src, const uint8_t* weights,
                                 int channels, int r) {
    const int n = static_cast<int>(src.size()) / channels;
    std::vector<uint8_t> out(src);
    for (int i = 0; i < n; ++i) {
        for (int c = 0; c < channels; ++c) {
            int sum = 0, taken = 0;
            for (int k = std::max(0, i - r); k <= std::min(n - 1, i + r); ++k) {
                if (weights == nullptr || weights[k] < 208) {
                    sum += src[k * channels + c];
                    ++taken;
                }
            }
            if (weights != nullptr && (weights[i] >= 208 || taken == 0)) {
                continue;
            }
            const bool middle = channels == 4 && i > r && i < n - r;
            out[i * channels + c] = static_cast<uint8_t>(
                middle ? static_cast<float>(sum) * (1.0f / static_cast<float>(2 * r + 1))
                       : static_cast<float>(sum / taken));
        }
    }
    return out;
}

// Three passes along every row, then three along every column.
std::vector<uint8_t> LiteralBlur(Form form, std::vector<uint8_t> plane,
                                 const std::vector<uint8_t>& weights, int w, int h,
                                 const int radii[3]) {
    const int ch = form == Form::Argb ? 4 : 1;
    auto passes = [&](int lines, int length, size_t lineStep, size_t pixelStep) {
        for (int pass = 0; pass < 3; ++pass) {
            for (int l = 0; l < lines; ++l) {
                std::vector<uint8_t> line(static_cast<size_t>(length) * ch), lineWeights(length);
                for (int i = 0; i < length; ++i) {
                    const size_t p = l * lineStep + i * pixelStep;
                    std::copy_n(&plane[p * ch], ch, &line[i * ch]);
                    lineWeights[i] = weights[p];
                }
                line = LiteralLine(line, form == Form::Masked ? lineWeights.data() : nullptr, ch,
                                   radii[pass]);
                for (int i = 0; i < length; ++i) {
                    std::copy_n(&line[i * ch], ch, &plane[(l * lineStep + i * pixelStep) * ch]);
                }
            }
        }
    };
    passes(h, w, w, 1);
    passes(w, h, 1, w);
    return plane;
}

// One form of a Blur at `level` on a copy of `plane` that ends `slack` bytes before a guard
// page, so that the slack shifts the alignment of the start; the mask likewise.
std::vector<uint8_t> RunBlur(Form form, KernelLevel level, float strength,
                             const std::vector<uint8_t>& plane, const std::vector<uint8_t>& weights,
                             int w, int h, size_t slack) {
    Blur blur(w, h, strength, level);
    zyn_test::PageGuardedBuffer buffer(plane.size() + slack), mask(weights.size() + slack);
    buffer.fill(plane.data());
    mask.fill(weights.data());
    blur.setMask(mask.data());
    uint8_t* p = buffer.data();
    EXPECT_EQ(form == Form::Plain    ? blur.blur(p, w, h)
              : form == Form::Masked ? blur.blurMasked(p, w, h)
                                     : blur.blurArgb(p, w, h),
              p);
    return std::vector<uint8_t>(p, p + plane.size());
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

// Every form: the portable kernels against the literal blur (when `literal`), every vector
// level byte for byte against the portable kernels.
void ExpectEveryLevel(int w, int h, float strength, size_t slack, bool literal) {
    for (Form form : {Form::Plain, Form::Masked, Form::Argb}) {
        SCOPED_TRACE(::testing::Message() << kFormNames[static_cast<int>(form)] << " " << w << "x"
                                          << h << " strength " << strength << " slack " << slack);
        const size_t pixels = static_cast<size_t>(w) * h;
        const auto plane = RandomBytes(pixels * (form == Form::Argb ? 4 : 1), w * 131 + h);
        const auto weights = MixedWeights(pixels, w + h);
        const auto expected =
            RunBlur(form, KernelLevel::Portable, strength, plane, weights, w, h, slack);
        if (literal) {
            Blur radii(w, h, strength, KernelLevel::Portable);
            const int r[3] = {radii.radius0, radii.radius1, radii.radius2};
            ASSERT_EQ(expected, LiteralBlur(form, plane, weights, w, h, r));
        }
        for (KernelLevel level : VectorLevels()) {
            ASSERT_EQ(RunBlur(form, level, strength, plane, weights, w, h, slack), expected)
                << VBG::KernelLevelName(level);
        }
    }
}

TEST(BlurArithmetic, RadiiOfTheStrengthsInUse) {
    // w = sqrt(4 s^2 + 1) down to odd, m = round((12 s^2 - 3 w^2 - 12 w - 9) / (-4 (w + 1)));
    // the first m boxes are w wide, the others w + 2. s = 3: w = 5, m = -36 / -24 = 1.5 -> 2.
    // s = 5: w = 9, m = (300 - 243 - 108 - 9) / -40 = 1.5 -> 2. s = 0.7: w = 1,
    // m = (5.88 - 3 - 12 - 9) / -8 = 2.27 -> 2. s = 480 / 36: w = 25, m = -50.7 / -104 -> 0.
    const struct {
        float strength;
        int r0, r1, r2;
    } cases[] = {{0.7f, 0, 0, 1},
                 {3.0f, 2, 2, 3},
                 {5.0f, 4, 4, 5},
                 {480.0f / 36.0f, 13, 13, 13},
                 {std::numeric_limits<float>::quiet_NaN(), 0, 0, 0}};
    for (const auto& c : cases) {
        Blur blur(32, 16, c.strength);
        EXPECT_EQ((std::vector<int>{blur.radius0, blur.radius1, blur.radius2}),
                  (std::vector<int>{c.r0, c.r1, c.r2}))
            << c.strength;
    }
}

TEST(BlurArithmetic, HandWorkedLines) {
    using Line = std::vector<uint8_t>;
    const struct {
        Line src, weights;  // no weights: the plain pass
        int r;
        Line expected;
    } cases[] = {
        // Edge windows divide by their own count: (0 + 10 + 20) / 3, (0 + ... + 30) / 4.
        {{0, 10, 20, 30, 40, 50, 60}, {}, 2, {10, 15, 20, 30, 40, 45, 50}},
        // Truncated, not rounded: 3 / 2 = 1, 5 / 3 = 1, 4 / 2 = 2.
        {{1, 2, 2}, {}, 1, {1, 1, 2}},
        // A line shorter than a window: every output averages the whole line.
        {{0, 30, 61}, {}, 5, {30, 30, 30}},
        {{9, 200, 3}, {}, 0, {9, 200, 3}},
        // 207 is background, 208 the person: (10 + 20) / 2 twice, 30 and 50 kept, 90 alone.
        {{10, 20, 30, 90, 50}, {0, 207, 208, 0, 255}, 1, {15, 15, 30, 90, 50}},
    };
    for (const auto& c : cases) {
        Line out(c.src.size());
        const int n = static_cast<int>(c.src.size());
        if (c.weights.empty()) {
            K::BoxLine_C(c.src.data(), 1, out.data(), 1, n, c.r);
        } else {
            K::BoxLineMasked_C(c.src.data(), c.weights.data(), 1, out.data(), 1, n, c.r);
        }
        EXPECT_EQ(out, c.expected) << "r " << c.r << " first " << int(c.src[0]);
    }
}

TEST(BlurArithmetic, PortableLinesMatchTheLiteralAverageAtEveryLengthAndRadius) {
    for (int n = 1; n <= 40; ++n) {
        for (int r = 0; r <= 25; ++r) {
            SCOPED_TRACE(::testing::Message() << "n " << n << " r " << r);
            const auto src = RandomBytes(n * 4, n * 100 + r);
            const auto weights = MixedWeights(n, n + r);
            std::vector<uint8_t> out(src.size());
            K::BoxLineArgb_C(src.data(), 4, out.data(), 4, n, r);
            ASSERT_EQ(out, LiteralLine(src, nullptr, 4, r));
            out.resize(n);
            const std::vector<uint8_t> head(src.begin(), src.begin() + n);
            K::BoxLine_C(src.data(), 1, out.data(), 1, n, r);
            ASSERT_EQ(out, LiteralLine(head, nullptr, 1, r));
            K::BoxLineMasked_C(src.data(), weights.data(), 1, out.data(), 1, n, r);
            ASSERT_EQ(out, LiteralLine(head, weights.data(), 1, r));
        }
    }
}

TEST(BlurKernels, EveryLevelOnOddShortAndModelSizedPlanes) {
    const struct {
        int w, h;
        float strength;
        bool literal;
    } cases[] = {
        {37, 23, 0.7f, true},
        {300, 5, 3.0f, true},
        {7, 270, 5.0f, true},
        {1, 9, 5.0f, true},
        {9, 1, 3.0f, true},
        {5, 3, 480 / 36.0f, true},
        {26, 4, 480 / 36.0f, true},
        {3, 40, 480 / 36.0f, true},
        {1, 1, 480 / 36.0f, true},
        {2, 17, 480 / 36.0f, true},
        {256, 144, 4.0f, false},
        {128, 72, 2.0f, false},
        {257, 145, 480 / 36.0f, false},
        {90, 61, 60.0f, false},
        {255, 3, 30.0f, false},
        {641, 359, 5.0f, false},
        {1281, 721, 5.0f, false},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        ExpectEveryLevel(c.w, c.h, c.strength, i % 16, c.literal);
        ASSERT_FALSE(HasFatalFailure());
    }
}

TEST(BlurKernels, EveryWidthAndAlignment) {
    for (int w = 1; w <= 70; ++w) {
        for (int h : {1, 2, 3, 16, 17, 35}) {
            for (float strength : {0.7f, 3.0f, 5.0f}) {
                ExpectEveryLevel(w, h, strength, (w + h) % 16, false);
                ASSERT_FALSE(HasFatalFailure());
            }
        }
    }
}

TEST(BlurObject, LevelsRecordsAndRefusals) {
    for (KernelLevel level : VectorLevels()) {
        EXPECT_EQ(Blur(64, 64, 3.0f, level).kernelLevel(), level);
    }
    // Radii too large for 16-bit sums run on the portable kernels.
    EXPECT_EQ(Blur(64, 64, 200.0f, KernelLevel::Avx2).kernelLevel(), KernelLevel::Portable);
#if defined(ZYN_FORCE_PORTABLE) && ZYN_FORCE_PORTABLE
    EXPECT_EQ(Blur(8, 8, 3.0f).kernelLevel(), KernelLevel::Portable);
#else
    EXPECT_EQ(Blur(8, 8, 3.0f).kernelLevel(), VBG::SupportedKernelLevel(KernelLevel::Avx2));
#endif

    zyn_test::LogCapture logs;
    Blur blur(16, 8, 3.0f);
    EXPECT_TRUE(logs.hasFrom("VBG::Blur::Blur", "CPU Blur:Constructed with: width: 16, height: 8"));
    EXPECT_EQ(blur.workBuffer, std::vector<uint8_t>(16 * 8 * 4, 0));
    EXPECT_EQ(blur.transposedMask, std::vector<uint8_t>(16 * 8 * 4, 0));
    std::vector<uint8_t> big = RandomBytes(32 * 32 * 4, 9);
    const std::vector<uint8_t> before = big;
    blur.blur(big.data(), 32, 32);
    blur.blurArgb(big.data(), 32, 32);
    blur.blurMasked(big.data(), 16, 8);
    EXPECT_EQ(big, before);
    EXPECT_EQ(logs.countContaining("cannot blur 32x32"), 2u) << logs.dump();
    EXPECT_TRUE(logs.has(spdlog::level::err, "CPU Blur:masked blur without a mask"));
}

}  // namespace
