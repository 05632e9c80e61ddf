// The OpenVINO backend: device choice and model checks, the model cache, the per-frame mask
// arithmetic, the GPU lock file and the CPU plugin configuration; and its masks against the ONNX
// Runtime backend's on the real segmentation model.
#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "config/config_parser.h"
#include "ml/vbg_onnxruntime_processing.h"
#include "ml/vbg_openvino_processing.h"
#include "selection/gpu_lock_file.h"
#include "support/log_capture.h"
#include "support/test_paths.h"
#include "util/zyn_utils.h"

using namespace VBG;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t kW = 16;
constexpr uint32_t kH = 8;

std::string TestModel(const std::string& name) {
    return (zyn_test::TestModelsDir() / name).string();
}

bool OpenVinoHasGpu() {
    const auto devices = ov::Core().get_available_devices();
    return std::count(devices.begin(), devices.end(), "GPU") +
               std::count(devices.begin(), devices.end(), "GPU.0") >
           0;
}

// What follows `prefix` in the first record that starts with it, or "".
std::string AfterPrefix(const zyn_test::LogCapture& log, const std::string& prefix) {
    for (const auto& r : log.records()) {
        if (r.message.compare(0, prefix.size(), prefix) == 0) {
            return r.message.substr(prefix.size());
        }
    }
    return {};
}

// The device named by the "Model file loaded in: N ms and bound to device D" record, or "".
std::string BoundDevice(const zyn_test::LogCapture& log) {
    const std::string loaded = AfterPrefix(log, "Model file loaded in: ");
    const size_t at = loaded.find(" ms and bound to device ");
    return at == std::string::npos ? "" : loaded.substr(at + 24);
}

// B, G, R, A pixels with bytes that differ between channels and pixels.
std::vector<uint8_t> PatternImage(uint32_t width, uint32_t height) {
    std::vector<uint8_t> image(static_cast<size_t>(width) * height * 4);
    for (uint32_t p = 0; p < width * height; ++p) {
        image[p * 4 + 0] = static_cast<uint8_t>((p * 37 + 11) % 256);
        image[p * 4 + 1] = static_cast<uint8_t>((p * 91 + 200) % 256);
        image[p * 4 + 2] = static_cast<uint8_t>((p * 53 + 7) % 256);
        image[p * 4 + 3] = static_cast<uint8_t>(p % 256);  // never read
    }
    return image;
}

std::map<std::string, fs::file_time_type> FilesWithTimes(const fs::path& folder) {
    std::map<std::string, fs::file_time_type> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        files[entry.path().string()] = entry.last_write_time();
    }
    return files;
}

// Points the library configuration's file cache folder at `folder`.
void ConfigureFileCache(const zyn_test::TempDir& dir, const fs::path& folder) {
    const fs::path config = dir / "config.json";
    zyn_test::WriteFile(config, "{\"modelsPath\": \"" + dir.str() + "\", \"logPath\": \"" +
                                    dir.str() + "\", \"fileCachePath\": \"" + folder.string() +
                                    "\"}");
    ASSERT_TRUE(ConfigParser::SetConfig(config.string().c_str()));
}

}  // namespace

TEST(OpenVinoLoad, OutcomeByTypeAndModel) {
    const bool gpu = OpenVinoHasGpu();
    const struct {
        uint32_t type;
        std::string model;
        std::string device;  // bound device, "" when the load fails with `error`
        std::string error;
        uint32_t inputChannels;
    } cases[] = {
        {3, TestModel("exact_two_channel.onnx"), "CPU", "", 4},
        {4, TestModel("exact_two_channel.onnx"), "CPU", "", 4},
        {3, TestModel("three_input_channels.onnx"), "CPU", "", 3},
        {5, TestModel("exact_two_channel.onnx"), "",
         "Requested processing device GPU or device GPU.0  not found", 0},
        {6, TestModel("exact_two_channel.onnx"), "",
         "Requested processing device GPU or device GPU.0  not found", 0},
        {2, TestModel("exact_two_channel.onnx"), "", "Unknown processing type OnnxRuntimeCpu", 0},
        {3, TestModel("two_outputs.onnx"), "", "Sample supports models with 1 output only", 0},
        {3, "/nonexistent/model.winml", "", "/nonexistent/model.winml", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.model + " as type " + std::to_string(c.type));
        if (gpu && c.type >= 5) {
            continue;
        }
        zyn_test::LogCapture log;
        OpenVinoProcessing backend(c.type);
        EXPECT_EQ(backend.loadBindModel(c.model), !c.device.empty()) << log.dump();
        EXPECT_EQ(BoundDevice(log), c.device);
        EXPECT_EQ(backend.inputChannels, c.inputChannels);
        if (!c.error.empty()) {
            EXPECT_EQ(log.countAt(spdlog::level::err, c.error), 1u) << log.dump();
            EXPECT_EQ(backend.modelPixelCount, 0u);
            continue;
        }
        EXPECT_TRUE(
            log.has(spdlog::level::info,
                    "OpenVino version: " + std::string(ov::get_openvino_version().buildNumber)));
        EXPECT_NE(AfterPrefix(log, "Available devices: ").find("CPU"), std::string::npos);
        EXPECT_EQ(backend.modelWidth, kW);
        EXPECT_EQ(backend.modelHeight, kH);
        EXPECT_EQ(backend.outputChannels, 2u);
    }
}

