// CPU blur: the radii worked out by hand, and every kernel level against a slow literal window
// average and against each other on odd sizes, at shifting alignments and against a guard page.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
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

// One literal pass along the rows (or the columns) of a w x h plane: each output sums its own
// window [i - r, i + r] cut at the line's ends. Masked: only weights below 208 enter, and only
// such pixels change. Four-byte pixels with a full window inside the line (r < i < n - r)
// multiply by the float 1 / (2r + 1); all other means divide; every mean is truncated.
std::vector<uint8_t> LiteralPass(Form form, const std::vector<uint8_t>& src,
                                 const std::vector<uint8_t>& weights, int w, int h, int r,
                                 bool rows) {
    const int ch = form == Form::Argb ? 4 : 1, n = rows ? w : h;
    const bool masked = form == Form::Masked;
    std::vector<uint8_t> out(src);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const int i = rows ? x : y;
            auto at = [&](int k) { return rows ? y * w + k : k * w + x; };
            for (int c = 0; c < ch; ++c) {
                int sum = 0, taken = 0;
                for (int k = std::max(0, i - r); k <= std::min(n - 1, i + r); ++k) {
                    if (!masked || weights[at(k)] < 208) {
                        sum += src[at(k) * ch + c];
                        ++taken;
                    }
                }
                if (masked && (weights[at(i)] >= 208 || taken == 0)) {
                    continue;
                }
                const bool middle = ch == 4 && i > r && i < n - r;
                out[at(i) * ch + c] = static_cast<uint8_t>(
                    middle ? static_cast<float>(sum) * (1.0f / static_cast<float>(2 * r + 1))
                           : static_cast<float>(sum / taken));
            }
        }
    }
    return out;
}

// One form of a Blur at `level` on a copy of `plane` that ends `slack` bytes before a guard
// page, so that the slack shifts the alignment of the start; the mask likewise.
std::vector<uint8_t> RunBlur(Form form, KernelLevel level, float strength,
                             const std::vector<uint8_t>& plane, const std::vector<uint8_t>& weights,
                             int w, int h, size_t slack) {
    Blur blur(w, h, strength, level);
    zyn_test::PageGuardedBuffer buffer(plane.size() + slack), mask(weights.size() + slack);
    std::copy(plane.begin(), plane.end(), buffer.data());
    std::copy(weights.begin(), weights.end(), mask.data());
    blur.setMask(mask.data());
    uint8_t* p = buffer.data();
    form == Form::Plain    ? blur.blur(p, w, h)
    : form == Form::Masked ? blur.blurMasked(p, w, h)
                           : blur.blurArgb(p, w, h);
    return std::vector<uint8_t>(p, p + plane.size());
}

// Every form: the portable kernels against the literal passes (when `literal`), every vector
// level (or the best below it this processor runs) byte for byte against the portable kernels.
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
            // Three passes along the rows, then three along the columns.
            Blur blur(w, h, strength, KernelLevel::Portable);
            auto plain = plane;
            for (int pass = 0; pass < 6; ++pass) {
                const int r[] = {blur.radius0, blur.radius1, blur.radius2};
                plain = LiteralPass(form, plain, weights, w, h, r[pass % 3], pass < 3);
            }
            ASSERT_EQ(expected, plain);
        }
        for (KernelLevel level : {KernelLevel::Sse2, KernelLevel::Avx2}) {
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
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        float strength;
        int r0, r1, r2;
    } cases[] = {{0.7f, 0, 0, 1},
                 {3.0f, 2, 2, 3},
                 {5.0f, 4, 4, 5},
                 {480 / 36.0f, 13, 13, 13},
                 {nan, 0, 0, 0}};
    for (const auto& c : cases) {
        Blur blur(32, 16, c.strength);
        EXPECT_EQ((std::vector<int>{blur.radius0, blur.radius1, blur.radius2}),
                  (std::vector<int>{c.r0, c.r1, c.r2}))
            << c.strength;
    }
}

TEST(BlurKernels, EveryLevelOnOddShortAndModelSizedPlanesAndEveryWidth) {
    // Radii 13 make every line below 27 pixels shorter than a window; 60 and 30 are beyond the
    // vector kernels' largest radius; then every width up to 70 at heights around one and two
    // 16-row strips. Small planes are also blurred literally.
    const float r13 = 480.0f / 36.0f;
    struct Case {
        int w, h;
        float strength;
    };
    std::vector<Case> cases = {
        {37, 23, 0.7f},   {300, 5, 3.0f},   {7, 270, 5.0f},  {1, 9, 5.0f},    {9, 1, 3.0f},
        {5, 3, r13},      {26, 4, r13},     {3, 40, r13},    {1, 1, r13},     {2, 17, r13},
        {256, 144, 4.0f}, {128, 72, 2.0f},  {257, 145, r13}, {90, 61, 60.0f}, {255, 3, 30.0f},
        {641, 359, 5.0f}, {1281, 721, 5.0f}};
    for (int i = 0; i < 70 * 6 * 3; ++i) {
        const int h[] = {1, 2, 3, 16, 17, 35};
        const float strength[] = {0.7f, 3.0f, 5.0f};
        cases.push_back({i % 70 + 1, h[i / 70 % 6], strength[i / 420]});
    }
    for (size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        ExpectEveryLevel(c.w, c.h, c.strength, i % 16, c.w * c.h <= (i < 17 ? 2000 : 210));
        ASSERT_FALSE(HasFatalFailure());
    }
}

TEST(BlurObject, LevelsRecordsAndRefusals) {
    // The vector kernels run wherever the processor has them.
    for (KernelLevel level : {KernelLevel::Sse2, KernelLevel::Avx2}) {
        EXPECT_EQ(Blur(64, 64, 3.0f, level).kernelLevel(), VBG::SupportedKernelLevel(level));
    }
    // Radii too large for 16-bit sums run on the portable kernels.
    EXPECT_EQ(Blur(64, 64, 200.0f, KernelLevel::Avx2).kernelLevel(), KernelLevel::Portable);

    zyn_test::LogCapture logs;
    Blur blur(16, 8, 3.0f);
    EXPECT_TRUE(logs.hasFrom("VBG::Blur::Blur", "CPU Blur:Constructed with: width: 16, height: 8"));
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
