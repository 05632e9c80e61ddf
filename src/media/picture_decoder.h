// Decoding of background pictures (PNG, JPEG, GIF with its animation frames) from a file or from
// memory into ARGB frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "media/ffmpeg_helpers.h"

namespace VBG::Media {

struct PictureFrame {
    std::vector<uint8_t> argb;       // width x height x 4, stride width x 4
    uint32_t delayCentiseconds = 0;  // display time stored in the picture; 0 when none
};

struct DecodedPicture {
    int width = 0;
    int height = 0;
    std::vector<PictureFrame> frames;
};

// What one picture may cost. Larger pictures are refused; an animation beyond the frame or
// memory budget keeps the frames that fit.
struct PictureLimits {
    int maxSide = kMaxSide;
    int64_t maxPixels = kMaxPixels;
    size_t maxFrames = 1024;
    size_t maxTotalBytes = size_t{256} * 1024 * 1024;
    // Largest picture file read; a larger one is refused before decoding.
    uint64_t maxFileBytes = kMaxPictureFileBytes;
};

// Decodes the first frame, or every frame when `allFrames` (animations), of the first video
// stream of `source`. A file is read only as a regular file of at most `limits.maxFileBytes`
// (AVERROR(E2BIG) beyond), never through a final link. Returns 0 with at least one frame in
// `picture`, or an FFmpeg error code; every failure is logged with its cause.
int DecodePicture(const MediaSource& source, bool allFrames, DecodedPicture& picture,
                  const PictureLimits& limits = PictureLimits());

}  // namespace VBG::Media
