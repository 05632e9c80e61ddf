// CPU filters at the sizes a 1280x720 call uses, each with its portable kernels and with the
// kernels this processor picks, single thread:
//   masked blur of the model-size background planes (Y 256x144, U/V 128x72) under a person mask,
//   plain blur of the 256x144 model mask (strength 0.7) and of a 1280x720 plane,
//   ARGB blur of a 1280x720 frame (strength 5.0),
//   touch-up of a 1280x720 frame whose chroma is skin everywhere.
// The argument of each run is the kernel level: 0 portable, 1 the best level available, 2 SSE2
// (blurs only, for processors without AVX2).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "filters/blur_cpu.h"
#include "filters/kernel_level.h"
#include "filters/touchup_cpu.h"

namespace {

VBG::KernelLevel LevelOf(const benchmark::State& state) {
    switch (state.range(0)) {
        case 0:
            return VBG::KernelLevel::Portable;
        case 2:
            return VBG::SupportedKernelLevel(VBG::KernelLevel::Sse2);
        default:
            return VBG::BestKernelLevel();
    }
}

// A camera-like plane: smooth shading plus sensor noise.
std::vector<uint8_t> Picture(int width, int height, int channels, uint32_t seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> noise(0.0f, 6.0f);
    std::vector<uint8_t> v(static_cast<size_t>(width) * height * channels);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            for (int c = 0; c < channels; ++c) {
                const float base =
                    128.0f + 60.0f * std::sin(0.02f * x + 0.5f * c) * std::cos(0.03f * y);
                const float value = base + noise(rng);
                v[(static_cast<size_t>(y) * width + x) * channels + c] =
                    static_cast<uint8_t>(std::fmin(255.0f, std::fmax(0.0f, value)));
            }
        }
    }
    return v;
}

// A person mask: 255 inside an upright ellipse, falling off to 0 over a few pixels.
std::vector<uint8_t> PersonMask(int width, int height) {
    std::vector<uint8_t> m(static_cast<size_t>(width) * height);
    const float cx = width * 0.5f;
    const float cy = height * 0.65f;
    const float rx = width * 0.22f;
    const float ry = height * 0.55f;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const float d =
                std::sqrt(((x - cx) / rx) * ((x - cx) / rx) + ((y - cy) / ry) * ((y - cy) / ry));
            const float edge = (1.0f - d) * 12.0f;  // ~ rx / 12 pixels of fall-off
            m[static_cast<size_t>(y) * width + x] =
                static_cast<uint8_t>(255.0f * std::fmin(1.0f, std::fmax(0.0f, edge)));
        }
    }
    return m;
}

void MaskedBlur(benchmark::State& state, int width, int height, float strength) {
    VBG::Blur blur(width, height, strength, LevelOf(state));
    const std::vector<uint8_t> mask = PersonMask(width, height);
    const std::vector<uint8_t> source = Picture(width, height, 1, 1);
    std::vector<uint8_t> plane = source;
    blur.setMask(mask.data());
    for (auto _ : state) {
        state.PauseTiming();
        plane = source;
        state.ResumeTiming();
        blur.blurMasked(plane.data(), width, height);
        benchmark::DoNotOptimize(plane.data());
    }
    state.SetLabel(VBG::KernelLevelName(blur.kernelLevel()));
}

void BM_MaskedBlurLuma256x144(benchmark::State& state) {
    MaskedBlur(state, 256, 144, 144.0f / 36.0f);
}
void BM_MaskedBlurChroma128x72(benchmark::State& state) {
    MaskedBlur(state, 128, 72, 72.0f / 36.0f);
}

void PlainBlur(benchmark::State& state, int width, int height, float strength) {
    VBG::Blur blur(width, height, strength, LevelOf(state));
    std::vector<uint8_t> plane = Picture(width, height, 1, 2);
    for (auto _ : state) {
        blur.blur(plane.data(), width, height);
        benchmark::DoNotOptimize(plane.data());
    }
    state.SetLabel(VBG::KernelLevelName(blur.kernelLevel()));
}

void BM_PlainBlurMask256x144(benchmark::State& state) {
    PlainBlur(state, 256, 144, 0.7f);
}
void BM_PlainBlur1280x720(benchmark::State& state) {
    PlainBlur(state, 1280, 720, 3.0f);
}

void BM_ArgbBlur1280x720(benchmark::State& state) {
    const int width = 1280, height = 720;
    VBG::Blur blur(width, height, 5.0f, LevelOf(state));
    std::vector<uint8_t> frame = Picture(width, height, 4, 3);
    for (auto _ : state) {
        blur.blurArgb(frame.data(), width, height);
        benchmark::DoNotOptimize(frame.data());
    }
    state.SetLabel(VBG::KernelLevelName(blur.kernelLevel()));
}

void BM_TouchUpAllSkin1280x720(benchmark::State& state) {
    const int width = 1280, height = 720;
    const int chromaWidth = width / 2, chromaHeight = height / 2;
    const std::vector<uint8_t> y = Picture(width, height, 1, 4);
    const std::vector<uint8_t> u(static_cast<size_t>(chromaWidth) * chromaHeight, 100);
    const std::vector<uint8_t> v(u.size(), 150);
    std::vector<uint8_t> outY(y.size()), outU(u.size()), outV(v.size());
    VBG::TouchUpCPU touchUp(0.1f, LevelOf(state));
    for (auto _ : state) {
        touchUp.process(y.data(), width, u.data(), chromaWidth, v.data(), chromaWidth, outY.data(),
                        width, outU.data(), chromaWidth, outV.data(), chromaWidth, width, height);
        benchmark::DoNotOptimize(outY.data());
    }
    state.SetLabel(VBG::KernelLevelName(touchUp.kernelLevel()));
}

BENCHMARK(BM_MaskedBlurLuma256x144)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MaskedBlurChroma128x72)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PlainBlurMask256x144)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PlainBlur1280x720)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ArgbBlur1280x720)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TouchUpAllSkin1280x720)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
