// CPU touch-up: every kernel level against a literal bilateral filter on many sizes, strides and
// guard-page placements; flat skin, unusable sigmas and refused frames.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <map>
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
// (U 100, V 150), or runs of skin and non-skin blocks, often at the bounds, when `mixed`.
void Fill(Frame& f, uint32_t seed, bool mixed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> noise(0.0f, 18.0f);
    bool skin = true;
    for (int r = 0; r < f.height; ++r) {
        for (int c = 0; c < f.width; ++c) {
            const float shade = 120.0f + 50.0f * std::sin(0.05f * c) * std::cos(0.07f * r);
            f.Y(r, c) = static_cast<uint8_t>(std::clamp(shade + noise(rng), 0.0f, 255.0f));
            skin = mixed && rng() % 20 == 0 ? !skin : skin;
            f.U(r / 2, c / 2) = static_cast<uint8_t>(!mixed ? 100 : skin ? 79 + rng() % 53 : 131);
            f.V(r / 2, c / 2) = static_cast<uint8_t>(!mixed ? 150 : 132 + rng() % 43);
        }
    }
}

// The weights W(dy, dx, d) of a tap (dy, dx) whose luma differs by d, at [(dy + 2) * 5 + dx + 2]
// [d], for touchUpSigma `sigma`: gs(dy) gs(dx) gr(d) / gr(0), gs(i) = 0.39894 exp(-i^2 / 200) / 10,
// gr(d) = 0.39894 exp(-d^2 / (2 s^2)) / s with s = 255 sigma and the norm 1 / gr(0) a float.
// Without a usable s, 1 at d = 0 and 0 elsewhere.
std::vector<float> LiteralTable(float sigma) {
    const double s = sigma * 255.0f;
    const double norm = static_cast<float>(1.0 / (0.39894 / s));
    std::vector<float> table;
    for (int tap = 0; tap < 25; ++tap) {
        auto gs = [](int i) { return 0.39894 * std::exp(-0.5 * i * i / 100.0) / 10.0; };
        const double spatial = gs(std::abs(tap / 5 - 2)) * gs(std::abs(tap % 5 - 2));
        for (int d = 0; d < 256; ++d) {
            const double gr = 0.39894 * std::exp(-0.5 * d * d / (s * s)) / s;
            table.push_back(static_cast<float>(s > 0 ? spatial * norm * gr : d == 0 ? spatial : 0));
        }
    }
    return table;
}

// What the touch-up must make of `src` in `out` (its padding left alone): a copy, except for the
// luma of blocks whose chroma lies in U 80..130 and V 133..173 and that are two chroma samples
// inside every side of the whole blocks: sum(W n) / sum(W) over the 5x5 taps in double, truncated.
void Literal(Frame& src, float sigma, Frame& out) {
    const std::vector<float> table = LiteralTable(sigma);
    for (int r = 0; r < src.height; ++r) {
        for (int c = 0; c < src.width; ++c) {
            const int br = r / 2, bc = c / 2, u = src.U(br, bc), v = src.V(br, bc);
            out.U(br, bc) = static_cast<uint8_t>(u);
            out.V(br, bc) = static_cast<uint8_t>(v);
            out.Y(r, c) = src.Y(r, c);
            if (br < 2 || br >= src.height / 2 - 2 || bc < 2 || bc >= src.width / 2 - 2 || u < 80 ||
                u > 130 || v < 133 || v > 173) {
                continue;
            }
            double weighted = 0.0, total = 0.0;
            for (int tap = 0; tap < 25; ++tap) {
                const int n = src.Y(r + tap / 5 - 2, c + tap % 5 - 2);
                const double w = table[tap * 256 + std::abs(n - src.Y(r, c))];
                weighted += w * n;
                total += w;
            }
            out.Y(r, c) = static_cast<uint8_t>(weighted / total);
        }
    }
}

