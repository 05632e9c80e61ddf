#include "ml/vbg_openvino_processing.h"

#include <openvino/core/except.hpp>
#include <openvino/core/preprocess/pre_post_process.hpp>
#include <openvino/core/version.hpp>
#include <openvino/runtime/properties.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <utility>

#include "selection/gpu_lock_file.h"
#include "selection/processing_type.h"
#include "util/log.h"
#include "util/zyn_utils.h"

namespace VBG {
namespace {

// At most one OpenVINO model load or compilation runs in the process at a time, whichever engine
// asks for it.
std::mutex& LoadMutex() {
    static std::mutex mutex;
    return mutex;
}

// Channel 3 of the model input is the previous smoothed mask; channels 0..2 are image bytes 0..2.
constexpr uint32_t kImageChannels = 3;
constexpr uint32_t kMaskChannel = 3;

// 64-bit FNV-1a: stable across runs and builds, so the same model and runtime give the same
// cache folder name every time.
uint64_t Fnv1a(const std::string& text) {
    uint64_t hash = 14695981039346656037ull;
    for (const unsigned char c : text) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    return hash;
}

// A file-name-safe copy of the runtime's build number ("2026.4.1-22982-e213a147257-releases/...").
std::string FolderSafe(const std::string& text) {
    std::string safe = text;
    for (char& c : safe) {
        const bool keep = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
                          (c >= 'A' && c <= 'Z') || c == '.' || c == '-';
        if (!keep) {
            c = '_';
        }
    }
    return safe;
}

// Spatial size and channel count of an NCHW tensor whose dimensions 1..3 must be known.
struct PlanarShape {
    uint32_t channels = 0;
    uint32_t height = 0;
    uint32_t width = 0;
};

PlanarShape StaticPlanarShape(const ov::PartialShape& shape, const char* what) {
    OPENVINO_ASSERT(shape.rank().is_static() && shape.rank().get_length() == 4, "The model ", what,
                    " must have 4 dimensions (NCHW), it has ", shape);
    OPENVINO_ASSERT(shape[1].is_static() && shape[2].is_static() && shape[3].is_static(),
                    "The model ", what, " needs known channel, height and width, it has ", shape);
    PlanarShape planar;
    planar.channels = static_cast<uint32_t>(shape[1].get_length());
    planar.height = static_cast<uint32_t>(shape[2].get_length());
    planar.width = static_cast<uint32_t>(shape[3].get_length());
    return planar;
}

// How the model is compiled for a device. Devices pick a reduced inference precision by default
// (bf16 on CPUs with AMX or AVX512-BF16); with the mask fed back frame after frame, that moves
// person probabilities by up to a quarter on real pictures. The model is small: run it as
// trained, in f32.
//
// On the CPU, one inference runs at a time on the frame's own thread. The CPU device's defaults
// give a request one worker per core that each inference is split over: for this model of about
// a millisecond, the hand-overs and the workers' waiting for work cost about 2 ms of CPU per
// frame on top (6.3 against 3.9 ms per 1280x720 blur frame, measured on two cores) and made no
// frame faster. So: a single stream, one inference thread, the latency hint, and no pinning of
// threads to cores, which in a host's process would bind the host's frame thread too. A host
// with more cores gets the same: its other cores are left to the call's video encoder and
// decoders.
ov::AnyMap CompileProperties(const std::string& device) {
    ov::AnyMap properties{ov::hint::inference_precision(ov::element::f32)};
    if (device == "CPU") {
        properties.insert({ov::num_streams(1), ov::inference_num_threads(1),
                           ov::hint::performance_mode(ov::hint::PerformanceMode::LATENCY),
                           ov::hint::enable_cpu_pinning(false)});
    }
    return properties;
}

}  // namespace

OpenVinoProcessing::OpenVinoProcessing(uint32_t processingType_)
    : IVBGMLProcessing(processingType_) {}

// The request and the tensors still point into inputData and outputData, so they go first.
OpenVinoProcessing::~OpenVinoProcessing() {
    inferRequest = {};
    inputTensor = {};
    outputTensor = {};
}

bool OpenVinoProcessing::setCachePath(const std::string& path) {
    if (&path != &cachePath) {
        cachePath = path;
    }
    return true;
}

std::string OpenVinoProcessing::PluginConfigPath(uint32_t processingType) {
    if (processingType != 3 && processingType != 4) {
        return {};
    }
    // Beside the library in the build tree, in its private runtime folder when installed.
    return Utils::LibraryCompanionPath("plugins_cpu.xml", Utils::Companion::Data);
}

ov::Core OpenVinoProcessing::CreateCore(const std::string& pluginConfigPath) {
    if (pluginConfigPath.empty()) {
        return ov::Core();
    }
    std::error_code ec;
    if (!std::filesystem::is_regular_file(std::filesystem::u8path(pluginConfigPath), ec)) {
        ZLOG_WARN("VBG::OpenVinoProcessing::CreateCore",
                  "Plugin configuration {} not found, using the default plugins", pluginConfigPath);
        return ov::Core();
    }
    try {
        ov::Core core(pluginConfigPath);
        // Plugins are loaded on first use, and the device list quietly leaves out a plugin that
        // does not load: ask the CPU plugin for its version now, so that a location that does
        // not resolve is found here.
        core.get_versions("CPU");
        return core;
    } catch (const std::exception& e) {
        ZLOG_WARN("VBG::OpenVinoProcessing::CreateCore",
                  "Plugin configuration {} not usable, using the default plugins: {}",
                  pluginConfigPath, e.what());
    }
    return ov::Core();
}

bool OpenVinoProcessing::getCachePath(const std::string& modelPath, std::string& cacheDir) const {
    try {
        const std::filesystem::path model = std::filesystem::u8path(modelPath);
        const std::filesystem::path absoluteModel = std::filesystem::absolute(model);
        const auto size = std::filesystem::file_size(model);
        const auto modified = std::filesystem::last_write_time(model).time_since_epoch().count();
        const std::string& build = ov::get_openvino_version().buildNumber;
        const std::string identity = build + "\n" + absoluteModel.u8string() + "\n" +
                                     std::to_string(size) + "\n" + std::to_string(modified);
        char hash[17];
        std::snprintf(hash, sizeof(hash), "%016llx",
                      static_cast<unsigned long long>(Fnv1a(identity)));
        const std::filesystem::path folder =
            std::filesystem::u8path(cachePath) / "ov" / (FolderSafe(build) + "_" + hash);
        std::filesystem::create_directories(folder);
        cacheDir = folder.u8string();
        return true;
    } catch (const std::exception& e) {
        ZLOG_ERROR("VBG::OpenVinoProcessing::getCachePath", "Error: {0}", e.what());
    }
    return false;
}

std::string OpenVinoProcessing::chooseDevice() const {
    switch (processingType) {
        case 3:
        case 4:
            if (availableDevices.count(cpuDevice) != 0) {
                return cpuDevice;
            }
            ZLOG_ERROR("VBG::OpenVinoProcessing::loadModel",
                       "Requested processing device {} not found", cpuDevice);
            return {};
        case 5:
        case 6:
            if (availableDevices.count(gpuDevice) != 0) {
                return gpuDevice;
            }
            if (availableDevices.count(gpuDeviceFallback) != 0) {
                return gpuDeviceFallback;
            }
            ZLOG_ERROR("VBG::OpenVinoProcessing::loadModel",
                       "Requested processing device {} or device {}  not found", gpuDevice,
                       gpuDeviceFallback);
            return {};
        default:
            ZLOG_ERROR("VBG::OpenVinoProcessing::loadModel", "Unknown processing type {}",
                       ProcessingTypeName(processingType));
            return {};
    }
}

bool OpenVinoProcessing::loadModel(const std::string& modelPath) {
    std::lock_guard<std::mutex> loadLock(LoadMutex());
    // Released (the file deleted) before the load mutex, on every way out.
    std::unique_ptr<GpuLockFile> gpuLock;
    if (processingType == 6) {
        gpuLock = CreateGpuLockFile();
    }
    try {
        ZLOG_INFO("VBG::OpenVinoProcessing::loadModel", "OpenVino version: {}",
                  ov::get_openvino_version().buildNumber);
        const auto start = std::chrono::steady_clock::now();

        ov::Core core = CreateCore(PluginConfigPath(processingType));

        availableDevices.clear();
        std::string deviceList;
        for (const std::string& device : core.get_available_devices()) {
            availableDevices.insert(device);
        }
        for (const std::string& device : availableDevices) {
            deviceList += deviceList.empty() ? device : " " + device;
        }
        ZLOG_INFO("VBG::OpenVinoProcessing::loadModel", "Available devices: {}", deviceList);

        const std::string device = chooseDevice();
        if (device.empty()) {
            return false;
        }

        if (cachePath.empty()) {
            ZLOG_WARN("VBG::OpenVinoProcessing::loadModel", "Cache dir not set");
        } else {
            std::string cacheDir;
            if (getCachePath(modelPath, cacheDir)) {
                core.set_property(ov::cache_dir(cacheDir));
                ZLOG_INFO("VBG::OpenVinoProcessing::loadModel", "Cache dir {}", cacheDir);
            } else {
                ZLOG_WARN("VBG::OpenVinoProcessing::loadModel",
                          "getCachePath failed, cache dir not set");
            }
        }

        std::shared_ptr<ov::Model> model = core.read_model(modelPath);
        OPENVINO_ASSERT(model->inputs().size() == 1, "Sample supports models with 1 input only");
        OPENVINO_ASSERT(model->outputs().size() == 1, "Sample supports models with 1 output only");

        const PlanarShape input = StaticPlanarShape(model->input().get_partial_shape(), "input");
        OPENVINO_ASSERT(input.channels == kImageChannels || input.channels == kImageChannels + 1,
                        "The model input must have 3 or 4 channels, it has ", input.channels);
        const PlanarShape output = StaticPlanarShape(model->output().get_partial_shape(), "output");
        OPENVINO_ASSERT(output.channels >= 2, "The model output has no person channel");
        OPENVINO_ASSERT(output.height == input.height && output.width == input.width,
                        "The model output must have the input's height and width");

        const uint32_t pixelCount = input.width * input.height;
        const ov::Shape inputShape{1, input.channels, input.height, input.width};
        const ov::Shape outputShape{1, output.channels, input.height, input.width};
        auto newInputBuffer = std::make_unique<uint8_t[]>(static_cast<size_t>(pixelCount) * 4);
        auto newInputData =
            std::make_unique<float[]>(static_cast<size_t>(pixelCount) * input.channels);
        auto newOutputData =
            std::make_unique<float[]>(static_cast<size_t>(pixelCount) * output.channels);
        ov::Tensor newInputTensor(ov::element::f32, inputShape, newInputData.get());
        ov::Tensor newOutputTensor(ov::element::f32, outputShape, newOutputData.get());

        // The input tensor is made at the model's own input size, so no resize step is added: a
        // linear resize to the same size gives the same values, but the CPU device still ran it
        // as a pass over all four input planes, about 0.5 ms of every frame.
        ov::preprocess::PrePostProcessor ppp(model);
        ppp.input()
            .tensor()
            .set_shape(inputShape)
            .set_element_type(ov::element::f32)
            .set_layout("NCHW");
        ppp.input().model().set_layout("NCHW");
        ppp.output().tensor().set_element_type(ov::element::f32);
        model = ppp.build();

        ov::CompiledModel compiled = core.compile_model(model, device, CompileProperties(device));
        ov::InferRequest request = compiled.create_infer_request();

        // Everything is in place: replace what an earlier load made in one go.
        inferRequest = std::move(request);
        inputTensor = std::move(newInputTensor);
        outputTensor = std::move(newOutputTensor);
        inputData = std::move(newInputData);
        outputData = std::move(newOutputData);
        inputBuffer = std::move(newInputBuffer);
        modelWidth = input.width;
        modelHeight = input.height;
        modelPixelCount = pixelCount;
        outputChannels = output.channels;
        inputChannels = input.channels;

        const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - start)
                                 .count();
        ZLOG_INFO("VBG::OpenVinoProcessing::loadModel",
                  "Model file loaded in: {} ms and bound to device {}", elapsed, device);
        return true;
    } catch (const ov::Exception& e) {
        ZLOG_ERROR("VBG::OpenVinoProcessing::loadModel", "Error: {0}", e.what());
    } catch (const std::exception& e) {
        ZLOG_ERROR("VBG::OpenVinoProcessing::loadModel", "Error: {0}", e.what());
    }
    return false;
}

