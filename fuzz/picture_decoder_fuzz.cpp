// Bytes through the in-memory picture decoder (PNG, JPEG, every GIF frame) with smaller limits than
// the library's: a decoded picture keeps within them and crops and scales like any background; a
// failure leaves no frames.
#include <vector>

#include "fuzz_library.h"
#include "media/argb_crop.h"
#include "media/picture_decoder.h"

using zyn_fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    (void)zyn_fuzz::Scratch();  // the log off
    // Side, pixels, frames, bytes of all frames (the largest file read as the library's).
    const VBG::Media::PictureLimits limits{4096, 2048 * 2048, 64, size_t{64} << 20};
    VBG::Media::DecodedPicture picture;
    if (VBG::Media::DecodePicture(VBG::Media::MediaSource::Memory(data, size), true, picture,
                                  limits) != 0) {
        Require(picture.frames.empty());
        return 0;
    }
    Require(!picture.frames.empty() && picture.frames.size() <= limits.maxFrames &&
            picture.width > 0 && picture.height > 0 && picture.width <= limits.maxSide &&
            picture.height <= limits.maxSide);
    for (const auto& frame : picture.frames) {
        Require(frame.argb.size() == static_cast<size_t>(picture.width) * picture.height * 4);
    }
    const VBG::Media::CropRect crop =
        VBG::Media::CenteredCrop(picture.width, picture.height, 64, 48);
    Require(crop.x >= 0 && crop.y >= 0 && crop.x + crop.width <= picture.width &&
            crop.y + crop.height <= picture.height);
    std::vector<uint8_t> scaled(64 * 48 * 4);
    VBG::Media::ScaleCropToArgb(picture.frames.back().argb.data(), picture.width * 4, crop,
                                scaled.data(), 64, 48);
    return 0;
}
