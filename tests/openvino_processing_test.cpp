// The OpenVINO backend: device choice, model cache, model checks, the per-frame mask arithmetic,
// the GPU lock file and the CPU plugin configuration; and its masks against the ONNX Runtime
// backend's on the real segmentation model.
#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "config/config_parser.h"
#include "ml/vbg_ml_processing.h"
#include "ml/vbg_onnxruntime_processing.h"
#include "ml/vbg_openvino_processing.h"
#include "selection/gpu_lock_file.h"
#include "support/log_capture.h"
#include "support/test_paths.h"
#include "util/zyn_utils.h"

using namespace VBG;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t kTestWidth = 16;
constexpr uint32_t kTestHeight = 8;
constexpr const char* kLoad = "VBG::OpenVinoProcessing::loadModel";

std::string TestModel(const std::string& name) {
    return (zyn_test::TestModelsDir() / name).string();
}

bool OpenVinoHasGpu() {
    for (const std::string& device : ov::Core().get_available_devices()) {
        if (device == "GPU" || device == "GPU.0") {
            return true;
        }
    }
    return false;
}

// Records whose message starts with `prefix`.
std::vector<zyn_test::CapturedRecord> RecordsStartingWith(const zyn_test::LogCapture& log,
                                                          const std::string& prefix) {
    std::vector<zyn_test::CapturedRecord> found;
    for (const auto& r : log.records()) {
        if (r.message.compare(0, prefix.size(), prefix) == 0) {
            found.push_back(r);
        }
    }
    return found;
}

// The device named by the "Model file loaded in: N ms and bound to device D" record, or "".
std::string BoundDevice(const zyn_test::LogCapture& log) {
    const std::string tag = " ms and bound to device ";
    for (const auto& r : RecordsStartingWith(log, "Model file loaded in: ")) {
        const size_t at = r.message.find(tag);
        if (at != std::string::npos && r.function == kLoad) {
            return r.message.substr(at + tag.size());
        }
    }
    return {};
}

// The folder named by the "Cache dir {}" record, or "".
std::string LoggedCacheDir(const zyn_test::LogCapture& log) {
    for (const auto& r : RecordsStartingWith(log, "Cache dir /")) {
        return r.message.substr(std::string("Cache dir ").size());
    }
    return {};
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

// Person channel of exact_two_channel.onnx for one pixel and a previous mask value.
double ExpectedPerson(const uint8_t* pixel, float prev) {
    return 0.25 * pixel[0] / 255.0 + 0.5 * pixel[1] / 255.0 + 0.125 * pixel[2] / 255.0 +
           0.0625 * prev;
}

// Files under a folder with their modification times.
std::map<std::string, fs::file_time_type> FilesWithTimes(const fs::path& folder) {
    std::map<std::string, fs::file_time_type> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) {
            files[entry.path().string()] = entry.last_write_time();
        }
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
    ASSERT_EQ(folder.string(), ConfigParser::FileCachePath());
}

}  // namespace

// ---- Device choice

TEST(OpenVinoDevice, CpuTypesBindToTheCpuDevice) {
    for (const uint32_t type : {3u, 4u}) {
        SCOPED_TRACE(type);
        zyn_test::LogCapture log;
        OpenVinoProcessing backend(type);
        ASSERT_TRUE(backend.loadBindModel(TestModel("exact_two_channel.onnx"))) << log.dump();
        EXPECT_EQ("CPU", BoundDevice(log));
        EXPECT_TRUE(
            log.has(spdlog::level::info,
                    "OpenVino version: " + std::string(ov::get_openvino_version().buildNumber)));
        const auto devices = RecordsStartingWith(log, "Available devices: ");
        ASSERT_EQ(1u, devices.size());
        EXPECT_NE(std::string::npos, devices[0].message.find("CPU"));
        EXPECT_EQ(1u, backend.availableDevices.count("CPU"));
        EXPECT_EQ(kTestWidth, backend.modelWidth);
        EXPECT_EQ(kTestHeight, backend.modelHeight);
        EXPECT_EQ(kTestWidth * kTestHeight, backend.modelPixelCount);
        EXPECT_EQ(4u, backend.inputChannels);
        EXPECT_EQ(2u, backend.outputChannels);
    }
}

