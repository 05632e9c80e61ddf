// Feeds arbitrary bytes to the in-memory picture decoder (PNG, JPEG, GIF with all its frames),
// with smaller limits than the library's so that each input stays cheap. A decoded picture must
// be consistent and must crop and scale like any background.
#include <spdlog/spdlog.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "media/argb_crop.h"
#include "media/picture_decoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = [] {
        spdlog::set_level(spdlog::level::off);
        return true;
    }();
    (void)quiet;

    VBG::Media::PictureLimits limits;
    limits.maxSide = 4096;
    limits.maxPixels = 2048 * 2048;
    limits.maxFrames = 64;
    limits.maxTotalBytes = size_t{64} * 1024 * 1024;
    VBG::Media::DecodedPicture picture;
    if (VBG::Media::DecodePicture(VBG::Media::MediaSource::Memory(data, size), true, picture,
                                  limits) != 0) {
        if (!picture.frames.empty()) {
            __builtin_trap();  // a failure leaves no frames behind
        }
        return 0;
    }
    const size_t frameBytes = static_cast<size_t>(picture.width) * picture.height * 4;
    if (picture.frames.empty() || picture.frames.size() > limits.maxFrames || picture.width <= 0 ||
        picture.height <= 0 || picture.width > limits.maxSide || picture.height > limits.maxSide) {
        __builtin_trap();
    }
    for (const auto& frame : picture.frames) {
        if (frame.argb.size() != frameBytes) {
            __builtin_trap();
        }
    }
    std::vector<uint8_t> scaled(64 * 48 * 4);
    const VBG::Media::CropRect crop =
        VBG::Media::CenteredCrop(picture.width, picture.height, 64, 48);
    if (crop.x < 0 || crop.y < 0 || crop.x + crop.width > picture.width ||
        crop.y + crop.height > picture.height) {
        __builtin_trap();
    }
    VBG::Media::ScaleCropToArgb(picture.frames.back().argb.data(), picture.width * 4, crop,
                                scaled.data(), 64, 48);
    return 0;
}
