// The CPU engine's frame, stage by stage, at 640x360, 1280x720 and 1920x1080 NV12 with the real
// landscape model, for blur, picture and touch-up, against the floor: the libyuv calls that any
// such pipeline makes per frame, timed alone on buffers of the same sizes.
//
//   BM_Pipeline/<effect>/<size>   one frame through the engine's own steps; counters:
//       pre_ms   frame in, NV12 to I420, model input (box scale to model size, to ARGB)
//       inf_ms   the backend's runModel
//       post_ms  mask (blur, contrast curve, bilinear upscale), background, touch-up, blend,
//                I420 to NV12
//       floor_ms the floor calls (see BM_Floor) run once per frame between the engine's frames,
//                on buffers of their own: ratio = (pre + post) / floor
//       floor_hot_ms, ratio_hot: the same against each call repeated back to back on hot caches
//   BM_Floor/<size>               NV12ToI420, I420Scale (box) to the model size, I420ToARGB at the
//       model size, ScalePlane (bilinear) of the mask to the frame size, I420Scale of the
//       model-size background to the frame size, I420Blend, I420ToNV12. A picture background is
//       converted once, not per frame, so the picture floor leaves out the background upscale.
//   BM_Extra/<size>               the pipeline's work beyond the floor, each piece alone.
//
// Run: ./build/bench/pipeline_bench [--benchmark_filter=...]
#include <benchmark/benchmark.h>
#include <libyuv.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "config/vbg_settings.h"
#include "engine/i420_planes.h"
#include "engine/virtual_background_impl_cpu_yuv.h"
#include "filters/blur_cpu.h"
#include "filters/touchup_cpu.h"
#include "ml/vbg_ml_processing.h"
#include "util/text.h"

namespace fs = std::filesystem;