TEST(OpenVinoCache, FolderPerModelIsMadeFilledAndReused) {
    zyn_test::TempDir dir("zyn-ov-cache");
    const fs::path cacheRoot = dir / "not" / "yet" / "there";
    const fs::path model = dir / "model.winml";
    fs::copy_file(TestModel("exact_two_channel.onnx"), model);
    const auto load = [&](uint32_t outputChannels) {
        zyn_test::LogCapture log;
        OpenVinoProcessing backend(3);
        EXPECT_TRUE(backend.setCachePath(cacheRoot.string()));
        EXPECT_TRUE(backend.loadModel(model.string())) << log.dump();
        EXPECT_EQ(backend.outputChannels, outputChannels);
        return AfterPrefix(log, "Cache dir ");
    };
    const std::string first = load(2);
    EXPECT_EQ(fs::path(first).parent_path(), cacheRoot / "ov");
    const auto afterFirst = FilesWithTimes(first);
    EXPECT_FALSE(afterFirst.empty()) << "the compiled model was not cached";
    // A cache hit reads the blob; a miss would compile again and rewrite it.
    EXPECT_EQ(load(2), first);
    EXPECT_EQ(FilesWithTimes(first), afterFirst);
    // Another model under the same name gets a folder of its own.
    fs::copy_file(TestModel("three_output_channels.onnx"), model,
                  fs::copy_options::overwrite_existing);
    const std::string changed = load(3);
    EXPECT_NE(changed, "");
    EXPECT_NE(changed, first);
}

TEST(OpenVinoCache, NoUsableCacheFolderWarnsAndStillLoads) {
    zyn_test::TempDir dir("zyn-ov-cache");
    zyn_test::WriteFile(dir / "a-file", "not a folder");
    const std::pair<std::string, const char*> cases[] = {
        {"", "Cache dir not set"},
        {(dir / "a-file").string(), "getCachePath failed, cache dir not set"}};
    for (const auto& [folder, warning] : cases) {
        zyn_test::LogCapture log;
        OpenVinoProcessing backend(3);
        backend.setCachePath(folder);
        ASSERT_TRUE(backend.loadModel(TestModel("exact_two_channel.onnx")));
        EXPECT_TRUE(log.has(spdlog::level::warn, warning)) << log.dump();
        EXPECT_EQ(AfterPrefix(log, "Cache dir /"), "");
        EXPECT_EQ(BoundDevice(log), "CPU");
    }
}

