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

// The one backend of the process. Engine creation and shutdown are serialised by the exported
// calls, so the pointer needs no lock of its own. It is a plain pointer on purpose: the backend is
// released by DestroyVBGMLProcessingInstance, never by static destruction at process exit, when
// the inference runtime may already be gone.
IVBGMLProcessing* g_instance = nullptr;

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

std::pair<IVBGMLProcessing*, bool> GetVBGMLProcessingInstance(uint32_t processingType,
                                                              const std::string& cachePath,
                                                              const std::string& modelPath) {
    if (g_instance == nullptr) {
        ZLOG_INFO("VBG::GetVBGMLProcessingInstance", "GetVBGMLProcessingInstance create");
        g_instance = createBackend(processingType).release();
        if (g_instance == nullptr) {
            // No renderer-wide Direct3D 12 object exists on this platform, so there is nothing
            // else to tear down.
            DestroyVBGMLProcessingInstance();
            return {nullptr, false};
        }
        g_instance->setCachePath(cachePath);
        if (!g_instance->loadBindModel(modelPath)) {
            ZLOG_ERROR("VBG::GetVBGMLProcessingInstance", "loadBindModel failed");
            DestroyVBGMLProcessingInstance();
            return {nullptr, false};
        }
    }
    if (g_instance->processingType != processingType) {
        ZLOG_WARN("VBG::GetVBGMLProcessingInstance",
                  "Processing Type mismatch and hence returning false to fallback");
        return {nullptr, false};
    }
    return {g_instance, true};
}

void DestroyVBGMLProcessingInstance() {
    if (g_instance == nullptr) {
        return;
    }
    ZLOG_INFO("VBG::DestroyVBGMLProcessingInstance", "GetVBGMLProcessingInstance destroy");
    delete g_instance;
    g_instance = nullptr;
}

}  // namespace VBG