// Frames of one sigma go through the same two objects, kept alive beside those of the other
// sigmas: each object filters with its own weights, and weights the vector kernel keeps from one
// frame are never taken for the next, whatever its size. Chroma, padding and every pixel outside
// skin blocks must come out unchanged.
TEST(TouchUpFilter, EveryLevelGivesTheLiteralFilter) {
    struct Case {
        int w, h, padY, padC;
        float sigma;
        bool mixed;
    };
    std::vector<Case> cases = {{50, 30, 7, 5, 0.25f, true},    {641, 359, 0, 0, 0.1f, true},
                               {1281, 721, 3, 1, 0.3f, true},  {1280, 720, 0, 0, 0.15f, false},
                               {200, 100, 0, 0, 0.12f, false}, {200, 100, 0, 0, 0.12f, true},
                               {90, 60, 0, 0, 0.12f, false},   {301, 121, 0, 0, 0.12f, true}};
    for (float sigma : {0.001f, 0.02f, 1.0f, 10.0f, 0.0f}) {
        cases.push_back({97, 55, 1, 0, sigma, true});
    }
    // Every width up to 70 at heights below, at and above the 10 rows a skin block needs.
    for (int i = 0; i < 700; ++i) {
        const int h[] = {1, 9, 10, 13, 24};
        const bool mixed = i % 2 == 0;
        cases.push_back({i / 2 % 70 + 1, h[i / 140], mixed ? i % 3 : 0, mixed ? i % 5 % 2 : 0,
                         mixed ? 0.2f : 0.05f, mixed});
    }
    std::map<float, std::pair<std::unique_ptr<TouchUpCPU>, std::unique_ptr<TouchUpCPU>>> objects;
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.w << "x" << c.h << " sigma " << c.sigma << " pad "
                                          << c.padY << " " << c.mixed);
        Frame src(c.w, c.h, c.padY, c.padC), expected(c.w, c.h, c.padY, c.padC, 0xA5);
        Fill(src, c.w * 7 + c.h, c.mixed);
        Literal(src, c.sigma, expected);
        auto& [portable, fast] = objects[c.sigma];
        if (!portable) {
            portable = std::make_unique<TouchUpCPU>(c.sigma, KernelLevel::Portable);
            fast = std::make_unique<TouchUpCPU>(c.sigma, KernelLevel::Avx2);
        }
        for (TouchUpCPU* touchUp : {portable.get(), fast.get()}) {
            Frame got(c.w, c.h, c.padY, c.padC, 0xA5);
            ASSERT_TRUE(Process(*touchUp, src, got));
            ASSERT_EQ(got.bytes(), expected.bytes())
                << VBG::KernelLevelName(touchUp->kernelLevel());
        }
    }
    EXPECT_EQ(TouchUpCPU(0.2f).kernelLevel(), VBG::BestKernelLevel());
}

TEST(TouchUpFilter, FlatSkinAndUnusableSigmasComeOutUnchangedAndBadFramesAreRefused) {
    // Equal neighbours: sum(W v) / sum(W) must give v back, not v - 1.
    for (uint8_t value : {1, 37, 128, 199, 254, 255}) {
        Frame src(32, 32, 0, 0, value), dst(32, 32);
        std::fill(src.u.data(), src.u.data() + src.u.size(), 100);
        std::fill(src.v.data(), src.v.data() + src.v.size(), 150);
        for (KernelLevel level : {KernelLevel::Portable, KernelLevel::Avx2}) {
            TouchUpCPU touchUp(0.17f, level);
            ASSERT_TRUE(Process(touchUp, src, dst));
            EXPECT_EQ(dst.bytes(), src.bytes()) << int(value);
        }
    }
    zyn_test::LogCapture logs;
    TouchUpCPU(0.3f);
    EXPECT_TRUE(logs.hasFrom("VBG::TouchUpCPU::TouchUpCPU", "Constructed TouchUp"));
    Frame src(30, 30), dst(30, 30);
    Fill(src, 9, false);
    for (float sigma : {0.0f, -1.0f, std::nanf("")}) {
        TouchUpCPU touchUp(sigma);
        ASSERT_TRUE(Process(touchUp, src, dst));
        EXPECT_EQ(dst.bytes(), src.bytes()) << sigma;
    }
    EXPECT_EQ(logs.countContaining("is not a positive number"), 3u) << logs.dump();
    TouchUpCPU touchUp(0.2f);
    EXPECT_FALSE(touchUp.process(src.y.data(), 30, nullptr, 15, src.v.data(), 15, dst.y.data(), 30,
                                 dst.u.data(), 15, dst.v.data(), 15, 30, 30));
    EXPECT_FALSE(touchUp.process(src.y.data(), 30, src.u.data(), 15, src.v.data(), 15, dst.y.data(),
                                 30, dst.u.data(), 15, dst.v.data(), 15, 0, 30));
    EXPECT_EQ(logs.countContaining("TouchUp cannot process"), 2u) << logs.dump();
}

}  // namespace
