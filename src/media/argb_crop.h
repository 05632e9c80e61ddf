// The centred aspect-fill crop of a background and its box scaling to the frame size.
#pragma once

#include <cstdint>

namespace VBG::Media {

struct CropRect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

// The largest rectangle of the target's aspect ratio inside a source of sourceWidth x
// sourceHeight, centred: the picture covers the whole frame and the excess is cut evenly on both
// sides. Integer arithmetic, truncating. A zero target side keeps the whole source side.
CropRect CenteredCrop(int sourceWidth, int sourceHeight, int targetWidth, int targetHeight);

// Scales `crop` of the ARGB source (sourceStride bytes per row) into dst of targetWidth x
// targetHeight (stride targetWidth x 4) with the box filter. Returns false when libyuv refuses
// the sizes.
bool ScaleCropToArgb(const uint8_t* source, int sourceStride, const CropRect& crop, uint8_t* dst,
                     int targetWidth, int targetHeight);

}  // namespace VBG::Media