namespace {

const fs::path kSource = fs::path(__FILE__).parent_path().parent_path();
const fs::path kModel = kSource / ".deps" / "models" / "model.winml";
constexpr const char* kPicture = "/usr/lib/python3/dist-packages/skimage/data/astronaut.png";

struct FrameSize {
    int width, height;
};
constexpr FrameSize kSizes[] = {{640, 360}, {1280, 720}, {1920, 1080}};
// The landscape model's input.
constexpr int kModelW = 256, kModelH = 144;

enum Effect { EffectBlur = 0, EffectPicture = 1, EffectTouchUp = 2 };
constexpr const char* kEffectNames[] = {"blur", "picture", "touchup"};

double nowMs() {
    return std::chrono::duration<double, std::milli>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// CPU time of the calling thread: the single-threaded stages and the floor are compared on it,
// so that other load on the machine does not blur the comparison.
double threadCpuMs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

fs::path scratch() {
    static const fs::path dir = [] {
        const fs::path d =
            fs::temp_directory_path() / ("zyn-pipeline-bench-" + std::to_string(::getpid()));
        fs::create_directories(d);
        return d;
    }();
    return dir;
}

// The astronaut as an NV12 camera frame of w x h (scaled to the height, centred on grey).
std::vector<uint8_t> CameraNv12(int w, int h) {
    const fs::path raw = scratch() / ("cam" + std::to_string(w) + ".yuv");
    const std::string command =
        std::string("ffmpeg -v error -y -i '") + kPicture + "' -vf 'scale=-2:" + std::to_string(h) +
        ",pad=" + std::to_string(w) + ":" + std::to_string(h) +
        ":(ow-iw)/2:0:color=0x808080' -pix_fmt nv12 -f rawvideo '" + raw.string() + "'";
    std::vector<uint8_t> bytes;
    if (std::system(command.c_str()) == 0) {
        std::ifstream in(raw, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    if (bytes.size() != static_cast<size_t>(w) * h * 3 / 2) {
        bytes.clear();
    }
    return bytes;
}

fs::path PictureFile() {
    const fs::path png = scratch() / "background.png";
    if (!fs::exists(png)) {
        const std::string command = std::string("ffmpeg -v error -y -f lavfi -i ") +
                                    "testsrc2=s=1920x1080 -frames:v 1 '" + png.string() + "'";
        if (std::system(command.c_str()) != 0) {
            return {};
        }
    }
    return png;
}

VBGSettings SettingsFor(Effect effect) {
    VBGSettings s = VBG::DefaultVBGSettings();
    s.pt = 0;
    VBG::Text::CopyToField(s.modelFilePath, ZYN_PATH_CHARS, kModel.string(), 1000);
    VBG::Text::CopyToField(s.fileCachePath, ZYN_PATH_CHARS, scratch().string(), 1000);
    switch (effect) {
        case EffectBlur:
            s.bt = 1;
            break;
        case EffectPicture:
            s.bt = 2;
            s.imageOrVideoType = 1;
            s.imageOrVideoDataSource = 1;
            VBG::Text::CopyToField(s.backgroundImageFile, ZYN_PATH_CHARS, PictureFile().string(),
                                   1000);
            break;
        case EffectTouchUp:
            s.bt = 0;
            s.effects = ZYN_EFFECT_TOUCHUP;
            s.touchUpSigma = 0.05f;
            break;
    }
    return s;
}

ZynNativeInputFrame Nv12Record(std::vector<uint8_t>& bytes, int w, int h) {
    ZynNativeInputFrame r{};
    r.width = static_cast<uint32_t>(w);
    r.height = static_cast<uint32_t>(h);
    r.format = ZYN_FORMAT_NV12;
    r.plane0 = bytes.data();
    r.stride0 = static_cast<uint32_t>(w);
    r.plane1 = bytes.data() + static_cast<size_t>(w) * h;
    r.stride1 = static_cast<uint32_t>(w);
    return r;
}

// The engine's own per-frame steps, in the engine's order, with a clock between the stages.
class TimedEngine : public VBG::VirtualBackgroundImplYuv {
  public:
    explicit TimedEngine(uint32_t pt) : VirtualBackgroundImplYuv(pt) {}
    struct Times {
        double pre = 0, inf = 0, post = 0;
    };
    bool frame(const ZynNativeInputFrame* in, ZynNativeInputFrame* out, Times& t) {
        const double t0 = threadCpuMs();
        if (!updateFrameSizeAndSettings(in->width, in->height)) {
            return false;
        }
        if (settings.bt == 0) {
            if (!updateARGBBuffer(in, false)) {
                return false;
            }
            const double t1 = threadCpuMs();
            if (!touchUpOnly(out) || !updateOutputFrame(out)) {
                return false;
            }
            const double t3 = threadCpuMs();
            t.pre += t1 - t0;
            t.post += t3 - t1;
            return true;
        }
        if (!updateARGBBuffer(in, true)) {
            return false;
        }
        const double t1 = threadCpuMs();
        const double w1 = nowMs();
        if (!runMLModel(videoStats)) {
            return false;
        }
        const double w2 = nowMs();
        const double t2 = threadCpuMs();
        if (!composeFrame(out) || !updateOutputFrame(out)) {
            return false;
        }
        const double t3 = threadCpuMs();
        t.pre += t1 - t0;
        t.inf += w2 - w1;  // the inference runs on the runtime's threads too: wall time
        t.post += t3 - t2;
        return true;
    }
};

// Mean thread CPU time of `body` over enough repetitions, in ms.
template <typename Body>
double timeMs(Body&& body, int reps = 60) {
    for (int i = 0; i < 5; ++i) {
        body();
    }
    const double start = threadCpuMs();
    for (int i = 0; i < reps; ++i) {
        body();
    }
    return (threadCpuMs() - start) / reps;
}

// The libyuv calls a frame cannot do without, timed alone; the same buffers and sizes as the
// engine's.
struct Floor {
    double nv12ToI420 = 0, scaleToModel = 0, modelToArgb = 0, maskUpscale = 0,
           backgroundUpscale = 0, blend = 0, i420ToNv12 = 0;
    double blurTotal() const {
        return nv12ToI420 + scaleToModel + modelToArgb + maskUpscale + backgroundUpscale + blend +
               i420ToNv12;
    }
    double pictureTotal() const { return blurTotal() - backgroundUpscale; }
};

struct Planes {
    std::vector<uint8_t> bytes;
    VBG::I420Planes p;
    Planes(int w, int h) : bytes(VBG::I420BufferSize(w, h), 100) {
        p = VBG::I420InBuffer(bytes.data(), w, h);
    }
};

const Floor& FloorFor(int w, int h) {
    static std::map<int, Floor> cache;
    auto it = cache.find(w);
    if (it != cache.end()) {
        return it->second;
    }
    std::vector<uint8_t> nv12 = CameraNv12(w, h);
    nv12.resize(static_cast<size_t>(w) * h * 3 / 2, 128);
    Planes frame(w, h), background(w, h), out(w, h), model(kModelW, kModelH),
        modelBackground(kModelW, kModelH);
    std::vector<uint8_t> argb(kModelW * kModelH * 4), modelMask(kModelW * kModelH, 200),
        mask(static_cast<size_t>(w) * h, 128), outNv12(nv12.size());
    Floor f;
    f.nv12ToI420 = timeMs([&] {
        libyuv::NV12ToI420(nv12.data(), w, nv12.data() + w * h, w, frame.p.y, frame.p.strideY,
                           frame.p.u, frame.p.strideU, frame.p.v, frame.p.strideV, w, h);
    });
    f.scaleToModel = timeMs([&] {
        libyuv::I420Scale(frame.p.y, frame.p.strideY, frame.p.u, frame.p.strideU, frame.p.v,
                          frame.p.strideV, w, h, model.p.y, model.p.strideY, model.p.u,
                          model.p.strideU, model.p.v, model.p.strideV, kModelW, kModelH,
                          libyuv::kFilterBox);
    });
    f.modelToArgb = timeMs([&] {
        libyuv::I420ToARGB(model.p.y, model.p.strideY, model.p.u, model.p.strideU, model.p.v,
                           model.p.strideV, argb.data(), kModelW * 4, kModelW, kModelH);
    });
    f.maskUpscale = timeMs([&] {
        libyuv::ScalePlane(modelMask.data(), kModelW, kModelW, kModelH, mask.data(), w, w, h,
                           libyuv::kFilterBilinear);
    });
    f.backgroundUpscale = timeMs([&] {
        libyuv::I420Scale(modelBackground.p.y, modelBackground.p.strideY, modelBackground.p.u,
                          modelBackground.p.strideU, modelBackground.p.v, modelBackground.p.strideV,
                          kModelW, kModelH, background.p.y, background.p.strideY, background.p.u,
                          background.p.strideU, background.p.v, background.p.strideV, w, h,
                          libyuv::kFilterBox);
    });
    f.blend = timeMs([&] {
        libyuv::I420Blend(frame.p.y, frame.p.strideY, frame.p.u, frame.p.strideU, frame.p.v,
                          frame.p.strideV, background.p.y, background.p.strideY, background.p.u,
                          background.p.strideU, background.p.v, background.p.strideV, mask.data(),
                          w, out.p.y, out.p.strideY, out.p.u, out.p.strideU, out.p.v, out.p.strideV,
                          w, h);
    });
    f.i420ToNv12 = timeMs([&] {
        libyuv::I420ToNV12(out.p.y, out.p.strideY, out.p.u, out.p.strideU, out.p.v, out.p.strideV,
                           outNv12.data(), w, outNv12.data() + w * h, w, w, h);
    });
    return cache.emplace(w, f).first->second;
}

// The same floor calls in pipeline order, once per frame, between the engine's frames: the
// floor in the conditions the engine's own frame meets (caches shared with the inference and the
// rest of the frame).
class FloorFrame {
  public:
    FloorFrame(int w, int h, const std::vector<uint8_t>& camera)
        : w_(w),
          h_(h),
          nv12_(camera),
          frame_(w, h),
          background_(w, h),
          out_(w, h),
          model_(kModelW, kModelH),
          modelBackground_(kModelW, kModelH),
          argb_(kModelW * kModelH * 4),
          modelMask_(kModelW * kModelH, 200),
          mask_(static_cast<size_t>(w) * h, 128),
          outNv12_(camera.size()) {}

    // Thread CPU time of one frame's floor calls, in ms.
    double run(bool withBackgroundUpscale) {
        const int w = w_, h = h_;
        const double start = threadCpuMs();
        libyuv::NV12ToI420(nv12_.data(), w, nv12_.data() + w * h, w, frame_.p.y, frame_.p.strideY,
                           frame_.p.u, frame_.p.strideU, frame_.p.v, frame_.p.strideV, w, h);
        libyuv::I420Scale(frame_.p.y, frame_.p.strideY, frame_.p.u, frame_.p.strideU, frame_.p.v,
                          frame_.p.strideV, w, h, model_.p.y, model_.p.strideY, model_.p.u,
                          model_.p.strideU, model_.p.v, model_.p.strideV, kModelW, kModelH,
                          libyuv::kFilterBox);
        libyuv::I420ToARGB(model_.p.y, model_.p.strideY, model_.p.u, model_.p.strideU, model_.p.v,
                           model_.p.strideV, argb_.data(), kModelW * 4, kModelW, kModelH);
        libyuv::ScalePlane(modelMask_.data(), kModelW, kModelW, kModelH, mask_.data(), w, w, h,
                           libyuv::kFilterBilinear);
        if (withBackgroundUpscale) {
            libyuv::I420Scale(modelBackground_.p.y, modelBackground_.p.strideY,
                              modelBackground_.p.u, modelBackground_.p.strideU,
                              modelBackground_.p.v, modelBackground_.p.strideV, kModelW, kModelH,
                              background_.p.y, background_.p.strideY, background_.p.u,
                              background_.p.strideU, background_.p.v, background_.p.strideV, w, h,
                              libyuv::kFilterBox);
        }
        libyuv::I420Blend(frame_.p.y, frame_.p.strideY, frame_.p.u, frame_.p.strideU, frame_.p.v,
                          frame_.p.strideV, background_.p.y, background_.p.strideY, background_.p.u,
                          background_.p.strideU, background_.p.v, background_.p.strideV,
                          mask_.data(), w, out_.p.y, out_.p.strideY, out_.p.u, out_.p.strideU,
                          out_.p.v, out_.p.strideV, w, h);
        libyuv::I420ToNV12(out_.p.y, out_.p.strideY, out_.p.u, out_.p.strideU, out_.p.v,
                           out_.p.strideV, outNv12_.data(), w, outNv12_.data() + w * h, w, w, h);
        return threadCpuMs() - start;
    }

  private:
    int w_, h_;
    std::vector<uint8_t> nv12_;
    Planes frame_, background_, out_, model_, modelBackground_;
    std::vector<uint8_t> argb_, modelMask_, mask_, outNv12_;
};

void BM_Pipeline(benchmark::State& state) {
    const Effect effect = static_cast<Effect>(state.range(0));
    const FrameSize size = kSizes[state.range(1)];
    std::vector<uint8_t> camera = CameraNv12(size.width, size.height);
    if (camera.empty() || (effect == EffectPicture && PictureFile().empty())) {
        state.SkipWithError("ffmpeg could not make the test media");
        return;
    }
    std::vector<uint8_t> output(camera.size());
    ZynNativeInputFrame in = Nv12Record(camera, size.width, size.height);
    ZynNativeInputFrame out = Nv12Record(output, size.width, size.height);
    TimedEngine engine(0);
    if (engine.init(SettingsFor(effect), size.width, size.height) != 0) {
        state.SkipWithError("engine init failed (model missing?)");
        return;
    }
    TimedEngine::Times warm;
    for (int i = 0; i < 10; ++i) {
        if (!engine.frame(&in, &out, warm)) {
            state.SkipWithError("frame failed");
            return;
        }
    }
    FloorFrame floorFrame(size.width, size.height, camera);
    double floorInFrames = 0;
    TimedEngine::Times t;
    for (auto _ : state) {
        if (!engine.frame(&in, &out, t)) {
            state.SkipWithError("frame failed");
            return;
        }
        if (effect != EffectTouchUp) {
            floorInFrames += floorFrame.run(effect == EffectBlur);
        }
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["pre_ms"] = t.pre / n;
    state.counters["inf_ms"] = t.inf / n;
    state.counters["post_ms"] = t.post / n;
    if (effect != EffectTouchUp) {
        // The floor measured between the frames is the reference; the floor of calls repeated
        // back to back on hot caches (BM_Floor) is reported beside it.
        const Floor& f = FloorFor(size.width, size.height);
        const double alone = effect == EffectBlur ? f.blurTotal() : f.pictureTotal();
        const double floor = floorInFrames / n;
        state.counters["floor_ms"] = floor;
        state.counters["ratio"] = (t.pre + t.post) / n / floor;
        state.counters["floor_hot_ms"] = alone;
        state.counters["ratio_hot"] = (t.pre + t.post) / n / alone;
    }
    state.SetLabel(std::string(kEffectNames[effect]) + " " + std::to_string(size.width) + "x" +
                   std::to_string(size.height));
}

void BM_Floor(benchmark::State& state) {
    const FrameSize size = kSizes[state.range(0)];
    const Floor& f = FloorFor(size.width, size.height);
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.blurTotal());
    }
    state.counters["NV12ToI420"] = f.nv12ToI420;
    state.counters["I420Scale_model"] = f.scaleToModel;
    state.counters["I420ToARGB"] = f.modelToArgb;
    state.counters["ScalePlane_mask"] = f.maskUpscale;
    state.counters["I420Scale_bg"] = f.backgroundUpscale;
    state.counters["I420Blend"] = f.blend;
    state.counters["I420ToNV12"] = f.i420ToNv12;
    state.counters["blur_floor"] = f.blurTotal();
    state.counters["picture_floor"] = f.pictureTotal();
    state.SetLabel("ms per call, " + std::to_string(size.width) + "x" +
                   std::to_string(size.height));
}

// The work beyond the floor, each piece alone at the sizes the engine uses.
void BM_Extra(benchmark::State& state) {
    const FrameSize size = kSizes[state.range(0)];
    const int w = size.width, h = size.height;
    std::vector<uint8_t> modelMask(kModelW * kModelH);
    for (size_t i = 0; i < modelMask.size(); ++i) {
        modelMask[i] = static_cast<uint8_t>((i % kModelW) > kModelW / 3 ? 255 : 0);
    }
    std::vector<uint8_t> work(modelMask.size()), half(kModelW / 2 * kModelH / 2);
    Planes model(kModelW, kModelH), frame(w, h), background(w, h), out(w, h);
    std::vector<uint8_t> mask(static_cast<size_t>(w) * h, 128);
    std::vector<uint8_t> chroma(VBG::ChromaSize(w) * static_cast<size_t>(VBG::ChromaSize(h)));
    VBG::Blur maskBlur(kModelW, kModelH, 0.7f);
    VBG::Blur lumaBlur(kModelW, kModelH, kModelH / 36.0f);
    VBG::Blur chromaBlur(kModelW / 2, kModelH / 2, (kModelH / 2) / 36.0f);
    VBG::TouchUpCPU touchUp(0.05f);
    const double maskPrep = timeMs([&] {
        std::copy(modelMask.begin(), modelMask.end(), work.begin());
        maskBlur.blur(work.data(), kModelW, kModelH);
        for (auto& b : work) {
            b = VBG::maskContrastTable[b];
        }
    });
    const double backgroundBlur = timeMs([&] {
        lumaBlur.setMask(work.data());
        lumaBlur.blurMasked(model.p.y, kModelW, kModelH);
        libyuv::ScalePlane(work.data(), kModelW, kModelW, kModelH, half.data(), kModelW / 2,
                           kModelW / 2, kModelH / 2, libyuv::kFilterBilinear);
        chromaBlur.setMask(half.data());
        chromaBlur.blurMasked(model.p.u, kModelW / 2, kModelH / 2);
        chromaBlur.blurMasked(model.p.v, kModelW / 2, kModelH / 2);
    });
    const double blend = timeMs(
        [&] { VBG::BlendI420(frame.p, background.p, mask.data(), w, out.p, chroma.data(), w, h); });
    const double touch = timeMs(
        [&] {
            touchUp.process(frame.p.y, frame.p.strideY, frame.p.u, frame.p.strideU, frame.p.v,
                            frame.p.strideV, out.p.y, out.p.strideY, out.p.u, out.p.strideU,
                            out.p.v, out.p.strideV, w, h);
        },
        20);
    for (auto _ : state) {
        benchmark::DoNotOptimize(maskPrep);
    }
    state.counters["mask_blur_curve"] = maskPrep;
    state.counters["background_masked_blur"] = backgroundBlur;
    state.counters["BlendI420"] = blend;
    state.counters["touchup_flat_frame"] = touch;
    state.SetLabel("ms per call, " + std::to_string(w) + "x" + std::to_string(h));
}

}  // namespace

BENCHMARK(BM_Pipeline)
    ->ArgsProduct({{EffectBlur, EffectPicture, EffectTouchUp}, {0, 1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0);
BENCHMARK(BM_Floor)->DenseRange(0, 2)->Iterations(1);
BENCHMARK(BM_Extra)->DenseRange(0, 2)->Iterations(1);

int main(int argc, char** argv) {
    // Engines and backends log their life cycle; the table is what this program is for.
    spdlog::set_level(spdlog::level::err);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    fs::remove_all(scratch(), ec);
    return 0;
}
