#include "ml/vbg_ml_processing.h"

#include <libyuv/scale_argb.h>

#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "filters/kernel_level.h"

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

// Weights of the temporal smoothing: the new inference and the previous smoothed mask.
constexpr float kNewWeight = 0.6f;
constexpr float kPreviousWeight = 0.4f;

// Byte mask of a value: v * 255 in double precision, truncated toward zero. Values that a model
// should never produce (outside 0..1) are held at the ends instead of wrapping.
inline uint8_t MaskByte(float value) {
    double v = static_cast<double>(value) * 255.0;
    v = v < 0.0 ? 0.0 : (v > 255.0 ? 255.0 : v);
    return static_cast<uint8_t>(v);
}

#if defined(__x86_64__) || defined(__i386__)
#define ZYN_ML_AVX2 1

ZYN_TARGET_BEGIN("avx2")

// Eight pixels a step. byte / 255.0f is what unitFloatTable holds (a correctly rounded division
// either way), and the smoothing multiplies and adds separately, as the plain loop does, so the
// values are the same to the bit. Each returns the pixels done; the caller finishes the tail.
int32_t FillPlanarInputAvx2(const uint8_t* pixels, int32_t n, float* c0, float* c1, float* c2) {
    const __m256i low = _mm256_set1_epi32(0xff);
    const __m256 divisor = _mm256_set1_ps(255.0f);
    int32_t p = 0;
    for (; p + 8 <= n; p += 8) {
        const __m256i px = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pixels + 4 * p));
        _mm256_storeu_ps(c0 + p,
                         _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_and_si256(px, low)), divisor));
        _mm256_storeu_ps(
            c1 + p,
            _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_and_si256(_mm256_srli_epi32(px, 8), low)),
                          divisor));
        _mm256_storeu_ps(
            c2 + p,
            _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_and_si256(_mm256_srli_epi32(px, 16), low)),
                          divisor));
    }
    return p;
}

// MaskByte of eight floats: in double, held to 0..255, truncated.
inline __m128i MaskBytes8(__m256 v) {
    const __m256d scale = _mm256_set1_pd(255.0);
    const __m256d zero = _mm256_setzero_pd();
    const __m256d lo = _mm256_min_pd(
        _mm256_max_pd(_mm256_mul_pd(_mm256_cvtps_pd(_mm256_castps256_ps128(v)), scale), zero),
        scale);
    const __m256d hi = _mm256_min_pd(
        _mm256_max_pd(_mm256_mul_pd(_mm256_cvtps_pd(_mm256_extractf128_ps(v, 1)), scale), zero),
        scale);
    const __m128i words = _mm_packs_epi32(_mm256_cvttpd_epi32(lo), _mm256_cvttpd_epi32(hi));
    return _mm_packus_epi16(words, words);
}

int32_t SmoothMaskAvx2(const float* person, float* prev, uint8_t* mask, int32_t n,
                       bool maskOfSmoothed) {
    const __m256 newWeight = _mm256_set1_ps(kNewWeight);
    const __m256 previousWeight = _mm256_set1_ps(kPreviousWeight);
    int32_t p = 0;
    for (; p + 8 <= n; p += 8) {
        const __m256 m = _mm256_loadu_ps(person + p);
        const __m256 s = _mm256_add_ps(_mm256_mul_ps(newWeight, m),
                                       _mm256_mul_ps(previousWeight, _mm256_loadu_ps(prev + p)));
        _mm256_storeu_ps(prev + p, s);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(mask + p), MaskBytes8(maskOfSmoothed ? s : m));
    }
    return p;
}

ZYN_TARGET_END

bool UseAvx2() {
    static const bool avx2 = BestKernelLevel() == KernelLevel::Avx2;
    return avx2;
}
#endif

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

void IVBGMLProcessing::FillPlanarInput(const uint8_t* pixels, const float* prevMask, int32_t n,
                                       float* planes) {
    const float* table = unitFloatTable;
    float* c0 = planes;
    float* c1 = c0 + n;
    float* c2 = c1 + n;
    int32_t p = 0;
#if ZYN_ML_AVX2
    if (UseAvx2()) {
        p = FillPlanarInputAvx2(pixels, n, c0, c1, c2);
    }
#endif
    for (; p < n; ++p) {
        const uint8_t* px = pixels + static_cast<size_t>(p) * 4;
        c0[p] = table[px[0]];
        c1[p] = table[px[1]];
        c2[p] = table[px[2]];
    }
    if (prevMask != nullptr) {
        std::memcpy(c2 + n, prevMask, static_cast<size_t>(n) * sizeof(float));
    }
}

void IVBGMLProcessing::SmoothMask(const float* person, float* prevMask, uint8_t* mask, int32_t n,
                                  MaskSource source) {
    const bool ofSmoothed = source == MaskSource::Smoothed;
    int32_t p = 0;
#if ZYN_ML_AVX2
    if (UseAvx2()) {
        p = SmoothMaskAvx2(person, prevMask, mask, n, ofSmoothed);
    }
#endif
    for (; p < n; ++p) {
        const float s = kNewWeight * person[p] + kPreviousWeight * prevMask[p];
        mask[p] = MaskByte(ofSmoothed ? s : person[p]);
        prevMask[p] = s;
    }
}

}  // namespace VBG
