// Where the presenter and the presentation go in the presenter ("weatherman") layouts. Shared by
// every engine; pure arithmetic on frame sizes and the presenter settings.
#pragma once

#include <cstdint>

#include "zyn_native_vbg.h"

namespace VBG {

// A placed image: top-left corner, size, depth range (always 0..1).
struct Viewport {
    float x = 0.0f;
    float y = 0.0f;
    float width = 0.0f;
    float height = 0.0f;
    float minDepth = 0.0f;
    float maxDepth = 1.0f;
};

// Presenter modes of ZynNativeWeathermanSettings::mode.
enum PresenterMode : int32_t {
    PresenterNone = -1,
    PresenterOverlay = 1,
    PresenterUnderlay = 2,
    PresenterNewsroom = 3,
    PresenterConferenceroom = 4
};

// The presenter scale: the mode's size for the layered modes; for the room modes a fraction of
// the background picture's width relative to the camera width; 0 for other modes.
float PresenterScale(const ZynNativeWeathermanSettings& settings, uint32_t backgroundWidth,
                     uint32_t cameraWidth);

// trunc(cameraWidth * scale) kept as a signed 28-bit value (the upper four bits are dropped).
int32_t PresenterWidth(uint32_t cameraWidth, float scale);
// (width * cameraHeight) / cameraWidth, rounded down to even.
int32_t PresenterHeight(int32_t width, uint32_t cameraWidth, uint32_t cameraHeight);

// Camera viewport of the layered modes ("overlay", "underlay") on a presentation of pw x ph.
// False for other modes or empty sizes.
bool LayeredCameraViewport(const ZynNativeWeathermanSettings& settings, uint32_t cw, uint32_t ch,
                           uint32_t pw, uint32_t ph, Viewport& camera);

// Camera and presentation viewports of the room modes ("newsroom", "conferenceroom") on an output
// of ow x oh (the background picture's size). False for other modes or empty sizes; the
// presentation viewport is then all zero.
bool RoomViewports(const ZynNativeWeathermanSettings& settings, uint32_t backgroundWidth,
                   uint32_t cw, uint32_t ch, uint32_t pw, uint32_t ph, uint32_t ow, uint32_t oh,
                   Viewport& camera, Viewport& presentation);

}  // namespace VBG