bool OpenVinoProcessing::runModel(const uint8_t* image, uint32_t width, uint32_t height,
                                  VBGMLState* state) {
    std::lock_guard<std::mutex> lock(runMutex);
    try {
        OPENVINO_ASSERT(inferRequest, "No model is loaded");
        OPENVINO_ASSERT(image != nullptr && state != nullptr, "No image or no mask state");
        OPENVINO_ASSERT(state->size == static_cast<int32_t>(modelPixelCount), "The mask state has ",
                        state->size, " pixels, the model ", modelPixelCount);
        const uint8_t* pixels = modelSizedImage(image, width, height);
        OPENVINO_ASSERT(pixels != nullptr, "The ", width, "x", height,
                        " image cannot be scaled to the model size");

        const int32_t n = state->size;
        FillPlanarInput(pixels, inputChannels > kMaskChannel ? state->prevMask.get() : nullptr, n,
                        inputData.get());

        inferRequest.set_input_tensor(inputTensor);
        inferRequest.set_output_tensor(outputTensor);
        inferRequest.infer();

        // Only the fed-back float mask is smoothed; the byte mask is the model's own answer.
        SmoothMask(outputData.get() + n, state->prevMask.get(), state->mask.get(), n,
                   MaskSource::ModelOutput);
        return true;
    } catch (const ov::Exception& e) {
        ZLOG_ERROR("VBG::OpenVinoProcessing::runModel", "Error: {0}", e.what());
    } catch (const std::exception& e) {
        ZLOG_ERROR("VBG::OpenVinoProcessing::runModel", "Error: {0}", e.what());
    }
    return false;
}

void OpenVinoProcessing::clearModel() {
    if (!inferRequest) {
        return;
    }
    try {
        inferRequest.cancel();
        inferRequest.wait_for(std::chrono::milliseconds(500));
    } catch (...) {
        ZLOG_ERROR("VBG::OpenVinoProcessing::clearModel", "Unhandled exception from OpenVINO");
    }
}

}  // namespace VBG