// The byte mask is the model's raw person channel (channel 1), the fed-back float mask the
// smoothed one: f = 0.25*b0 + 0.5*b1 + 0.125*b2 (bytes / 255) + 0.0625*prev, where the model has
// the previous-mask channel, and prevMask = 0.6 f + 0.4 prev.
TEST(OpenVinoRun, RawByteMaskAndSmoothedPrevMaskFrameAfterFrame) {
    const std::vector<uint8_t> image = PatternImage(kW, kH);
    const std::pair<const char*, bool> models[] = {{"exact_two_channel.onnx", true},
                                                   {"three_output_channels.onnx", true},
                                                   {"three_input_channels.onnx", false}};
    for (const auto& [model, fedBack] : models) {
        SCOPED_TRACE(model);
        OpenVinoProcessing backend(3);
        ASSERT_TRUE(backend.loadBindModel(TestModel(model)));
        auto state = backend.createState();
        std::fill_n(state->prevMask.get(), state->size, 0.5f);
        for (int frame = 0; frame < 2; ++frame) {
            const std::vector<float> prev(state->prevMask.get(),
                                          state->prevMask.get() + state->size);
            ASSERT_TRUE(backend.runModel(image.data(), kW, kH, state.get()));
            for (int32_t p = 0; p < state->size; ++p) {
                const uint8_t* px = &image[p * 4];
                const double f = (0.25 * px[0] + 0.5 * px[1] + 0.125 * px[2]) / 255.0 +
                                 (fedBack ? 0.0625 * prev[p] : 0.0);
                ASSERT_NEAR(state->prevMask[p], 0.6 * f + 0.4 * prev[p], 1e-6) << p;
                // The model runs in f32: its answer is f up to float rounding.
                ASSERT_NEAR(state->mask[p], f * 255.0, 1.0) << p;
                ASSERT_EQ(state->mask[p], static_cast<int>(backend.outputData[state->size + p] *
                                                           static_cast<double>(255.0)))
                    << p;
            }
        }
    }
}

TEST(OpenVinoRun, UnloadedBackendAndMismatchedStateAreRefusedAndClearKeepsTheModel) {
    zyn_test::LogCapture log;
    const std::vector<uint8_t> image = PatternImage(kW + 1, kH);
    OpenVinoProcessing backend(3);
    backend.clearModel();  // nothing to cancel
    VBGMLState state(kW, kH);
    EXPECT_FALSE(backend.runModel(image.data(), kW, kH, &state));
    ASSERT_TRUE(backend.loadBindModel(TestModel("exact_two_channel.onnx")));
    VBGMLState wrong(kW + 1, kH);
    EXPECT_FALSE(backend.runModel(image.data(), kW + 1, kH, &wrong));
    EXPECT_EQ(log.countAt(spdlog::level::err, "Error: "), 2u) << log.dump();

    backend.clearModel();
    EXPECT_EQ(log.count("Unhandled exception from OpenVINO"), 0u) << log.dump();
    EXPECT_TRUE(backend.runModel(image.data(), kW, kH, &state)) << log.dump();
}

// ---- GPU lock file

// A logger whose sink notes, for every record, the lock file's text at that moment ("" when there
// is none): the backend logs from inside loadModel, so this sees the file as the load sees it.
class LockFileProbe : public spdlog::sinks::base_sink<std::mutex> {
  public:
    explicit LockFileProbe(fs::path lockPath) : lockPath_(std::move(lockPath)) {}
    std::vector<std::pair<std::string, std::string>> seen;

  protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        seen.emplace_back(std::string(msg.payload.data(), msg.payload.size()),
                          fs::exists(lockPath_) ? zyn_test::ReadFile(lockPath_) : "");
    }
    void flush_() override {}

  private:
    fs::path lockPath_;
};

TEST(GpuLockFile, HeldForTheWholeLoadOfTypeSixOnly) {
    zyn_test::TempDir dir("zyn-gpu-lock");
    ConfigureFileCache(dir, dir.path());
    const fs::path lockPath = dir / "gpu_lock_file";
    const struct {
        uint32_t type;
        std::string model;
    } cases[] = {{6, TestModel("exact_two_channel.onnx")},
                 {6, "/nonexistent/model.winml"},  // a load that fails for another reason
                 {3, TestModel("exact_two_channel.onnx")},
                 {4, TestModel("exact_two_channel.onnx")},
                 {5, TestModel("exact_two_channel.onnx")}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.model + " as type " + std::to_string(c.type));
        if (c.type == 6) {
            zyn_test::WriteFile(lockPath,
                                "a longer text left by an earlier holder\n");  // truncated
        }
        auto probe = std::make_shared<LockFileProbe>(lockPath);
        auto previous = spdlog::default_logger();
        auto logger = std::make_shared<spdlog::logger>("zyn-lock-probe", probe);
        logger->set_level(spdlog::level::trace);
        spdlog::set_default_logger(logger);
        { OpenVinoProcessing(c.type).loadModel(c.model); }
        spdlog::set_default_logger(previous);
        ASSERT_FALSE(probe->seen.empty());
        for (const auto& [message, text] : probe->seen) {
            EXPECT_EQ(text, c.type == 6 ? "GPU lock file!\n" : "") << message;
        }
        EXPECT_FALSE(fs::exists(lockPath)) << "lock file left behind";
    }
    // The file is owner-only and never written through a link in its place.
    {
        auto lock = CreateGpuLockFile();
        EXPECT_EQ(zyn_test::PermissionBits(lockPath), 0600u);
    }
    zyn_test::WriteFile(dir / "victim", "keep");
    fs::create_symlink(dir / "victim", lockPath);
    { auto lock = CreateGpuLockFile(); }
    EXPECT_EQ(zyn_test::ReadFile(dir / "victim"), "keep");
}

