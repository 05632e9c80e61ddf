// The effect engine of the GPU path. Its pixel work needs the Direct3D 12 renderer, which this
// platform does not have: the engine is still constructed (with the "no interface" result) so that
// the factory can ask it, and its init answers "not supported on this hardware" (1). A create in
// GPU processing mode then falls back to the CPU engine at the boundary.
#pragma once

#include <cstdint>

#include "engine/virtual_background_impl.h"

namespace VBG {

class VirtualBackgroundImplGPU : public VirtualBackgroundImpl {
  public:
    // HRESULT-style results of the construction.
    static constexpr uint32_t kResultFailed = 0x80004005;       // E_FAIL
    static constexpr uint32_t kResultNoInterface = 0x80004002;  // E_NOINTERFACE: no renderer

    explicit VirtualBackgroundImplGPU(uint32_t processingType);
    ~VirtualBackgroundImplGPU() override;

    // 1 when the renderer could not be made at all, 2 for any other renderer failure.
    int init(const VBGSettings& settings, uint32_t width, uint32_t height) override;

    // Without a renderer every frame step fails; they are not reached, since init fails first.
    using VirtualBackgroundImpl::processVideoFrame;
    bool processVideoFrame(uint8_t* argb, uint32_t width, uint32_t height, uint32_t* flagOut,
                           bool isPresentation) override;
    bool processVideoFrameInternal(const ZynNativeInputFrame* input,
                                   ZynNativeInputFrame* output) override;
    bool processPresentationFrameInternal(const ZynNativeInputFrame* camera,
                                          const ZynNativeInputFrame* presentation,
                                          ZynNativeInputFrame* output) override;
    bool initProcessing() override;

    uint32_t constructionResult() const { return hr; }
    // The mask comes from CPU memory (the inference does not run on the renderer's device).
    bool isWinmlGpuDisabled() const { return winmlGpuDisabled; }

  private:
    bool winmlGpuDisabled = false;
    uint32_t hr = kResultFailed;
};

}  // namespace VBG
