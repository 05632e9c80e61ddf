// The inference backends: shared tables and instance, the OpenVINO cache, exact masks of small
// models; the real model on a portrait (its mask, session threads, the two backends agreeing).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "ml/vbg_onnxruntime_processing.h"
#include "ml/vbg_openvino_processing.h"
#include "support/log_capture.h"
#include "support/test_paths.h"

using namespace VBG;
namespace fs = std::filesystem;

namespace {

using zyn_test::LogCapture;

constexpr uint32_t kW = 16;  // size of the small test models
constexpr uint32_t kH = 8;
constexpr int kN = static_cast<int>(kW * kH);

std::string TestModel(const std::string& name) {
    return (zyn_test::TestModelsDir() / name).string();
}

// Deterministic 4-byte pixels covering the whole byte range, alpha included.
std::vector<uint8_t> RandomImage(uint32_t width, uint32_t height, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> image(static_cast<size_t>(width) * height * 4);
    for (auto& b : image) {
        b = static_cast<uint8_t>(rng() % 256);
    }
    return image;
}

// The small models' person channel: f = 0.25*b0 + 0.5*b1 + 0.125*b2 (bytes / 255) + 0.0625*prev.
double ModelF(const uint8_t* px, double prev) {
    return (0.25 * px[0] + 0.5 * px[1] + 0.125 * px[2]) / 255.0 + 0.0625 * prev;
}

// One ONNX Runtime frame of a small model against the rule worked out in double: smoothed
// s = 0.6 f + 0.4 prev is the new prevMask; the byte mask is the stored s * 255, truncated.
void ExpectSmoothedFrame(const uint8_t* image, const std::vector<float>& prev,
                         const VBGMLState& state) {
    for (int p = 0; p < kN; ++p) {
        const double f = ModelF(image + static_cast<size_t>(p) * 4, prev[p]);
        ASSERT_NEAR(state.prevMask[p], 0.6 * f + 0.4 * prev[p], 1e-6) << "pixel " << p;
        ASSERT_EQ(state.mask[p], static_cast<int>(static_cast<double>(state.prevMask[p]) * 255.0))
            << "pixel " << p;
    }
}

std::vector<float> PrevMask(const VBG::VBGMLState& state) {
    return std::vector<float>(state.prevMask.get(), state.prevMask.get() + state.size);
}

// A sample picture as B, G, R, A bytes after the ffmpeg filter `filter`.
std::vector<uint8_t> Picture(const char* name, const std::string& filter, const fs::path& dir) {
    const fs::path raw = dir / "picture.bgra";
    const std::string command = "ffmpeg -v error -y -i '" + zyn_test::SampleImage(name).string() +
                                "' -vf " + filter + " -f rawvideo -pix_fmt bgra '" + raw.string() +
                                "'";
    const std::string bytes = std::system(command.c_str()) == 0 ? zyn_test::ReadFile(raw) : "";
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

TEST(SharedTables, ContrastCurveAndUnitValuesAreRewrittenByEveryBackend) {
    VBG::unitFloatTable[51] = -1.0f;
    VBG::maskContrastTable[204] = 3;
    OnnxRuntimeProcessing backend(2);
    EXPECT_EQ(VBG::unitFloatTable[0], 0.0f);
    EXPECT_EQ(VBG::unitFloatTable[51], 0.2f);
    EXPECT_EQ(VBG::unitFloatTable[255], 1.0f);
    // v = i / 255; below 0.4 the mask is background, from there t = (v - 0.4) / 0.6 and the byte
    // is (3 - 2t) t^2 * 255, truncated.
    const std::pair<int, int> curve[] = {
        {0, 0},     {101, 0},  // v < 0.4
        {102, 0},              // v = 0.4: t = 0
        {107, 0},              // t = 0.03268: 2.9346 * 0.001068 * 255 = 0.80
        {108, 1},              // t = 0.03922: 2.9216 * 0.001538 * 255 = 1.15
        {128, 19},             // t = 0.16993: 2.6601 * 0.028878 * 255 = 19.59
        {153, 66},             // t = 1/3: 7/27 * 255 = 66.11
        {178, 126},            // t = 0.49673: 2.0065 * 0.24674 * 255 = 126.25
        {204, 188},            // t = 2/3: 20/27 * 255 = 188.89
        {230, 236},            // t = 0.83660: 1.3268 * 0.69990 * 255 = 236.80
        {254, 254},            // t = 0.99346: 1.0131 * 0.98697 * 255 = 254.97
        {255, 255},            // v = 1
    };
    for (const auto& [in, out] : curve) {
        EXPECT_EQ(VBG::maskContrastTable[in], out) << "entry " << in;
    }
}

class BackendInstance : public ::testing::Test {
  protected:
    void SetUp() override { VBG::DestroyVBGMLProcessingInstance(); }
    void TearDown() override { VBG::DestroyVBGMLProcessingInstance(); }
    static std::pair<std::shared_ptr<VBG::IVBGMLProcessing>, bool> get(
        uint32_t type, const std::string& model = TestModel("exact_two_channel.onnx")) {
        return VBG::GetVBGMLProcessingInstance(type, "/tmp/zyn-cache-unused", model);
    }
};

TEST_F(BackendInstance, SharedByTypeRefusedForAnotherAndRemadeAfterDestroy) {
    LogCapture log;
    const auto [first, firstOk] = get(2);
    ASSERT_TRUE(firstOk) << log.dump();
    EXPECT_EQ(first->modelWidth, kW);
    EXPECT_EQ(get(2).first, first);
    EXPECT_EQ(log.count("GetVBGMLProcessingInstance create"), 1u) << log.dump();
    EXPECT_EQ(log.countContaining("Model file loaded in: "), 1u);

    // Another type is refused and the first backend stays usable.
    EXPECT_EQ(get(0).first, nullptr);
    EXPECT_TRUE(log.has(spdlog::level::warn,
                        "Processing Type mismatch and hence returning false to fallback"));
    const auto state = first->createState();
    EXPECT_TRUE(log.has(spdlog::level::info, "Constructed VBGMLState with 16 x 8"));
    const std::vector<uint8_t> image(kN * 4, 200);
    EXPECT_TRUE(first->runModel(image.data(), kW, kH, state.get()));

    // After a destroy (a second one has nothing to destroy) another type is made and loaded.
    log.clear();
    VBG::DestroyVBGMLProcessingInstance();
    VBG::DestroyVBGMLProcessingInstance();
    EXPECT_EQ(log.count("GetVBGMLProcessingInstance destroy"), 1u);
    const auto [second, secondOk] = get(0);
    ASSERT_TRUE(secondOk) << log.dump();
    EXPECT_EQ(second->processingType, 0u);
    EXPECT_EQ(log.count("GetVBGMLProcessingInstance create"), 1u);
}

// Types without a backend (1 needs Direct3D 12, 7 is retired, 9 is never a backend's) leave no
// instance; a load or bind that fails destroys the half-made one.
TEST_F(BackendInstance, FailedCreatesLeaveNoInstance) {
    const std::pair<uint32_t, std::string> cases[] = {{1, "exact_two_channel.onnx"},
                                                      {7, "exact_two_channel.onnx"},
                                                      {9, "exact_two_channel.onnx"},
                                                      {2, "missing.onnx"},
                                                      {2, "three_input_channels.onnx"}};
    for (const auto& [type, model] : cases) {
        SCOPED_TRACE(model + " as type " + std::to_string(type));
        LogCapture log;
        EXPECT_EQ(get(type, TestModel(model)).first, nullptr);
        EXPECT_EQ(log.count("loadBindModel failed"), type == 2 ? 1u : 0u) << log.dump();
        EXPECT_EQ(log.count("GetVBGMLProcessingInstance destroy"), type == 2 ? 1u : 0u);
        // Nothing was kept: a supported type is created from scratch, without a mismatch.
        log.clear();
        EXPECT_TRUE(get(2).second) << log.dump();
        EXPECT_EQ(log.count("GetVBGMLProcessingInstance create"), 1u);
        VBG::DestroyVBGMLProcessingInstance();
    }
}

// Scalar tails on seven pixels at an unaligned start: bytes / 255 into three planes, the previous
// mask into the fourth; the smoothed mask 0.6, 0.4, 0.5, 0.25 and 0.75 times 255 (153, 102, 127.5,
// 63.75, 191.25) truncated, and values a model should never give held at the ends.
TEST(OnnxRuntimeKernels, PlanarInputAndSmoothingByKnownAnswers) {
    OnnxRuntimeProcessing tablesReady(2);
    std::vector<uint8_t> store(4 * 8);
    std::iota(store.begin(), store.end(), uint8_t{200});  // pixel p has bytes 204 + 4p + c
    std::vector<float> planes(4 * 7 + 1, -7.0f);
    std::vector<float> person = {1.0f, 0.0f, 0.5f, 2.0f, -1.0f, 0.25f, 0.75f};
    std::vector<float> prev = {0.0f, 1.0f, 0.5f, 0.0f, 0.0f, 0.25f, 0.75f};
    OnnxRuntimeProcessing::FillPlanarInput(store.data() + 4, prev.data(), 7, planes.data());
    for (int p = 0; p < 7; ++p) {
        for (int c = 0; c < 3; ++c) {
            EXPECT_FLOAT_EQ(planes[c * 7 + p], (204 + 4 * p + c) / 255.0f) << p << " " << c;
        }
        EXPECT_EQ(planes[3 * 7 + p], prev[p]) << p;
    }
    EXPECT_EQ(planes[28], -7.0f) << "written past the planes";
    std::vector<uint8_t> mask(8, 0xAB);
    OnnxRuntimeProcessing::SmoothMask(person.data(), prev.data(), mask.data(), 7);
    EXPECT_EQ(mask, (std::vector<uint8_t>{153, 102, 127, 255, 0, 63, 191, 0xAB}));
    const float smoothed[] = {0.6f, 0.4f, 0.5f, 1.2f, -0.6f, 0.25f, 0.75f};
    for (int p = 0; p < 7; ++p) {
        EXPECT_FLOAT_EQ(prev[p], smoothed[p]) << p;
    }
}

// Loads by backend, type and model: the record left (an error if refused), the shape once bound.
TEST(BackendLoad, OutcomeByBackendTypeAndModel) {
    const auto devices = ov::Core().get_available_devices();
    const bool gpu = std::find(devices.begin(), devices.end(), "GPU") != devices.end() ||
                     std::find(devices.begin(), devices.end(), "GPU.0") != devices.end();
    const std::string gpuMissing = "Requested processing device GPU or device GPU.0  not found";
    const std::string exact = TestModel("exact_two_channel.onnx");
    const struct {
        bool openVino;
        uint32_t type;
        std::string model;
        bool loads;
        std::string logged;
    } cases[] = {
        {false, 2, exact, true, "Binding complete: WxH: 16x8, input: 1,4,8,16, output: 1,2,8,16"},
        {false, 8, exact, false, "GPU is not available cannot support onnx DML"},
        {false, 3, exact, false, "Unknown processing type OpenVinoCpu"},
        {false, 9, exact, false, "Unknown processing type Auto"},
        {false, 42, exact, false, "Unknown processing type Unknown"},
        {true, 3, exact, true, " ms and bound to device CPU"},
        {true, 4, exact, true, " ms and bound to device CPU"},
        {true, 3, TestModel("three_input_channels.onnx"), true, " ms and bound to device CPU"},
        {true, 5, exact, false, gpuMissing},
        {true, 6, exact, false, gpuMissing},
        {true, 2, exact, false, "Unknown processing type OnnxRuntimeCpu"},
        {true, 3, TestModel("two_outputs.onnx"), false,
         "Sample supports models with 1 output only"},
        {true, 3, "/nonexistent/model.winml", false, "/nonexistent/model.winml"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.model + (c.openVino ? " on OpenVINO as " : " on ONNX Runtime as ") +
                     std::to_string(c.type));
        if (gpu && c.openVino && c.type >= 5) {
            continue;
        }
        LogCapture log;
        std::unique_ptr<IVBGMLProcessing> backend;
        if (c.openVino) {
            backend = std::make_unique<OpenVinoProcessing>(c.type);
        } else {
            backend = std::make_unique<OnnxRuntimeProcessing>(c.type);
        }
        EXPECT_EQ(log.has(spdlog::level::info, "Unable to load DirectML.dll, error: 2"),  // ENOENT
                  c.type == 8);
        EXPECT_EQ(backend->loadBindModel(c.model), c.loads) << log.dump();
        EXPECT_EQ(log.countContaining("Model file loaded in: "), c.loads ? 1u : 0u);
        EXPECT_EQ(log.countAt(c.loads ? spdlog::level::info : spdlog::level::err, c.logged), 1u)
            << log.dump();
        EXPECT_EQ(backend->modelWidth, c.loads ? kW : 0u);
        EXPECT_EQ(backend->modelHeight, c.loads ? kH : 0u);
    }
    EXPECT_FALSE(OnnxRuntimeProcessing(2).setCachePath("/tmp"));  // it keeps no compiled model
}

// The compiled-model cache: a folder per model, <cache>/ov/<build, '_' for not
// [0-9A-Za-z.-]>_<FNV-1a of "build\npath\nsize\nmtime">, filled on a first load, reused unchanged
// on the second. A missing or unusable plugin configuration falls back to the default plugins.
TEST(OpenVinoCache, FolderPerModelIdentityFilledOnceAndReused) {
    zyn_test::TempDir dir("zyn-ov-cache");
    const auto folderOf = [&](const fs::path& model) {
        std::string build = ov::get_openvino_version().buildNumber, identity = build;
        std::replace_if(
            build.begin(), build.end(),
            [](char c) { return !std::isalnum(c) && c != '.' && c != '-'; }, '_');
        identity += "\n" + model.string() + "\n" + std::to_string(fs::file_size(model)) + "\n" +
                    std::to_string(fs::last_write_time(model).time_since_epoch().count());
        uint64_t hash = 14695981039346656037ull;
        for (const unsigned char c : identity) {
            hash = (hash ^ c) * 1099511628211ull;
        }
        char hex[17];
        std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(hash));
        return dir / "cache" / "ov" / (build + "_" + hex);
    };
    std::map<fs::path, fs::file_time_type> files;
    for (const char* name : {"a.winml", "a.winml", "b.winml"}) {
        SCOPED_TRACE(name);
        fs::copy_file(TestModel("exact_two_channel.onnx"), dir / name,
                      fs::copy_options::skip_existing);
        LogCapture log;
        OpenVinoProcessing backend(3);
        backend.setCachePath((dir / "cache").string());
        ASSERT_TRUE(backend.loadModel((dir / name).string())) << log.dump();
        EXPECT_TRUE(log.has(spdlog::level::info, "Cache dir " + folderOf(dir / name).string()));
        decltype(files) now;
        for (const auto& e : fs::recursive_directory_iterator(folderOf(dir / name))) {
            now[e.path()] = e.last_write_time();
        }
        EXPECT_EQ(now == files, name == std::string("a.winml") && !files.empty())
            << "a hit reads, a miss writes (and a first load writes something)";
        files = now;
    }
    zyn_test::WriteFile(dir / "broken.xml", "<ie><plugins>");
    for (const std::string file : {"missing.xml", "broken.xml"}) {
        LogCapture log;
        const std::string path = (dir / file).string();
        const auto devices = OpenVinoProcessing::CreateCore(path).get_available_devices();
        EXPECT_NE(std::find(devices.begin(), devices.end(), "CPU"), devices.end());
        EXPECT_EQ(
            log.countAt(spdlog::level::warn, "Plugin configuration " + path +
                                                 (file[0] == 'm' ? " not found" : " not usable") +
                                                 ", using the default plugins"),
            1u)
            << log.dump();
    }
}

TEST(OnnxRuntimeLoad, ModelsThatDoNotFitAndFramesThatDoNotFitAreRefused) {
    zyn_test::TempDir dir("zyn-ort");
    const std::string missing = (dir / "no_such_model.onnx").string();
    const auto image = RandomImage(kW, kH, 2);
    LogCapture log;
    OnnxRuntimeProcessing backend(2);
    VBG::VBGMLState state(kW, kH);
    EXPECT_FALSE(backend.runModel(image.data(), kW, kH, &state));  // nothing loaded
    EXPECT_FALSE(backend.loadBindModel(missing));
    EXPECT_EQ(log.countAt(spdlog::level::err, missing), 1u) << log.dump();
    ASSERT_TRUE(backend.loadModel(TestModel("exact_two_channel.onnx")));
    EXPECT_FALSE(backend.runModel(image.data(), kW, kH, &state));  // loaded, not bound
    ASSERT_TRUE(backend.bindModel());
    VBG::VBGMLState narrow(kW / 2, kH);
    EXPECT_FALSE(backend.runModel(image.data(), kW, kH, &narrow));
    EXPECT_FALSE(backend.runModel(image.data(), kW, kH, nullptr));
    EXPECT_FALSE(backend.runModel(image.data(), 0, kH, &state));
    EXPECT_EQ(log.countAt(spdlog::level::err, "Error: "), 6u) << log.dump();

    // A model without the previous-mask channel is refused at bind, dropping the earlier binding.
    log.clear();
    ASSERT_TRUE(backend.loadModel(TestModel("three_input_channels.onnx")));
    EXPECT_FALSE(backend.bindModel());
    EXPECT_EQ(log.countAt(spdlog::level::err, "[1,3,8,16] must have 4 channels"), 1u) << log.dump();
    EXPECT_EQ(backend.modelWidth, 0u);
    EXPECT_FALSE(backend.runModel(image.data(), kW, kH, &state));
    EXPECT_EQ(PrevMask(state), std::vector<float>(kN, 0.0f));
    ASSERT_TRUE(backend.loadBindModel(TestModel("exact_two_channel.onnx")));
    EXPECT_TRUE(backend.runModel(image.data(), kW, kH, &state));
}

// Channel 1 is the person: the models put 1 - f in channel 0 and another value in channel 2, and
// only the first output of a model with two is read.
TEST(OnnxRuntimeRun, ExactMaskFrameAfterFrameFromOutputChannelOne) {
    const std::pair<const char*, uint32_t> cases[] = {{"exact_two_channel.onnx", 2},
                                                      {"exact_two_channel.onnx", 0},
                                                      {"three_output_channels.onnx", 2},
                                                      {"two_outputs.onnx", 2}};
    const auto image = RandomImage(kW, kH, 5);
    for (const auto& [model, type] : cases) {
        SCOPED_TRACE(std::string(model) + " as type " + std::to_string(type));
        auto backend = std::make_unique<OnnxRuntimeProcessing>(type);
        ASSERT_TRUE(backend->loadBindModel(TestModel(model)));
        auto state = backend->createState();
        // The previous mask (fourth input channel) starts at zero, then each smoothed one goes in.
        for (int frame = 0; frame < 3; ++frame) {
            const auto prev = PrevMask(*state);
            ASSERT_TRUE(backend->runModel(image.data(), kW, kH, state.get()));
            ExpectSmoothedFrame(image.data(), prev, *state);
        }
        // A fresh state starts from zero again: the backend keeps no mask of its own.
        auto fresh = backend->createState();
        ASSERT_TRUE(backend->runModel(image.data(), kW, kH, fresh.get()));
        ExpectSmoothedFrame(image.data(), std::vector<float>(kN, 0.0f), *fresh);
    }
}

class OnnxRuntimeRealModel : public ::testing::Test {
  protected:
    void SetUp() override {
        // The top 512x288 (16:9) of the 512x512 astronaut portrait.
        picture = Picture("astronaut.png", "crop=512:288:0:0", dir.path());
        ASSERT_EQ(picture.size(), 512u * 288u * 4u);
        ASSERT_TRUE(backend.loadBindModel(model.string())) << log.dump();
        ASSERT_EQ(backend.modelWidth, 256u);
        ASSERT_EQ(backend.modelHeight, 144u);
        state = backend.createState();
    }
    const std::filesystem::path model = zyn_test::RealModelsDir() / "model.winml";
    zyn_test::TempDir dir{"zyn-ort-real"};
    LogCapture log;
    std::vector<uint8_t> picture;
    OnnxRuntimeProcessing backend{2};
    std::unique_ptr<VBG::VBGMLState> state;
};

TEST_F(OnnxRuntimeRealModel, MaskCoversThePersonAndNotTheBackground) {
    // A still camera: after a few frames the smoothed mask has settled on the model's answer.
    for (int frame = 0; frame < 6; ++frame) {
        ASSERT_TRUE(backend.runModel(picture.data(), 512, 288, state.get())) << log.dump();
    }
    // Regions read off the picture at mask resolution (x0, x1, y0, y1): face and hair, the neck
    // ring, the suit's shoulders; the wall left and right of the head, the flag, the far wall.
    const struct {
        const char* what;
        uint32_t x0, x1, y0, y1;
        bool person;
    } regions[] = {{"head", 95, 140, 25, 78, true},
                   {"neck ring", 80, 135, 88, 128, true},
                   {"shoulders", 45, 160, 130, 144, true},
                   {"wall left of the head", 50, 70, 0, 65, false},
                   {"wall right of the head", 155, 175, 0, 85, false},
                   {"flag", 0, 40, 0, 75, false},
                   {"wall at the right edge", 232, 256, 0, 100, false}};
    for (const auto& r : regions) {
        size_t hits = 0;
        for (uint32_t y = r.y0; y < r.y1; ++y) {
            for (uint32_t x = r.x0; x < r.x1; ++x) {
                hits += (state->mask[y * state->width + x] >= 128) == r.person;
            }
        }
        EXPECT_GT(hits, (r.x1 - r.x0) * (r.y1 - r.y0) * 9 / 10) << r.what;
    }
}

// The sequential CPU session without spinning pools gives the masks of the runtime's obvious
// set-up (parallel execution, default pools) bit for bit, frame after frame.
TEST_F(OnnxRuntimeRealModel, MaskIsBitIdenticalToTheParallelSessionWithDefaultPools) {
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
    std::vector<float> prev(n, 0.0f);
    std::vector<uint8_t> mask(n);
    for (int frame = 0; frame < 4; ++frame) {
        SCOPED_TRACE(frame);
        ASSERT_TRUE(backend.runModel(picture.data(), 512, 288, state.get())) << log.dump();
        OnnxRuntimeProcessing::FillPlanarInput(backend.getInputBuffer(), prev.data(), n,
                                               input.data());
        session.Run(Ort::RunOptions{nullptr}, inName, &inValue, 1, outName, &outValue, 1);
        OnnxRuntimeProcessing::SmoothMask(output.data() + n, prev.data(), mask.data(), n);
        EXPECT_EQ(std::memcmp(prev.data(), state->prevMask.get(), prev.size() * sizeof(float)), 0);
        EXPECT_EQ(std::memcmp(mask.data(), state->mask.get(), mask.size()), 0);
    }
}

// The byte mask is the model's raw person channel (channel 1, f of ModelF where the model has the
// previous-mask channel), the fed-back float mask the smoothed 0.6 f + 0.4 prev.
TEST(OpenVinoRun, RawByteMaskAndSmoothedPrevMaskFrameAfterFrame) {
    const std::vector<uint8_t> image = RandomImage(kW + 1, kH, 9);
    LogCapture log;
    OpenVinoProcessing unloaded(3);
    unloaded.clearModel();  // nothing to cancel
    VBGMLState wrong(kW + 1, kH);
    EXPECT_FALSE(unloaded.runModel(image.data(), kW, kH, &wrong));
    const std::pair<const char*, bool> models[] = {{"exact_two_channel.onnx", true},
                                                   {"three_output_channels.onnx", true},
                                                   {"three_input_channels.onnx", false}};
    for (const auto& [model, fedBack] : models) {
        SCOPED_TRACE(model);
        OpenVinoProcessing backend(3);
        ASSERT_TRUE(backend.loadBindModel(TestModel(model)));
        EXPECT_FALSE(backend.runModel(image.data(), kW + 1, kH, &wrong));  // not the model's size
        backend.clearModel();  // leaves the model usable
        auto state = backend.createState();
        std::fill_n(state->prevMask.get(), state->size, 0.5f);
        for (int frame = 0; frame < 2; ++frame) {
            const std::vector<float> prev = PrevMask(*state);
            ASSERT_TRUE(backend.runModel(image.data(), kW, kH, state.get()));
            for (int32_t p = 0; p < state->size; ++p) {
                const double f = ModelF(&image[p * 4], fedBack ? prev[p] : 0.0);
                ASSERT_NEAR(state->prevMask[p], 0.6 * f + 0.4 * prev[p], 1e-6) << p;
                // The model runs in f32: its answer is f up to float rounding.
                ASSERT_NEAR(state->mask[p], f * 255.0, 1.0) << p;
                ASSERT_EQ(state->mask[p], static_cast<int>(backend.outputData[state->size + p] *
                                                           static_cast<double>(255.0)))
                    << p;
            }
        }
    }
    EXPECT_EQ(log.countAt(spdlog::level::err, "Error: "), 4u) << log.dump();
    EXPECT_EQ(log.count("Unhandled exception from OpenVINO"), 0u);
}

TEST(OpenVinoAgainstOnnxRuntime, SameMasksOnRealPictures) {
    const std::string model = (zyn_test::RealModelsDir() / "model.winml").string();
    OpenVinoProcessing openVino(3);
    OnnxRuntimeProcessing onnxRuntime(2);
    ASSERT_TRUE(openVino.loadBindModel(model));
    ASSERT_TRUE(onnxRuntime.loadBindModel(model));
    const uint32_t w = openVino.modelWidth, h = openVino.modelHeight;
    ASSERT_EQ(onnxRuntime.modelWidth, w);
    ASSERT_EQ(onnxRuntime.modelHeight, h);
    zyn_test::TempDir dir("zyn-ov-pictures");
    for (const char* name : {"astronaut.png", "camera.png"}) {
        SCOPED_TRACE(name);
        const auto image =
            Picture(name, "scale=" + std::to_string(w) + ":" + std::to_string(h), dir.path());
        ASSERT_EQ(image.size(), size_t{w} * h * 4);
        auto ovState = openVino.createState();
        auto ortState = onnxRuntime.createState();
        // Several frames, so the fed-back mask is compared too.
        for (int frame = 0; frame < 3; ++frame) {
            SCOPED_TRACE(frame);
            ASSERT_TRUE(openVino.runModel(image.data(), w, h, ovState.get()));
            ASSERT_TRUE(onnxRuntime.runModel(image.data(), w, h, ortState.get()));
            float worst = 0.0f;
            int person = 0;
            for (int32_t p = 0; p < ovState->size; ++p) {
                worst = std::max(worst, std::fabs(ovState->prevMask[p] - ortState->prevMask[p]));
                person += ovState->mask[p] >= 128;
            }
            EXPECT_LE(worst, 0.02f);
            // Both backends answering "no person" (or "all person") would agree trivially.
            EXPECT_GT(person, ovState->size / 20);
            EXPECT_LT(person, ovState->size * 19 / 20);
        }
    }
}

}  // namespace
