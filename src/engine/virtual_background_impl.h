// The per-instance effect engine: current and pending effect settings, the segmentation backend,
// the per-frame buffers, the background source, the frame statistics and the feedback writer, and
// the fixed per-frame sequence around the path-specific work. Its own frame step is complete: it
// runs an ARGB path (convert to ARGB, segment, composite in ARGB, convert back). The CPU and GPU
// engines derive from it and replace the pixel work.
//
// Threads: frames (processVideoFrame, processPresentationFrame, getFrameProcessingStats,
// getOutputFrameSize) come from the host's frame thread; update, updateWeatherman and
// updateFeedback from its control thread. The control thread only writes the pending records and
// raises atomic flags; the frame thread applies them at the start of its next frame.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "config/config_parser.h"
#include "diag/feedback_writer.h"
#include "diag/frame_processing_stats.h"
#include "engine/byte_buffer.h"
#include "engine/virtual_background.h"
#include "media/picture_decoder.h"
#include "ml/vbg_ml_processing.h"
#include "zyn_native_vbg.h"

namespace VBG {

class Blur;
class BackgroundImage;

class VirtualBackgroundImpl : public VirtualBackground {
  public:
    explicit VirtualBackgroundImpl(uint32_t processingType);
    ~VirtualBackgroundImpl() override;
    VirtualBackgroundImpl(const VirtualBackgroundImpl&) = delete;
    VirtualBackgroundImpl& operator=(const VirtualBackgroundImpl&) = delete;

    // 0 on success, 2 on failure.
    int init(const VBGSettings& settings, uint32_t width, uint32_t height) override;
    bool updateWeatherman(const ZynNativeWeathermanSettings& settings) override;
    bool update(const VBGSettings& settings) override;
    bool processVideoFrame(const ZynNativeInputFrame* input, ZynNativeInputFrame* output) override;
    // Reserved hook: releases a callback object handed to the engine. Nothing hands one over on
    // this platform; a non-null object is deleted through its own release function.
    virtual void releaseCallback(void* callback, void (*release)(void*));
    bool processPresentationFrame(const ZynNativeInputFrame* frames,
                                  ZynNativeInputFrame* output) override;
    bool getOutputFrameSize(uint32_t* width, uint32_t* height) override;
    // Reserved operation of the older renderer interface: always E_FAIL.
    virtual int32_t unsupportedOperation();
    // Reserved operation: nothing to do, 0.
    virtual int32_t noOperation();
    void shutdown() override;
    bool updateFeedback(const ZynFeedbackSettings& feedback) override;
    const char* getFrameProcessingStats(uint32_t* frameWidth, uint32_t* frameHeight,
                                        uint32_t* processingType) override;

    // Segmentation step on an ARGB picture: inference, then the mask applied in place. flagOut
    // receives 0 (the conversion back stays on the CPU).
    virtual bool processVideoFrame(uint8_t* argb, uint32_t width, uint32_t height,
                                   uint32_t* flagOut, bool isPresentation);
    virtual bool createMLProcessing();
    virtual bool processVideoFrameInternal(const ZynNativeInputFrame* input,
                                           ZynNativeInputFrame* output);
    // Presenter compositing; the base engine has none.
    virtual bool processPresentationFrameInternal(const ZynNativeInputFrame* camera,
                                                  const ZynNativeInputFrame* presentation,
                                                  ZynNativeInputFrame* output);
    virtual void applyMask(uint8_t* argb, uint32_t width, uint32_t height);
    virtual bool resetSize(uint32_t width, uint32_t height);
    virtual void releaseBuffers(bool dropBackground);
    // Applies pending presenter settings and reloads the presenter picture. Frame thread only.
    virtual void resetWeatherman();
    virtual void resetPresentationSize(uint32_t width, uint32_t height);
    virtual bool initProcessing();

    uint32_t getProcessingType() const { return processingType; }
    // The settings in force (frame thread).
    const VBGSettings& currentSettings() const { return settings; }

  protected:
    bool initBackgroundImage(const VBGSettings& s);
    void loadBackgroundImage(uint32_t width, uint32_t height);
    void loadBackgroundPresentationImage();
    bool initZynNativeInputFrame(const ZynNativeInputFrame* input);
    bool ConvertZynNativeInputFrameToARGB(const ZynNativeInputFrame* input, uint8_t* dst);
    bool convertArgbToOutputFrame(const uint8_t* argb, ZynNativeInputFrame* output);

