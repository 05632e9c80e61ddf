// The ONNX Runtime backend: exact per-pixel results on small models with known arithmetic, the
// previous-mask feedback, the scaling path, models that do not fit, the processing types, and the
// real segmentation model on a portrait (the mask, and its independence of the session's threads).
#include <gtest/gtest.h>
#include <libyuv/scale_argb.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "ml/vbg_onnxruntime_processing.h"
#include "selection/processing_type.h"
#include "support/log_capture.h"
#include "support/test_paths.h"

namespace {

using zyn_test::LogCapture;

constexpr uint32_t kW = 16;  // size of the small test models
constexpr uint32_t kH = 8;
constexpr int kN = static_cast<int>(kW * kH);
// The small models compute in float; the expected values are computed in double.
constexpr double kModelTolerance = 1e-6;

std::string TestModel(const std::string& name) {
    return (zyn_test::TestModelsDir() / name).string();
}

// Deterministic 4-byte pixels covering the whole byte range, alpha included.
std::vector<uint8_t> RandomImage(uint32_t width, uint32_t height, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> byte(0, 255);
    std::vector<uint8_t> image(static_cast<size_t>(width) * height * 4);
    for (auto& b : image) {
        b = static_cast<uint8_t>(byte(rng));
    }
    image[0] = 0;
    image[1] = 0;
    image[2] = 0;
    image[4] = 255;
    image[5] = 255;
    image[6] = 255;
    return image;
}

// Person probability of the small models for one pixel: f = 0.25*c0 + 0.5*c1 + 0.125*c2 +
// 0.0625*c3, with c0..c2 the pixel's bytes 0..2 / 255 and c3 the previous mask.
double ModelF(const uint8_t* px, float prev) {
    return 0.25 * VBG::unitFloatTable[px[0]] + 0.5 * VBG::unitFloatTable[px[1]] +
           0.125 * VBG::unitFloatTable[px[2]] + 0.0625 * prev;
}

// Checks one frame of a small model against the smoothing rule: s = 0.6 f + 0.4 prev becomes the
// new prevMask, and the byte mask is s * 255 (double) truncated.
void ExpectSmoothedFrame(const std::vector<uint8_t>& image, const std::vector<float>& prevBefore,
                         const VBG::VBGMLState& state) {
    for (int p = 0; p < kN; ++p) {
        const double f = ModelF(&image[static_cast<size_t>(p) * 4], prevBefore[p]);
        const double s = 0.6 * f + 0.4 * prevBefore[p];
        ASSERT_NEAR(state.prevMask[p], s, kModelTolerance) << "pixel " << p;
        // The byte mask is derived exactly from the stored smoothed value ...
        ASSERT_EQ(state.mask[p],
                  static_cast<uint8_t>(static_cast<double>(state.prevMask[p]) * 255.0))
            << "pixel " << p;
        // ... which is within the model's rounding of the expected one.
        const auto low = static_cast<int>((s - kModelTolerance) * 255.0);
        const auto high = static_cast<int>((s + kModelTolerance) * 255.0);
        ASSERT_GE(state.mask[p], low) << "pixel " << p;
        ASSERT_LE(state.mask[p], high) << "pixel " << p;
    }
}

std::vector<float> PrevMask(const VBG::VBGMLState& state) {
    return std::vector<float>(state.prevMask.get(), state.prevMask.get() + state.size);
}
std::vector<uint8_t> Mask(const VBG::VBGMLState& state) {
    return std::vector<uint8_t>(state.mask.get(), state.mask.get() + state.size);
}

std::unique_ptr<VBG::OnnxRuntimeProcessing> LoadedBackend(const std::string& model,
                                                          uint32_t type = 2) {
    auto backend = std::make_unique<VBG::OnnxRuntimeProcessing>(type);
    EXPECT_TRUE(backend->loadBindModel(TestModel(model)));
    return backend;
}

// The unrolled per-pixel loops against the plain rule, for every length around the unroll width
// (the tail included) and at an unaligned start.
TEST(OnnxRuntimeKernels, UnrolledLoopsMatchThePlainRuleForEveryLength) {
    VBG::OnnxRuntimeProcessing tablesReady(2);
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    for (int32_t n : {1, 2, 3, 4, 5, 6, 7, 8, 9, 37, 131}) {
        SCOPED_TRACE("n = " + std::to_string(n));
        // One spare pixel in front so that the kernels also start off the buffer's alignment.
        const auto pixelStore = RandomImage(static_cast<uint32_t>(n) + 1, 1, 100 + n);
        const uint8_t* pixels = pixelStore.data() + 4;
        std::vector<float> prev(n);
        std::vector<float> person(n);
        for (int32_t p = 0; p < n; ++p) {
            prev[p] = unit(rng);
            person[p] = unit(rng);
        }
        person[0] = 1.0f;
        prev[0] = 1.0f;

        std::vector<float> planes(static_cast<size_t>(n) * 4 + 1, -7.0f);
        VBG::OnnxRuntimeProcessing::FillPlanarInput(pixels, prev.data(), n, planes.data());
        for (int32_t p = 0; p < n; ++p) {
            const uint8_t* px = pixels + static_cast<size_t>(p) * 4;
            ASSERT_EQ(planes[p], VBG::unitFloatTable[px[0]]) << "pixel " << p;
            ASSERT_EQ(planes[n + p], VBG::unitFloatTable[px[1]]) << "pixel " << p;
            ASSERT_EQ(planes[2 * n + p], VBG::unitFloatTable[px[2]]) << "pixel " << p;
            ASSERT_EQ(planes[3 * n + p], prev[p]) << "pixel " << p;
        }
        EXPECT_EQ(planes[static_cast<size_t>(n) * 4], -7.0f) << "written past the planes";

        std::vector<float> smoothed = prev;
        std::vector<uint8_t> mask(static_cast<size_t>(n) + 1, 0xAB);
        VBG::OnnxRuntimeProcessing::SmoothMask(person.data(), smoothed.data(), mask.data(), n);
        for (int32_t p = 0; p < n; ++p) {
            const float s = 0.6f * person[p] + 0.4f * prev[p];
            ASSERT_EQ(smoothed[p], s) << "pixel " << p;
            ASSERT_EQ(mask[p], static_cast<uint8_t>(static_cast<double>(s) * 255.0))
                << "pixel " << p;
        }
        EXPECT_EQ(mask[0], 255);
        EXPECT_EQ(mask[n], 0xAB) << "written past the mask";
    }
}

TEST(OnnxRuntimeLoad, LoadAndBindLogTheProvidersAndTheModelShape) {
    LogCapture log;
    VBG::OnnxRuntimeProcessing backend(2);
    ASSERT_TRUE(backend.loadModel(TestModel("exact_two_channel.onnx"))) << log.dump();
    EXPECT_TRUE(log.has(spdlog::level::info, "Available providers:"));
    EXPECT_TRUE(log.has(spdlog::level::info, "CPUExecutionProvider"));
    EXPECT_EQ(log.countContaining("Model file loaded in: "), 1u);
    EXPECT_EQ(backend.modelWidth, 0u);  // known only once bound

    ASSERT_TRUE(backend.bindModel()) << log.dump();
    EXPECT_TRUE(log.has(spdlog::level::info,
                        "Binding complete: WxH: 16x8, input: 1,4,8,16, output: 1,2,8,16"))
        << log.dump();
    EXPECT_EQ(backend.modelWidth, kW);
    EXPECT_EQ(backend.modelHeight, kH);
    EXPECT_EQ(backend.modelPixelCount, kW * kH);
    ASSERT_NE(backend.getInputBuffer(), nullptr);
    for (uint32_t i = 0; i < kW * kH * 4; ++i) {
        ASSERT_EQ(backend.getInputBuffer()[i], 0) << "byte " << i;
    }
    EXPECT_FALSE(backend.setCachePath("/tmp"));
}

TEST(OnnxRuntimeLoad, MissingModelFileLogsTheRuntimeError) {
    zyn_test::TempDir dir("zyn-ort");
    const std::string missing = (dir / "no_such_model.onnx").string();
    LogCapture log;
    VBG::OnnxRuntimeProcessing backend(2);
    EXPECT_FALSE(backend.loadModel(missing));
    bool found = false;
    for (const auto& r : log.records()) {
        if (r.level == spdlog::level::err && r.message.rfind("Error: ", 0) == 0 &&
            r.message.find(missing) != std::string::npos) {
            found = true;
        }
    }
    EXPECT_TRUE(found) << log.dump();
    EXPECT_EQ(log.countContaining("Model file loaded in: "), 0u);
    // Nothing was loaded, so there is nothing to bind.
    EXPECT_FALSE(backend.bindModel());
    EXPECT_FALSE(backend.loadBindModel(missing));
}

TEST(OnnxRuntimeLoad, DirectMLTypesFailCleanlyWithoutAGpu) {
    for (uint32_t type : {7u, 8u}) {
        LogCapture log;
        VBG::OnnxRuntimeProcessing backend(type);
        EXPECT_TRUE(log.has(spdlog::level::info,
                            "Unable to load DirectML.dll, error: " + std::to_string(ENOENT)))
            << log.dump();
        EXPECT_FALSE(backend.loadModel(TestModel("exact_two_channel.onnx")));
        EXPECT_TRUE(log.has(spdlog::level::err, "GPU is not available cannot support onnx DML"))
            << log.dump();
        EXPECT_TRUE(log.contains("IsGpuAvailable failed. D3D11 Hardware Layer is not supported"));
        EXPECT_EQ(log.countContaining("Model file loaded in: "), 0u);
        EXPECT_FALSE(backend.bindModel());
    }
}

TEST(OnnxRuntimeLoad, CpuTypesDoNotLookForDirectML) {
    for (uint32_t type : {0u, 2u}) {
        LogCapture log;
        VBG::OnnxRuntimeProcessing backend(type);
        EXPECT_EQ(log.countContaining("DirectML"), 0u) << log.dump();
        EXPECT_TRUE(backend.loadModel(TestModel("exact_two_channel.onnx"))) << log.dump();
        EXPECT_EQ(log.count("GPU is not available cannot support onnx DML"), 0u);
    }
}

TEST(OnnxRuntimeLoad, OtherTypesAreRefusedByName) {
    struct Case {
        uint32_t type;
        std::string name;
    };
    for (const Case& c : {Case{3, "OpenVinoCpu"}, Case{6, "OpenVinoGpuPPGPU"}, Case{1, "GPU"},
                          Case{9, "Auto"}, Case{42, VBG::ProcessingTypeName(42)}}) {
        LogCapture log;
        VBG::OnnxRuntimeProcessing backend(c.type);
        EXPECT_FALSE(backend.loadModel(TestModel("exact_two_channel.onnx")));
        EXPECT_TRUE(log.has(spdlog::level::err, "Unknown processing type " + c.name)) << log.dump();
        EXPECT_EQ(log.countContaining("Model file loaded in: "), 0u);
    }
}

TEST(OnnxRuntimeBind, ThreeInputChannelsAreRefusedAtBind) {
    LogCapture log;
    VBG::OnnxRuntimeProcessing backend(2);
    ASSERT_TRUE(backend.loadModel(TestModel("three_input_channels.onnx")));
    EXPECT_FALSE(backend.bindModel());
    bool found = false;
    for (const auto& r : log.records()) {
        found |= r.level == spdlog::level::err && r.message.rfind("Error: ", 0) == 0 &&
                 r.message.find("[1,3,8,16]") != std::string::npos &&
                 r.message.find("4 channels") != std::string::npos;
    }
    EXPECT_TRUE(found) << log.dump();
    EXPECT_EQ(log.countContaining("Binding complete: "), 0u);
    EXPECT_EQ(backend.modelWidth, 0u);

    // Running anyway is refused, not attempted.
    VBG::VBGMLState state(kW, kH);
    const auto image = RandomImage(kW, kH, 1);
    log.clear();
    EXPECT_FALSE(backend.runModel(image.data(), kW, kH, &state));
    EXPECT_EQ(log.countContaining("Error: "), 1u) << log.dump();
}

TEST(OnnxRuntimeBind, FailedRebindDropsTheEarlierBinding) {
    auto backend = LoadedBackend("exact_two_channel.onnx");
    ASSERT_EQ(backend->modelWidth, kW);
    ASSERT_TRUE(backend->loadModel(TestModel("three_input_channels.onnx")));
    EXPECT_FALSE(backend->bindModel());
    EXPECT_EQ(backend->modelWidth, 0u);
    VBG::VBGMLState state(kW, kH);
    const auto image = RandomImage(kW, kH, 2);
    EXPECT_FALSE(backend->runModel(image.data(), kW, kH, &state));
    EXPECT_EQ(Mask(state), std::vector<uint8_t>(kN, 0));

    // Loading and binding a fitting model again restores a working backend.
    ASSERT_TRUE(backend->loadBindModel(TestModel("exact_two_channel.onnx")));
    EXPECT_TRUE(backend->runModel(image.data(), kW, kH, &state));
}

TEST(OnnxRuntimeRun, RunBeforeBindIsRefused) {
    LogCapture log;
    VBG::OnnxRuntimeProcessing backend(2);
    VBG::VBGMLState state(kW, kH);
    const auto image = RandomImage(kW, kH, 3);
    EXPECT_FALSE(backend.runModel(image.data(), kW, kH, &state));
    ASSERT_TRUE(backend.loadModel(TestModel("exact_two_channel.onnx")));
    EXPECT_FALSE(backend.runModel(image.data(), kW, kH, &state));
    EXPECT_EQ(log.countContaining("Error: "), 2u) << log.dump();
    EXPECT_EQ(Mask(state), std::vector<uint8_t>(kN, 0));
}

TEST(OnnxRuntimeRun, StateOfAnotherSizeIsRefused) {
    auto backend = LoadedBackend("exact_two_channel.onnx");
    VBG::VBGMLState state(kW / 2, kH);
    const auto image = RandomImage(kW, kH, 4);
    LogCapture log;
    EXPECT_FALSE(backend->runModel(image.data(), kW, kH, &state));
    EXPECT_FALSE(backend->runModel(image.data(), kW, kH, nullptr));
    EXPECT_EQ(log.countContaining("Error: "), 2u) << log.dump();
}

TEST(OnnxRuntimeRun, ExactMaskOnTheFirstAndSecondFrame) {
    for (uint32_t type : {2u, 0u}) {
        SCOPED_TRACE("type " + std::to_string(type));
        auto backend = LoadedBackend("exact_two_channel.onnx", type);
        auto state = backend->createState();
        ASSERT_EQ(state->size, kN);
        const auto image = RandomImage(kW, kH, 5);

        // First frame: the previous mask (fourth input channel) is all zero.
        const std::vector<float> zero(kN, 0.0f);
        ASSERT_TRUE(backend->runModel(image.data(), kW, kH, state.get()));
        ExpectSmoothedFrame(image, zero, *state);

        // Second frame on the same picture: the smoothed mask of the first goes back in.
        const auto first = PrevMask(*state);
        ASSERT_TRUE(backend->runModel(image.data(), kW, kH, state.get()));
        ExpectSmoothedFrame(image, first, *state);
        EXPECT_NE(PrevMask(*state), first);

        // A fresh state starts from zero again: the backend keeps no mask of its own.
        auto fresh = backend->createState();
        ASSERT_TRUE(backend->runModel(image.data(), kW, kH, fresh.get()));
        ExpectSmoothedFrame(image, zero, *fresh);
    }
}

TEST(OnnxRuntimeRun, AlphaByteIsIgnored) {
    auto backend = LoadedBackend("exact_two_channel.onnx");
    auto image = RandomImage(kW, kH, 6);
    auto a = backend->createState();
    ASSERT_TRUE(backend->runModel(image.data(), kW, kH, a.get()));
    for (size_t p = 0; p < image.size(); p += 4) {
        image[p + 3] = static_cast<uint8_t>(255 - image[p + 3]);
    }
    auto b = backend->createState();
    ASSERT_TRUE(backend->runModel(image.data(), kW, kH, b.get()));
    EXPECT_EQ(PrevMask(*a), PrevMask(*b));
    EXPECT_EQ(Mask(*a), Mask(*b));
}

TEST(OnnxRuntimeRun, OnlyOutputChannelOneIsRead) {
    const auto image = RandomImage(kW, kH, 7);
    auto reference = LoadedBackend("exact_two_channel.onnx");
    auto refState = reference->createState();

    for (const char* model : {"three_output_channels.onnx", "two_outputs.onnx"}) {
        SCOPED_TRACE(model);
        LogCapture log;
        auto backend = LoadedBackend(model);
        auto state = backend->createState();
        for (int frame = 0; frame < 2; ++frame) {
            const auto before = PrevMask(*state);
            ASSERT_TRUE(backend->runModel(image.data(), kW, kH, state.get())) << log.dump();
            ExpectSmoothedFrame(image, before, *state);
        }
        if (std::string(model) == "three_output_channels.onnx") {
            EXPECT_TRUE(
                log.contains("Binding complete: WxH: 16x8, input: 1,4,8,16, output: 1,3,8,16"))
                << log.dump();
        }
    }
    for (int frame = 0; frame < 2; ++frame) {
        ASSERT_TRUE(reference->runModel(image.data(), kW, kH, refState.get()));
    }
    auto three = LoadedBackend("three_output_channels.onnx");
    auto threeState = three->createState();
    for (int frame = 0; frame < 2; ++frame) {
        ASSERT_TRUE(three->runModel(image.data(), kW, kH, threeState.get()));
    }
    EXPECT_EQ(Mask(*threeState), Mask(*refState));
    EXPECT_EQ(PrevMask(*threeState), PrevMask(*refState));
}

TEST(OnnxRuntimeRun, ImageOfAnotherSizeIsBoxScaledToTheModelSize) {
    for (const auto& [w, h] : {std::pair<uint32_t, uint32_t>{37, 19}, {64, 32}, {7, 5}}) {
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
        const auto image = RandomImage(w, h, 8 + w);
        std::vector<uint8_t> scaled(kW * kH * 4);
        ASSERT_EQ(libyuv::ARGBScale(image.data(), static_cast<int>(w * 4), static_cast<int>(w),
                                    static_cast<int>(h), scaled.data(), kW * 4, kW, kH,
                                    libyuv::kFilterBox),
                  0);

        auto backend = LoadedBackend("exact_two_channel.onnx");
        auto viaScaling = backend->createState();
        ASSERT_TRUE(backend->runModel(image.data(), w, h, viaScaling.get()));
        EXPECT_EQ(viaScaling->width, kW);
        EXPECT_EQ(viaScaling->height, kH);
        // The scaled picture is left in the staging buffer.
        EXPECT_EQ(std::vector<uint8_t>(backend->getInputBuffer(),
                                       backend->getInputBuffer() + scaled.size()),
                  scaled);

        auto direct = backend->createState();
        ASSERT_TRUE(backend->runModel(scaled.data(), kW, kH, direct.get()));
        EXPECT_EQ(Mask(*viaScaling), Mask(*direct));
        EXPECT_EQ(PrevMask(*viaScaling), PrevMask(*direct));
        ExpectSmoothedFrame(scaled, std::vector<float>(kN, 0.0f), *direct);
    }
}

// ---- The real segmentation model on a portrait

// The top 512x288 (16:9) of the 512x512 astronaut portrait as 4-byte pixels (B, G, R, A),
// converted by the ffmpeg program.
bool LoadAstronautCrop(const zyn_test::TempDir& dir, std::vector<uint8_t>& pixels) {
    const auto raw = dir / "astronaut.bgra";
    const std::string command =
        "ffmpeg -v error -y -i '" + zyn_test::SampleImage("astronaut.png").string() +
        "' -vf crop=512:288:0:0 -f rawvideo -pix_fmt bgra '" + raw.string() + "'";
    if (std::system(command.c_str()) != 0) {
        return false;
    }
    pixels.assign(512 * 288 * 4, 0);
    std::ifstream in(raw, std::ios::binary);
    in.read(reinterpret_cast<char*>(pixels.data()), static_cast<std::streamsize>(pixels.size()));
    return in.gcount() == static_cast<std::streamsize>(pixels.size());
}

struct Region {
    const char* what;
    uint32_t x0, x1, y0, y1;  // in mask pixels, half the picture's
};

double Fraction(const VBG::VBGMLState& state, const Region& r, bool person) {
    size_t hits = 0;
    size_t total = 0;
    for (uint32_t y = r.y0; y < r.y1; ++y) {
        for (uint32_t x = r.x0; x < r.x1; ++x) {
            const uint8_t m = state.mask[y * state.width + x];
            hits += (person ? m >= 128 : m < 128) ? 1 : 0;
            ++total;
        }
    }
    return static_cast<double>(hits) / static_cast<double>(total);
}

TEST(OnnxRuntimeRealModel, MaskCoversThePersonAndNotTheBackground) {
    const auto model = zyn_test::RealModelsDir() / "model.winml";
    if (!std::filesystem::exists(model)) {
        GTEST_SKIP() << model << " is missing";
    }
    zyn_test::TempDir dir("zyn-ort-real");
    std::vector<uint8_t> picture;
    ASSERT_TRUE(LoadAstronautCrop(dir, picture));

    LogCapture log;
    VBG::OnnxRuntimeProcessing backend(2);
    ASSERT_TRUE(backend.loadBindModel(model.string())) << log.dump();
    ASSERT_EQ(backend.modelWidth, 256u);
    ASSERT_EQ(backend.modelHeight, 144u);
    auto state = backend.createState();
    // A still camera: after a few frames the smoothed mask has settled on the model's answer
    // (the first frame alone shows at most 0.6 of it).
    for (int frame = 0; frame < 6; ++frame) {
        ASSERT_TRUE(backend.runModel(picture.data(), 512, 288, state.get())) << log.dump();
    }

    // Regions read off the picture (at mask resolution): face and hair, the neck ring, the
    // shoulders of the suit; the wall left and right of the head, the flag, the wall past the
    // shuttle model.
    const Region person[] = {{"head", 95, 140, 25, 78},
                             {"neck ring", 80, 135, 88, 128},
                             {"shoulders", 45, 160, 130, 144}};
    const Region background[] = {{"wall left of the head", 50, 70, 0, 65},
                                 {"wall right of the head", 155, 175, 0, 85},
                                 {"flag", 0, 40, 0, 75},
                                 {"wall at the right edge", 232, 256, 0, 100}};
    for (const Region& r : person) {
        EXPECT_GT(Fraction(*state, r, true), 0.9) << r.what;
    }
    for (const Region& r : background) {
        EXPECT_GT(Fraction(*state, r, false), 0.9) << r.what;
    }
}

// The CPU session runs sequentially on the frame's thread without spinning pools; the runtime's
// obvious set-up (parallel execution, default thread pools) must give the same masks bit for
// bit, frame after frame with the mask fed back.
TEST(OnnxRuntimeRealModel, MaskIsBitIdenticalToTheParallelSessionWithDefaultPools) {
    const auto model = zyn_test::RealModelsDir() / "model.winml";
    if (!std::filesystem::exists(model)) {
        GTEST_SKIP() << model << " is missing";
    }
    zyn_test::TempDir dir("zyn-ort-options");
    std::vector<uint8_t> picture;
    ASSERT_TRUE(LoadAstronautCrop(dir, picture));
    LogCapture log;
    VBG::OnnxRuntimeProcessing backend(2);
    ASSERT_TRUE(backend.loadBindModel(model.string())) << log.dump();
    const int32_t n = static_cast<int32_t>(backend.modelPixelCount);

    Ort::SessionOptions parallel;
    parallel.SetExecutionMode(ExecutionMode::ORT_PARALLEL);
    parallel.EnableMemPattern();
    parallel.EnableCpuMemArena();
    Ort::Env env(ORT_LOGGING_LEVEL_WARNING, "");
    Ort::Session session(env, model.c_str(), parallel);
    std::vector<float> input(static_cast<size_t>(n) * 4);
    std::vector<float> output(static_cast<size_t>(n) * backend.outputChannels());
    const std::array<int64_t, 4> inShape{1, 4, backend.modelHeight, backend.modelWidth};
    const std::array<int64_t, 4> outShape{1, backend.outputChannels(), backend.modelHeight,
                                          backend.modelWidth};
    const auto memory = Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeCPU);
    Ort::Value inValue = Ort::Value::CreateTensor<float>(memory, input.data(), input.size(),
                                                         inShape.data(), inShape.size());
    Ort::Value outValue = Ort::Value::CreateTensor<float>(memory, output.data(), output.size(),
                                                          outShape.data(), outShape.size());
    const char* const inName[] = {"input"};
    const char* const outName[] = {"output"};

    auto state = backend.createState();
    std::vector<float> prev(n, 0.0f);
    std::vector<uint8_t> mask(n);
    for (int frame = 0; frame < 4; ++frame) {
        SCOPED_TRACE(frame);
        ASSERT_TRUE(backend.runModel(picture.data(), 512, 288, state.get())) << log.dump();
        // The model-sized picture the backend ran on.
        VBG::OnnxRuntimeProcessing::FillPlanarInput(backend.getInputBuffer(), prev.data(), n,
                                                    input.data());
        session.Run(Ort::RunOptions{nullptr}, inName, &inValue, 1, outName, &outValue, 1);
        VBG::OnnxRuntimeProcessing::SmoothMask(output.data() + n, prev.data(), mask.data(), n);
        EXPECT_EQ(std::memcmp(prev.data(), state->prevMask.get(), prev.size() * sizeof(float)), 0);
        EXPECT_EQ(std::memcmp(mask.data(), state->mask.get(), mask.size()), 0);
    }
}

}  // namespace
