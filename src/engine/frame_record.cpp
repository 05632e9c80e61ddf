#include "engine/frame_record.h"

#include <climits>

#include "util/log.h"

namespace VBG {
namespace {

// The YUV routines take strides as int and step through a plane by stride x row: a stride above
// INT_MAX would turn negative (rows read backwards, before the plane), and a plane of more than
// INT_MAX bytes has offsets that do not fit.
bool planeAddressable(uint32_t stride, uint32_t rows) {
    return stride <= static_cast<uint32_t>(INT_MAX) &&
           static_cast<uint64_t>(stride) * rows <= static_cast<uint64_t>(INT_MAX);
}

}  // namespace

bool FrameRecordUsable(const ZynNativeInputFrame& frame) {
    if (frame.width == 0 || frame.height == 0 || frame.width > kMaxFrameSide ||
        frame.height > kMaxFrameSide) {
        return false;
    }
    const uint32_t cw = (frame.width + 1) / 2;
    const uint32_t ch = (frame.height + 1) / 2;
    switch (frame.format) {
        case ZYN_FORMAT_NV12:
            return frame.plane0 != nullptr && frame.plane1 != nullptr &&
                   frame.stride0 >= frame.width && frame.stride1 >= 2 * cw &&
                   planeAddressable(frame.stride0, frame.height) &&
                   planeAddressable(frame.stride1, ch);
        case ZYN_FORMAT_I420:
            return frame.plane0 != nullptr && frame.plane1 != nullptr && frame.plane2 != nullptr &&
                   frame.stride0 >= frame.width && frame.stride1 >= cw && frame.stride2 >= cw &&
                   planeAddressable(frame.stride0, frame.height) &&
                   planeAddressable(frame.stride1, ch) && planeAddressable(frame.stride2, ch);
        default:
            return true;
    }
}

bool CheckFrameRecord(const char* function, const char* role, const ZynNativeInputFrame* frame) {
    if (frame == nullptr) {
        ZLOG_ERROR(function, "No {} frame record", role);
        return false;
    }
    if (!FrameRecordUsable(*frame)) {
        ZLOG_ERROR(function, "Unusable {} frame: {}x{} format={} strides {} {} {}", role,
                   frame->width, frame->height, frame->format, frame->stride0, frame->stride1,
                   frame->stride2);
        return false;
    }
    return true;
}

}  // namespace VBG