TEST(OpenVinoDevice, GpuTypesFailWithoutAnOpenVinoGpu) {
    if (OpenVinoHasGpu()) {
        GTEST_SKIP() << "OpenVINO reports a GPU on this machine";
    }
    for (const uint32_t type : {5u, 6u}) {
        SCOPED_TRACE(type);
        zyn_test::LogCapture log;
        OpenVinoProcessing backend(type);
        EXPECT_FALSE(backend.loadBindModel(TestModel("exact_two_channel.onnx")));
        EXPECT_TRUE(log.has(spdlog::level::err,
                            "Requested processing device GPU or device GPU.0  not found"))
            << log.dump();
        EXPECT_EQ("", BoundDevice(log));
        EXPECT_EQ(0u, backend.modelPixelCount);
    }
}

TEST(OpenVinoDevice, TypeWithoutOpenVinoDeviceIsRefusedByName) {
    zyn_test::LogCapture log;
    OpenVinoProcessing backend(2);
    EXPECT_FALSE(backend.loadModel(TestModel("exact_two_channel.onnx")));
    EXPECT_TRUE(log.has(spdlog::level::err, "Unknown processing type OnnxRuntimeCpu"))
        << log.dump();
    EXPECT_EQ("", BoundDevice(log));
}

// ---- Model cache

TEST(OpenVinoCache, EmptyCacheSettingWarnsAndStillLoads) {
    zyn_test::LogCapture log;
    OpenVinoProcessing backend(3);
    EXPECT_TRUE(backend.setCachePath(""));
    ASSERT_TRUE(backend.loadModel(TestModel("exact_two_channel.onnx")));
    EXPECT_TRUE(log.has(spdlog::level::warn, "Cache dir not set"));
    EXPECT_EQ("", LoggedCacheDir(log));
    EXPECT_EQ("CPU", BoundDevice(log));
}

TEST(OpenVinoCache, CacheFolderIsMadeFilledAndReusedBySecondLoad) {
    zyn_test::TempDir dir("zyn-ov-cache");
    const fs::path cacheRoot = dir / "not" / "yet" / "there";
    std::string cacheDir;
    std::map<std::string, fs::file_time_type> afterFirst;
    {
        zyn_test::LogCapture log;
        OpenVinoProcessing backend(3);
        EXPECT_TRUE(backend.setCachePath(cacheRoot.string()));
        EXPECT_EQ(cacheRoot.string(), backend.cachePath);
        ASSERT_TRUE(backend.loadModel(TestModel("exact_two_channel.onnx"))) << log.dump();
        cacheDir = LoggedCacheDir(log);
        EXPECT_TRUE(log.has(spdlog::level::info, "Cache dir " + cacheDir));
        EXPECT_EQ((cacheRoot / "ov").string(), fs::path(cacheDir).parent_path().string());
        ASSERT_TRUE(fs::is_directory(cacheDir));
        afterFirst = FilesWithTimes(cacheDir);
        EXPECT_FALSE(afterFirst.empty()) << "the compiled model was not cached";
    }
    {
        zyn_test::LogCapture log;
        OpenVinoProcessing backend(3);
        backend.setCachePath(cacheRoot.string());
        ASSERT_TRUE(backend.loadModel(TestModel("exact_two_channel.onnx")));
        EXPECT_EQ(cacheDir, LoggedCacheDir(log));
        // A cache hit reads the blob; a miss would compile again and rewrite it.
        EXPECT_EQ(afterFirst, FilesWithTimes(cacheDir));
    }
}

TEST(OpenVinoCache, ChangedModelFileGetsAFolderOfItsOwn) {
    zyn_test::TempDir dir("zyn-ov-cache");
    const fs::path model = dir / "model.winml";
    std::string firstDir;
    {
        fs::copy_file(TestModel("exact_two_channel.onnx"), model);
        zyn_test::LogCapture log;
        OpenVinoProcessing backend(3);
        backend.setCachePath(dir.str());
        ASSERT_TRUE(backend.loadModel(model.string()));
        firstDir = LoggedCacheDir(log);
        EXPECT_EQ(2u, backend.outputChannels);
    }
    {
        fs::copy_file(TestModel("three_output_channels.onnx"), model,
                      fs::copy_options::overwrite_existing);
        zyn_test::LogCapture log;
        OpenVinoProcessing backend(3);
        backend.setCachePath(dir.str());
        ASSERT_TRUE(backend.loadModel(model.string()));
        EXPECT_NE("", LoggedCacheDir(log));
        EXPECT_NE(firstDir, LoggedCacheDir(log));
        EXPECT_EQ(3u, backend.outputChannels);
    }
}