    // The frame thread's view of pending effect settings: copies pendingSettings into `out` with
    // the sequence number of that copy; false when no update waits.
    bool takePendingSettings(VBGSettings& out, uint64_t& sequence, bool& resetRequired);
    // Marks the pending settings of `sequence` as applied: `settings` becomes `applied` and the
    // flags are cleared, unless a newer update arrived meanwhile (it then waits for the next
    // frame). Returns whether settings changed.
    void commitPendingSettings(const VBGSettings& applied, uint64_t sequence);
    // Applies presenter settings that updateWeatherman left pending (frame thread).
    void applyPendingWeatherman();

    // Feedback writes around one frame (frame thread).
    void feedbackBeforeFrame(bool writeMask);
    void feedbackAfterFrame(const ZynNativeInputFrame* raw, const ZynNativeInputFrame* final,
                            bool writeMask);
    // The model-size mask as the last frame used it (modelMaskBuffer), which the feedback files
    // hold; the backend's raw mask only before the first frame.
    const uint8_t* usedModelMask() const;

    // Counts presentation frames and, every kPresenterCheckInterval + 1 frames, measures the mean
    // luma of the presentation (0..255) and picks presenterLayout: 2 for a dark presentation
    // (mean below kDarkPresentationLuma), 1 for a light one. Returns the last measure.
    uint32_t getPresentationData(const uint8_t* luma, int stride, uint32_t width, uint32_t height);

    bool touchUpEnabled() const { return (settings.effects & ZYN_EFFECT_TOUCHUP) != 0; }
    bool presenterModeIsRoom() const {
        return weathermanSettings.mode == 3 || weathermanSettings.mode == 4;
    }

    const uint32_t processingType;
    ByteBuffer maskBuffer;
    ByteBuffer backgroundArgbBuffer;
    std::unique_ptr<Blur> frameBlur;
    std::unique_ptr<Blur> maskBlur;
    VBGSettings settings;
    VBGSettings pendingSettings;
    std::atomic<bool> vbgUpdateRequested{false};
    std::atomic<bool> backgroundResetRequired{true};
    ZynNativeWeathermanSettings weathermanSettings;
    ZynNativeWeathermanSettings pendingWeathermanSettings;
    std::atomic<bool> weathermanUpdateRequested{false};
    ByteBuffer argbFrame;
    uint32_t frameWidth = 0;
    uint32_t frameHeight = 0;
    uint32_t presentationWidth = 0;
    uint32_t presentationHeight = 0;
    // Guards the feedback writer between updateFeedback (control thread) and the frame's writes.
    std::mutex engineMutex;
    // The shared inference backend, kept alive by this engine for as long as it lives.
    std::shared_ptr<IVBGMLProcessing> mlBackend;
    IVBGMLProcessing* mlProcessing = nullptr;
    std::unique_ptr<VBGMLState> mlState;
    std::shared_ptr<BackgroundImage> backgroundImage;
    ByteBuffer presentationArgbBuffer;
    uint32_t presenterFrameCounter = 15;
    uint32_t presenterLayout = 1;
    // Scratch of the derived engines' presenter compositing, and the room picture in ARGB.
    ByteBuffer presenterWorkBuffer0;
    ByteBuffer presenterWorkBuffer1;
    ByteBuffer roomPictureArgbBuffer;
    // Decoded background picture of the "newsroom" / "conferenceroom" modes.
    std::shared_ptr<const Media::DecodedPicture> presentationBitmap;
    FrameStats videoStats{"V", 10};
    FrameStats presentationStats{"SS", 10};
    FeedbackWriter feedbackWriter;
    // The backend's model mask as the frame uses it: a copy, blurred (and on the CPU path mapped
    // through the contrast curve). Model-sized, so it is kept across frame size changes: the
    // previous mask of a feedback request is always the one of the frame before.
    ByteBuffer modelMaskBuffer;

    static constexpr uint32_t kPresenterCheckInterval = 15;
    static constexpr uint32_t kDarkPresentationLuma = 131;
    static constexpr uint32_t kPresentationSampleStep = 4;

  private:
    uint32_t lastPresentationLuma_ = 0;
    // Guards the pending records, the staged presenter picture and the update sequence between
    // the control thread and the frame thread. Held only for copies, never across frame work.
    mutable std::mutex pendingMutex_;
    uint64_t pendingSequence_ = 0;
    // Room picture decoded by updateWeatherman for the pending presenter settings.
    std::shared_ptr<const Media::DecodedPicture> pendingPresentationBitmap_;
    bool pendingBitmapStaged_ = false;
    // A feedback request waits for the next frame.
    std::atomic<bool> feedbackRequested_{false};
};

}  // namespace VBG
