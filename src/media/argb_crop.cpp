#include "media/argb_crop.h"

#include <libyuv/scale_argb.h>

#include <algorithm>

namespace VBG::Media {

CropRect CenteredCrop(int sourceWidth, int sourceHeight, int targetWidth, int targetHeight) {
    const int64_t sw = sourceWidth;
    const int64_t sh = sourceHeight;
    CropRect crop;
    crop.width = targetHeight == 0
                     ? sourceWidth
                     : static_cast<int>(std::min<int64_t>(targetWidth * sh / targetHeight, sw));
    crop.height = targetWidth == 0
                      ? sourceHeight
                      : static_cast<int>(std::min<int64_t>(targetHeight * sw / targetWidth, sh));
    crop.x = (sourceWidth - crop.width) / 2;
    crop.y = (sourceHeight - crop.height) / 2;
    return crop;
}

bool ScaleCropToArgb(const uint8_t* source, int sourceStride, const CropRect& crop, uint8_t* dst,
                     int targetWidth, int targetHeight) {
    if (crop.width <= 0 || crop.height <= 0 || targetWidth <= 0 || targetHeight <= 0) {
        return false;
    }
    const uint8_t* origin =
        source + static_cast<int64_t>(crop.y) * sourceStride + static_cast<int64_t>(crop.x) * 4;
    return libyuv::ARGBScale(origin, sourceStride, crop.width, crop.height, dst, targetWidth * 4,
                             targetWidth, targetHeight, libyuv::kFilterBox) == 0;
}

}  // namespace VBG::Media
