// Checks of the frame records a host hands in, made before anything reads or writes a plane.
#pragma once

#include <cstdint>

#include "zyn_native_vbg.h"

namespace VBG {

// Largest frame side the engines accept.
constexpr uint32_t kMaxFrameSide = 16384;

// Whether the planes of a frame record cover its size, so that nothing reads or writes outside
// the host's buffers, and can be described to the YUV routines (int strides, planes of at most
// INT_MAX bytes). Formats other than NV12 and I420 pass: the steps that convert them refuse them
// by number.
bool FrameRecordUsable(const ZynNativeInputFrame& frame);

// The same with an error record naming the role ("input", "output", "camera", ...), the size, the
// format and the strides; a null record is refused too.
bool CheckFrameRecord(const char* function, const char* role, const ZynNativeInputFrame* frame);

}  // namespace VBG
