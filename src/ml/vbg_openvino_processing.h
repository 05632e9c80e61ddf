// The OpenVINO backend: runs the segmentation model on OpenVINO's "CPU" device (processing types 3
// and 4) or on its GPU device (types 5 and 6). The model is compiled once per load, with a model
// cache under the configured cache folder, and each frame runs one synchronous inference on tensors
// that wrap this object's own buffers.
#pragma once

#include <openvino/runtime/core.hpp>
#include <openvino/runtime/infer_request.hpp>
#include <openvino/runtime/tensor.hpp>

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "ml/vbg_ml_processing.h"

namespace VBG {

class OpenVinoProcessing : public IVBGMLProcessing {
  public:
    explicit OpenVinoProcessing(uint32_t processingType);
    ~OpenVinoProcessing() override;

    bool runModel(const uint8_t* image, uint32_t width, uint32_t height,
                  VBGMLState* state) override;
    uint8_t* getInputBuffer() override { return inputBuffer.get(); }
    // Keeps the folder under which the compiled-model cache is made; always true.
    bool setCachePath(const std::string& path) override;
    // Reads, describes, compiles and binds the model in one go (bindModel has nothing left to do).
    bool loadModel(const std::string& modelPath) override;
    bool bindModel() override { return true; }
    // Cancels a pending inference, waiting for it at most 500 ms.
    void clearModel() override;

    // The plugin configuration the core of a processing type is made with: "plugins_cpu.xml" in
    // the library's folder for the CPU types 3 and 4, empty (OpenVINO's own registry) otherwise.
    static std::string PluginConfigPath(uint32_t processingType);
    // A core made with the given plugin configuration file (empty: OpenVINO's own registry). When
    // the file is missing, OpenVINO rejects it or the CPU plugin it names does not load, a warning
    // is logged and a core with OpenVINO's own registry is returned instead: a configuration
    // problem must not stop the load.
    static ov::Core CreateCore(const std::string& pluginConfigPath);

    // The folder handed to OpenVINO as its model cache for `modelPath`: cachePath/ov/<key>, where
    // the key changes with the OpenVINO build and with the model file (path, size, modification
    // time), so neither a new runtime nor a replaced model ever picks up a stale compiled blob.
    // Made with its parents; false (and "Error: {0}" logged) when it cannot be made.
    bool getCachePath(const std::string& modelPath, std::string& cacheDir) const;

    ov::InferRequest inferRequest;
    ov::Tensor inputTensor;
    ov::Tensor outputTensor;
    std::unique_ptr<float[]> inputData;   // planar model input, 4 channels
    std::unique_ptr<float[]> outputData;  // planar model output, outputChannels channels
    std::set<std::string> availableDevices;
    std::string cachePath;
    const std::string cpuDevice = "CPU";
    const std::string gpuDevice = "GPU";
    const std::string gpuDeviceFallback = "GPU.0";
    uint32_t inputChannels = 0;   // 4, or 3 for a model without the previous-mask channel
    uint32_t outputChannels = 0;  // channel 1 is the person probability

  private:
    // Chooses the device for the processing type among availableDevices; empty (after logging
    // why) when there is none.
    std::string chooseDevice() const;
};

}  // namespace VBG
