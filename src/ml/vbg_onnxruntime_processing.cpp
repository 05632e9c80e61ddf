#include "ml/vbg_onnxruntime_processing.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "gpu/d3d12_utils.h"
#include "selection/processing_type.h"
#include "util/log.h"

namespace VBG {

namespace {

constexpr const char* kInputNames[] = {"input"};
constexpr const char* kOutputNames[] = {"output"};
// The input is filled with three image planes and the previous mask.
constexpr int64_t kInputChannels = 4;
// Channel 1 of the output is the person probability.
constexpr int64_t kPersonChannel = 1;
// Threads that run one inference of the CPU processing types, the calling thread included.
constexpr int kCpuIntraOpThreads = 1;
bool IsDirectMLType(uint32_t processingType) {
    return processingType == 7 || processingType == 8;
}

[[noreturn]] void ThrowModelError(const std::string& message) {
    throw Ort::Exception(std::string(message), ORT_INVALID_GRAPH);
}

std::string DimsText(const std::vector<int64_t>& dims) {
    std::string text = "[";
    for (size_t i = 0; i < dims.size(); ++i) {
        text += (i ? "," : "") + std::to_string(dims[i]);
    }
    return text + "]";
}

}  // namespace

void InitOrtApi() {
    static const OrtApi* const api = [] {
        const OrtApi* table = OrtGetApiBase()->GetApi(kOrtApiVersion);
        if (table != nullptr) {
            Ort::InitApi(table);
        }
        return table;
    }();
    if (api == nullptr) {
        throw Ort::Exception("ONNX Runtime " + std::string(OrtGetApiBase()->GetVersionString()) +
                                 " does not offer API version " + std::to_string(kOrtApiVersion),
                             ORT_FAIL);
    }
}

OnnxRuntimeProcessing::OnnxRuntimeProcessing(uint32_t processingType_)
    : IVBGMLProcessing(processingType_) {
    InitOrtApi();
    // The wrapper's environment sets the C++ language projection (1) on the environment it makes.
    env_ = std::make_unique<Ort::Env>(ORT_LOGGING_LEVEL_WARNING, "");
    if (IsDirectMLType(processingType)) {
        // The DirectML library only exists on the platform that has Direct3D 12; here it is never
        // found, which only matters if a DirectML session is attempted later.
        ZLOG_INFO("VBG::OnnxRuntimeProcessing::OnnxRuntimeProcessing",
                  "Unable to load DirectML.dll, error: {}", ENOENT);
    }
}

OnnxRuntimeProcessing::~OnnxRuntimeProcessing() {
    // Values before the buffers they wrap, then the session, then the environment.
    outputValue_ = Ort::Value{nullptr};
    inputValue_ = Ort::Value{nullptr};
    outputData_.reset();
    inputData_.reset();
    session_.reset();
    env_.reset();
}

Ort::SessionOptions OnnxRuntimeProcessing::CpuSessionOptions() {
    // Not the runtime's obvious set-up (parallel execution, a pool of one thread per core, idle
    // threads spinning for work). The segmentation model is a chain of small operators that runs
    // in about a millisecond: the parallel executor finds nothing to run side by side, and pool
    // threads spinning between operators and between frames spend more CPU waiting than the
    // inference itself (four times the CPU per frame, and slower frames on a busy machine, where
    // the spinning threads take the core the frame thread needs). So the graph runs in order on
    // the frame's own thread, and a pool thread, if kCpuIntraOpThreads ever asks for one, sleeps
    // when idle. The count is fixed rather than taken from the core count: measured on two
    // cores, a second thread made frames no faster and cost about 1 ms more CPU per frame in
    // hand-overs, and a host with more cores gets the same single thread, leaving its other
    // cores to the call's video encoder and decoders. The kernels are the same in every
    // arrangement, and so are the masks.
    Ort::SessionOptions options;
    options.SetExecutionMode(ExecutionMode::ORT_SEQUENTIAL);
    options.SetIntraOpNumThreads(kCpuIntraOpThreads);
    options.SetInterOpNumThreads(1);
    options.AddConfigEntry("session.intra_op.allow_spinning", "0");
    options.AddConfigEntry("session.inter_op.allow_spinning", "0");
    options.EnableMemPattern();
    options.EnableCpuMemArena();
    return options;
}

bool OnnxRuntimeProcessing::loadModel(const std::string& modelPath) {
    const auto start = std::chrono::steady_clock::now();
    try {
        ZLOG_INFO("VBG::OnnxRuntimeProcessing::loadModel", "Available providers:");
        for (const std::string& provider : Ort::GetAvailableProviders()) {
            ZLOG_INFO("VBG::OnnxRuntimeProcessing::loadModel", "{}", provider);
        }

        Ort::SessionOptions options{nullptr};
        switch (processingType) {
            case 0:
            case 2:
                options = CpuSessionOptions();
                break;
            case 7:
            case 8:
                if (!D3D12Utils::IsGpuAvailable()) {
                    ZLOG_ERROR("VBG::OnnxRuntimeProcessing::loadModel",
                               "GPU is not available cannot support onnx DML");
                    return false;
                }
                options = Ort::SessionOptions{};
                // Raises Ort::Exception when this runtime build has no DirectML provider.
                options.AppendExecutionProvider("DML", {{"device_id", "0"}});
                break;
            default:
                ZLOG_ERROR("VBG::OnnxRuntimeProcessing::loadModel", "Unknown processing type {}",
                           ProcessingTypeName(processingType));
                return false;
        }

        session_ = std::make_unique<Ort::Session>(*env_, modelPath.c_str(), options);
    } catch (const Ort::Exception& e) {
        ZLOG_ERROR("VBG::OnnxRuntimeProcessing::loadModel", "Error: {0}", e.what());
        return false;
    }
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    ZLOG_INFO("VBG::OnnxRuntimeProcessing::loadModel", "Model file loaded in: {} ms",
              elapsed.count());
    return true;
}

bool OnnxRuntimeProcessing::bindModel() {
    try {
        if (!session_) {
            throw Ort::Exception("no model is loaded", ORT_FAIL);
        }
        const Ort::TypeInfo inputInfo = session_->GetInputTypeInfo(0);
        const Ort::TypeInfo outputInfo = session_->GetOutputTypeInfo(0);
        const auto inputTensor = inputInfo.GetTensorTypeAndShapeInfo();
        const auto outputTensor = outputInfo.GetTensorTypeAndShapeInfo();
        const std::vector<int64_t> in = inputTensor.GetShape();
        const std::vector<int64_t> out = outputTensor.GetShape();

        // The per-frame loops write four input planes and read output plane 1 over the model's
        // width and height, so a model that does not match is refused here rather than overrun.
        if (inputTensor.GetElementType() != ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT ||
            outputTensor.GetElementType() != ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT) {
            ThrowModelError("model input and output must be float tensors");
        }
        if (in.size() != 4 || out.size() != 4) {
            ThrowModelError("model input " + DimsText(in) + " and output " + DimsText(out) +
                            " must both have 4 dimensions");
        }
        if (in[1] != kInputChannels) {
            ThrowModelError("model input " + DimsText(in) + " must have " +
                            std::to_string(kInputChannels) + " channels");
        }
        if (in[2] <= 0 || in[3] <= 0 || in[2] * in[3] > INT32_MAX) {
            ThrowModelError("model input " + DimsText(in) + " must have a fixed height and width");
        }
        if (out[1] <= kPersonChannel) {
            ThrowModelError("model output " + DimsText(out) + " must have at least " +
                            std::to_string(kPersonChannel + 1) + " fixed channels");
        }

        const auto width = static_cast<uint32_t>(in[3]);
        const auto height = static_cast<uint32_t>(in[2]);
        const size_t pixels = static_cast<size_t>(width) * height;
        const std::array<int64_t, 4> inputShape{1, in[1], in[2], in[3]};
        // The output is expected at the input's size; its own spatial dimensions are not used.
        const std::array<int64_t, 4> outputShape{1, out[1], in[2], in[3]};

        std::unique_ptr<float[]> inputData(new float[pixels * static_cast<size_t>(in[1])]());
        std::unique_ptr<float[]> outputData(new float[pixels * static_cast<size_t>(out[1])]());
        const Ort::MemoryInfo memory =
            Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeCPU);
        Ort::Value inputValue = Ort::Value::CreateTensor<float>(
            memory, inputData.get(), pixels * static_cast<size_t>(in[1]), inputShape.data(),
            inputShape.size());
        Ort::Value outputValue = Ort::Value::CreateTensor<float>(
            memory, outputData.get(), pixels * static_cast<size_t>(out[1]), outputShape.data(),
            outputShape.size());

        // Nothing below can fail: the new binding replaces the old one whole.
        inputValue_ = std::move(inputValue);
        outputValue_ = std::move(outputValue);
        inputData_ = std::move(inputData);
        outputData_ = std::move(outputData);
        inputShape_ = inputShape;
        outputShape_ = outputShape;
        modelWidth = width;
        modelHeight = height;
        modelPixelCount = static_cast<uint32_t>(pixels);
        inputBuffer.reset(new uint8_t[pixels * 4]());

        ZLOG_INFO("VBG::OnnxRuntimeProcessing::bindModel",
                  "Binding complete: WxH: {0}x{1}, input: {2},{3},{4},{5}, output: {6},{7},{8},{9}",
                  modelWidth, modelHeight, in[0], in[1], in[2], in[3], out[0], out[1], out[2],
                  out[3]);
        return true;
    } catch (const Ort::Exception& e) {
        ZLOG_ERROR("VBG::OnnxRuntimeProcessing::bindModel", "Error: {0}", e.what());
        // An earlier binding may not fit the session that failed to bind: drop it, so that
        // runModel refuses to run instead of feeding the session tensors of another model.
        clearBinding();
        return false;
    }
}