// ---- CPU plugin configuration

TEST(OpenVinoPlugins, CpuTypesUseTheShippedFileAndAnUnusableOneFallsBack) {
    const fs::path shipped = fs::path(Utils::GetLibraryFolder()) / "plugins_cpu.xml";
    for (uint32_t type = 3; type <= 6; ++type) {
        EXPECT_EQ(OpenVinoProcessing::PluginConfigPath(type), type <= 4 ? shipped.string() : "");
    }
    // The build puts the file from the sources beside the code that runs the backend.
    EXPECT_EQ(zyn_test::ReadFile(shipped),
              zyn_test::ReadFile(zyn_test::SourceDir() / "src/ml/plugins_cpu.xml"));

    zyn_test::TempDir dir("zyn-ov-plugins");
    zyn_test::WriteFile(dir / "wrong_plugin.xml",
                        "<ie><plugins><plugin name=\"CPU\" location=\"libno_such_plugin.so\">"
                        "</plugin></plugins></ie>");
    zyn_test::WriteFile(dir / "broken.xml", "<ie><plugins>");
    for (const fs::path& config :
         {shipped, dir / "wrong_plugin.xml", dir / "broken.xml", dir / "missing.xml"}) {
        SCOPED_TRACE(config.string());
        zyn_test::LogCapture log;
        const auto devices =
            OpenVinoProcessing::CreateCore(config.string()).get_available_devices();
        EXPECT_NE(std::find(devices.begin(), devices.end(), "CPU"), devices.end());
        EXPECT_EQ(log.countAt(spdlog::level::warn, "Plugin configuration " + config.string()),
                  config == shipped ? 0u : 1u)
            << log.dump();
    }
}

// ---- Against the ONNX Runtime backend on the real model

TEST(OpenVinoAgainstOnnxRuntime, SameMasksOnRealPictures) {
    const std::string model = (zyn_test::RealModelsDir() / "model.winml").string();
    OpenVinoProcessing openVino(3);
    OnnxRuntimeProcessing onnxRuntime(2);
    ASSERT_TRUE(openVino.loadBindModel(model));
    ASSERT_TRUE(onnxRuntime.loadBindModel(model));
    const uint32_t w = openVino.modelWidth;
    const uint32_t h = openVino.modelHeight;
    ASSERT_EQ(onnxRuntime.modelWidth, w);
    ASSERT_EQ(onnxRuntime.modelHeight, h);

    zyn_test::TempDir dir("zyn-ov-pictures");
    for (const char* name : {"astronaut.png", "camera.png"}) {
        SCOPED_TRACE(name);
        // The picture as B, G, R, A bytes at the model size, by ffmpeg.
        const fs::path raw = dir / "picture.bgra";
        ASSERT_EQ(std::system(("ffmpeg -v error -y -i '" + zyn_test::SampleImage(name).string() +
                               "' -vf scale=" + std::to_string(w) + ":" + std::to_string(h) +
                               " -pix_fmt bgra -f rawvideo '" + raw.string() + "'")
                                  .c_str()),
                  0);
        const std::string image = zyn_test::ReadFile(raw);
        ASSERT_EQ(image.size(), size_t{w} * h * 4);
        const auto* pixels = reinterpret_cast<const uint8_t*>(image.data());
        auto ovState = openVino.createState();
        auto ortState = onnxRuntime.createState();
        // Several frames, so the fed-back mask is compared too.
        for (int frame = 0; frame < 3; ++frame) {
            SCOPED_TRACE(frame);
            ASSERT_TRUE(openVino.runModel(pixels, w, h, ovState.get()));
            ASSERT_TRUE(onnxRuntime.runModel(pixels, w, h, ortState.get()));
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
