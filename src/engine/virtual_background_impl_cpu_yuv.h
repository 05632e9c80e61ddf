// The CPU engine: keeps every frame in planar YUV 4:2:0 from input to output and converts only
// the segmentation input to ARGB. Per frame it scales the camera frame down to the model size,
// runs the backend, turns the model mask into a frame-size alpha plane, builds the background
// (picture, video frame or masked blur of the frame at model resolution), optionally applies
// touch-up, and blends camera and background plane by plane.
//
// Work buffers are made once per frame size and reused; once warm, a frame allocates nothing of
// its own.
#pragma once

#include <cstdint>
#include <memory>

#include "engine/frame_record.h"
#include "engine/i420_planes.h"
#include "engine/presenter_geometry.h"
#include "engine/virtual_background_impl.h"
#include "filters/reduce_cpu.h"
#include "filters/upscale_cpu.h"

namespace VBG {

class TouchUpCPU;

class VirtualBackgroundImplYuv : public VirtualBackgroundImpl {
  public:
    explicit VirtualBackgroundImplYuv(uint32_t processingType);
    ~VirtualBackgroundImplYuv() override;

    int init(const VBGSettings& settings, uint32_t width, uint32_t height) override;
    bool processVideoFrameInternal(const ZynNativeInputFrame* input,
                                   ZynNativeInputFrame* output) override;
    bool processPresentationFrameInternal(const ZynNativeInputFrame* camera,
                                          const ZynNativeInputFrame* presentation,
                                          ZynNativeInputFrame* output) override;
    void releaseBuffers(bool dropBackground) override;
    void resetWeatherman() override;

    // Largest frame side the engine accepts.
    static constexpr uint32_t kMaxFrameSide = VBG::kMaxFrameSide;

  protected:
    // Applies pending settings and a new frame size (frame thread, start of a frame).
    bool updateFrameSizeAndSettings(uint32_t width, uint32_t height);
    // Takes the camera planes (I420 as they are, NV12 converted) and, when asked, makes the
    // model input: the frame box-scaled to the model size, in I420 and in ARGB.
    bool updateARGBBuffer(const ZynNativeInputFrame* input, bool makeModelInput);
    bool runMLModel(FrameStats& stats);
    bool composeFrame(const ZynNativeInputFrame* output);
    bool touchUpOnly(const ZynNativeInputFrame* output);
    bool updateOutputFrame(ZynNativeInputFrame* output);
    void loadBackgroundImageInYuv(uint32_t width, uint32_t height);

    // The backend's mask, blurred at model resolution and mapped through the contrast curve, in
    // modelMaskBuffer.
    void prepareModelMask();
    // Where the composed frame goes: the output's own planes (I420) or outputYuvBuffer (NV12).
    I420Planes destinationPlanes(const ZynNativeInputFrame* output);

    // Presenter ("weatherman") compositing.
    void updatePresentationFrameSize(uint32_t width, uint32_t height);
    bool processPresentationFrameForOverlayAndUnderlay(const ZynNativeInputFrame* camera,
                                                       const ZynNativeInputFrame* presentation,
                                                       ZynNativeInputFrame* output, int underlay);
    bool processPresentationFrameForNewsAndConferenceroom(const ZynNativeInputFrame* camera,
                                                          const ZynNativeInputFrame* presentation,
                                                          ZynNativeInputFrame* output);
    // The presentation frame in I420 (its own planes, or presentationYuvBuffer for NV12).
    bool initZynNativeInputPresentationFrame(const ZynNativeInputFrame* presentation,
                                             I420Planes& planes);
    // Segments the camera frame and draws the presenter into `composed` (ow x oh) at `viewport`.
    // underlay: -1 overlay, 0 and 1 the underlay variants (see the .cpp), with `presentation` the
    // picture the presenter is drawn under.
    bool overlayCameraFrameOnPresentation(const ZynNativeInputFrame* camera,
                                          const I420Planes& composed, uint32_t ow, uint32_t oh,
                                          const Viewport& viewport, int underlay);
    bool writePresentationOutput(const I420Planes& composed, uint32_t ow, uint32_t oh,
                                 ZynNativeInputFrame* output);

    ByteBuffer modelYuvBuffer;
    ByteBuffer backgroundYuvBuffer;
    ByteBuffer inputYuvBuffer;
    ByteBuffer outputYuvBuffer;
    std::unique_ptr<Blur> lumaBlur;
    std::unique_ptr<Blur> chromaBlur;
    // The model-sized mask and blurred background enlarged to the frame (one upscaler a plane, so
    // that each carries its filtered rows from band to band).
    PlaneUpscaler maskUpscaler;
    PlaneUpscaler lumaUpscaler;
    PlaneUpscaler chromaUpscaler;
    PlaneUpscaler chromaVUpscaler;
    // Rows of one band of the enlarge-and-blend (even, so that bands start on a chroma row).
    static constexpr int kBandRows = 16;
    ByteBuffer bandBuffer;
    ByteBuffer halfMaskBuffer;
    // The camera frame reduced to the model's size.
    PlaneReducer modelReducer;
    ByteBuffer modelArgbBuffer;
    std::unique_ptr<TouchUpCPU> touchUp;
    // Chroma-resolution alpha of the blend.
    ByteBuffer chromaAlphaBuffer;

    // Presenter work buffers: the presentation in I420 (NV12 presentations), the composed output,
    // the room picture in I420, the presenter scaled to its viewport, its mask, its final alpha
    // (mask times opacity or key) and that alpha at chroma resolution.
    ByteBuffer presentationYuvBuffer;
    ByteBuffer composedYuvBuffer;
    ByteBuffer roomBackgroundYuvBuffer;
    ByteBuffer presenterYuvBuffer;
    ByteBuffer presenterMaskBuffer;
    ByteBuffer presenterAlphaBuffer;
    ByteBuffer presenterChromaAlphaBuffer;

    // The camera planes of the current frame: the input's own, or copies in inputYuvBuffer (the
    // chroma of NV12 input, and the planes an overlapping output would overwrite).
    I420Planes camera_;
    bool copyCameraLuma_ = false;
};

}  // namespace VBG
