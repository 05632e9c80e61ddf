#include "ml/vbg_ml_processing.h"

#include <libyuv/scale_argb.h>

#include "ml/vbg_onnxruntime_processing.h"
#include "util/log.h"
#ifdef ZYN_WITH_OPENVINO
#include "ml/vbg_openvino_processing.h"
#endif

namespace VBG {

float unitFloatTable[256];
uint8_t maskContrastTable[256];

namespace {

// Below this mask value a pixel counts as background; from it up to 1.0 the contrast curve rises
// smoothly to full person.
constexpr float kContrastLow = 0.4f;
constexpr float kContrastHigh = 1.0f;

// Every backend writes the same values, so a reader racing a rewrite sees the same numbers.
void FillSharedTables() {
    for (int i = 0; i < 256; ++i) {
        unitFloatTable[i] = static_cast<float>(i) / 255.0f;
    }
    for (int i = 0; i < 256; ++i) {
        const float v = unitFloatTable[i];
        if (v < kContrastLow) {
            maskContrastTable[i] = 0;
        } else if (v >= kContrastHigh) {
            maskContrastTable[i] = 255;
        } else {
            const float t = (v - kContrastLow) / (kContrastHigh - kContrastLow);
            const float curve = (3.0f - 2.0f * t) * (t * t) * 255.0f;
            maskContrastTable[i] = static_cast<uint8_t>(curve);
        }
    }
}

// The one backend of the process, made, replaced and dropped under its mutex: creates on several
// threads and a shutdown may run at once. The process keeps one reference and every engine that
// uses the backend keeps another, so a shutdown while instances live only drops the process's
// reference: those instances go on processing frames with the backend they have, which is freed
// with the last of them, and the next create makes a new one. (Failing their frames instead would
// still need every frame in flight to be waited for, and would cost a check per frame.) Never
// destroyed: the backend is released by DestroyVBGMLProcessingInstance or by its last engine,
// never by static destruction at process exit, when the inference runtime may already be gone.
struct SharedBackend {
    std::mutex mutex;
    std::shared_ptr<IVBGMLProcessing> instance;
};

SharedBackend& shared() {
    static SharedBackend* const backend = new SharedBackend;
    return *backend;
}

void destroyInstanceLocked() {
    if (!shared().instance) {
        return;
    }
    ZLOG_INFO("VBG::DestroyVBGMLProcessingInstance", "GetVBGMLProcessingInstance destroy");
    shared().instance.reset();
}

}  // namespace

VBGMLState::VBGMLState(uint32_t width_, uint32_t height_)
    : mask(new uint8_t[static_cast<size_t>(width_) * height_]()),
      prevMask(new float[static_cast<size_t>(width_) * height_]()),
      width(width_),
      height(height_),
      size(static_cast<int32_t>(width_ * height_)) {
    ZLOG_INFO("VBG::VBGMLState::VBGMLState", "Constructed VBGMLState with {} x {}", width, height);
}

// prevMask goes before mask, the reverse of their construction.
VBGMLState::~VBGMLState() = default;

IVBGMLProcessing::IVBGMLProcessing(uint32_t processingType_) : processingType(processingType_) {
    FillSharedTables();
}

IVBGMLProcessing::~IVBGMLProcessing() = default;

bool IVBGMLProcessing::loadBindModel(const std::string& modelPath) {
    if (!loadModel(modelPath)) {
        return false;
    }
    return bindModel();
}

bool IVBGMLProcessing::setCachePath(const std::string& /*path*/) {
    return false;
}

std::unique_ptr<VBGMLState> IVBGMLProcessing::createState() {
    return std::make_unique<VBGMLState>(modelWidth, modelHeight);
}

void IVBGMLProcessing::updateStateMask(VBGMLState* /*state*/) {}

const uint8_t* IVBGMLProcessing::modelSizedImage(const uint8_t* image, uint32_t width,
                                                 uint32_t height) {
    if (width == modelWidth && height == modelHeight) {
        return image;
    }
    if (!inputBuffer || width == 0 || height == 0) {
        return nullptr;
    }
    const int rc = libyuv::ARGBScale(image, static_cast<int>(width * 4), static_cast<int>(width),
                                     static_cast<int>(height), inputBuffer.get(),
                                     static_cast<int>(modelWidth * 4), static_cast<int>(modelWidth),
                                     static_cast<int>(modelHeight), libyuv::kFilterBox);
    return rc == 0 ? inputBuffer.get() : nullptr;
}

std::unique_ptr<IVBGMLProcessing> createBackend(uint32_t processingType) {
    switch (processingType) {
        // Type 0 names the CPU runtime of the operating system; there is none here, so the ONNX
        // Runtime CPU backend serves it under the same model contract.
        case 0:
        case 2:
        case 8:
            return std::make_unique<OnnxRuntimeProcessing>(processingType);
#ifdef ZYN_WITH_OPENVINO
        case 3:
        case 4:
        case 5:
        case 6:
            return std::make_unique<OpenVinoProcessing>(processingType);
#endif
        // 1 needs the Direct3D 12 device, which this platform lacks; 7 is retired; 9 is resolved
        // to a concrete type before any backend is asked for.
        default:
            return nullptr;
    }
}

std::pair<std::shared_ptr<IVBGMLProcessing>, bool> GetVBGMLProcessingInstance(
    uint32_t processingType, const std::string& cachePath, const std::string& modelPath) {
    std::lock_guard<std::mutex> lock(shared().mutex);
    std::shared_ptr<IVBGMLProcessing>& instance = shared().instance;
    if (!instance) {
        ZLOG_INFO("VBG::GetVBGMLProcessingInstance", "GetVBGMLProcessingInstance create");
        instance = createBackend(processingType);
        if (!instance) {
            // No renderer-wide Direct3D 12 object exists on this platform, so there is nothing
            // else to tear down.
            destroyInstanceLocked();
            return {nullptr, false};
        }
        instance->setCachePath(cachePath);
        if (!instance->loadBindModel(modelPath)) {
            ZLOG_ERROR("VBG::GetVBGMLProcessingInstance", "loadBindModel failed");
            destroyInstanceLocked();
            return {nullptr, false};
        }
    }
    if (instance->processingType != processingType) {
        ZLOG_WARN("VBG::GetVBGMLProcessingInstance",
                  "Processing Type mismatch and hence returning false to fallback");
        return {nullptr, false};
    }
    return {instance, true};
}

void DestroyVBGMLProcessingInstance() {
    std::lock_guard<std::mutex> lock(shared().mutex);
    destroyInstanceLocked();
}

}  // namespace VBG
