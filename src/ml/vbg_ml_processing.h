// The inference backend interface shared by every engine, the per-engine mask state, the two
// shared 256-entry tables and the one process-wide backend instance.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace VBG {

// The mask carried from frame to frame for one engine, at model resolution.
struct VBGMLState {
    VBGMLState(uint32_t width, uint32_t height);
    ~VBGMLState();
    VBGMLState(const VBGMLState&) = delete;
    VBGMLState& operator=(const VBGMLState&) = delete;

    std::unique_ptr<uint8_t[]> mask;    // 0 background .. 255 person
    std::unique_ptr<float[]> prevMask;  // smoothed mask of the previous frame, 0..1
    uint32_t width;
    uint32_t height;
    int32_t size;  // width * height
};

// unitFloatTable[i] = i / 255 (single precision).
extern float unitFloatTable[256];
// maskContrastTable[i]: smoothstep from 0.4 to 1.0 of i / 255, times 255, truncated.
extern uint8_t maskContrastTable[256];

class IVBGMLProcessing {
  public:
    explicit IVBGMLProcessing(uint32_t processingType);
    virtual ~IVBGMLProcessing();
    IVBGMLProcessing(const IVBGMLProcessing&) = delete;
    IVBGMLProcessing& operator=(const IVBGMLProcessing&) = delete;

    // loadModel, then bindModel only if the load succeeded.
    virtual bool loadBindModel(const std::string& modelPath);
    // image: width x height pixels of 4 bytes (B, G, R, A in memory), rows packed.
    virtual bool runModel(const uint8_t* image, uint32_t width, uint32_t height,
                          VBGMLState* state) = 0;
    virtual uint8_t* getInputBuffer() = 0;
    virtual bool setCachePath(const std::string& path);
    virtual std::unique_ptr<VBGMLState> createState();
    virtual void updateStateMask(VBGMLState* state);
    virtual bool loadModel(const std::string& modelPath) = 0;
    virtual bool bindModel() = 0;
    virtual void clearModel() = 0;

    uint32_t modelWidth = 0;
    uint32_t modelHeight = 0;
    uint32_t modelPixelCount = 0;
    const uint32_t processingType;
    std::unique_ptr<uint8_t[]> inputBuffer;  // model-size staging image, 4 bytes a pixel

    // The per-pixel loops around an inference of the CPU backends: eight pixels a step with AVX2,
    // then a scalar tail; every path gives the same bits.
    // Writes planes of n floats: bytes 0, 1 and 2 of each pixel through unitFloatTable, then the
    // previous mask when prevMask is not null. Byte 3 is not used.
    static void FillPlanarInput(const uint8_t* pixels, const float* prevMask, int32_t n,
                                float* planes);
    // Which value the byte mask is made of: the smoothed one, or the model's own output.
    enum class MaskSource { Smoothed, ModelOutput };
    // s = 0.6 * person + 0.4 * prevMask becomes the new prevMask, and mask = (s or person) * 255
    // computed in double precision, held to 0..255 and truncated.
    static void SmoothMask(const float* person, float* prevMask, uint8_t* mask, int32_t n,
                           MaskSource source = MaskSource::Smoothed);

  protected:
    // Engines on different threads share the backend: runModel runs one inference at a time, so
    // that its staging image and its input and output tensors serve one engine's frame at once.
    std::mutex runMutex;

    // Returns the pixels to read for a model-size input: `image` itself when it already has the
    // model size, else `image` box-scaled into inputBuffer.
    const uint8_t* modelSizedImage(const uint8_t* image, uint32_t width, uint32_t height);
};

// The backend for a processing type, or null for types without one.
std::unique_ptr<IVBGMLProcessing> createBackend(uint32_t processingType);

// The process-wide backend: made, given its cache path and loaded on first use; refused (null,
// false) for another processing type while it exists. Callers keep the reference for as long as
// they use the backend.
std::pair<std::shared_ptr<IVBGMLProcessing>, bool> GetVBGMLProcessingInstance(
    uint32_t processingType, const std::string& cachePath, const std::string& modelPath);
// Drops the process's reference; engines that still hold one keep their backend until they go.
void DestroyVBGMLProcessingInstance();

}  // namespace VBG