TEST(OpenVinoCache, CacheFolderThatCannotBeMadeWarnsAndStillLoads) {
    zyn_test::TempDir dir("zyn-ov-cache");
    const fs::path blocker = dir / "a-file";
    zyn_test::WriteFile(blocker, "not a folder");
    zyn_test::LogCapture log;
    OpenVinoProcessing backend(3);
    backend.setCachePath(blocker.string());
    ASSERT_TRUE(backend.loadModel(TestModel("exact_two_channel.onnx")));
    EXPECT_TRUE(log.has(spdlog::level::warn, "getCachePath failed, cache dir not set"))
        << log.dump();
    EXPECT_EQ(1u, RecordsStartingWith(log, "Error: ").size());
    EXPECT_EQ("", LoggedCacheDir(log));
    EXPECT_EQ("CPU", BoundDevice(log));
}

// ---- Model checks

TEST(OpenVinoModel, ModelWithTwoOutputsIsRefusedWithTheAssertion) {
    zyn_test::LogCapture log;
    OpenVinoProcessing backend(3);
    EXPECT_FALSE(backend.loadBindModel(TestModel("two_outputs.onnx")));
    const auto errors = RecordsStartingWith(log, "Error: ");
    ASSERT_EQ(1u, errors.size()) << log.dump();
    EXPECT_EQ(spdlog::level::err, errors[0].level);
    EXPECT_EQ(kLoad, errors[0].function);
    EXPECT_NE(std::string::npos, errors[0].message.find("model->outputs().size() == 1"));
    EXPECT_NE(std::string::npos,
              errors[0].message.find("Sample supports models with 1 output only"));
    EXPECT_EQ("", BoundDevice(log));
    EXPECT_EQ(0u, backend.modelPixelCount);
}

TEST(OpenVinoModel, MissingModelFileIsReportedNotThrown) {
    zyn_test::LogCapture log;
    OpenVinoProcessing backend(3);
    EXPECT_FALSE(backend.loadModel("/nonexistent/model.winml"));
    EXPECT_EQ(1u, RecordsStartingWith(log, "Error: ").size()) << log.dump();
}

// ---- Per-frame inference

class OpenVinoRun : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(backend.loadBindModel(TestModel("exact_two_channel.onnx")));
        state = backend.createState();
    }
    OpenVinoProcessing backend{3};
    std::unique_ptr<VBGMLState> state;
};

TEST_F(OpenVinoRun, ByteMaskIsTheRawOutputWhilePrevMaskIsSmoothed) {
    const std::vector<uint8_t> image = PatternImage(kTestWidth, kTestHeight);
    const int32_t n = state->size;
    const float* person = backend.outputData.get() + n;

    // First frame: the previous mask is all zero.
    ASSERT_TRUE(backend.runModel(image.data(), kTestWidth, kTestHeight, state.get()));
    int smoothedDiffers = 0;
    for (int32_t p = 0; p < n; ++p) {
        SCOPED_TRACE(p);
        const double expected = ExpectedPerson(&image[p * 4], 0.0f);
        // The model runs in f32, so its answer is exact up to float rounding.
        EXPECT_NEAR(expected, person[p], 1e-6);
        EXPECT_EQ(static_cast<uint8_t>(static_cast<double>(person[p]) * 255.0), state->mask[p]);
        EXPECT_EQ(0.6f * person[p] + 0.4f * 0.0f, state->prevMask[p]);
        smoothedDiffers += state->mask[p] != static_cast<uint8_t>(state->prevMask[p] * 255.0);
    }
    EXPECT_GT(smoothedDiffers, n / 2);  // the pattern tells raw and smoothed masks apart

    // Second frame: channel 3 is the first frame's smoothed mask.
    const std::vector<float> prev(state->prevMask.get(), state->prevMask.get() + n);
    ASSERT_TRUE(backend.runModel(image.data(), kTestWidth, kTestHeight, state.get()));
    for (int32_t p = 0; p < n; ++p) {
        SCOPED_TRACE(p);
        EXPECT_NEAR(ExpectedPerson(&image[p * 4], prev[p]), person[p], 1e-6);
        EXPECT_EQ(static_cast<uint8_t>(static_cast<double>(person[p]) * 255.0), state->mask[p]);
        EXPECT_EQ(0.6f * person[p] + 0.4f * prev[p], state->prevMask[p]);
    }
}