void OnnxRuntimeProcessing::clearBinding() {
    inputValue_ = Ort::Value{nullptr};
    outputValue_ = Ort::Value{nullptr};
    inputData_.reset();
    outputData_.reset();
    inputShape_ = {};
    outputShape_ = {};
    modelWidth = 0;
    modelHeight = 0;
    modelPixelCount = 0;
    inputBuffer.reset();
}

bool OnnxRuntimeProcessing::runModel(const uint8_t* image, uint32_t width, uint32_t height,
                                     VBGMLState* state) {
    std::lock_guard<std::mutex> lock(runMutex);
    if (!session_ || !inputValue_ || !outputValue_) {
        ZLOG_ERROR("VBG::OnnxRuntimeProcessing::runModel", "Error: {0}",
                   "runModel called before a model was bound");
        return false;
    }
    if (image == nullptr || state == nullptr ||
        state->size != static_cast<int32_t>(modelPixelCount)) {
        ZLOG_ERROR("VBG::OnnxRuntimeProcessing::runModel", "Error: {0}",
                   "runModel needs an image and a mask state of the model's size");
        return false;
    }
    const uint8_t* pixels = modelSizedImage(image, width, height);
    if (pixels == nullptr) {
        ZLOG_ERROR("VBG::OnnxRuntimeProcessing::runModel", "Error: {0}",
                   "the image cannot be scaled to the model's size");
        return false;
    }
    try {
        FillPlanarInput(pixels, state->prevMask.get(), state->size, inputData_.get());
        session_->Run(Ort::RunOptions{nullptr}, kInputNames, &inputValue_, 1, kOutputNames,
                      &outputValue_, 1);
    } catch (const Ort::Exception& e) {
        ZLOG_ERROR("VBG::OnnxRuntimeProcessing::runModel", "Error: {0}", e.what());
        return false;
    }
    SmoothMask(outputData_.get() + static_cast<size_t>(state->size) * kPersonChannel,
               state->prevMask.get(), state->mask.get(), state->size);
    return true;
}

}  // namespace VBG
