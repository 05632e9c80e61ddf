// The abstract effect engine that every instance handle holds, and its factory.
#pragma once

#include <cstdint>

#include "config/config_parser.h"
#include "zyn_native_vbg.h"

namespace VBG {

class VirtualBackground {
  public:
    virtual ~VirtualBackground() = default;

    // 0 on success, 1 when the requested processing is not supported on this hardware, any other
    // value on failure.
    virtual int init(const VBGSettings& settings, uint32_t width, uint32_t height) = 0;
    virtual bool updateWeatherman(const ZynNativeWeathermanSettings& settings) = 0;
    virtual bool update(const VBGSettings& settings) = 0;
    virtual bool processVideoFrame(const ZynNativeInputFrame* input,
                                   ZynNativeInputFrame* output) = 0;
    // frames: [0] camera, [1] presentation (see the public header).
    virtual bool processPresentationFrame(const ZynNativeInputFrame* frames,
                                          ZynNativeInputFrame* output) = 0;
    virtual bool getOutputFrameSize(uint32_t* width, uint32_t* height) = 0;
    // Releases the engine's resources; called just before deletion.
    virtual void shutdown() = 0;
    virtual bool updateFeedback(const ZynFeedbackSettings& feedback) = 0;
    // Statistics text owned by the engine (see the public header for its form).
    virtual const char* getFrameProcessingStats(uint32_t* frameWidth, uint32_t* frameHeight,
                                                uint32_t* processingType) = 0;

    // Builds and initialises an engine for settings.pt; null with `error` 3 (initialisation
    // failed) or 5 (not supported on this hardware) on failure.
    static VirtualBackground* createZynNative(const VBGSettings& settings, uint32_t& error,
                                              uint32_t width, uint32_t height);
    // The automatic path (settings.pt 9): follows the stored selection or the usable list.
    static VirtualBackground* createAutoZynNative(const VBGSettings& settings, uint32_t& error,
                                                  uint32_t width, uint32_t height);
    static bool ZynNativeVbgIsSupported();

    // Test suites replace the construction of engines (before init) with their own; null restores
    // the engines of the library.
    using EngineMaker = VirtualBackground* (*)(uint32_t pt);
    static void SetEngineMakerForTesting(EngineMaker maker);
};

}  // namespace VBG