TEST_F(OpenVinoRun, ImageOfAnotherSizeIsBoxScaledToTheModelSize) {
    // Each 2x2 block of the large image has one colour, so halving it gives the small image.
    const std::vector<uint8_t> small = PatternImage(kTestWidth, kTestHeight);
    std::vector<uint8_t> large(static_cast<size_t>(kTestWidth) * kTestHeight * 16);
    for (uint32_t y = 0; y < kTestHeight * 2; ++y) {
        for (uint32_t x = 0; x < kTestWidth * 2; ++x) {
            std::copy_n(&small[((y / 2) * kTestWidth + x / 2) * 4], 4,
                        &large[(y * kTestWidth * 2 + x) * 4]);
        }
    }
    ASSERT_TRUE(backend.runModel(large.data(), kTestWidth * 2, kTestHeight * 2, state.get()));
    const std::vector<uint8_t> scaledMask(state->mask.get(), state->mask.get() + state->size);

    auto direct = backend.createState();
    ASSERT_TRUE(backend.runModel(small.data(), kTestWidth, kTestHeight, direct.get()));
    EXPECT_EQ(std::vector<uint8_t>(direct->mask.get(), direct->mask.get() + direct->size),
              scaledMask);
}

TEST_F(OpenVinoRun, MismatchedStateIsRefusedAndClearKeepsTheModelUsable) {
    zyn_test::LogCapture log;
    VBGMLState wrong(kTestWidth + 1, kTestHeight);
    const std::vector<uint8_t> image = PatternImage(kTestWidth + 1, kTestHeight);
    EXPECT_FALSE(backend.runModel(image.data(), kTestWidth + 1, kTestHeight, &wrong));
    EXPECT_EQ(1u, RecordsStartingWith(log, "Error: ").size());

    backend.clearModel();
    EXPECT_EQ(0u, log.count("Unhandled exception from OpenVINO")) << log.dump();
    const std::vector<uint8_t> model = PatternImage(kTestWidth, kTestHeight);
    EXPECT_TRUE(backend.runModel(model.data(), kTestWidth, kTestHeight, state.get())) << log.dump();
}

TEST(OpenVinoRunOther, UnloadedBackendRefusesToRun) {
    zyn_test::LogCapture log;
    OpenVinoProcessing backend(3);
    backend.clearModel();  // nothing to cancel
    VBGMLState state(kTestWidth, kTestHeight);
    const std::vector<uint8_t> image = PatternImage(kTestWidth, kTestHeight);
    EXPECT_FALSE(backend.runModel(image.data(), kTestWidth, kTestHeight, &state));
    EXPECT_EQ(1u, RecordsStartingWith(log, "Error: ").size()) << log.dump();
    EXPECT_EQ(0u, log.count("Unhandled exception from OpenVINO"));
}

TEST(OpenVinoRunOther, OnlyOutputChannelOneIsRead) {
    OpenVinoProcessing backend(3);
    ASSERT_TRUE(backend.loadBindModel(TestModel("three_output_channels.onnx")));
    auto state = backend.createState();
    const std::vector<uint8_t> image = PatternImage(kTestWidth, kTestHeight);
    ASSERT_TRUE(backend.runModel(image.data(), kTestWidth, kTestHeight, state.get()));
    for (int32_t p = 0; p < state->size; ++p) {
        EXPECT_NEAR(0.6 * ExpectedPerson(&image[p * 4], 0.0f), state->prevMask[p], 1e-6);
    }
}

TEST(OpenVinoRunOther, ModelWithoutPreviousMaskChannelRunsOnTheImageAlone) {
    OpenVinoProcessing backend(3);
    ASSERT_TRUE(backend.loadBindModel(TestModel("three_input_channels.onnx")));
    EXPECT_EQ(3u, backend.inputChannels);
    auto state = backend.createState();
    std::fill_n(state->prevMask.get(), state->size, 1.0f);
    const std::vector<uint8_t> image = PatternImage(kTestWidth, kTestHeight);
    ASSERT_TRUE(backend.runModel(image.data(), kTestWidth, kTestHeight, state.get()));
    const float* person = backend.outputData.get() + state->size;
    for (int32_t p = 0; p < state->size; ++p) {
        EXPECT_NEAR(ExpectedPerson(&image[p * 4], 0.0f), person[p], 1e-6);
    }
}

// ---- GPU lock file

