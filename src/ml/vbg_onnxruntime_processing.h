// The ONNX Runtime backend: runs the segmentation model on the CPU (processing types 0 and 2) or,
// where a GPU exists, through DirectML (types 7 and 8). Each frame fills a planar four-channel
// input tensor from a 4-byte-pixel image and the previous mask, runs one inference into buffers
// allocated once at bind time, and smooths output channel 1 into the caller's mask state.
#pragma once

// The C++ wrapper is told which function table to use (InitOrtApi) instead of taking the newest
// one the headers know: the backend is written against a fixed API version. Every translation
// unit that uses the wrapper must include it through this header so that they all agree.
#define ORT_API_MANUAL_INIT
#include <onnxruntime_cxx_api.h>
#undef ORT_API_MANUAL_INIT

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "ml/vbg_ml_processing.h"

namespace VBG {

// The ONNX Runtime function-table version the backend asks for.
constexpr uint32_t kOrtApiVersion = 16;

// Installs the function table of kOrtApiVersion for the C++ wrapper (once per process); throws
// Ort::Exception when the loaded runtime does not offer that version.
void InitOrtApi();

class OnnxRuntimeProcessing final : public IVBGMLProcessing {
  public:
    // Throws Ort::Exception when the runtime's environment cannot be made.
    explicit OnnxRuntimeProcessing(uint32_t processingType);
    ~OnnxRuntimeProcessing() override;

    bool runModel(const uint8_t* image, uint32_t width, uint32_t height,
                  VBGMLState* state) override;
    uint8_t* getInputBuffer() override { return inputBuffer.get(); }
    bool loadModel(const std::string& modelPath) override;
    bool bindModel() override;
    // Nothing runs in the background, so there is nothing to cancel.
    void clearModel() override {}

    // The session options of the CPU processing types: sequential execution on the calling
    // thread, no spinning pool threads, memory pattern and CPU arena on.
    static Ort::SessionOptions CpuSessionOptions();

    // Number of channels of the bound model's input and output (0 before bindModel).
    int64_t inputChannels() const { return inputShape_[1]; }
    int64_t outputChannels() const { return outputShape_[1]; }

  private:
    void clearBinding();

    std::unique_ptr<Ort::Env> env_;
    std::unique_ptr<Ort::Session> session_;
    // The tensor values wrap the buffers without owning them; the buffers are declared first so
    // that they outlive the values.
    std::unique_ptr<float[]> inputData_;   // planar, inputChannels planes of modelPixelCount
    std::unique_ptr<float[]> outputData_;  // planar, outputChannels planes of modelPixelCount
    Ort::Value inputValue_{nullptr};
    Ort::Value outputValue_{nullptr};
    std::array<int64_t, 4> inputShape_{};
    std::array<int64_t, 4> outputShape_{};
};

}  // namespace VBG