TEST(GpuLockFile, ExistsWithItsTextWhileHeldAndIsRemovedAfter) {
    zyn_test::TempDir dir("zyn-gpu-lock");
    ConfigureFileCache(dir, dir.path());
    const fs::path lockPath = dir / "gpu_lock_file";
    {
        auto lock = CreateGpuLockFile();
        ASSERT_NE(nullptr, lock);
        EXPECT_EQ("GPU lock file!\n", zyn_test::ReadFile(lockPath));
        EXPECT_EQ(0600u, zyn_test::PermissionBits(lockPath));
        // A second lock truncates rather than appends.
        auto again = CreateGpuLockFile();
        EXPECT_EQ("GPU lock file!\n", zyn_test::ReadFile(lockPath));
    }
    EXPECT_FALSE(fs::exists(lockPath));

    // A link in its place is not written through.
    zyn_test::WriteFile(dir / "victim", "keep");
    fs::create_symlink(dir / "victim", lockPath);
    { auto lock = CreateGpuLockFile(); }
    EXPECT_EQ("keep", zyn_test::ReadFile(dir / "victim"));

    // A cache folder that does not exist: nothing is made and nothing is thrown.
    ConfigureFileCache(dir, dir / "missing");
    { auto lock = CreateGpuLockFile(); }
    EXPECT_FALSE(fs::exists(dir / "missing"));
}

namespace {

// A logger whose sink notes, for every record, whether the lock file exists at that moment: the
// backend logs from inside loadModel, so this sees the file as the load sees it.
class LockFileProbe : public spdlog::sinks::base_sink<std::mutex> {
  public:
    explicit LockFileProbe(fs::path lockPath) : lockPath_(std::move(lockPath)) {}
    std::vector<std::pair<std::string, bool>> seen;

  protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        seen.emplace_back(std::string(msg.payload.data(), msg.payload.size()),
                          fs::exists(lockPath_));
    }
    void flush_() override {}

  private:
    fs::path lockPath_;
};

// Loads `modelPath` with a backend of `type` while probing for the lock file; returns the records
// with what the probe saw.
std::vector<std::pair<std::string, bool>> ProbeLoad(uint32_t type, const std::string& modelPath,
                                                    const fs::path& lockPath, bool& loaded) {
    auto probe = std::make_shared<LockFileProbe>(lockPath);
    auto previous = spdlog::default_logger();
    auto logger = std::make_shared<spdlog::logger>("zyn-lock-probe", probe);
    logger->set_level(spdlog::level::trace);
    spdlog::set_default_logger(logger);
    {
        OpenVinoProcessing backend(type);
        loaded = backend.loadModel(modelPath);
    }
    spdlog::set_default_logger(previous);
    return probe->seen;
}

}  // namespace

TEST(GpuLockFile, HeldForTheWholeLoadOfTypeSixOnly) {
    zyn_test::TempDir dir("zyn-gpu-lock");
    ConfigureFileCache(dir, dir.path());
    const fs::path lockPath = dir / "gpu_lock_file";

    bool loaded = false;
    auto seen = ProbeLoad(6, TestModel("exact_two_channel.onnx"), lockPath, loaded);
    ASSERT_FALSE(seen.empty());
    for (const auto& [message, present] : seen) {
        EXPECT_TRUE(present) << "no lock file at: " << message;
    }
    EXPECT_EQ(loaded, OpenVinoHasGpu());
    EXPECT_FALSE(fs::exists(lockPath)) << "lock file left behind";

    // A type-6 load that fails for another reason still removes it.
    seen = ProbeLoad(6, "/nonexistent/model.winml", lockPath, loaded);
    EXPECT_FALSE(loaded);
    EXPECT_FALSE(fs::exists(lockPath));

    for (const uint32_t type : {3u, 4u, 5u}) {
        SCOPED_TRACE(type);
        seen = ProbeLoad(type, TestModel("exact_two_channel.onnx"), lockPath, loaded);
        ASSERT_FALSE(seen.empty());
        for (const auto& [message, present] : seen) {
            EXPECT_FALSE(present) << "lock file at: " << message;
        }
    }
}

// ---- CPU plugin configuration

TEST(OpenVinoPlugins, CpuTypesUseTheShippedConfigurationFile) {
    const fs::path shipped = fs::path(Utils::GetLibraryFolder()) / "plugins_cpu.xml";
    EXPECT_EQ(shipped.string(), OpenVinoProcessing::PluginConfigPath(3));
    EXPECT_EQ(shipped.string(), OpenVinoProcessing::PluginConfigPath(4));
    EXPECT_EQ("", OpenVinoProcessing::PluginConfigPath(5));
    EXPECT_EQ("", OpenVinoProcessing::PluginConfigPath(6));
    // The build puts the file from the sources beside the code that runs the backend.
    ASSERT_TRUE(fs::exists(shipped));
    EXPECT_EQ(zyn_test::ReadFile(zyn_test::SourceDir() / "src/ml/plugins_cpu.xml"),
              zyn_test::ReadFile(shipped));

    zyn_test::LogCapture log;
    ov::Core core = OpenVinoProcessing::CreateCore(shipped.string());
    EXPECT_EQ(0u, log.records().size()) << log.dump();
    const auto devices = core.get_available_devices();
    EXPECT_NE(devices.end(), std::find(devices.begin(), devices.end(), "CPU"));

    OpenVinoProcessing backend(3);
    ASSERT_TRUE(backend.loadModel(TestModel("exact_two_channel.onnx")));
    EXPECT_EQ(0u, log.countContaining("Plugin configuration")) << log.dump();
}

TEST(OpenVinoPlugins, UnusableConfigurationFallsBackToTheDefaultPlugins) {
    zyn_test::TempDir dir("zyn-ov-plugins");
    const fs::path wrongPlugin = dir / "wrong_plugin.xml";
    zyn_test::WriteFile(wrongPlugin,
                        "<ie><plugins><plugin name=\"CPU\" location=\"libno_such_plugin.so\">"
                        "</plugin></plugins></ie>");
    const fs::path broken = dir / "broken.xml";
    zyn_test::WriteFile(broken, "<ie><plugins>");

    for (const fs::path& config : {wrongPlugin, broken, dir / "missing.xml"}) {
        SCOPED_TRACE(config.string());
        zyn_test::LogCapture log;
        ov::Core core = OpenVinoProcessing::CreateCore(config.string());
        const auto warnings = RecordsStartingWith(log, "Plugin configuration " + config.string());
        ASSERT_EQ(1u, warnings.size()) << log.dump();
        EXPECT_EQ(spdlog::level::warn, warnings[0].level);
        const auto devices = core.get_available_devices();
        EXPECT_NE(devices.end(), std::find(devices.begin(), devices.end(), "CPU"));
    }
}

// ---- Against the ONNX Runtime backend on the real model

namespace {

// The picture decoded by the ffmpeg program into B, G, R, A bytes at the given size.
std::vector<uint8_t> DecodePicture(const fs::path& picture, uint32_t width, uint32_t height,
                                   const zyn_test::TempDir& dir) {
    const fs::path raw = dir / (picture.stem().string() + ".bgra");
    const std::string command =
        "ffmpeg -v error -y -i '" + picture.string() + "' -vf scale=" + std::to_string(width) +
        ":" + std::to_string(height) + " -pix_fmt bgra -f rawvideo '" + raw.string() + "'";
    if (std::system(command.c_str()) != 0) {
        return {};
    }
    const std::string bytes = zyn_test::ReadFile(raw);
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

}  // namespace

TEST(OpenVinoAgainstOnnxRuntime, SameMasksOnRealPictures) {
    const std::string model = (zyn_test::RealModelsDir() / "model.winml").string();
    OpenVinoProcessing openVino(3);
    OnnxRuntimeProcessing onnxRuntime(2);
    ASSERT_TRUE(openVino.loadBindModel(model));
    ASSERT_TRUE(onnxRuntime.loadBindModel(model));
    ASSERT_EQ(onnxRuntime.modelWidth, openVino.modelWidth);
    ASSERT_EQ(onnxRuntime.modelHeight, openVino.modelHeight);

    zyn_test::TempDir dir("zyn-ov-pictures");
    for (const char* name : {"astronaut.png", "camera.png"}) {
        SCOPED_TRACE(name);
        const std::vector<uint8_t> image = DecodePicture(
            zyn_test::SampleImage(name), openVino.modelWidth, openVino.modelHeight, dir);
        ASSERT_EQ(static_cast<size_t>(openVino.modelPixelCount) * 4, image.size());
        auto ovState = openVino.createState();
        auto ortState = onnxRuntime.createState();
        // Several frames, so the fed-back mask is compared too.
        for (int frame = 0; frame < 3; ++frame) {
            SCOPED_TRACE(frame);
            ASSERT_TRUE(openVino.runModel(image.data(), openVino.modelWidth, openVino.modelHeight,
                                          ovState.get()));
            ASSERT_TRUE(onnxRuntime.runModel(image.data(), onnxRuntime.modelWidth,
                                             onnxRuntime.modelHeight, ortState.get()));
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
